// SPDX-License-Identifier: Apache-2.0
//
// ILock, the small lock interface behind every lock of the framework, and
// Monitor, a plain recursive mutex.
//
// A Monitor may be locked again by the thread that holds it; each Lock() needs
// its Unlock(). TryLock() never waits: it answers false while another thread
// holds the monitor. Errors of the platform mutex are ignored, except that
// TryLock() reports any failure as false.
//
//   Monitor monitor;
//   monitor.Lock();    // blocks until this thread holds it
//   monitor.Unlock();
#ifndef KT_LOCK_H_
#define KT_LOCK_H_

#include <pthread.h>

namespace MetricsFramework {

class ILock {
 public:
  virtual ~ILock() {}              // slots 0, 1
  virtual void Lock() = 0;         // slot 2: blocks until held
  virtual bool TryLock() = 0;      // slot 3: true when taken; never waits for a holder
  virtual void Unlock() = 0;       // slot 4
};

class Monitor : public ILock {
 public:
  Monitor() : m_mutex(new pthread_mutex_t) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
  }
  ~Monitor() override {
    pthread_mutex_destroy(m_mutex);
    delete m_mutex;
  }
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  void Lock() override { pthread_mutex_lock(m_mutex); }
  bool TryLock() override { return pthread_mutex_trylock(m_mutex) == 0; }
  void Unlock() override { pthread_mutex_unlock(m_mutex); }

 private:
  pthread_mutex_t* m_mutex;
};

}  // namespace MetricsFramework

#endif  // KT_LOCK_H_
