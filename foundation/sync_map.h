// SyncMap: a standard hash map that carries its own ReadWriteLock (built
// recursive) and exposes it as an IReadWriteLock.
//
// The container itself is a public member used directly by its owner, who
// takes the read face around lookups and the write face around changes:
//
//   SyncMap<unsigned long, unsigned long> tags;
//   { WriteGuard hold(tags); tags.map[metric] = tag; }
#ifndef KT_FOUNDATION_SYNC_MAP_H_
#define KT_FOUNDATION_SYNC_MAP_H_

#include <unordered_map>

#include "foundation/read_write_lock.h"

namespace MetricsFramework {

template <typename K, typename V>
class SyncMap : public IReadWriteLock {
 public:
  SyncMap() : lock(true) {}

  ILock* GetReadLock() override { return lock.GetReadLock(); }
  ILock* GetWriteLock() override { return lock.GetWriteLock(); }
  // The faces are reachable from a const map too: locking is not a change.
  ILock* GetReadLock() const { return lock.GetReadLock(); }
  ILock* GetWriteLock() const { return lock.GetWriteLock(); }

  std::unordered_map<K, V> map;

 private:
  mutable ReadWriteLock lock;
};

}  // namespace MetricsFramework

#endif  // KT_FOUNDATION_SYNC_MAP_H_
