#include "foundation/read_write_lock.h"

#include "foundation/single_thread.h"
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
  // A free lock has nobody queued, so its ticket is taken without the mutex;
  // first come, first served is unchanged.
  if (TryLockEx()) return;
  std::unique_lock<std::mutex> hold(mutex);
  const int my = nextTicket.fetch_add(1) + 1;
  ticketServed.wait(hold, [&] { return serving.load() == my; });
}

bool ReadWriteLock::ExclusiveLock::TryLockEx() {
  if (ProcessIsSingleThreaded()) {
    // Nobody can take a ticket meanwhile: plain stores do.
    const int free = serving.load(std::memory_order_relaxed) - 1;
    if (nextTicket.load(std::memory_order_relaxed) != free) return false;
    nextTicket.store(free + 1, std::memory_order_relaxed);
    return true;
  }
  int expected = serving.load() - 1;
  return nextTicket.compare_exchange_strong(expected, expected + 1);
}

void ReadWriteLock::ExclusiveLock::UnlockEx() {
  if (ProcessIsSingleThreaded()) {
    // One thread: nobody queued, nobody asleep.
    serving.store(serving.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  const int held = serving.load();
  if (nextTicket.load() != held) {
    // Tickets are queued behind ours: admit the next one under the mutex.
    {
      std::lock_guard<std::mutex> hold(mutex);
      serving.fetch_add(1);
    }
    ticketServed.notify_all();
    return;
  }
  // Nobody was queued, so nobody sleeps: the next ticket is admitted without
  // the mutex. A thread that queued meanwhile took its ticket before reading
  // `serving`, and we read `nextTicket` again after advancing it (both
  // sequentially consistent): either it sees its turn, or we see its ticket
  // and wake it. Passing through the mutex first makes sure that a waiter that
  // read the old `serving` is already asleep on the condition variable.
  serving.fetch_add(1);
  if (nextTicket.load() == held) return;
  { std::lock_guard<std::mutex> hold(mutex); }
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
  if (!writer.recursive) return false;
  // No write hold at all is the common case; it needs no thread id.
  const unsigned long holder = writer.owner.load(std::memory_order_relaxed);
  return holder != 0 && holder == KTGetCurrentThreadId();
}

void ReadWriteLock::SharedLock::OpenGroup() {
  // A sequentially consistent store is a full fence on its own. Readers that
  // joined count themselves before they look at the generation, and we store
  // it before we count them: when we are alone, a later joiner sees the
  // generation; otherwise a joiner may be asleep on `admitted`, and passing
  // through admitMutex before the broadcast makes sure it is.
  readGeneration.store(writer.serving.load());
  if (readers.load() == 1) return;
  { std::lock_guard<std::mutex> hold(admitMutex); }
  admitted.notify_all();
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
    OpenGroup();
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
  // A reader that counted itself first but has not taken its ticket yet
  // would queue behind ours and be stranded in our group: only a group of
  // nobody may be opened here.
  int none = 0;
  if (!readers.compare_exchange_strong(none, 1)) {
    writer.UnlockEx();  // give the ticket back and report contention
    return false;
  }
  OpenGroup();
  return true;
}

void ReadWriteLock::SharedLock::Unlock() {
  if (OwnedByCallingThread()) {
    writer.Unlock();
    return;
  }
  std::lock_guard<std::mutex> release(releaseMutex);
  // Releases are serialised here, so only joining readers can change the
  // count under us. The last reader clears the generation before it closes
  // the group and before the ticket moves on: a reader arriving in between
  // must not join on the stale generation and read beside the next writer.
  // Had a reader joined meanwhile, the group goes on: the generation is put
  // back and a joiner that found it cleared is woken.
  if (readers.load() == 1) {
    readGeneration.store(0);
    int one = 1;
    if (readers.compare_exchange_strong(one, 0)) {
      writer.UnlockEx();
      return;
    }
    OpenGroup();
  }
  readers.fetch_sub(1);
}

}  // namespace MetricsFramework
