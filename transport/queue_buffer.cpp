#include "transport/queue_buffer.h"

#include <algorithm>
#include <cstddef>
#include <mutex>

#include "foundation/diagnostics.h"
#include "registry/path_data.h"
#include "registry/registry_manager.h"

namespace MetricsFramework {
namespace {

HeapState* NewArena(std::size_t capacity) {
  HeapState* heap = new HeapState();
  heap->storage.resize(capacity);  // zeroed
  return heap;
}

void FreeArenas(std::list<HeapState*>& heaps) {
  for (HeapState* heap : heaps) delete heap;
  heaps.clear();
}

// The registry node of the conduit's handle, through the conduit's manager.
Path* FindConduitPath(IConduit* conduit, unsigned long conduitHandle) {
  if (conduit == nullptr) return nullptr;
  auto* manager = dynamic_cast<IRegistryManager*>(conduit->GetExtensionManager());
  if (manager == nullptr) return nullptr;
  return manager->GetRegistry().ResolveHandle(conduitHandle);
}

// Whether a push handed to the conduit's manager ends at the payload of the
// conduit's node and nothing else.
bool ManagerPushesToNode(IConduit* conduit) {
  auto* manager = dynamic_cast<IRegistryManager*>(
      conduit != nullptr ? conduit->GetExtensionManager() : nullptr);
  return manager != nullptr && manager->PushesEndAtConduitNodes();
}

}  // namespace

QueueBuffer::QueueBuffer(unsigned int initialSize, IConduit* conduit, unsigned long conduitHandle,
                         unsigned long bindingHandle, unsigned int flags)
    : heaps(new std::list<HeapState*>()),
      committedCount(0),
      firstCommit(true),
      conduit(conduit),
      conduitHandle(conduitHandle),
      bindingHandle(bindingHandle),
      flags(flags),
      conduitPath(nullptr),
      route(nullptr) {
  if (initialSize != 0) heaps->push_back(NewArena(initialSize));
  conduitPath = FindConduitPath(conduit, conduitHandle);
}

QueueBuffer::~QueueBuffer() {
  AttachRoute(nullptr);
  FreeArenas(*heaps);
  delete heaps;
}

bool QueueBuffer::SortBySize(const HeapState*, const HeapState*) { return false; }

IPushTarget* QueueBuffer::NodeTarget() const {
  return conduitPath != nullptr ? dynamic_cast<IPushTarget*>(conduitPath->GetPayload()) : nullptr;
}

bool QueueBuffer::AttachRoute(PushRoute* newRoute) {
  if (newRoute != nullptr) {
    IPushTarget* target = newRoute->Target();
    if (target == nullptr || target != NodeTarget() || !ManagerPushesToNode(conduit)) {
      return false;
    }
    newRoute->Hold();
  }
  if (PushRoute* old = route.exchange(newRoute, std::memory_order_acq_rel)) old->Release();
  return true;
}

void* QueueBuffer::Reserve(unsigned long size) {
  // Block sizes are 32-bit: the upper half of `size` is dropped on purpose.
  const unsigned int n = static_cast<unsigned int>(size);
  std::lock_guard<LeafMutex> hold(queueMutex);

  // Fit checks and new capacities are summed in 64 bits so that a size near
  // 4 GiB cannot wrap around into an arena too small for it.
  HeapState* heap = nullptr;
  std::size_t largest = 0;
  for (HeapState* candidate : *heaps) {
    const std::size_t capacity = candidate->storage.size();
    if (capacity >= std::size_t{candidate->writeOffset} + n || candidate->used == 0) {
      heap = candidate;
      break;
    }
    largest = std::max(largest, capacity);
  }
  if (heap == nullptr) {
    heap = NewArena(largest + n + 1);
    heaps->push_back(heap);
    heaps->sort(SortBySize);  // keeps insertion order: the oldest arena is tried first
  }

  if (heap->storage.size() < std::size_t{heap->writeOffset} + n) {
    // Only an unused arena gets here. The block it returns is carved at
    // offset 0 like any other: left unaccounted, the next Reserve would hand
    // out the same live address, `used` would wrap on release, and a later
    // growth would move the storage under a queued block.
    heap->storage.resize(heap->storage.size() + n);
    heap->writeOffset = 0;
  }
  unsigned char* block = heap->storage.data() + heap->writeOffset;
  // Recorded before the arena's counters change, so that a ring that cannot
  // grow leaves the arena as it was.
  if (n != 0) live.PushBack({block, n, heap});
  heap->used += n;
  heap->writeOffset += n;
  return block;
}

std::size_t QueueBuffer::FindLive(const void* data) const {
  const std::size_t count = live.Size();
  if (count == 0) return count;
  if (live[count - 1].data == data) return count - 1;
  for (std::size_t i = 0; i + 1 < count; ++i) {
    if (live[i].data == data) return i;
  }
  return count;
}

void QueueBuffer::Commit(void* data) {
  {
    std::lock_guard<LeafMutex> hold(queueMutex);
    const std::size_t at = FindLive(data);
    if (at == live.Size()) return;
    const unsigned int n = live[at].size;
    // A block committed again while still queued moves to the back but stays
    // live in its arena: releasing it here would leave it queued yet
    // unreleasable, and the buffer would stall.
    if (!firstCommit) {
      for (std::size_t i = 0; i < committed.Size(); ++i) {
        if (committed[i].data != data) continue;
        committed.Erase(i);
        break;
      }
    }
    committed.PushBack({data, n});
    committedCount.store(committed.Size(), std::memory_order_release);
    firstCommit = false;
  }
  if ((flags & kPushOnCommit) != 0) Push();
}

void QueueBuffer::CommitTimeBasedMetric(void* data) {
  // No block, no sample: consumers are never handed a null sample to read.
  if (data == nullptr) return;
  IPushTarget* target = RoutedTarget();
  if (target == nullptr) target = NodeTarget();
  if (target != nullptr) target->PushDataForTimeBasedMetric(bindingHandle, data);
  // The block is never queued, so no reader will release it: it goes back to
  // its arena here, or every time-based sample would grow the buffer. A buffer
  // without a conduit node delivers nothing and still releases the block, so
  // that it does not grow either.
  std::lock_guard<LeafMutex> hold(queueMutex);
  ReleaseFromArena(data);
}

void QueueBuffer::Flush() {
  // With push-on-commit every commit has been delivered already.
  if ((flags & kPushOnCommit) != 0) return;
  // One push delivers the oldest sample only: keep pushing until the queue is
  // empty, or stop when a push fails or leaves the oldest block in place.
  for (const void* front = Front(); front != nullptr;) {
    if (Push() != KT_STATUS_SUCCESS) return;
    const void* next = Front();
    if (next == front) return;
    front = next;
  }
}

KT_STATUS QueueBuffer::Push() {
  if (conduit == nullptr || bindingHandle == 0) return KT_STATUS_SUCCESS;
  if (committedCount.load(std::memory_order_acquire) == 0) return KT_STATUS_SUCCESS;
  // A route is attached only where the manager would send this push.
  if (IPushTarget* target = RoutedTarget()) return target->PushData(bindingHandle, this);
  IExtensionManager* manager = conduit->GetExtensionManager();
  if (manager == nullptr) return Fail(KT_STATUS_INVALID_OPERATION, "extensionManager");
  return manager->PushDataToConsumers(conduitHandle, bindingHandle, this);
}

void QueueBuffer::GetData(const void** data, unsigned long* size) const {
  // `size` may be null on every path.
  if (data == nullptr) {
    if (size != nullptr) *size = 0;
    return;
  }
  std::lock_guard<LeafMutex> hold(queueMutex);
  const bool empty = committed.Empty();
  *data = empty ? nullptr : committed.Front().data;
  if (size != nullptr) *size = empty ? 0 : committed.Front().size;
}

void QueueBuffer::MakeAvailable(const void* data) const {
  // Dequeued in the same hold as its bytes go back to the arena: once
  // released, the producer may carve and commit the same address again, and
  // that new sample must not be dequeued by this release.
  std::lock_guard<LeafMutex> hold(queueMutex);
  for (std::size_t i = 0; i < committed.Size(); ++i) {
    if (committed[i].data != data) continue;
    committed.Erase(i);  // a block is queued at most once
    committedCount.store(committed.Size(), std::memory_order_release);
    break;
  }
  ReleaseFromArena(data);
}

void QueueBuffer::ReleaseFromArena(const void* data) const {
  const std::size_t at = FindLive(data);
  if (at == live.Size()) return;
  HeapState* heap = live[at].heap;
  heap->used -= live[at].size;
  live.Erase(at);
  if (heap->used == 0) heap->writeOffset = 0;  // the arena rewinds
  if (heap->used != 0 || heaps->size() <= 1) return;
  heaps->remove(heap);
  // Unlinked, the arena is unreachable: it is freed rather than leaked.
  delete heap;
}

const void* QueueBuffer::Front() const {
  std::lock_guard<LeafMutex> hold(queueMutex);
  return committed.Empty() ? nullptr : committed.Front().data;
}

void QueueBuffer::Clear() {
  std::lock_guard<LeafMutex> hold(queueMutex);
  FreeArenas(*heaps);
  live.Clear();
}

void QueueBuffer::Reset(unsigned long bindingHandle) {
  // The queue is emptied too: blocks left in it would point into the arenas
  // freed below, and the reused buffer would deliver freed memory forever.
  {
    std::lock_guard<LeafMutex> hold(queueMutex);
    committed.Clear();
    committedCount.store(0, std::memory_order_release);
  }
  Clear();
  AttachRoute(nullptr);
  this->bindingHandle = bindingHandle;
}

}  // namespace MetricsFramework
