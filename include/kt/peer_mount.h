// SPDX-License-Identifier: Apache-2.0
//
// Mounting the registry of another process (a peer) under this registry's
// "peers" node, for transport modules that carry requests between processes.
//
// A mount is a node "peers/<name>" whose client manager forwards every call
// it receives through a conduit of this registry to the peer's command method
// (the request and reply records of docs/remote_records.md; docs/peer_mount.md
// tells the whole story). Once mounted, a client of this process's client
// manager reaches the peer's nodes by path ("peers/<name>/publishers/...")
// and by handle, with the statuses, names and records a call inside the peer
// would give. The library owns the mount's client manager; the transport owns
// the conduit and must keep it filed until it has unmounted every mount that
// uses it.
//
// The transport's conduit: Transact(kCommandMethodHandle, request, reply)
// carries the request record to the peer, has the peer's extension manager
// dispatch it (DispatchRemoteMethod under kCommandMethodHandle) and commits
// the reply records, in order, into `reply`. It returns the peer's dispatch
// status, or its own failure when the request or the reply was lost or the
// deadline passed. A call whose reply records arrived takes the status they
// carry; one without a reply fails with Transact's status (or
// KT_STATUS_INVALID_OPERATION when that was success). A remote method call
// has no status record: its result is Transact's status.
//
// Lifetime: calls routed by this library's client manager hold the mount's
// client manager while they run, so unmounting never frees it under them:
// calls in flight finish, and it is freed when the last has left. A caller
// that keeps the pointer GetProxyForComponent gave is covered only while it
// is inside a call. A transport whose link dies must therefore let every call
// through the dead link fail at its deadline before it unmounts: keep a dead
// link's mount for longer than the call deadline.
//
// Threads: both functions may be called from any thread, also while clients
// call through this and other mounts; mounts and unmounts of one registry
// take turns on its "peers" node.
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
// reports that name and the "peers" node as its parent. Requests travel
// through `transportConduit`, a conduit extension filed in this registry (see
// above); `remoteConduit` is the peer's conduit handle under which the peer
// files this client's subscriptions. On success writes the mount's handle to
// *outMount: peerGuid << 32, which is also the handle of the peer's root.
// KT_STATUS_INVALID_ARGUMENT for a null `clientManager` or one that is not
// this library's client manager, a null `name` or `outMount`, a `peerGuid` of
// 0 or of this registry; KT_STATUS_ALREADY_EXISTS when `peerGuid` is mounted
// already; KT_STATUS_INVALID_OBJECT when `transportConduit` is not a conduit
// filed here. On failure *outMount (when not null) is set to 0. A restarted
// peer has a new GUID and gets a mount of its own.
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
