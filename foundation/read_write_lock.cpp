#include "foundation/read_write_lock.h"

#include "kt/platform.h"

namespace MetricsFramework {

ReadWriteLock::ExclusiveLock::ExclusiveLock(bool recursive)
    : recursive(recursive), depth(0), owner(0) {
  serving.store(1);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  nextTicket.store(0);
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

void ReadWriteLock::ExclusiveLock::LockEx() {
  std::unique_lock<std::mutex> hold(mutex);
  const int my = nextTicket.fetch_add(1) + 1;
  ticketServed.wait(hold, [&] { return serving.load() == my; });
}

bool ReadWriteLock::ExclusiveLock::TryLockEx() {
  int expected = serving.load() - 1;
  return nextTicket.compare_exchange_strong(expected, expected + 1);
}

void ReadWriteLock::ExclusiveLock::UnlockEx() {
  {
    std::lock_guard<std::mutex> hold(mutex);
    serving.fetch_add(1);
  }
  ticketServed.notify_all();
}

void ReadWriteLock::ExclusiveLock::Lock() {
  if (!recursive) {
    LockEx();
    return;
  }
  const unsigned long tid = KTGetCurrentThreadId();
  if (owner.load(std::memory_order_relaxed) != tid) {
    LockEx();
    owner.store(tid, std::memory_order_relaxed);
  }
  ++depth;
}

bool ReadWriteLock::ExclusiveLock::TryLock() {
  if (!recursive) return TryLockEx();
  const unsigned long tid = KTGetCurrentThreadId();
  if (owner.load(std::memory_order_relaxed) == tid) {
    ++depth;
    return true;
  }
  if (!TryLockEx()) return false;
  owner.store(tid, std::memory_order_relaxed);
  ++depth;
  return true;
}

void ReadWriteLock::ExclusiveLock::Unlock() {
  if (!recursive) {
    UnlockEx();
    return;
  }
  if (--depth != 0) return;
  owner.store(0, std::memory_order_relaxed);
  UnlockEx();
}

ReadWriteLock::SharedLock::SharedLock(bool recursive) : writer(recursive) {
  readers.store(0);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  readGeneration.store(0);
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

ReadWriteLock::SharedLock::~SharedLock() {
  // Read holds still outstanding are released, so that a waiting writer gets in.
  while (readers.load() > 0) Unlock();
}

bool ReadWriteLock::SharedLock::OwnedByCallingThread() const {
  return writer.recursive && writer.owner.load(std::memory_order_relaxed) == KTGetCurrentThreadId();
}

void ReadWriteLock::SharedLock::Lock() {
  // A thread that holds the write side may look up within what it guards; a
  // second ticket would queue behind its own and never come up, so the read
  // only counts on the write hold.
  if (OwnedByCallingThread()) {
    writer.Lock();
    return;
  }
  if (readers.fetch_add(1) == 0) {
    writer.LockEx();
    {
      std::lock_guard<std::mutex> hold(admitMutex);
      readGeneration.store(writer.serving.load());
      std::atomic_thread_fence(std::memory_order_seq_cst);
    }
    admitted.notify_all();
    return;
  }
  std::unique_lock<std::mutex> hold(admitMutex);
  admitted.wait(hold, [&] { return writer.serving.load() == readGeneration.load(); });
}

bool ReadWriteLock::SharedLock::TryLock() {
  if (OwnedByCallingThread()) {
    writer.Lock();
    return true;
  }
  if (readGeneration.load() == writer.serving.load()) {
    std::lock_guard<std::mutex> hold(releaseMutex);
    if (readGeneration.load() == writer.serving.load()) {
      readers.fetch_add(1);
      return true;
    }
  }
  if (!writer.TryLockEx()) return false;
  bool opened;
  {
    std::lock_guard<std::mutex> hold(admitMutex);
    // A reader that counted itself first but has not taken its ticket yet
    // would queue behind ours and be stranded in our group: only a group of
    // nobody may be opened here.
    int none = 0;
    opened = readers.compare_exchange_strong(none, 1);
    if (opened) {
      readGeneration.store(writer.serving.load());
      std::atomic_thread_fence(std::memory_order_seq_cst);
    }
  }
  if (!opened) {
    writer.UnlockEx();  // give the ticket back and report contention
    return false;
  }
  admitted.notify_all();
  return true;
}

void ReadWriteLock::SharedLock::Unlock() {
  if (OwnedByCallingThread()) {
    writer.Unlock();
    return;
  }
  std::lock_guard<std::mutex> release(releaseMutex);
  bool last = false;
  {
    // The last reader closes the group under admitMutex and clears the
    // generation before the ticket moves on: a reader arriving in between must
    // not join on the stale generation and read beside the next writer.
    std::lock_guard<std::mutex> hold(admitMutex);
    if (readers.fetch_sub(1) == 1) {
      readGeneration.store(0);
      last = true;
    }
  }
  if (last) writer.UnlockEx();
}

}  // namespace MetricsFramework
