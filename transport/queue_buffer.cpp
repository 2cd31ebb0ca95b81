#include "transport/queue_buffer.h"

#include <algorithm>
#include <cstddef>

#include "host/diagnostics.h"
#include "host/registry_manager.h"
#include "state/conduit_state.h"

namespace MetricsFramework {
namespace {

typedef std::map<void*, unsigned int>::iterator BlockEntry;

HeapState* NewArena(std::size_t capacity) {
  HeapState* heap = new HeapState();
  heap->storage.resize(capacity);  // zeroed
  return heap;
}

void FreeArenas(std::list<HeapState*>& heaps) {
  for (HeapState* heap : heaps) delete heap;
  heaps.clear();
}

// The arena that holds the live block starting at `data`, with its entry in
// *entry; null when no arena has it.
HeapState* ArenaOf(const std::list<HeapState*>& heaps, const void* data, BlockEntry* entry) {
  void* key = const_cast<void*>(data);
  for (HeapState* heap : heaps) {
    *entry = heap->blocks.find(key);
    if (*entry != heap->blocks.end()) return heap;
  }
  return nullptr;
}

// The registry node of the conduit's handle, through the conduit's manager.
Path* FindConduitPath(IConduit* conduit, unsigned long conduitHandle) {
  if (conduit == nullptr) return nullptr;
  auto* manager = dynamic_cast<IRegistryManager*>(conduit->GetExtensionManager());
  if (manager == nullptr) return nullptr;
  return manager->GetRegistry().ResolveHandle(conduitHandle);
}

}  // namespace

QueueBuffer::QueueBuffer(unsigned int initialSize, IConduit* conduit, unsigned long conduitHandle,
                         unsigned long bindingHandle, unsigned int flags)
    : heaps(new std::list<HeapState*>()),
      firstCommit(true),
      conduit(conduit),
      conduitHandle(conduitHandle),
      bindingHandle(bindingHandle),
      flags(flags),
      conduitPath(nullptr) {
  if (initialSize != 0) heaps->push_back(NewArena(initialSize));
  conduitPath = FindConduitPath(conduit, conduitHandle);
}

QueueBuffer::~QueueBuffer() {
  FreeArenas(*heaps);
  delete heaps;
}

bool QueueBuffer::SortBySize(const HeapState*, const HeapState*) { return false; }

void* QueueBuffer::Reserve(unsigned long size) {
  // Block sizes are 32-bit: the upper half of `size` is dropped on purpose.
  const unsigned int n = static_cast<unsigned int>(size);
  std::lock_guard<std::mutex> hold(heapMutex);

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
  heap->used += n;
  heap->writeOffset += n;
  heap->blocks[block] = n;
  return block;
}

void QueueBuffer::Commit(void* data) {
  unsigned int n = 0;
  {
    std::lock_guard<std::mutex> hold(heapMutex);
    BlockEntry entry;
    if (ArenaOf(*heaps, data, &entry) != nullptr) n = entry->second;
  }
  if (n == 0) return;

  {
    // Before the queue entry, so that a reader who sees the block finds its
    // size; a re-commit replaces the earlier entry.
    WriteGuard hold(sizes);
    sizes.map[data] = n;
  }
  {
    WriteGuard hold(committed);
    // A block committed again while still queued moves to the back but stays
    // live in its arena: releasing it here would leave it queued yet
    // unreleasable, and the buffer would stall.
    if (!firstCommit) committed.list.remove(data);
    committed.list.push_back(data);
  }
  firstCommit = false;
  if ((flags & kPushOnCommit) != 0) Push();
}

void QueueBuffer::CommitTimeBasedMetric(void* data) {
  // No block, no sample: consumers are never handed a null sample to read.
  if (data == nullptr) return;
  if (conduitPath != nullptr) {
    if (auto* state = dynamic_cast<ConduitState*>(conduitPath->GetPayload())) {
      state->PushDataForTimeBasedMetric(bindingHandle, data);
    }
  }
  // The block is never queued, so no reader will release it: it goes back to
  // its arena here, or every time-based sample would grow the buffer. A buffer
  // without a conduit node delivers nothing and still releases the block, so
  // that it does not grow either.
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
  if (conduit == nullptr || bindingHandle == 0 || Front() == nullptr) return KT_STATUS_SUCCESS;
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
  *data = Front();
  if (size == nullptr) return;
  *size = 0;
  if (*data == nullptr) return;
  ReadGuard hold(sizes);
  const auto found = sizes.map.find(*data);
  if (found != sizes.map.end()) *size = found->second;
}

void QueueBuffer::MakeAvailable(const void* data) const {
  // Dequeued before its bytes go back to the arena: once released, the
  // producer may carve and commit the same address again, and that new sample
  // must not be dequeued by this release.
  {
    WriteGuard hold(committed);
    committed.list.remove(data);
  }
  {
    WriteGuard hold(sizes);
    sizes.map.erase(data);
  }
  ReleaseFromArena(data);
}

void QueueBuffer::ReleaseFromArena(const void* data) const {
  std::lock_guard<std::mutex> hold(heapMutex);
  BlockEntry entry;
  HeapState* heap = ArenaOf(*heaps, data, &entry);
  if (heap == nullptr) return;
  heap->used -= entry->second;
  if (heap->used == 0) heap->writeOffset = 0;  // the arena rewinds
  heap->blocks.erase(entry);
  if (heap->used != 0 || heaps->size() <= 1) return;
  heaps->remove(heap);
  // Unlinked, the arena is unreachable: it is freed rather than leaked.
  delete heap;
}

const void* QueueBuffer::Front() const {
  ReadGuard hold(committed);
  return committed.list.empty() ? nullptr : committed.list.front();
}

void QueueBuffer::Clear() {
  std::lock_guard<std::mutex> hold(heapMutex);
  FreeArenas(*heaps);
}

void QueueBuffer::Reset(unsigned long bindingHandle) {
  // The queue and the size map are emptied too: blocks left in them would
  // point into the arenas freed below, and the reused buffer would deliver
  // freed memory forever.
  {
    WriteGuard hold(committed);
    committed.list.clear();
  }
  {
    WriteGuard hold(sizes);
    sizes.map.clear();
  }
  Clear();
  this->bindingHandle = bindingHandle;
}

}  // namespace MetricsFramework
