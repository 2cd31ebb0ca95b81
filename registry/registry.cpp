#include "registry/registry.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "kt/platform.h"

namespace MetricsFramework {

unsigned int FoldMacAddress(const char* text) {
  unsigned char b[6] = {0, 0, 0, 0, 0, 0};
  std::string copy(text != nullptr ? text : "");
  char* save = nullptr;
  int i = 0;
  // At most six fields are read, whatever the text holds.
  for (char* token = strtok_r(&copy[0], ":", &save); token != nullptr && i < 6;
       token = strtok_r(nullptr, ":", &save), ++i) {
    unsigned int value = 0;
    sdl_sscanf(token, "%x", &value);
    b[i] = static_cast<unsigned char>(value);
  }
  // All six bytes folded into four: b4 lands in the lowest byte and b5 in the
  // second, with carries. Not a hash; two machines can collide.
  return static_cast<unsigned int>(b[0]) + b[4] + (static_cast<unsigned int>(b[1]) << 8) +
         (static_cast<unsigned int>(b[5]) << 8) + (static_cast<unsigned int>(b[2]) << 16) +
         (static_cast<unsigned int>(b[3]) << 24);
}

unsigned int ReadMacFold(const char* filename) {
  std::FILE* file = std::fopen(filename, "r");
  if (file == nullptr) return 0;
  char text[32] = {0};
  const size_t read = std::fread(text, 1, 31, file);
  std::fclose(file);
  if (read == 0) return 0;
  return FoldMacAddress(text);
}

Registry::Registry()
    : m_guid(0), m_notificationsEnabled(true), m_handles(nullptr), m_handlesAttached(false) {
  const unsigned long guid = GetLocalGuid();
  SetRootIdentity(guid << 32, "root");
  // Known as "handles" before anything is linked into it, so that the index
  // sees every link.
  m_handles = GetChild("handles", kPathCreate | kPathUnlisted | kPathNoHandleEntry);
  m_handlesAttached.store(true, std::memory_order_relaxed);
  m_handles->AddSymlink(this);
}

Registry::~Registry() {
  m_notificationsEnabled = false;
  // "handles" is detached and deliberately never freed, so that tearing the
  // tree down does not walk it; every node still unlinks itself from it.
  // From here on no handle resolves and no new node is registered: payloads
  // destroyed below find nothing by handle, as if "handles" were gone.
  m_handlesAttached.store(false, std::memory_order_relaxed);
  DetachChild(m_handles);
  m_listeners.clear();
  // The tree goes now, while the registry's own members are still alive for
  // payloads that look at them on their way out.
  DestroyContents();
}

unsigned int Registry::GetLocalGuid() {
  const unsigned int cached = m_guid.load(std::memory_order_relaxed);
  if (cached != 0) return cached;
  const unsigned int mac = ReadMacFold("/sys/class/net/eth0/address");
  const unsigned int guid = static_cast<unsigned int>(KTGetCurrentProcessId()) + mac +
                            static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(this));
  m_guid.store(guid, std::memory_order_relaxed);
  return guid;
}

Path* Registry::ResolveHandle(unsigned long handle) {
  if (!m_handlesAttached.load(std::memory_order_relaxed)) return nullptr;
  return m_handleIndex.Find(handle);
}

void Registry::AddStateListener(StateListener listener, void* context) {
  m_listeners[listener] = context;
}

void Registry::RemoveStateListener(StateListener listener) { m_listeners.erase(listener); }

void Registry::NotifyStateListeners(unsigned int event, unsigned long a, unsigned long b) {
  if (!m_notificationsEnabled) return;
  for (auto& entry : m_listeners) entry.first(entry.second, event, a, b);
}

}  // namespace MetricsFramework
