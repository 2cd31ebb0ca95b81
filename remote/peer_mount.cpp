// Mounting a peer process under "peers" (kt/peer_mount.h).
//
// A mount is a node of "peers" filed under the peer's GUID shifted left by 32
// bits (the handle of the peer's root, so that every handle of the peer finds
// it) and not registered in "handles". Its payload is a PeerState whose peer
// is a MountClientManager. Mounting builds the node whole under the lock of
// "peers"; unmounting detaches it under that lock before destroying it, which
// is what lets the router enter a call on a mount without it vanishing.
#include "kt/peer_mount.h"

#include <algorithm>
#include <string>

#include "client/default_client_manager.h"
#include "foundation/diagnostics.h"
#include "remote/mount_client_manager.h"
#include "state/conduit_state.h"
#include "state/peer_state.h"

using namespace MetricsFramework;

namespace {

// The name without separators, "peer" when empty.
std::string SafeName(const char* name) {
  std::string safe = *name != '\0' ? name : "peer";
  std::replace_if(safe.begin(), safe.end(), [](char c) { return c == '/' || c == '\\'; }, '_');
  return safe;
}

// `base`, or the first of "base-2", "base-3", ... that no child of `peers`
// has. The caller holds the lock of `peers`.
std::string UniqueName(Path* peers, const std::string& base) {
  std::string name = base;
  for (unsigned int n = 2; peers->GetChildNamed(name, 0) != nullptr; ++n) {
    name = base + "-" + std::to_string(n);
  }
  return name;
}

bool IsConduit(Registry& registry, unsigned long handle) {
  Path* node = handle != 0 ? registry.ResolveHandle(handle) : nullptr;
  auto* state = node != nullptr ? dynamic_cast<ConduitState*>(node->GetPayload()) : nullptr;
  return state != nullptr && state->m_conduit != nullptr;
}

// Whether `node` is a mount that KTMountPeer made.
bool IsMount(Path* node) {
  auto* state = node != nullptr ? dynamic_cast<PeerState*>(node->GetPayload()) : nullptr;
  return state != nullptr && dynamic_cast<MountClientManager*>(state->GetPeer()) != nullptr;
}

}  // namespace

extern "C" {

KT_STATUS KTMountPeer(IClientManager* clientManager, unsigned int peerGuid, const char* name,
                      unsigned long transportConduit, unsigned long remoteConduit,
                      unsigned long* outMount) {
  if (outMount != nullptr) *outMount = 0;
  auto* manager = dynamic_cast<DefaultClientManager*>(clientManager);
  if (manager == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "clientManager");
  if (name == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "name");
  if (outMount == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "outMount");
  Registry& registry = manager->GetRegistry();
  if (peerGuid == 0 || peerGuid == registry.GetLocalGuid()) {
    return Fail(KT_STATUS_INVALID_ARGUMENT, "peerGuid");
  }
  if (!IsConduit(registry, transportConduit)) {
    return Fail(KT_STATUS_INVALID_OBJECT, "transportConduit");
  }
  Path* peers = registry.GetChild("peers", kPathCreate);
  const unsigned long key = static_cast<unsigned long>(peerGuid) << 32;
  WriteGuard hold(peers->GetLock());
  if (peers->GetChild(key, 0) != nullptr) return Fail(KT_STATUS_ALREADY_EXISTS, "peerGuid");
  const std::string unique = UniqueName(peers, SafeName(name));
  Path* node = peers->NewChild(key, unique, true, false);
  new PeerState(new MountClientManager(key, peers->GetHandle(), unique, manager, transportConduit,
                                       remoteConduit),
                node);
  *outMount = key;
  return KT_STATUS_SUCCESS;
}

KT_STATUS KTUnmountPeer(IClientManager* clientManager, unsigned long mount) {
  auto* manager = dynamic_cast<DefaultClientManager*>(clientManager);
  if (manager == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "clientManager");
  Path* peers = manager->GetRegistry().GetChild("peers", 0);
  Path* node = nullptr;
  if (peers != nullptr) {
    WriteGuard hold(peers->GetLock());
    node = peers->GetChild(mount, 0);
    if (!IsMount(node)) node = nullptr;
    if (node != nullptr) peers->DetachChild(node);
  }
  if (node == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "mount");
  // The state releases its mount client manager, which goes once the calls
  // still inside it have left.
  delete node;
  return KT_STATUS_SUCCESS;
}

}  // extern "C"
