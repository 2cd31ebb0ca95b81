// LeafMutex: a small non-recursive mutex for data that is held briefly and
// never while another lock is taken or anyone is called (a buffer's queue and
// arenas).
//
// Taking it free is one compare-and-swap and releasing it with nobody waiting
// is one exchange; while the process runs one thread, both are plain stores
// (foundation/single_thread.h). A thread that finds it held waits on a condition variable;
// nothing spins, yields or sleeps. Not fair: a releasing thread may take it
// again before a woken waiter does.
//
//   LeafMutex mutex;
//   { std::lock_guard<LeafMutex> hold(mutex); ... }
//
// It meets the standard's Lockable requirements for std::lock_guard.
#ifndef KT_FOUNDATION_LEAF_MUTEX_H_
#define KT_FOUNDATION_LEAF_MUTEX_H_

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "foundation/single_thread.h"

namespace MetricsFramework {

class LeafMutex {
 public:
  LeafMutex() = default;
  LeafMutex(const LeafMutex&) = delete;
  LeafMutex& operator=(const LeafMutex&) = delete;

  void lock() {
    if (ProcessIsSingleThreaded()) {
      state.store(kHeld, std::memory_order_relaxed);  // nobody else to hold it
      return;
    }
    int free = kFree;
    if (state.compare_exchange_strong(free, kHeld, std::memory_order_acquire)) return;
    LockSlow();
  }
  bool try_lock() {
    int free = kFree;
    return state.compare_exchange_strong(free, kHeld, std::memory_order_acquire);
  }
  void unlock() {
    if (ProcessIsSingleThreaded()) {
      state.store(kFree, std::memory_order_relaxed);  // nobody else to wake
      return;
    }
    if (state.exchange(kFree, std::memory_order_release) == kContended) WakeOne();
  }

 private:
  enum : int { kFree = 0, kHeld = 1, kContended = 2 };

  // A waiter marks the mutex contended before it sleeps, so that the holder's
  // release wakes it; it takes the mutex as contended, since others may still
  // wait. The release passes through waitMutex before it notifies, so a
  // waiter that saw the mutex held is already asleep then.
  void LockSlow() {
    std::unique_lock<std::mutex> hold(waitMutex);
    while (state.exchange(kContended, std::memory_order_acquire) != kFree) released.wait(hold);
  }
  void WakeOne() {
    { std::lock_guard<std::mutex> hold(waitMutex); }
    released.notify_one();
  }

  std::atomic<int> state{kFree};
  std::mutex waitMutex;
  std::condition_variable released;
};

}  // namespace MetricsFramework

#endif  // KT_FOUNDATION_LEAF_MUTEX_H_
