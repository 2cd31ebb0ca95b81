// The two kinds of socket a link runs over, made in one place each so that
// every option a socket needs (limits, heartbeats, and any security a host
// configures) is set before it binds or connects.
//
// Both functions are called on the I/O thread, which owns the sockets they
// return; the caller binds or connects them and closes them. Null, with the
// engine's reason in *error, when a socket cannot be made.
#ifndef KT_NET_TRANSPORT_SOCKETS_H_
#define KT_NET_TRANSPORT_SOCKETS_H_

#include <string>

#include "net_transport/net_settings.h"

namespace kt_net {

// A ROUTER socket, ready to bind: one per listen endpoint.
void* MakeListeningSocket(void* context, const NetSettings& settings, std::string* error);
// A DEALER socket, ready to connect: one per dialled endpoint.
void* MakeDiallingSocket(void* context, const NetSettings& settings, std::string* error);

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_SOCKETS_H_
