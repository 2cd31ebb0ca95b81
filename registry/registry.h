// Registry: the root of the name tree and the owner of what is global to it.
//
// It holds the 32-bit GUID of this process's registry (the upper half of every
// handle it makes), the "handles" branch through which every registered handle
// resolves in one step, and the table of state listeners. Building a Registry
// names the root "root", gives it the handle GUID << 32, creates "handles"
// (unlisted, not itself registered) and links the root into it. Every change of
// the handle map of "handles" is mirrored in a HandleIndex, which is what
// ResolveHandle reads.
//
// Threads: the tree locks itself (see Path). ResolveHandle takes no node lock
// and may run on any thread while others register and unregister handles. The
// listener table is read without a lock, so listeners must be registered
// before extensions run.
// GetLocalGuid is not locked: two first calls compute and store the same value.
#ifndef KT_REGISTRY_REGISTRY_H_
#define KT_REGISTRY_REGISTRY_H_

#include <atomic>
#include <map>

#include "kt/peer_mount.h"
#include "registry/handle_index.h"
#include "registry/path.h"

namespace MetricsFramework {

// The handle under which the client command method of any registry is filed
// besides its own (the public name is kCommandMethodHandle).
constexpr unsigned long kClientCommandHandle = kCommandMethodHandle;

// Folds the text of a MAC address ("00:11:22:33:44:55") into 32 bits:
// b0 + b4 + (b1 << 8) + (b5 << 8) + (b2 << 16) + (b3 << 24). Reads at most six
// hexadecimal fields; missing or unreadable fields count as 0.
unsigned int FoldMacAddress(const char* text);
// Reads up to 31 bytes of `filename` and folds them; 0 when it cannot be read.
unsigned int ReadMacFold(const char* filename);

class Registry : public Path {
 public:
  typedef void (*StateListener)(void* context, unsigned int event, unsigned long a,
                                unsigned long b);

  Registry();
  // Turns notifications off, detaches "handles" (deliberately never freed),
  // forgets the listeners and destroys the tree with every payload in it.
  ~Registry() override;

  // This registry's GUID, computed on first use from the process id, the MAC
  // address of eth0 and the registry's address.
  unsigned int GetLocalGuid();
  // The GUID of the registry that made `handle`: its upper half.
  static unsigned int GetGuid(unsigned long handle) {
    return static_cast<unsigned int>(handle >> 32);
  }

  // Finds a registered node: the child of "handles" filed under `handle`, or
  // null. Null for every handle once ~Registry has detached "handles".
  Path* ResolveHandle(unsigned long handle);
  // The "handles" branch, or null once ~Registry has detached it.
  Path* GetHandleBranch() {
    return m_handlesAttached.load(std::memory_order_relaxed) ? m_handles : nullptr;
  }
  // The index ResolveHandle reads; for tests and diagnostics.
  const HandleIndex& GetHandleIndex() const { return m_handleIndex; }

  // Registers `listener` (one entry per callback; a second call replaces the
  // context) and removes it. Listeners are called as
  // listener(context, event, a, b), in the order of their addresses.
  void AddStateListener(StateListener listener, void* context);
  void RemoveStateListener(StateListener listener);
  // Calls every listener with (event, a, b) when notifications are enabled.
  void NotifyStateListeners(unsigned int event, unsigned long a, unsigned long b);
  bool NotificationsEnabled() const { return m_notificationsEnabled; }

 private:
  friend class Path;  // files the changes of "handles" in the index

  HandleIndex* IndexOf(const Path* node) { return node == m_handles ? &m_handleIndex : nullptr; }

  std::atomic<unsigned int> m_guid;  // atomic: first calls may race, and agree
  std::map<StateListener, void*> m_listeners;
  bool m_notificationsEnabled;
  Path* m_handles;  // set once; outlives the registry, detached and never freed
  std::atomic<bool> m_handlesAttached;
  HandleIndex m_handleIndex;
};

// The registry `node` belongs to; null for a node of a bare tree.
inline Registry* RegistryOf(const Path* node) {
  return static_cast<Registry*>(node->GetRegistry());
}

}  // namespace MetricsFramework

#endif  // KT_REGISTRY_REGISTRY_H_
