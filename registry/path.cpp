#include "registry/path.h"

#include <cstdio>
#include <stdexcept>

#include "registry/handle_index.h"
#include "registry/path_data.h"
#include "registry/registry.h"

namespace MetricsFramework {

namespace {

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

const char* SkipSeparators(const char* p) {
  while (IsSeparator(*p)) ++p;
  return p;
}

// Erases the entry of `map` under `key` when it still designates `target`
// (with `kind`, unless kind is ~0u). Returns whether it did.
template <typename Map, typename Key>
bool EraseIfTarget(Map& map, const Key& key, Path* target, unsigned int kind) {
  auto it = map.find(key);
  if (it == map.end() || it->second.target != target) return false;
  if (kind != ~0u && it->second.kind != kind) return false;
  map.erase(it);
  return true;
}

}  // namespace

Path::Path()
    : m_registry(nullptr),
      m_parent(nullptr),
      m_payload(nullptr),
      m_handle(0),
      m_lock(true),
      m_listed(0),
      m_childChanges(0) {
  new PathData(this);  // becomes this node's payload
}

Path::~Path() {
  DestroyContents();
  if (m_parent == nullptr) return;
  WriteGuard hold(m_parent->m_lock);
  m_parent->EraseByHandle(m_handle, this, ~0u);
  if (!m_name.empty()) EraseIfTarget(m_parent->m_childrenByName, m_name, this, ~0u);
}

void Path::DestroyContents() {
  delete m_payload;
  m_payload = nullptr;

  // Every node that links this one drops all its links to it. A node may be
  // linked twice by one referrer (under its own handle and an alias handle),
  // so the referrer is asked to drop every link, and all its entries go.
  for (;;) {
    Path* referrer;
    unsigned int links = 0;
    {
      ReadGuard hold(m_lock);
      if (m_referrers.empty()) break;
      referrer = m_referrers.front();
      for (Path* r : m_referrers) links += (r == referrer);
    }
    referrer->UnlinkTarget(this, links);
    WriteGuard hold(m_lock);
    m_referrers.remove(referrer);
  }

  for (;;) {
    unsigned long key;
    PathLink link;
    {
      ReadGuard hold(m_lock);
      if (m_childrenByHandle.empty()) break;
      key = m_childrenByHandle.begin()->first;
      link = m_childrenByHandle.begin()->second;
    }
    if (link.kind == PathLink::kSymlink) {
      RemoveSymlink(key);
    } else {
      delete link.target;  // erases itself from this node's maps
    }
    // Whatever happened above, the entry must be gone, or this loop would
    // never end (a clash of handles can leave an entry its target does not
    // know about).
    ForgetChildEntry(key, link.target);
  }
}

void Path::ForgetChildEntry(unsigned long handle, Path* child) {
  // Compares the pointer only: an owned child is already freed here.
  WriteGuard hold(m_lock);
  EraseByHandle(handle, child, ~0u);
}

Path* Path::GetChild(const char* path, unsigned char flags, const char** rest) {
  if (path == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");

  // A run of separators at the very start stays part of the first name.
  const char* end = SkipSeparators(path);
  while (*end != '\0' && !IsSeparator(*end)) ++end;
  const std::string name(path, end);

  Path* child = nullptr;
  {
    ReadGuard hold(m_lock);
    auto it = m_childrenByName.find(name);
    if (it != m_childrenByName.end()) child = it->second.target;
  }
  if (child == nullptr) {
    if ((flags & kPathCreate) == 0) return nullptr;
    child = CreateChild(0, name, flags);
  }

  const char* next = SkipSeparators(end);
  if (*next == '\0') return child;
  Path* deeper = child->GetChild(next, flags, rest);
  if (deeper != nullptr) return deeper;
  if (rest == nullptr) return nullptr;
  *rest = next;
  return child;
}

Path* Path::GetChild(unsigned long handle, unsigned char flags) {
  {
    ReadGuard hold(m_lock);
    auto it = m_childrenByHandle.find(handle);
    if (it != m_childrenByHandle.end()) return it->second.target;
  }
  if ((flags & kPathCreate) == 0) return nullptr;
  return CreateChild(handle, std::string(), flags);
}

Path* Path::GetChildNamed(const std::string& name, unsigned char flags) {
  {
    ReadGuard hold(m_lock);
    auto it = m_childrenByName.find(name);
    if (it != m_childrenByName.end()) return it->second.target;
  }
  if ((flags & kPathCreate) == 0) return nullptr;
  return CreateChild(0, name, flags);
}

Path* Path::CreateChild(unsigned long handle, const std::string& name, unsigned char flags) {
  Path* child = nullptr;
  {
    // The lookup missed under the read lock; another thread may have made the
    // node since. Looking again under the write lock makes two threads that
    // ask for the same missing node get the same one.
    WriteGuard hold(m_lock);
    if (!name.empty()) {
      auto it = m_childrenByName.find(name);
      if (it != m_childrenByName.end()) return it->second.target;
    } else if (handle != 0) {
      auto it = m_childrenByHandle.find(handle);
      if (it != m_childrenByHandle.end()) return it->second.target;
    }
    child = NewChildLocked(handle, name, (flags & kPathUnlisted) == 0);
  }
  if ((flags & kPathNoHandleEntry) == 0) RegisterHandle(child);
  return child;
}

Path* Path::NewChild(unsigned long handle, const std::string& name, bool listed,
                     bool registerHandle) {
  Path* child;
  {
    WriteGuard hold(m_lock);
    child = NewChildLocked(handle, name, listed);
  }
  if (registerHandle) RegisterHandle(child);
  return child;
}

Path* Path::NewChildLocked(unsigned long handle, const std::string& name, bool listed) {
  // The child is complete before it becomes visible in the maps: a reader that
  // finds it never sees it without its parent, handle or registry.
  Path* child = new Path();
  child->m_parent = this;
  child->m_listed = listed ? 1 : 0;
  child->m_registry = m_registry;
  child->m_handle = handle != 0 ? handle : CreateHandle(child);
  child->m_name = name;
  FileByHandle(child->m_handle, PathLink{PathLink::kOwned, child});
  if (!name.empty()) m_childrenByName[name] = PathLink{PathLink::kOwned, child};
  return child;
}

void Path::RegisterHandle(Path* child) {
  if (m_registry == nullptr) return;
  Path* handles = static_cast<Registry*>(m_registry)->GetHandleBranch();
  if (handles == nullptr) return;
  if (handles->GetChild(child->m_handle, 0) != nullptr) {
    // Reported, and registered anyway: AddSymlink keeps the node filed first.
    std::puts("BAD HANDLE!!!!!");
  }
  handles->AddSymlink(child);
}

void Path::SetName(const char* name) {
  if (m_parent != nullptr) {
    WriteGuard hold(m_parent->m_lock);
    if (!m_name.empty()) EraseIfTarget(m_parent->m_childrenByName, m_name, this, ~0u);
    m_parent->m_childrenByHandle.at(m_handle);  // a node its parent does not list throws
    // No node is filed under the empty name, as NewChildLocked files none: the
    // erasures above and in ~Path skip an unnamed node, so such an entry would
    // outlive its node and a later lookup of "" would return freed memory.
    if (*name != '\0') m_parent->m_childrenByName[name] = PathLink{PathLink::kOwned, this};
  }
  m_name = name;
}

Path* Path::AddSymlink(Path* target) { return AddAliasSymlink(target->m_handle, target); }

Path* Path::AddAliasSymlink(unsigned long handle, Path* target) {
  {
    WriteGuard hold(m_lock);
    auto it = m_childrenByHandle.find(handle);
    if (it != m_childrenByHandle.end()) return it->second.target;
    FileByHandle(handle, PathLink{PathLink::kSymlink, target});
    if (!target->m_name.empty()) {
      // A link never shadows an owned child of the same name (a link named
      // "bindings" must not hide a metric's own "bindings").
      auto named = m_childrenByName.find(target->m_name);
      if (named == m_childrenByName.end() || named->second.kind == PathLink::kSymlink) {
        m_childrenByName[target->m_name] = PathLink{PathLink::kSymlink, target};
      }
    }
  }
  WriteGuard hold(target->m_lock);
  target->m_referrers.push_back(this);
  return target;
}

bool Path::RemoveSymlink(unsigned long handle) {
  Path* target;
  {
    ReadGuard hold(m_lock);
    auto it = m_childrenByHandle.find(handle);
    if (it == m_childrenByHandle.end() || it->second.kind != PathLink::kSymlink) return false;
    target = it->second.target;
  }
  {
    // One referrer entry per link: the target may be linked here under a
    // second, alias handle, and that link keeps its own entry.
    WriteGuard hold(target->m_lock);
    for (auto it = target->m_referrers.begin(); it != target->m_referrers.end(); ++it) {
      if (*it == this) {
        target->m_referrers.erase(it);
        break;
      }
    }
  }
  WriteGuard hold(m_lock);
  EraseByHandle(handle, target, PathLink::kSymlink);
  if (!target->m_name.empty()) {
    EraseIfTarget(m_childrenByName, target->m_name, target, PathLink::kSymlink);
  }
  return true;
}

unsigned int Path::UnlinkTarget(Path* target, unsigned int expected) {
  WriteGuard hold(m_lock);
  unsigned int removed = 0;
  if (EraseByHandle(target->m_handle, target, PathLink::kSymlink)) ++removed;
  // Links under other handles (aliases) are rare; only then is the map walked.
  if (removed < expected) {
    for (auto it = m_childrenByHandle.begin(); it != m_childrenByHandle.end();) {
      if (it->second.kind == PathLink::kSymlink && it->second.target == target) {
        if (HandleIndex* index = MirrorIndex()) index->Erase(it->first);
        it = m_childrenByHandle.erase(it);
        ++removed;
      } else {
        ++it;
      }
    }
  }
  if (!target->m_name.empty()) {
    EraseIfTarget(m_childrenByName, target->m_name, target, PathLink::kSymlink);
  }
  return removed;
}

bool Path::HasChildren() {
  ReadGuard hold(m_lock);
  return !m_childrenByHandle.empty();
}

unsigned long Path::ChildCount() {
  unsigned long counter = 0;
  ReadGuard hold(m_lock);
  for (auto& entry : m_childrenByHandle) CountHandles(&counter, entry.second.target);
  return counter;
}

void Path::GetChildHandles(unsigned int count, unsigned long* out) {
  unsigned long remaining = count;
  ReadGuard hold(m_lock);
  for (auto& entry : m_childrenByHandle) {
    if (remaining == 0) break;
    AddHandles(&remaining, &out, entry.second.target);
  }
}

void Path::CountHandles(unsigned long* counter, Path* child) {
  if (child->m_listed != 0) ++*counter;
}

void Path::AddHandles(unsigned long* remaining, unsigned long** cursor, Path* child) {
  if (child->m_listed == 0 || *remaining == 0) return;
  *(*cursor)++ = child->m_handle;  // the child's own handle, not the key it is filed under
  --*remaining;
}

unsigned long Path::CreateHandle(void* object) {
  const unsigned long p = reinterpret_cast<unsigned long>(object);
  const unsigned int low = static_cast<unsigned int>((p << 5) ^ (p >> 32) ^ ((p >> 27) & 31));
  // A node outside any registry (a bare tree) makes handles with GUID 0.
  const unsigned long guid =
      m_registry != nullptr ? static_cast<Registry*>(m_registry)->GetLocalGuid() : 0;
  return (guid << 32) | low;
}

void Path::SetRootIdentity(unsigned long handle, const std::string& name) {
  m_registry = this;
  m_handle = handle;
  m_name = name;
  m_listed = 1;
}

void Path::FileByHandle(unsigned long handle, const PathLink& link) {
  m_childrenByHandle[handle] = link;
  ++m_childChanges;
  if (HandleIndex* index = MirrorIndex()) index->Set(handle, link.target);
}

bool Path::EraseByHandle(unsigned long handle, Path* target, unsigned int kind) {
  if (!EraseIfTarget(m_childrenByHandle, handle, target, kind)) return false;
  ++m_childChanges;
  if (HandleIndex* index = MirrorIndex()) index->Erase(handle);
  return true;
}

HandleIndex* Path::MirrorIndex() {
  return m_registry != nullptr ? static_cast<Registry*>(m_registry)->IndexOf(this) : nullptr;
}

void Path::DetachChild(Path* child) {
  WriteGuard hold(m_lock);
  EraseByHandle(child->m_handle, child, ~0u);
  if (!child->m_name.empty()) EraseIfTarget(m_childrenByName, child->m_name, child, ~0u);
}

}  // namespace MetricsFramework
