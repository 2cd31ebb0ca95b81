// QueueBuffer: the buffer through which a publisher's samples travel to the
// consumers, and, extended by the remote-access layer, the carrier of remote
// calls.
//
// A producer reserves raw memory (Reserve), writes a sample and commits it
// (Commit); committed blocks queue up in commit order. The push path reads the
// oldest committed block (GetData) and releases it (MakeAvailable). Memory
// comes from a list of growable byte arenas (HeapState); the buffer keeps a
// ring of its live blocks, in the order they were reserved, and a ring of the
// committed ones with their sizes, so that reserving, committing and
// releasing allocate nothing once the rings have grown to the largest number
// of blocks ever live at once. An arena rewinds to offset 0 once all its
// blocks are released; until then its space is not reused, and a slow reader
// makes the buffer add arenas, each larger than the largest one so far.
//
// The payload of the conduit's node that binds a metric to the buffer
// attaches its route (AttachRoute, below) and detaches it when the binding
// ends. While the route is attached and open, a push goes straight to its
// target, which is where this library's manager would route it, so that
// samples need no lookup by handle.
//
// Ownership: the buffer owns its arenas; the conduit that made it owns the
// buffer. Blocks stay valid until they are released, Clear, Reset or the
// destructor.
//
// Threads: one producer (Reserve, Commit, CommitTimeBasedMetric) and a pushing
// side (GetData, MakeAvailable, Flush) that may run on other threads, for
// instance a grouped cycle completed by another metric's push or a client's
// flush. The arena list, the arenas, the live ring and the committed ring are
// guarded by one leaf mutex, held briefly and never while the buffer calls
// out, so that a release takes a block out of the queue and gives its bytes
// back in one hold. AttachRoute may run
// while the producer commits. Clear and Reset must not race with the producer
// or the pushing side.
#ifndef KT_TRANSPORT_QUEUE_BUFFER_H_
#define KT_TRANSPORT_QUEUE_BUFFER_H_

#include <atomic>
#include <cstddef>
#include <list>
#include <vector>

#include "foundation/leaf_mutex.h"
#include "kt/buffer.h"
#include "kt/conduit.h"
#include "kt/status.h"
#include "registry/path.h"
#include "transport/push_target.h"
#include "transport/ring_queue.h"

namespace MetricsFramework {

// One arena: a plain record owned by its buffer.
struct HeapState {
  std::vector<unsigned char> storage;    // the bytes; its size is the capacity
  unsigned int writeOffset;              // where the next block is carved
  unsigned int used;                     // bytes of live blocks
};

class QueueBuffer : public IReadWriteBuffer {
 public:
  // Bit 0 of `flags`: push to the consumers on every Commit.
  enum : unsigned int { kPushOnCommit = 1 };

  // Makes one zeroed arena of `initialSize` bytes unless it is 0. With a
  // conduit, finds the registry node of `conduitHandle` through the conduit's
  // extension manager; conduitPath stays null when the manager is missing, is
  // not one of this library's or does not know the handle.
  QueueBuffer(unsigned int initialSize, IConduit* conduit, unsigned long conduitHandle,
              unsigned long bindingHandle, unsigned int flags);
  QueueBuffer(const QueueBuffer&) = delete;
  QueueBuffer& operator=(const QueueBuffer&) = delete;
  // Frees every arena (blocks still queued become invalid) and lets go of the
  // route.
  ~QueueBuffer() override;

  // The oldest committed block and its size; null and 0 when none is queued
  // (with a null `data`, only *size = 0). `size` may be null. The block stays
  // queued.
  void GetData(const void** data, unsigned long* size) const override;
  // Releases a live block: takes it out of the queue and gives its bytes back
  // to its arena. Pointers this buffer did not hand out are ignored.
  void MakeAvailable(const void* data) const override;

  // The order of these four is this class's own virtual-table order: never
  // reorder.
  // Writable memory of `size` bytes; only the low 32 bits of `size` count.
  // Never returns null; allocation failure throws std::bad_alloc. A block of
  // 0 bytes is not recorded as live (it could not be committed, and it shares
  // its address with the next block anyway).
  void* Reserve(unsigned long size) override;
  // Queues a block returned by Reserve (again at the back when it is already
  // queued) and, with kPushOnCommit, pushes. Unknown pointers are ignored.
  void Commit(void* data) override;
  // Hands the block straight to the consumers of the conduit's state, without
  // queueing it, then releases it. A null block is ignored.
  void CommitTimeBasedMetric(void* data) override;
  // Without kPushOnCommit, pushes until the queue is empty or a push fails to
  // take the oldest block; with it, does nothing (every Commit has pushed).
  void Flush() override;

  // Asks the conduit's extension manager (or the attached target, where the
  // manager would send it) to deliver the oldest block to the consumers of
  // the binding. Returns KT_STATUS_SUCCESS without calling anyone when there
  // is no conduit, no binding or nothing queued; KT_STATUS_INVALID_OPERATION
  // when the conduit has no manager; otherwise the manager's (the state's)
  // status.
  KT_STATUS Push();
  // Frees every arena. The committed queue (with its sizes) is kept.
  void Clear();
  // Clear, empties the committed queue, detaches the route and binds the
  // buffer to `bindingHandle`. For a pooled buffer handed to a new binding.
  void Reset(unsigned long bindingHandle);

  // Holds `route`, so that pushes and time-based samples reach its target
  // without a lookup, and lets go of the route held before; null detaches.
  // Attaches nothing, and returns false, unless the route's target is the
  // payload of the conduit's node and the conduit's manager says that its
  // pushes end at that payload (IRegistryManager): other managers still see
  // every push.
  bool AttachRoute(PushRoute* route);

  // The arena order used after adding an arena: answers false for every pair,
  // so the arenas stay in the order they were made and are searched oldest
  // first.
  static bool SortBySize(const HeapState* a, const HeapState* b);

 protected:
  // A block handed out by Reserve and not yet released.
  struct LiveBlock {
    const void* data;
    unsigned int size;
    HeapState* heap;  // the arena it was carved from
  };
  // A committed block.
  struct QueuedBlock {
    const void* data;
    unsigned int size;
  };

  std::list<HeapState*>* heaps;                // arenas, in search order
  mutable RingQueue<LiveBlock> live;           // reservation order; under queueMutex
  mutable RingQueue<QueuedBlock> committed;    // oldest first; under queueMutex
  // committed.Size(), written under queueMutex, so that Push can tell an
  // empty queue without taking it.
  mutable std::atomic<std::size_t> committedCount;
  bool firstCommit;                            // true until the first Commit
  IConduit* conduit;                           // the conduit that made the buffer
  unsigned long conduitHandle;
  unsigned long bindingHandle;                 // 0 while unbound
  unsigned int flags;
  Path* conduitPath;                           // the conduit's node, or null
  mutable LeafMutex queueMutex;                // guards heaps, the arenas and both rings
  std::atomic<PushRoute*> route;               // held; null when detached

 private:
  friend class QueueBufferInspector;  // tests read the arenas

  // The oldest committed block, or null.
  const void* Front() const;
  // The target of the attached route while it is open, or null.
  IPushTarget* RoutedTarget() const {
    PushRoute* held = route.load(std::memory_order_acquire);
    return held != nullptr ? held->Target() : nullptr;
  }
  // The payload of the conduit's node as a push target, or null.
  IPushTarget* NodeTarget() const;
  // The place of the live block that starts at `data` in `live`, or
  // live.Size() when there is none. The newest and the oldest are tried
  // first: a commit names the block just reserved, a release the oldest.
  // The caller holds queueMutex.
  std::size_t FindLive(const void* data) const;
  // Gives the bytes of the live block `data` back to its arena; ignores
  // pointers that are not live blocks. The caller holds queueMutex.
  void ReleaseFromArena(const void* data) const;
};

}  // namespace MetricsFramework

#endif  // KT_TRANSPORT_QUEUE_BUFFER_H_
