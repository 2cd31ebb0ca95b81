// SPDX-License-Identifier: Apache-2.0
//
// Mounting the registry of another process (a peer) under this registry's
// "peers" node, for transport modules that carry requests between processes.
//
// A mount is a node "peers/<name>" whose client manager forwards every call
// it receives through a conduit of this registry to the peer's command method
// (the request and reply records of docs/remote_records.md). Once mounted, a
// client of this process's client manager reaches the peer's nodes by path
// ("peers/<name>/publishers/...") and by handle, with the statuses, names and
// records a call inside the peer would give. The library owns the mount's
// client manager; the transport owns the conduit and must keep it filed until
// it has unmounted every mount that uses it.
//
// Lifetime: client calls hold a raw pointer to the mount's client manager
// after the lookup that found it, so unmounting does not free it at once:
// calls already in flight finish, and the client manager is freed when the
// last of them has left. A transport whose link dies must therefore let every
// call through the dead link fail at its deadline before it unmounts: keep
// the mount for longer than the transport's call deadline.
//
// Threads: both functions may be called from any thread, also while clients
// call through other mounts.
#ifndef KT_PEER_MOUNT_H_
#define KT_PEER_MOUNT_H_

#include "kt/status.h"
#include "kt/visibility.h"

namespace MetricsFramework {

class IClientManager;

// The handle under which every registry serves the client-manager protocol
// (its "command" method), besides the method's own handle.
constexpr unsigned long kCommandMethodHandle = 0x00ABBAFABBAABBAFul;

}  // namespace MetricsFramework

extern "C" {

// Files the registry whose GUID is `peerGuid` under this registry's "peers"
// node (created when missing). The mount is named `name` made safe (every
// '/' and '\' becomes '_', an empty name becomes "peer") and unique among the
// mounts (a suffix "-2", "-3", ... when the name is taken); the peer's root
// reports that name and "peers" as its parent. Requests travel through
// `transportConduit`, a conduit extension filed in this registry whose
// Transact carries a request record to the peer's command method
// (kCommandMethodHandle) and commits the reply records into the reply buffer;
// `remoteConduit` is the peer's conduit handle for this client's
// subscriptions. On success writes the mount node's handle to *outMount.
// KT_STATUS_INVALID_ARGUMENT for a null `clientManager` or one that is not
// this library's client manager, a null `name` or `outMount`, a `peerGuid` of
// 0 or of this registry; KT_STATUS_ALREADY_EXISTS when `peerGuid` is mounted
// already; KT_STATUS_INVALID_OBJECT when `transportConduit` is not a conduit
// filed here. On failure *outMount (when not null) is set to 0.
KT_EXPORT MetricsFramework::KT_STATUS KTMountPeer(MetricsFramework::IClientManager* clientManager,
                                                  unsigned int peerGuid, const char* name,
                                                  unsigned long transportConduit,
                                                  unsigned long remoteConduit,
                                                  unsigned long* outMount);

// Removes the mount `mount` made by KTMountPeer: no new call finds it, calls
// in flight through it finish with their answers, and its client manager is
// freed once the last of them has left. KT_STATUS_INVALID_ARGUMENT for a null
// or foreign `clientManager`; KT_STATUS_INVALID_OBJECT when `mount` is not a
// mount made by KTMountPeer on this registry (also once it is unmounted).
KT_EXPORT MetricsFramework::KT_STATUS KTUnmountPeer(MetricsFramework::IClientManager* clientManager,
                                                    unsigned long mount);

}  // extern "C"

#endif  // KT_PEER_MOUNT_H_
