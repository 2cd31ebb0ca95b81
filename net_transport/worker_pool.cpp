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
      m_queued.wait(hold, [this] { return m_stopping || !m_tasks.empty(); });
      if (m_stopping) return;
      task = std::move(m_tasks.front());
      m_tasks.pop_front();
    }
    task();
  }
}

}  // namespace kt_net
