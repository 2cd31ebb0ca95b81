#include "net_transport/worker_pool.h"

namespace kt_net {

WorkerPool::WorkerPool(size_t threads, size_t limit) : m_limit(limit) {
  for (size_t i = 0; i < threads; ++i) m_threads.emplace_back([this] { Work(); });
}

WorkerPool::~WorkerPool() { Stop(); }

bool WorkerPool::Submit(std::function<void()> task) {
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_stopping || m_tasks.size() >= m_limit) return false;
    m_tasks.push_back(std::move(task));
  }
  m_queued.notify_one();
  return true;
}

void WorkerPool::Every(std::chrono::milliseconds period, std::function<void()> task) {
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_periodic = std::move(task);
    m_period = period;
    m_nextPeriodic = Clock::now() + period;
  }
  // A waiting thread learns the new time to wake at.
  m_queued.notify_all();
}

void WorkerPool::Stop() {
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_stopping = true;
    m_tasks.clear();
  }
  m_queued.notify_all();
  for (std::thread& thread : m_threads) {
    if (thread.joinable()) thread.join();
  }
}

void WorkerPool::Work() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> hold(m_mutex);
      while (!m_stopping && !(task = TakeDue())) {
        if (m_periodic) {
          m_queued.wait_until(hold, m_nextPeriodic);
        } else {
          m_queued.wait(hold);
        }
      }
      if (m_stopping) return;
    }
    task();
  }
}

std::function<void()> WorkerPool::TakeDue() {
  if (!m_tasks.empty()) {
    std::function<void()> task = std::move(m_tasks.front());
    m_tasks.pop_front();
    return task;
  }
  if (!m_periodic || Clock::now() < m_nextPeriodic) return nullptr;
  // Counted from now: a late round does not make the next ones come in a burst.
  m_nextPeriodic = Clock::now() + m_period;
  return m_periodic;
}

}  // namespace kt_net
