// WorkerPool: a fixed number of threads that run queued tasks in the order
// they were queued (one thread: strictly one after the other), and at most one
// periodic task between them.
//
// Submit and Every may be called from any thread. Stop runs nothing more that
// is queued, waits for the tasks that are running and joins the threads; it
// is idempotent and the destructor calls it. A task must not call Stop.
#ifndef KT_NET_TRANSPORT_WORKER_POOL_H_
#define KT_NET_TRANSPORT_WORKER_POOL_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kt_net {

class WorkerPool {
 public:
  // `limit` bounds the queue: Submit refuses beyond it.
  WorkerPool(size_t threads, size_t limit);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Queues `task`; false, and `task` dropped, when the pool is stopped or its
  // queue is full.
  bool Submit(std::function<void()> task);
  // Runs `task` every `period` on one of the threads, between queued tasks
  // (a queued task goes first when both are due), the first time one period
  // from now; replaces the periodic task given before.
  void Every(std::chrono::milliseconds period, std::function<void()> task);
  void Stop();

 private:
  using Clock = std::chrono::steady_clock;
  void Work();
  // The next task to run, when one is due; the caller holds m_mutex.
  std::function<void()> TakeDue();

  const size_t m_limit;
  std::mutex m_mutex;
  std::condition_variable m_queued;
  std::deque<std::function<void()>> m_tasks;
  bool m_stopping = false;
  std::function<void()> m_periodic;  // empty when none
  std::chrono::milliseconds m_period{0};
  Clock::time_point m_nextPeriodic;
  std::vector<std::thread> m_threads;
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_WORKER_POOL_H_
