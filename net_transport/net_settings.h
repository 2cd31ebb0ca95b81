// NetSettings: the configuration of the network transport, and the table of
// keys through which a host sets it (KTNetTransportConfigure,
// include/kt/net_transport.h).
//
// A NetSettings is a plain value with no synchronisation of its own; the
// module keeps one under its lock and hands each running transport a copy.
// ApplySetting is a pure function of its arguments.
#ifndef KT_NET_TRANSPORT_NET_SETTINGS_H_
#define KT_NET_TRANSPORT_NET_SETTINGS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kt/status.h"
#include "net_transport/curve.h"

namespace kt_net {

// Which ops of the client-manager protocol a process serves to its peers:
// every op up to the policy's last one.
enum class ServePolicy : uint32_t { kNone = 0, kBrowse = 5, kSubscribe = 8, kFull = 9 };

// Which links this side files as mounts under its "peers" node.
enum class MountPolicy { kDialled, kAccepted, kAll, kNone };

struct NetSettings {
  std::vector<std::string> listen;   // endpoints to listen on, in the order given
  std::vector<std::string> connect;  // endpoints to dial, in the order given
  ServePolicy serve = ServePolicy::kBrowse;
  MountPolicy mount = MountPolicy::kDialled;
  std::string name;                  // offered to peers for their mount; empty: host-pid
  uint32_t deadlineMs = 2000;        // how long a call waits for its reply
  uint32_t heartbeatMs = 500;        // a heartbeat every this often; three missed: down
  uint32_t graceMs = 5000;           // how long a dead link keeps its mount; > deadlineMs
  CurveConfig curve;                 // the CURVE keys ("curve-*"), when links are secured
  // The last op served under `serve`.
  uint32_t LastServedOp() const { return static_cast<uint32_t>(serve); }
  bool Mounts(bool dialled) const {
    return mount == MountPolicy::kAll || (mount == MountPolicy::kDialled && dialled) ||
           (mount == MountPolicy::kAccepted && !dialled);
  }
  // The name offered to peers: `name`, or this host's name, "-" and the pid.
  std::string OfferedName() const;
};

// Sets `key` to `value` in `settings`. KT_STATUS_INVALID_ARGUMENT, with
// `settings` unchanged and the reason in *error, for a null or unknown key, a
// null value or one the key does not take (grace-ms must exceed deadline-ms).
// "listen" and "connect" append one endpoint each time; an empty value
// empties their list.
MetricsFramework::KT_STATUS ApplySetting(NetSettings& settings, const char* key, const char* value,
                                         std::string* error);

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_NET_SETTINGS_H_
