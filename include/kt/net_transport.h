// SPDX-License-Identifier: Apache-2.0
//
// The network transport module (libkt_NetTransport.so): links this process to
// peer processes over tcp:// (between machines) or ipc:// (on one machine) and
// carries the client-manager protocol between them, so that a peer's registry
// appears under this registry's "peers" node and its nodes and methods answer
// as they do in the peer.
//
// A host loads the module like any other: dlopen, read its export table (one
// row, "NetTransport", a publisher) and Add the extension. As a publisher it
// publishes its link figures (links up, calls made and failed, frames and
// bytes each way, errors, round trip; the README's network section lists
// them) as metrics of its own node, committed once a second, and unpublishes
// them when it is removed. Before that, or at
// any time after, it configures the module through the two C functions
// below, which it finds with dlsym on the module's handle:
//
//   auto configure = reinterpret_cast<KTNetTransportConfigureFn>(
//       dlsym(module, "KTNetTransportConfigure"));
//   configure("listen", "tcp://127.0.0.1:*");
//
// Settings are process-wide. "listen" and "connect" reach a loaded transport
// at once; the other keys take effect when the extension is next loaded
// (Add). Removing the extension closes every link: calls in flight fail with
// KT_STATUS_NOT_AVAILABLE, its threads are joined, and its mounts and link
// conduits leave the registry.
//
// Both functions may be called from any thread. The frames on the wire are
// described in docs/net_frames.md.
#ifndef KT_NET_TRANSPORT_H_
#define KT_NET_TRANSPORT_H_

#include "kt/status.h"
#include "kt/visibility.h"

extern "C" {

// Sets one key of the module's configuration:
//   "listen"       an endpoint to listen on ("tcp://127.0.0.1:*" lets the system
//                  choose the port; "ipc:///path"); repeatable; none by default;
//                  "" forgets the endpoints given before (not those in use)
//   "connect"      an endpoint to dial; repeatable; none by default; "" as
//                  for "listen"
//   "serve"        which requests peers may make: none | browse (ops 1-5, the
//                  default) | subscribe (1-8) | full (1-9); others answer
//                  KT_STATUS_INVALID_OPERATION
//   "mount"        which links this side mounts under "peers": dialled (the
//                  default) | accepted | all | none
//   "name"         the name offered to peers for their mount of this process
//                  (at most 255 bytes); by default host name, "-", pid
//   "deadline-ms"  how long a call over a link waits for its reply (2000)
//   "heartbeat-ms" how often each side says it is alive (500); a peer silent
//                  for three of them is down
//   "grace-ms"     how long a dead peer keeps its mount (5000); must exceed
//                  deadline-ms
//   "curve-secret-key" a file holding this process's CURVE secret key: every
//                  listener then encrypts and admits only the keys of
//                  "curve-allow"; also a dialler's own key
//   "curve-public-key" a file holding the matching public key (checked; made
//                  from the secret key when not given)
//   "curve-server-key" a file holding the public key every dialled listener
//                  must prove (needs "curve-secret-key")
//   "curve-allow"  a file of the client public keys a CURVE listener admits,
//                  one a line ('#' starts a comment)
// KT_STATUS_INVALID_ARGUMENT, with the setting unchanged and one log line, for
// a null or unknown key, a null value, or a value the key does not take (an
// endpoint the engine refuses included, when the transport runs).
KT_EXPORT MetricsFramework::KT_STATUS KTNetTransportConfigure(const char* key, const char* value);

// Copies the listening endpoint `index` (0 for the first "listen"), as the
// engine resolved it (the port chosen for "*"), into `out`, NUL included.
// KT_STATUS_INVALID_ARGUMENT for a null `out`; KT_STATUS_DOES_NOT_EXIST when
// no transport runs or it has no endpoint `index`; KT_STATUS_INVALID_SIZE
// when `size` bytes cannot hold it. `out` is written only on success.
KT_EXPORT MetricsFramework::KT_STATUS KTNetTransportGetEndpoint(unsigned int index, char* out,
                                                               unsigned int size);

// Copies the running transport's counter `name` into *out: "frames", the
// messages from peers that reached the frame decoder; "frame-errors", those
// refused as malformed or out of place. KT_STATUS_INVALID_ARGUMENT for a null
// argument or an unknown name; KT_STATUS_DOES_NOT_EXIST when no transport
// runs.
KT_EXPORT MetricsFramework::KT_STATUS KTNetTransportGetCounter(const char* name,
                                                              unsigned long* out);

typedef MetricsFramework::KT_STATUS (*KTNetTransportConfigureFn)(const char*, const char*);
typedef MetricsFramework::KT_STATUS (*KTNetTransportGetEndpointFn)(unsigned int, char*,
                                                                   unsigned int);

}  // extern "C"

#endif  // KT_NET_TRANSPORT_H_
