// The sub-commands of kt-host that read the registry (tree, metrics, probes)
// and watch, which shows live samples. Each runs on the host's main thread
// against the loader's client manager and returns kt-host's exit status.
#ifndef KT_TOOLS_COMMANDS_H_
#define KT_TOOLS_COMMANDS_H_

#include <csignal>
#include <string>
#include <vector>

#include "host_loader.h"
#include "kt/client_manager.h"

namespace kt_host {

// Exit statuses.
constexpr int kCommandFailed = 1;
constexpr int kUsageError = 2;

// Set by SIGINT and SIGTERM: whatever runs stops at its next look.
extern volatile std::sig_atomic_t g_stopSignal;

// One registry node met on a walk, with its slash-separated path.
struct Node {
  unsigned long handle;
  std::string path;
  MetricsFramework::ResourceInfo info;
  bool link;  // listed under another node than its parent
};

// Every node the walk from the root meets, depth first; links are listed but
// not followed.
std::vector<Node> WalkAll(MetricsFramework::IClientManager* client);
// The same walk below `parent`, whose path is `path`.
std::vector<Node> WalkFrom(MetricsFramework::IClientManager* client, unsigned long parent,
                           const std::string& path);
// Every metric (ordinary and probe metric) once, sorted by path.
std::vector<Node> AllMetrics(MetricsFramework::IClientManager* client);

// The registry as a tree; with `all`, also the unlisted branches and the
// "handles" index, which a plain walk does not show.
int TreeCommand(HostLoader& host, bool all);
// Every metric with its description, and each publisher's group order and
// set names.
int MetricsCommand(HostLoader& host);
// Creates, drives and destroys one probe of every probe type.
int ProbesCommand(HostLoader& host);

struct WatchOptions {
  long seconds = 5;                // 0: until a signal stops it
  std::vector<std::string> match;  // a metric is watched when its path holds any
  std::string format;              // table, lines, json, csv; "" picks table on a terminal
};

// Subscribes the console consumer to every available metric that matches and
// shows their samples until the time is up or a signal stops it; then prints
// what arrived.
int WatchCommand(HostLoader& host, const WatchOptions& options);

}  // namespace kt_host

#endif  // KT_TOOLS_COMMANDS_H_
