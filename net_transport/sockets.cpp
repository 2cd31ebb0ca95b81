#include "net_transport/sockets.h"

#include <zmq.h>

#include <cstdint>

#include "net_transport/frame.h"

namespace kt_net {

namespace {

// Options both kinds share: no lingering at close, no message above the frame
// limit (refused by the engine before it allocates), the engine's own
// connection heartbeats so that a dead TCP peer is dropped and redialled.
bool SetCommon(void* socket, const NetSettings& settings) {
  const int zero = 0;
  const int64_t maxSize = static_cast<int64_t>(kMaxFrameSize);
  const int hwm = 10000;
  const int handshake = 2000;
  const int heartbeat = static_cast<int>(settings.heartbeatMs);
  const int timeout = heartbeat * 3;
  return zmq_setsockopt(socket, ZMQ_LINGER, &zero, sizeof zero) == 0 &&
         zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &maxSize, sizeof maxSize) == 0 &&
         zmq_setsockopt(socket, ZMQ_SNDHWM, &hwm, sizeof hwm) == 0 &&
         zmq_setsockopt(socket, ZMQ_RCVHWM, &hwm, sizeof hwm) == 0 &&
         zmq_setsockopt(socket, ZMQ_HANDSHAKE_IVL, &handshake, sizeof handshake) == 0 &&
         zmq_setsockopt(socket, ZMQ_HEARTBEAT_IVL, &heartbeat, sizeof heartbeat) == 0 &&
         zmq_setsockopt(socket, ZMQ_HEARTBEAT_TIMEOUT, &timeout, sizeof timeout) == 0 &&
         zmq_setsockopt(socket, ZMQ_HEARTBEAT_TTL, &timeout, sizeof timeout) == 0;
}

void* Make(void* context, int type, const NetSettings& settings, std::string* error) {
  void* socket = zmq_socket(context, type);
  if (socket != nullptr && SetCommon(socket, settings)) return socket;
  *error = zmq_strerror(zmq_errno());
  if (socket != nullptr) zmq_close(socket);
  return nullptr;
}

}  // namespace

void* MakeListeningSocket(void* context, const NetSettings& settings, std::string* error) {
  void* socket = Make(context, ZMQ_ROUTER, settings, error);
  if (socket == nullptr) return nullptr;
  // A reply to a peer that has gone fails at once instead of vanishing.
  const int one = 1;
  zmq_setsockopt(socket, ZMQ_ROUTER_MANDATORY, &one, sizeof one);
  if (settings.curve.Serving() && !settings.curve.ApplyServer(socket, error)) {
    zmq_close(socket);
    return nullptr;
  }
  return socket;
}

void* MakeDiallingSocket(void* context, const NetSettings& settings, std::string* error) {
  void* socket = Make(context, ZMQ_DEALER, settings, error);
  if (socket == nullptr) return nullptr;
  // Nothing queues for a peer that is not connected: a hello is said again
  // anyway, and a request fails at its deadline rather than arriving late.
  const int one = 1;
  const int reconnect = 100;
  const int reconnectMax = 2000;
  zmq_setsockopt(socket, ZMQ_IMMEDIATE, &one, sizeof one);
  zmq_setsockopt(socket, ZMQ_RECONNECT_IVL, &reconnect, sizeof reconnect);
  zmq_setsockopt(socket, ZMQ_RECONNECT_IVL_MAX, &reconnectMax, sizeof reconnectMax);
  if (settings.curve.Dialling() && !settings.curve.ApplyClient(socket, error)) {
    zmq_close(socket);
    return nullptr;
  }
  return socket;
}

}  // namespace kt_net
