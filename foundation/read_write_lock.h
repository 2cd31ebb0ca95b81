// ReadWriteLock: the reader/writer lock that guards every shared object of the
// framework (registry nodes, state objects, buffers, the client manager).
//
// Both sides share one ticket lock, ExclusiveLock. Tickets are admitted
// strictly in the order taken, so writers are served first come, first served.
// A group of readers holds one ticket between them: the first reader of a group
// takes it, later readers join at once while the group holds and wait on a
// condition variable while the first reader is still queued. Readers are
// preferred: once a group holds, new readers keep joining it even when a writer
// is waiting, so a steady stream of overlapping readers can starve writers.
// Nested reads rely on that preference.
//
// Built recursive, the write side may be taken again by the thread that holds
// it (each Lock needs its Unlock), and that thread may also take the read side,
// which then only counts on its write hold. No operation spins, yields or
// sleeps: all waiting is on condition variables.
//
// The mutexes guard only the waiting. A hold that meets nobody (a free ticket
// taken, a group opened with no reader waiting to join, a ticket released
// with none queued behind it) is a few atomic operations and one pass through
// the release mutex; each path that skips a mutex re-reads, after its own
// change, the counter the other side changes first, so a waiter is either
// seen and woken or sees its turn itself.
// While the process runs one thread, the write side is taken and released
// with plain stores (foundation/single_thread.h).
//
//   ReadWriteLock lock(true);
//   lock.GetReadLock()->Lock();   // shared
//   lock.GetReadLock()->Unlock();
//
// Holders that may return early use ReadGuard and WriteGuard (below).
#ifndef KT_FOUNDATION_READ_WRITE_LOCK_H_
#define KT_FOUNDATION_READ_WRITE_LOCK_H_

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "kt/lock.h"

namespace MetricsFramework {

// The interface of every object that carries a reader/writer lock.
class IReadWriteLock {
 public:
  virtual ILock* GetReadLock() = 0;   // slot 0: the shared face
  virtual ILock* GetWriteLock() = 0;  // slot 1: the exclusive face

 protected:
  ~IReadWriteLock() = default;  // not deleted through this interface
};

class ReadWriteLock : public IReadWriteLock {
 public:
  // The write side: a FIFO ticket lock. The lock is free exactly when
  // nextTicket == serving - 1.
  class ExclusiveLock : public ILock {
   public:
    explicit ExclusiveLock(bool recursive);
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;
    ~ExclusiveLock() override = default;

    // Takes a ticket and waits for it; records no owner and never recurses.
    void LockEx();
    // Takes the lock only when it is free; never waits.
    bool TryLockEx();
    // Admits the next ticket.
    void UnlockEx();

    // With `recursive`, the owning thread's nested calls only count depth.
    void Lock() override;
    bool TryLock() override;
    // Unlock checks neither the calling thread nor underflow.
    void Unlock() override;

   private:
    friend class ReadWriteLock;
    friend class SharedLock;
    friend class ReadWriteLockInspector;  // tests read the counters

    std::atomic<int> serving;
    std::atomic<int> nextTicket;
    bool recursive;
    int depth;
    // Read by other threads while the owner writes it, hence atomic; relaxed
    // is enough because a thread only ever compares it with its own id.
    std::atomic<unsigned long> owner;
    std::mutex mutex;
    std::condition_variable ticketServed;
  };

  // The read side. Its destructor releases read holds still outstanding.
  class SharedLock : public ILock {
   public:
    explicit SharedLock(bool recursive);
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;
    ~SharedLock() override;

    void Lock() override;
    bool TryLock() override;
    void Unlock() override;

    ILock* GetExclusiveLock() { return &writer; }

   private:
    friend class ReadWriteLockInspector;

    bool OwnedByCallingThread() const;
    // Publishes the group's generation once its first reader holds the ticket
    // and wakes readers waiting to join.
    void OpenGroup();

    std::atomic<int> readGeneration;
    std::atomic<int> readers;
    std::mutex releaseMutex;
    ExclusiveLock writer;
    std::mutex admitMutex;
    std::condition_variable admitted;
  };

  explicit ReadWriteLock(bool recursive) : shared(recursive) {}
  ReadWriteLock(const ReadWriteLock&) = delete;
  ReadWriteLock& operator=(const ReadWriteLock&) = delete;

  ILock* GetReadLock() override { return &shared; }
  ILock* GetWriteLock() override { return shared.GetExclusiveLock(); }

 private:
  SharedLock shared;
};

// Holds one face of a lock for a scope, so that every return and every throw
// releases it.
class LockGuard {
 public:
  explicit LockGuard(ILock* lock) : m_lock(lock) { m_lock->Lock(); }
  ~LockGuard() { m_lock->Unlock(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  ILock* m_lock;
};

class ReadGuard : public LockGuard {
 public:
  explicit ReadGuard(IReadWriteLock& lock) : LockGuard(lock.GetReadLock()) {}
};

class WriteGuard : public LockGuard {
 public:
  explicit WriteGuard(IReadWriteLock& lock) : LockGuard(lock.GetWriteLock()) {}
};

}  // namespace MetricsFramework

#endif  // KT_FOUNDATION_READ_WRITE_LOCK_H_
