// QueueBuffer: the buffer through which a publisher's samples travel to the
// consumers, and, extended by the remote-access layer, the carrier of remote
// calls.
//
// A producer reserves raw memory (Reserve), writes a sample and commits it
// (Commit); committed blocks queue up in commit order. The push path reads the
// oldest committed block (GetData) and releases it (MakeAvailable). Memory
// comes from a list of growable byte arenas (HeapState), each with a table of
// its live blocks, so that reserving is cheap and blocks are released one by
// one. An arena rewinds to offset 0 once all its blocks are released; until
// then its space is not reused, and a slow reader makes the buffer add arenas,
// each larger than the largest one so far.
//
// Ownership: the buffer owns its arenas; the conduit that made it owns the
// buffer. Blocks stay valid until they are released, Clear, Reset or the
// destructor.
//
// Threads: one producer (Reserve, Commit, CommitTimeBasedMetric) and a pushing
// side (GetData, MakeAvailable, Flush) that may run on other threads, for
// instance a grouped cycle completed by another metric's push or a client's
// flush. The committed queue and the size map carry their own recursive
// ReadWriteLocks; the arena list and the arenas are guarded by one leaf mutex,
// never held while those locks are taken or while the buffer calls out. Clear
// and Reset must not race with the producer or the pushing side.
#ifndef KT_TRANSPORT_QUEUE_BUFFER_H_
#define KT_TRANSPORT_QUEUE_BUFFER_H_

#include <list>
#include <map>
#include <mutex>
#include <vector>

#include "foundation/sync_list.h"
#include "foundation/sync_map.h"
#include "kt/buffer.h"
#include "kt/conduit.h"
#include "kt/status.h"
#include "registry/path.h"

namespace MetricsFramework {

// One arena: a plain record owned by its buffer.
struct HeapState {
  std::map<void*, unsigned int> blocks;  // live block start -> its size
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
  // Frees every arena; blocks still queued become invalid.
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
  // Never returns null; allocation failure throws std::bad_alloc.
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

  // Asks the conduit's extension manager to deliver the oldest block to the
  // consumers of the binding. Returns KT_STATUS_SUCCESS without calling anyone
  // when there is no conduit, no binding or nothing queued;
  // KT_STATUS_INVALID_OPERATION when the conduit has no manager; otherwise
  // the manager's status.
  KT_STATUS Push();
  // Frees every arena. The committed queue and the size map are kept.
  void Clear();
  // Clear, empties the committed queue and the size map, and binds the buffer
  // to `bindingHandle`. For a pooled buffer handed to a new binding.
  void Reset(unsigned long bindingHandle);

  // The arena order used after adding an arena: answers false for every pair,
  // so the arenas stay in the order they were made and are searched oldest
  // first.
  static bool SortBySize(const HeapState* a, const HeapState* b);

 protected:
  std::list<HeapState*>* heaps;                // arenas, in search order
  mutable SyncMap<const void*, unsigned int> sizes;  // committed block -> size
  mutable SyncList<const void*> committed;     // committed blocks, oldest first
  bool firstCommit;                            // true until the first Commit
  IConduit* conduit;                           // the conduit that made the buffer
  unsigned long conduitHandle;
  unsigned long bindingHandle;                 // 0 while unbound
  unsigned int flags;
  Path* conduitPath;                           // the conduit's node, or null
  mutable std::mutex heapMutex;                // guards heaps and the arenas

 private:
  friend class QueueBufferInspector;  // tests read the arenas

  // The oldest committed block, or null.
  const void* Front() const;
  // Gives the bytes of the live block `data` back to its arena; ignores
  // pointers that are not live blocks. Takes heapMutex.
  void ReleaseFromArena(const void* data) const;
};

}  // namespace MetricsFramework

#endif  // KT_TRANSPORT_QUEUE_BUFFER_H_
