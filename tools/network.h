// kt-host's network options: the transport module (libkt_NetTransport.so),
// which links this host to other processes and mounts them under "peers",
// its configuration from the command line, and the sub-commands that belong
// to it: serve, which runs until stopped, and keygen, which makes CURVE keys.
// Everything runs on the host's main thread.
#ifndef KT_TOOLS_NETWORK_H_
#define KT_TOOLS_NETWORK_H_

#include <string>
#include <utility>
#include <vector>

#include "host_loader.h"

namespace CLI {
class App;
}

namespace kt_host {

// The transport module's file name, in the module directory.
constexpr const char* kNetModuleFile = "libkt_NetTransport.so";

struct NetOptions {
  std::vector<std::string> listen;
  std::vector<std::string> connect;
  std::string serve;  // none, browse, subscribe, full; "" leaves the module's default
  std::string name;
  std::string curveSecretKey;
  std::string curvePublicKey;
  std::string curveServerKey;
  std::string curveAllow;

  // Whether any network option was given, and the transport is loaded.
  bool Any() const;
  // The module's configuration, key and value, in the order it is applied.
  std::vector<std::pair<std::string, std::string>> Settings() const;
};

// Adds the network options to `app` (valid before and after any sub-command).
void AddNetworkOptions(CLI::App& app, NetOptions& options);

// Configures the opened transport module at `modulePath` through its
// KTNetTransportConfigure, before its extensions are added. False (with the
// fault on standard error) when the module lacks the function or refuses a
// setting.
bool ConfigureTransport(HostLoader& host, const std::string& modulePath,
                        const NetOptions& options);

// Waits until `count` peers are mounted under "peers", so that a command run
// after it sees the peers dialled with --connect; says on standard error which
// did not come within a few seconds.
void WaitForDialledPeers(HostLoader& host, size_t count);

// serve: prints the endpoints the transport listens on and this registry's
// GUID, then waits until a signal stops it or `seconds` (0: no limit) pass.
int ServeCommand(HostLoader& host, const std::string& modulePath, long seconds);

// keygen: writes DIR/NAME.public and DIR/NAME.secret (made when missing).
int KeygenCommand(const std::string& dir, const std::string& name);

}  // namespace kt_host

#endif  // KT_TOOLS_NETWORK_H_
