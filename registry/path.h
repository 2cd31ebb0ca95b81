// Path: one node of the registry's name tree.
//
// Every object the framework knows has a node with a name, a 64-bit handle and
// a payload (PathData). A node owns the children it created and can link nodes
// that live elsewhere (symlinks). Children are found by name path or by handle;
// the iteration order of the handle map is the node's child order, used by
// every enumeration and stable while the node is unchanged.
//
// Threads: every node carries its own recursive ReadWriteLock guarding its two
// child maps and its referrer list. Lookups take it shared, changes exclusive,
// one node at a time; symlink operations release this node's lock before they
// take the target's. A thread may look up within a node whose lock it already
// holds, read or write. Creation is not atomic with a lookup made elsewhere,
// but a node never becomes visible half-built, and a lookup that creates
// re-checks under the write lock so that two threads asking for the same
// missing name get the same node.
//
// Ownership: a node owns its payload and its owned children. Destroying a node
// destroys its payload and subtree and removes every symlink to it first, so no
// link outlives its target.
#ifndef KT_REGISTRY_PATH_H_
#define KT_REGISTRY_PATH_H_

#include <list>
#include <string>
#include <unordered_map>

#include "foundation/read_write_lock.h"

namespace MetricsFramework {

class HandleIndex;
class Path;
class PathData;

struct PathLink {
  enum : unsigned int { kOwned = 0, kSymlink = 1 };
  unsigned int kind;  // kOwned: the parent made it and destroys it
  Path* target;
};

// Flags of both GetChild forms.
enum : unsigned char {
  kPathCreate = 1,          // create the node when it is missing
  kPathUnlisted = 2,        // ... unlisted (skipped by ChildCount, GetChildHandles)
  kPathNoHandleEntry = 4,   // ... without registering it in "handles"
};

class Path {
 public:
  Path();
  Path(const Path&) = delete;
  Path& operator=(const Path&) = delete;
  virtual ~Path();

  // Resolves a name path relative to this node; "/" and "\\" both separate.
  // A run of separators at the very start stays part of the first name ("/a"
  // names a child "/a"). With kPathCreate, missing nodes are made. On a miss:
  // with `rest` given, returns the deepest node found and points *rest at the
  // first unresolved name inside `path`; without it, returns null. `path` must
  // not be null (std::logic_error).
  Path* GetChild(const char* path, unsigned char flags, const char** rest = nullptr);
  // Finds the child filed under `handle`; with kPathCreate makes an unnamed one.
  Path* GetChild(unsigned long handle, unsigned char flags);
  // Finds the child named `name`, taken whole (separators are part of it, as
  // in SetName); with kPathCreate makes it when it is missing.
  Path* GetChildNamed(const std::string& name, unsigned char flags);

  // Makes an owned child. A handle of 0 gets a new one (CreateHandle). Unless
  // `registerHandle` is false the child is linked into the root's "handles".
  Path* NewChild(unsigned long handle, const std::string& name, bool listed, bool registerHandle);

  // Renames the node and re-files it in its parent's name map. The name is
  // taken whole. Throws std::out_of_range when the parent does not list the
  // node under its handle.
  void SetName(const char* name);

  // Links `target` under its own handle.
  Path* AddSymlink(Path* target);
  // Links `target` under `handle` and returns the node now filed there: the
  // one already there when `handle` is taken (nothing changes then).
  Path* AddAliasSymlink(unsigned long handle, Path* target);
  // Removes the symlink filed under `handle`; false when there is none (an
  // owned child is never removed this way).
  bool RemoveSymlink(unsigned long handle);
  // Takes `child` out of this node's maps without destroying it, under this
  // node's write lock. A node that is to be destroyed is detached first, so
  // that nobody walking this node meets it while its payload goes; destroying
  // it afterwards finds nothing more to erase here.
  void DetachChild(Path* child);

  // Whether the node has any child, listed or not, owned or linked.
  bool HasChildren();
  // The number of listed children, owned or linked.
  unsigned long ChildCount();
  // Writes the handles of up to `count` listed children, in child order.
  void GetChildHandles(unsigned int count, unsigned long* out);
  // The visitors of the two enumerations above, for one child.
  void CountHandles(unsigned long* counter, Path* child);
  void AddHandles(unsigned long* remaining, unsigned long** cursor, Path* child);

  // A new handle for `object`: the registry's GUID above, the object's address
  // folded into 32 bits below.
  unsigned long CreateHandle(void* object);

  // Calls `visit(child)` for every child in child order, under the read lock.
  // `visit` must not add or remove children of this node.
  template <typename Visit>
  void ForEachChild(Visit visit) {
    ReadGuard hold(m_lock);
    for (auto& entry : m_childrenByHandle) visit(entry.second.target);
  }

  const std::string& GetName() const { return m_name; }
  unsigned long GetHandle() const { return m_handle; }
  Path* GetParent() const { return m_parent; }
  Path* GetRegistry() const { return m_registry; }
  PathData* GetPayload() const { return m_payload; }
  bool IsListed() const { return m_listed != 0; }
  IReadWriteLock& GetLock() { return m_lock; }
  // Counts every change of the child list. Read it under the node's lock, read
  // or write: a caller that keeps something built from the children tells
  // from it whether they changed since.
  unsigned long ChildChanges() const { return m_childChanges; }

 protected:
  // Destroys the payload, removes every link to this node and destroys every
  // child; the node itself stays, empty. ~Path runs it; the Registry runs it
  // earlier, while its own members are still alive.
  void DestroyContents();

  // For the Registry, which builds itself as a root.
  void SetRootIdentity(unsigned long handle, const std::string& name);

 private:
  friend class PathData;

  Path* NewChildLocked(unsigned long handle, const std::string& name, bool listed);
  Path* CreateChild(unsigned long handle, const std::string& name, unsigned char flags);
  void RegisterHandle(Path* child);
  unsigned int UnlinkTarget(Path* target, unsigned int expected);
  void ForgetChildEntry(unsigned long handle, Path* child);

  // Every change of the handle map goes through these two, under this node's
  // write lock, so that the registry's index follows the map of "handles".
  void FileByHandle(unsigned long handle, const PathLink& link);
  // Erases the entry under `handle` when it designates `target` (with `kind`,
  // unless kind is ~0u); returns whether it did.
  bool EraseByHandle(unsigned long handle, Path* target, unsigned int kind);
  // The registry's index when this node is its "handles", else null.
  HandleIndex* MirrorIndex();

  std::string m_name;
  std::list<Path*> m_referrers;
  Path* m_registry;
  Path* m_parent;
  PathData* m_payload;
  unsigned long m_handle;
  ReadWriteLock m_lock;
  unsigned int m_listed;
  std::unordered_map<std::string, PathLink> m_childrenByName;
  std::unordered_map<unsigned long, PathLink> m_childrenByHandle;
  unsigned long m_childChanges;  // under m_lock
};

}  // namespace MetricsFramework

#endif  // KT_REGISTRY_PATH_H_
