// SyncList: a standard list that carries its own ReadWriteLock (built
// recursive) and exposes it as an IReadWriteLock. The list is a public member
// used directly by its owner under the matching face of the lock.
#ifndef KT_FOUNDATION_SYNC_LIST_H_
#define KT_FOUNDATION_SYNC_LIST_H_

#include <list>

#include "foundation/read_write_lock.h"

namespace MetricsFramework {

template <typename T>
class SyncList : public IReadWriteLock {
 public:
  SyncList() : lock(true) {}

  ILock* GetReadLock() override { return lock.GetReadLock(); }
  ILock* GetWriteLock() override { return lock.GetWriteLock(); }

  std::list<T> list;

 private:
  ReadWriteLock lock;
};

}  // namespace MetricsFramework

#endif  // KT_FOUNDATION_SYNC_LIST_H_
