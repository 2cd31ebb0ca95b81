// Lock and unlock of ReadWriteLock's two faces and of Monitor, against
// std::shared_mutex and std::mutex, on one thread (uncontended) and on two
// threads sharing one lock (->Threads(2)). The locks are built recursive, as
// the registry's nodes build theirs.
#include <benchmark/benchmark.h>

#include <mutex>
#include <shared_mutex>

#include "foundation/read_write_lock.h"
#include "kt/lock.h"

namespace kt_bench {
namespace {

using MetricsFramework::ILock;
using MetricsFramework::Monitor;
using MetricsFramework::ReadWriteLock;

// Shared by every thread of a run; never destroyed, so that no thread of a
// later run meets a lock that is going away.
ReadWriteLock& SharedReadWriteLock() {
  static ReadWriteLock* lock = new ReadWriteLock(true);
  return *lock;
}

void RunFace(benchmark::State& state, ILock* lock) {
  for (auto _ : state) {
    lock->Lock();
    lock->Unlock();
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_ReadWriteLockRead(benchmark::State& state) {
  RunFace(state, SharedReadWriteLock().GetReadLock());
}
BENCHMARK(BM_ReadWriteLockRead)->Threads(1)->Threads(2)->UseRealTime();

void BM_ReadWriteLockWrite(benchmark::State& state) {
  RunFace(state, SharedReadWriteLock().GetWriteLock());
}
BENCHMARK(BM_ReadWriteLockWrite)->Threads(1)->Threads(2)->UseRealTime();

void BM_Monitor(benchmark::State& state) {
  static Monitor* monitor = new Monitor;
  RunFace(state, monitor);
}
BENCHMARK(BM_Monitor)->Threads(1)->Threads(2)->UseRealTime();

std::shared_mutex& SharedMutex() {
  static std::shared_mutex* mutex = new std::shared_mutex;
  return *mutex;
}

void BM_StdSharedMutexRead(benchmark::State& state) {
  std::shared_mutex& mutex = SharedMutex();
  for (auto _ : state) {
    mutex.lock_shared();
    mutex.unlock_shared();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdSharedMutexRead)->Threads(1)->Threads(2)->UseRealTime();

void BM_StdSharedMutexWrite(benchmark::State& state) {
  std::shared_mutex& mutex = SharedMutex();
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdSharedMutexWrite)->Threads(1)->Threads(2)->UseRealTime();

void BM_StdMutex(benchmark::State& state) {
  static std::mutex* mutex = new std::mutex;
  for (auto _ : state) {
    mutex->lock();
    mutex->unlock();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdMutex)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace kt_bench
