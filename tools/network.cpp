// kt-host's network options and the serve and keygen sub-commands.
#include "network.h"

#include <sys/stat.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "kt/net_transport.h"
#include "kt/status.h"
#include "net_transport/curve.h"

namespace kt_host {

using namespace MetricsFramework;

namespace {

using CounterFunction = decltype(&KTNetTransportGetCounter);

template <typename Function>
Function Lookup(HostLoader& host, const std::string& modulePath, const char* name) {
  void* symbol = host.FindSymbol(modulePath, name);
  if (symbol == nullptr) std::fprintf(stderr, "kt-host: %s has no %s\n", modulePath.c_str(), name);
  return reinterpret_cast<Function>(symbol);
}

// Sleeps up to `ms`, less when a signal arrives.
void Nap(long ms) {
  const timespec pause{ms / 1000, (ms % 1000) * 1000000};
  nanosleep(&pause, nullptr);
}

}  // namespace

bool NetOptions::Any() const { return !Settings().empty(); }

std::vector<std::pair<std::string, std::string>> NetOptions::Settings() const {
  std::vector<std::pair<std::string, std::string>> settings;
  const std::pair<const char*, const std::string*> single[] = {
      {"name", &name},
      {"serve", &serve},
      {"curve-secret-key", &curveSecretKey},
      {"curve-public-key", &curvePublicKey},
      {"curve-server-key", &curveServerKey},
      {"curve-allow", &curveAllow},
  };
  for (const auto& setting : single) {
    if (!setting.second->empty()) settings.emplace_back(setting.first, *setting.second);
  }
  for (const std::string& endpoint : listen) settings.emplace_back("listen", endpoint);
  for (const std::string& endpoint : connect) settings.emplace_back("connect", endpoint);
  return settings;
}

void AddNetworkOptions(CLI::App& app, NetOptions& options) {
  const char* group = "Network (loads the transport module libkt_NetTransport.so)";
  app.add_option("--listen", options.listen,
                 "Accept peers on ENDPOINT (tcp://127.0.0.1:7000, tcp://*:0 for a port the "
                 "system chooses, ipc:///run/kt.sock); repeat to listen on several")
      ->type_name("ENDPOINT")
      ->allow_extra_args(false)
      ->group(group);
  app.add_option("--connect", options.connect,
                 "Dial the peer listening on ENDPOINT and show its registry under "
                 "peers/<name>/; repeat to dial several")
      ->type_name("ENDPOINT")
      ->allow_extra_args(false)
      ->group(group);
  app.add_option("--serve", options.serve,
                 "What peers may do here: none, browse (read the tree and the metrics), "
                 "subscribe (also subscribe to metrics) or full (also call methods)")
      ->check(CLI::IsMember({"none", "browse", "subscribe", "full"}))
      ->group(group);
  app.add_option("--name", options.name, "The name this host is shown under at its peers")
      ->group(group);
  app.add_option("--curve-secret-key", options.curveSecretKey,
                 "This host's CURVE secret key (from keygen): encrypts every link; a listener "
                 "then accepts only the keys of --curve-allow")
      ->type_name("FILE")
      ->group(group);
  app.add_option("--curve-public-key", options.curvePublicKey,
                 "This host's CURVE public key, checked against the secret key (default: made "
                 "from it)")
      ->type_name("FILE")
      ->group(group);
  app.add_option("--curve-server-key", options.curveServerKey,
                 "The public key every peer dialled with --connect must prove")
      ->type_name("FILE")
      ->group(group);
  app.add_option("--curve-allow", options.curveAllow,
                 "The public keys (one a line) of the peers a CURVE listener accepts")
      ->type_name("FILE")
      ->group(group);
}

bool ConfigureTransport(HostLoader& host, const std::string& modulePath,
                        const NetOptions& options) {
  const auto configure =
      Lookup<KTNetTransportConfigureFn>(host, modulePath, "KTNetTransportConfigure");
  if (configure == nullptr) return false;
  for (const auto& setting : options.Settings()) {
    const KT_STATUS status = configure(setting.first.c_str(), setting.second.c_str());
    if (status != KT_STATUS_SUCCESS) {
      std::fprintf(stderr, "kt-host: the transport refused %s %s: %s\n", setting.first.c_str(),
                   setting.second.c_str(), StatusName(status));
      return false;
    }
  }
  return true;
}

void WaitForDialledPeers(HostLoader& host, size_t count) {
  constexpr long kWaitMs = 5000;
  constexpr long kStepMs = 20;
  IClientManager* client = host.Client();
  unsigned int mounted = 0;
  for (long waited = 0; !g_stopSignal && waited < kWaitMs; waited += kStepMs) {
    unsigned long peers = 0;
    mounted = 0;
    if (client->GetPath(0, "peers", &peers) == KT_STATUS_SUCCESS) {
      client->GetChildCount(peers, &mounted);
    }
    if (mounted >= count) return;
    Nap(kStepMs);
  }
  if (!g_stopSignal) {
    std::fprintf(stderr, "kt-host: %u of %zu dialled peers linked after %ld s; going on\n",
                 mounted, count, kWaitMs / 1000);
  }
}

int ServeCommand(HostLoader& host, const std::string& modulePath, long seconds) {
  // Without network options (serve --http) there is no transport to ask.
  const bool linked = !modulePath.empty();
  if (linked) {
    const auto endpoint =
        Lookup<KTNetTransportGetEndpointFn>(host, modulePath, "KTNetTransportGetEndpoint");
    if (endpoint == nullptr) return kCommandFailed;
    char text[512];
    for (unsigned int i = 0; endpoint(i, text, sizeof text) == KT_STATUS_SUCCESS; ++i) {
      std::printf("listening on %s\n", text);
    }
  }
  unsigned long root = 0;
  host.Client()->GetPath(0, "", &root);
  std::printf("serving registry GUID 0x%08lx%s\n", root >> 32,
              seconds > 0 ? "" : "; SIGINT or SIGTERM stops");
  std::fflush(stdout);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!g_stopSignal) {
    const long left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          end - std::chrono::steady_clock::now())
                          .count();
    if (seconds > 0 && left <= 0) break;
    Nap(seconds > 0 && left < 200 ? left : 200);
  }
  if (!linked) return 0;
  const auto counter = Lookup<CounterFunction>(host, modulePath, "KTNetTransportGetCounter");
  unsigned long frames = 0, errors = 0;
  if (counter != nullptr && counter("frames", &frames) == KT_STATUS_SUCCESS &&
      counter("frame-errors", &errors) == KT_STATUS_SUCCESS) {
    std::printf("frames from peers %lu, refused %lu\n", frames, errors);
  }
  return 0;
}

int KeygenCommand(const std::string& dir, const std::string& name) {
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    std::fprintf(stderr, "kt-host: cannot make %s: %s\n", dir.c_str(), std::strerror(errno));
    return kCommandFailed;
  }
  std::string publicPath, secretPath, error;
  if (!kt_net::WriteKeyPair(dir, name, &publicPath, &secretPath, &error)) {
    std::fprintf(stderr, "kt-host: %s\n", error.c_str());
    return kCommandFailed;
  }
  std::printf("public key %s\nsecret key %s (keep it to this host)\n", publicPath.c_str(),
              secretPath.c_str());
  return 0;
}

}  // namespace kt_host
