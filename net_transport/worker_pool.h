// WorkerPool: a fixed number of threads that run queued tasks in the order
// they were queued (one thread: strictly one after the other).
//
// Submit may be called from any thread. Stop runs nothing more that is
// queued, waits for the tasks that are running and joins the threads; it is
// idempotent and the destructor calls it. A task must not call Stop.
#ifndef KT_NET_TRANSPORT_WORKER_POOL_H_
#define KT_NET_TRANSPORT_WORKER_POOL_H_

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
  void Stop();

 private:
  void Work();

  const size_t m_limit;
  std::mutex m_mutex;
  std::condition_variable m_queued;
  std::deque<std::function<void()>> m_tasks;
  bool m_stopping = false;
  std::vector<std::thread> m_threads;
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_WORKER_POOL_H_
