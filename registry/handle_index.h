// HandleIndex: the registry's table from handle to node, kept beside the
// "handles" branch so that resolving a handle costs one or two cache misses.
//
// It mirrors the handle map of "handles" entry for entry: the branch files
// every change of that map here while it holds its own write lock, so a lookup
// gives what a lookup in the map would give at some moment during the call.
// The index stores pointers only and never owns or touches a node.
//
// Threads: Find may be called from any number of threads at once, concurrently
// with Set and Erase, and writes no shared memory: it reads the slots
// optimistically and checks a sequence number that every change makes odd while
// it runs; a reader that meets a change takes the writers' mutex instead of
// retrying, so nobody spins. Set and Erase take that mutex. Tables outgrown are
// kept until the index dies, because a reader may still be walking one.
//
//   HandleIndex index;
//   index.Set(handle, node);
//   Path* found = index.Find(handle);  // node
//   index.Erase(handle);
#ifndef KT_REGISTRY_HANDLE_INDEX_H_
#define KT_REGISTRY_HANDLE_INDEX_H_

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace MetricsFramework {

class Path;

class HandleIndex {
 public:
  HandleIndex();
  HandleIndex(const HandleIndex&) = delete;
  HandleIndex& operator=(const HandleIndex&) = delete;
  ~HandleIndex();

  // The node filed under `handle`, or null. Every handle, 0 included, is a key.
  Path* Find(unsigned long handle) const;
  // Files `target` (never null) under `handle`, replacing what was there.
  void Set(unsigned long handle, Path* target);
  // Removes the entry under `handle`, if any.
  void Erase(unsigned long handle);
  // The number of entries.
  size_t Size() const;

 private:
  // Open addressing with linear probing; an empty slot has a null target, and
  // a slot's handle means something only beside a target. Removal shifts the
  // entries behind back, so no tombstones accumulate.
  struct Slot {
    std::atomic<unsigned long> handle;
    std::atomic<Path*> target;
  };
  struct Table {
    explicit Table(unsigned int bits);
    size_t Home(unsigned long handle) const;
    // Stores in *found the target filed under `handle`, or null. False when it
    // met no empty slot, which only a read torn by a change can do.
    bool Read(unsigned long handle, Path** found) const;
    // The slot holding `handle`, else the empty slot that ends its run.
    size_t Locate(unsigned long handle) const;

    unsigned int shift;  // 64 minus log2 of the slot count
    size_t mask;         // slot count minus 1
    std::unique_ptr<Slot[], void (*)(Slot*)> slots;
  };

  static Slot* AllocateSlots(size_t count);
  static void FreeSlots(Slot* slots);
  void Grow();
  void BeginChange();
  void EndChange();

  // Odd while a change of the current table runs.
  std::atomic<unsigned long> m_sequence;
  std::atomic<Table*> m_table;
  mutable std::mutex m_mutex;  // taken by writers, and by readers that met a change
  size_t m_count;
  // The current table and every one it outgrew.
  std::vector<std::unique_ptr<Table>> m_tables;
};

}  // namespace MetricsFramework

#endif  // KT_REGISTRY_HANDLE_INDEX_H_
