// kt-host: loads libkt_DefaultManager.so and extension modules through their
// export tables and shows the registry, the metrics and live samples.
//
//   kt-host [--library PATH] [--load PATH]... [--no-examples] [COMMAND]
//     tree [--all]                       the registry as a tree
//     metrics                            every metric with its description
//     probes                             creates, drives and destroys a probe of every probe type
//     watch [--seconds N] [--match TEXT] live samples (N = 0: until interrupted)
//   Without a command: tree, metrics, probes and a 5-second watch.
//
// Exit status: 0 on success, 1 when a command fails, 2 for a bad option, a
// library or module that cannot be loaded, or a module without an export
// table.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "console_consumer/console_consumer.h"
#include "host_loader.h"
#include "kt/metric.h"

namespace {

using namespace MetricsFramework;
using kt_host::HostLoader;

constexpr int kCommandFailed = 1;
constexpr int kUsageError = 2;
constexpr unsigned long kProbeTypeKind = 256;
constexpr unsigned long kPublisherKind = 32;

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

struct Options {
  std::string library = KT_DEFAULT_LIBRARY;
  std::vector<std::string> modules;
  bool examples = true;
  std::string command;
  bool all = false;
  long seconds = 5;
  std::string match;
};

// One registry node met on a walk, with its slash-separated path.
struct Node {
  unsigned long handle;
  std::string path;
  ResourceInfo info;
  bool link;  // listed under another node than its parent
};

int Error(const std::string& message, int code) {
  std::fprintf(stderr, "kt-host: %s\n", message.c_str());
  return code;
}

void PrintUsage() {
  std::printf(
      "usage: kt-host [--library PATH] [--load PATH]... [--no-examples] [COMMAND]\n"
      "  tree [--all]                        the registry as a tree\n"
      "  metrics                             every metric with its description\n"
      "  probes                              create, drive and destroy one probe per probe type\n"
      "  watch [--seconds N] [--match TEXT]  live samples (N = 0: until interrupted)\n"
      "  (none)                              tree, metrics, probes and a 5-second watch\n");
}

// Returns 0, or the exit status and the message of the first bad option.
int ParseOptions(int argc, char** argv, Options* out, std::string* error) {
  static const std::set<std::string> kCommands = {"tree", "metrics", "probes", "watch"};
  bool secondsGiven = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool takesValue = arg == "--library" || arg == "--load" || arg == "--seconds" ||
                            arg == "--match";
    if (takesValue && i + 1 >= argc) return *error = arg + " needs a value", kUsageError;
    if (arg == "--library") {
      out->library = argv[++i];
    } else if (arg == "--load") {
      out->modules.push_back(argv[++i]);
    } else if (arg == "--no-examples") {
      out->examples = false;
    } else if (arg == "--all") {
      out->all = true;
    } else if (arg == "--seconds") {
      char* end = nullptr;
      out->seconds = std::strtol(argv[++i], &end, 10);
      if (*argv[i] == '\0' || *end != '\0' || out->seconds < 0) {
        return *error = std::string("--seconds takes a whole number, not '") + argv[i] + "'",
               kUsageError;
      }
      secondsGiven = true;
    } else if (arg == "--match") {
      out->match = argv[++i];
    } else if (arg == "--help" || arg == "-h") {
      out->command = "help";
    } else if (arg[0] != '-' && out->command.empty() && kCommands.count(arg) != 0) {
      out->command = arg;
    } else {
      return *error = "unknown option or command '" + arg + "' (try --help)", kUsageError;
    }
  }
  if (out->all && out->command != "tree") return *error = "--all belongs to tree", kUsageError;
  const bool watches = out->command == "watch" || out->command.empty();
  if ((secondsGiven || !out->match.empty()) && !watches) {
    return *error = "--seconds and --match belong to watch", kUsageError;
  }
  return 0;
}

std::vector<std::string> DefaultModules() {
  std::vector<std::string> modules;
  const std::string list = KT_DEFAULT_MODULES;
  size_t at = 0;
  while (at <= list.size()) {
    size_t end = list.find(':', at);
    if (end == std::string::npos) end = list.size();
    if (end > at) modules.push_back(list.substr(at, end - at));
    at = end + 1;
  }
  return modules;
}

const char* KindName(unsigned long kind) {
  switch (kind) {
    case 0: return "none";
    case 1: return "consumer";
    case 4: return "metric";
    case 8: return "probe metric";
    case 16: return "node";
    case 32: return "publisher";
    case 128: return "remote method";
    case 256: return "probe";
    case 512: return "binding";
    case ~0ul: return "peer";
  }
  return "other";
}

std::vector<unsigned long> Children(IClientManager* client, unsigned long parent) {
  unsigned int count = 0;
  if (client->GetChildCount(parent, &count) != KT_STATUS_SUCCESS || count == 0) return {};
  std::vector<unsigned long> children(count);
  if (client->GetChildren(parent, children.data(), count) != KT_STATUS_SUCCESS) return {};
  return children;
}

// Every node below `parent` that it owns (links are listed by the caller but
// not followed), depth first.
void Walk(IClientManager* client, unsigned long parent, const std::string& path,
          std::vector<Node>* out) {
  for (unsigned long child : Children(client, parent)) {
    Node node{child, "", ResourceInfo{}, false};
    if (client->GetResourceInfo(child, &node.info) != KT_STATUS_SUCCESS) continue;
    node.path = path.empty() ? node.info.name : path + "/" + node.info.name;
    node.link = node.info.parent != parent && parent != 0;
    out->push_back(node);
    if (!node.link) Walk(client, child, node.path, out);
  }
}

// ---------------------------------------------------------------------------
// tree

void PrintNode(const ResourceInfo& info, unsigned long handle, int depth, const char* note) {
  std::printf("%*s%s  [%s, kind %lu]  handle 0x%016lx%s\n", depth * 2, "", info.name.c_str(),
              KindName(info.kind), info.kind, handle, note);
}

void PrintSubtree(IClientManager* client, unsigned long parent, int depth, bool all,
                  std::set<unsigned long>* seen) {
  static const char* const kUnlisted[] = {"conduits", "peers"};
  std::vector<unsigned long> children = Children(client, parent);
  for (unsigned long child : children) {
    ResourceInfo info{};
    if (client->GetResourceInfo(child, &info) != KT_STATUS_SUCCESS) continue;
    const bool link = info.parent != parent && parent != 0;
    PrintNode(info, child, depth, link ? "  (link)" : "");
    if (!link && seen->insert(child).second) PrintSubtree(client, child, depth + 1, all, seen);
  }
  if (!all || depth != 1) return;
  // Unlisted branches of the root are not among its children; they are found
  // by name.
  for (const char* name : kUnlisted) {
    unsigned long handle = 0;
    if (client->GetPath(0, name, &handle) != KT_STATUS_SUCCESS || seen->count(handle) != 0) continue;
    ResourceInfo info{};
    if (client->GetResourceInfo(handle, &info) != KT_STATUS_SUCCESS) continue;
    PrintNode(info, handle, depth, "  (unlisted)");
    seen->insert(handle);
    PrintSubtree(client, handle, depth + 1, all, seen);
  }
}

int Tree(HostLoader& host, bool all) {
  IClientManager* client = host.Client();
  ResourceInfo root{};
  const KT_STATUS status = client->GetResourceInfo(0, &root);
  if (status != KT_STATUS_SUCCESS) return Error("reading the root failed", kCommandFailed);
  unsigned long rootHandle = 0;
  client->GetPath(0, "", &rootHandle);
  std::printf("Registry tree\n");
  PrintNode(root, rootHandle, 0, "");
  std::set<unsigned long> seen;
  PrintSubtree(client, 0, 1, all, &seen);
  return 0;
}

// ---------------------------------------------------------------------------
// metrics

std::vector<Node> AllMetrics(IClientManager* client) {
  std::vector<Node> nodes;
  Walk(client, 0, "", &nodes);
  std::vector<Node> metrics;
  std::set<unsigned long> seen;
  for (Node& node : nodes) {
    if (node.link || (node.info.kind != 4 && node.info.kind != 8)) continue;
    if (seen.insert(node.handle).second) metrics.push_back(node);
  }
  std::sort(metrics.begin(), metrics.end(),
            [](const Node& a, const Node& b) { return a.path < b.path; });
  return metrics;
}

std::string Flags(unsigned int flags) {
  std::string text;
  if (flags & Metric::kFlagAvailable) text += " available";
  if (flags & Metric::kFlagBound) text += " bound";
  if (flags & Metric::kFlagProbe) text += " probe";
  if (flags & Metric::kFlagTimeBased) text += " time-based";
  return text.empty() ? " none" : text;
}

std::string Sets(const std::vector<unsigned int>& ids) {
  std::string text;
  for (unsigned int id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  return text.empty() ? "-" : text;
}

void PrintPublisherLists(IClientManager* client, const Node& publisher) {
  std::vector<std::pair<unsigned long, Metric::Description>> unused;
  std::vector<std::string> groups;
  std::map<unsigned int, std::string> sets;
  client->GetMetrics(publisher.handle, unused, &groups, &sets);
  std::string order;
  for (const std::string& group : groups) order += (order.empty() ? "" : ", ") + group;
  std::string names;
  for (const auto& set : sets) {
    names += (names.empty() ? "" : ", ") + std::to_string(set.first) + "=" + set.second;
  }
  std::printf("  publisher %-24s group order: %s; set names: %s\n", publisher.path.c_str(),
              order.empty() ? "-" : order.c_str(), names.empty() ? "-" : names.c_str());
}

int MetricsCommand(HostLoader& host) {
  IClientManager* client = host.Client();
  const std::vector<Node> metrics = AllMetrics(client);
  std::printf("Metrics (%zu)\n", metrics.size());
  for (const Node& node : metrics) {
    Metric::Description desc;
    if (client->GetMetricDescriptor(node.handle, &desc) != KT_STATUS_SUCCESS) continue;
    const std::string group = desc.word4 == 0xFFFFFFFFu ? "-" : std::to_string(desc.word4);
    std::printf("  %-42s handle 0x%016lx kind %lu tag %u group %s sets %s flags%s\n",
                node.path.c_str(), node.handle, node.info.kind, desc.word1, group.c_str(),
                Sets(desc.setIds).c_str(), Flags(desc.flags).c_str());
    if (!desc.text1.empty() || !desc.text2.empty()) {
      std::printf("  %-42s unit %s: %s\n", "", desc.text2.empty() ? "-" : desc.text2.c_str(),
                  desc.text1.c_str());
    }
  }
  std::vector<Node> nodes;
  Walk(client, 0, "", &nodes);
  std::printf("Publishers\n");
  for (const Node& node : nodes) {
    if (node.info.kind == kPublisherKind) PrintPublisherLists(client, node);
  }
  return 0;
}

// ---------------------------------------------------------------------------
// probes

int ProbesCommand(HostLoader& host) {
  IClientManager* client = host.Client();
  std::vector<Node> nodes;
  Walk(client, 0, "", &nodes);
  int failures = 0;
  int types = 0;
  std::printf("Probes\n");
  for (const Node& node : nodes) {
    if (node.link || node.info.kind != kProbeTypeKind) continue;
    ++types;
    unsigned long probe = 0;
    KT_STATUS status = client->CreateProbe(node.handle, nullptr, &probe);
    if (status != KT_STATUS_SUCCESS) {
      std::printf("  %s: CreateProbe failed: %s\n", node.path.c_str(), StatusName(status));
      ++failures;
      continue;
    }
    client->BeginProbe(probe, 1, 2, Metrics::kEventNone, nullptr);
    client->EndProbe(probe, 1, Metrics::kEventNone, nullptr);
    client->HandleProbe(probe);
    status = client->DestroyProbe(probe);
    std::printf("  %s: probe 0x%lx created, begun, ended, handled; destroyed: %s\n",
                node.path.c_str(), probe, StatusName(status));
    if (status != KT_STATUS_SUCCESS) ++failures;
  }
  if (types == 0) std::printf("  no probe types\n");
  return failures == 0 ? 0 : kCommandFailed;
}

// ---------------------------------------------------------------------------
// watch

struct Watched {
  unsigned long handle;
  std::string path;
  std::string unit;
};

void DrawTable(kt_examples::IConsoleConsumer* console, const std::vector<Watched>& watched,
               double elapsed, long seconds) {
  std::map<unsigned long, kt_examples::LatestSample> latest;
  for (const auto& sample : console->Latest()) latest[sample.handle] = sample;
  std::string frame = "\x1b[H\x1b[2J";
  char line[256];
  std::snprintf(line, sizeof line, "kt-host watch  %.1f s%s%s  (Ctrl-C to stop)\n\n", elapsed,
                seconds > 0 ? " of " : "", seconds > 0 ? std::to_string(seconds).c_str() : "");
  frame += line;
  std::snprintf(line, sizeof line, "%-44s %5s %14s %-6s %8s\n", "metric", "tag", "value", "unit",
                "samples");
  frame += line;
  for (const Watched& metric : watched) {
    auto it = latest.find(metric.handle);
    if (it == latest.end()) {
      std::snprintf(line, sizeof line, "%-44s %5s %14s %-6s %8d\n", metric.path.c_str(), "-", "-",
                    metric.unit.c_str(), 0);
    } else {
      std::snprintf(line, sizeof line, "%-44s %5lu %14.2f %-6s %8lu\n", metric.path.c_str(),
                    it->second.tag, it->second.value, metric.unit.c_str(), it->second.received);
    }
    frame += line;
  }
  std::fputs(frame.c_str(), stdout);
  std::fflush(stdout);
}

std::vector<Watched> Subscribe(IClientManager* client, kt_examples::IConsoleConsumer* console,
                               unsigned long consumer, const std::string& match) {
  std::vector<Watched> watched;
  for (const Node& node : AllMetrics(client)) {
    Metric::Description desc;
    if (client->GetMetricDescriptor(node.handle, &desc) != KT_STATUS_SUCCESS) continue;
    if ((desc.flags & Metric::kFlagAvailable) == 0) continue;
    if (!match.empty() && node.path.find(match) == std::string::npos) continue;
    console->SetName(node.handle, node.path);
    const KT_STATUS status = client->SubscribeMetric(consumer, node.handle);
    if (status != KT_STATUS_SUCCESS) {
      std::fprintf(stderr, "kt-host: subscribing to %s: %s\n", node.path.c_str(), StatusName(status));
      continue;
    }
    watched.push_back({node.handle, node.path, desc.text2});
  }
  return watched;
}

int Watch(HostLoader& host, long seconds, const std::string& match) {
  IClientManager* client = host.Client();
  IExtension* extension = host.FindExtension("ConsoleConsumer");
  auto* console = extension != nullptr ? static_cast<kt_examples::IConsoleConsumer*>(
                                             extension->CastTo("IConsoleConsumer"))
                                       : nullptr;
  if (console == nullptr) return Error("watch needs the console consumer module", kCommandFailed);
  const unsigned long consumer =
      static_cast<IKTExtensionBase*>(extension->CastTo("IKTExtensionBase"))->GetHandle();

  const bool live = isatty(STDOUT_FILENO) != 0;
  console->SetOutput(live ? nullptr : stdout);
  const std::vector<Watched> watched = Subscribe(client, console, consumer, match);
  if (watched.empty()) {
    return Error("no available metric matches '" + match + "'", kCommandFailed);
  }
  if (!live) {
    std::printf("Watching %zu metrics for %ld s\n", watched.size(), seconds);
    std::fflush(stdout);
  }

  std::signal(SIGINT, OnInterrupt);
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + std::chrono::seconds(seconds);
  while (!g_interrupted && (seconds == 0 || std::chrono::steady_clock::now() < deadline)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(live ? 250 : 50));
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (live) DrawTable(console, watched, elapsed, seconds);
  }
  std::signal(SIGINT, SIG_DFL);

  console->SetOutput(nullptr);
  for (const Watched& metric : watched) client->UnsubscribeMetric(consumer, metric.handle);
  std::printf("%lu updates received from %zu metrics\n", console->Updates(), watched.size());
  return 0;
}

// ---------------------------------------------------------------------------

int Run(HostLoader& host, const Options& options) {
  if (options.command == "tree") return Tree(host, options.all);
  if (options.command == "metrics") return MetricsCommand(host);
  if (options.command == "probes") return ProbesCommand(host);
  if (options.command == "watch") return Watch(host, options.seconds, options.match);
  // The demonstration.
  int status = Tree(host, false);
  std::printf("\n");
  status |= MetricsCommand(host);
  std::printf("\n");
  status |= ProbesCommand(host);
  std::printf("\n");
  status |= Watch(host, options.seconds, options.match);
  return status != 0 ? kCommandFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string message;
  if (const int code = ParseOptions(argc, argv, &options, &message)) return Error(message, code);
  if (options.command == "help") {
    PrintUsage();
    return 0;
  }
  std::vector<std::string> modules = options.examples ? DefaultModules() : std::vector<std::string>();
  modules.insert(modules.end(), options.modules.begin(), options.modules.end());

  HostLoader host;
  // Modules are opened and checked before anything is created, so that a bad
  // one stops the host before any extension runs.
  for (const std::string& module : modules) {
    if (!host.OpenModule(module)) return Error(host.Error(), kUsageError);
  }
  if (!host.OpenLibrary(options.library)) return Error(host.Error(), kUsageError);
  host.AddOpenedModules();
  host.Manager()->Log(3, "kt-host", "kt-host: %u modules loaded", host.GetModuleCount());
  const int status = Run(host, options);
  std::fflush(stdout);
  host.Manager()->Log(3, "kt-host", "kt-host: shutting down");
  host.Shutdown();
  return status;
}
