// kt-host's registry commands: tree, metrics and probes.
#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kt/client_manager.h"
#include "kt/metric.h"
#include "kt/status.h"
#include "kt/value_convention.h"

namespace kt_host {

using namespace MetricsFramework;

volatile std::sig_atomic_t g_stopSignal = 0;

namespace {

std::vector<unsigned long> Children(IClientManager* client, unsigned long parent) {
  unsigned int count = 0;
  if (client->GetChildCount(parent, &count) != KT_STATUS_SUCCESS || count == 0) return {};
  std::vector<unsigned long> children(count);
  if (client->GetChildren(parent, children.data(), count) != KT_STATUS_SUCCESS) return {};
  return children;
}

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

const char* KindName(unsigned long kind) {
  switch (kind) {
    case 0: return "none";
    case kResourceConsumer: return "consumer";
    case kResourceMetric: return "metric";
    case kResourceProbeMetric: return "probe metric";
    case kResourceNode: return "node";
    case kResourcePublisher: return "publisher";
    case kResourceRemoteMethod: return "remote method";
    case kResourceProbe: return "probe";
    case kResourceBinding: return "binding";
    case kResourcePeer: return "peer";
  }
  return "other";
}

// ---------------------------------------------------------------------------
// tree

// A tree walk; `all` also prints each node's data word and target and the
// unlisted branches.
struct TreePrinter {
  IClientManager* client;
  bool all;
  std::set<unsigned long> seen;

  void Node(const ResourceInfo& info, unsigned long handle, int depth, const char* note) {
    std::printf("%*s%s  [%s, kind %lu]  handle 0x%016lx", depth * 2, "", info.name.c_str(),
                KindName(info.kind), info.kind, handle);
    if (all) std::printf("  data 0x%lx target 0x%lx", info.data, info.target);
    std::printf("%s\n", note);
  }

  void Subtree(unsigned long parent, int depth) {
    for (unsigned long child : Children(client, parent)) {
      ResourceInfo info{};
      if (client->GetResourceInfo(child, &info) != KT_STATUS_SUCCESS) continue;
      const bool link = info.parent != parent && parent != 0;
      Node(info, child, depth, link ? "  (link)" : "");
      if (!link && seen.insert(child).second) Subtree(child, depth + 1);
    }
  }

  // The root's branches that no walk meets, found by name: the conduits
  // (made once a consumer subscribes) and the mounted peers.
  void Unlisted() {
    static const char* const kUnlisted[] = {"conduits", "peers"};
    for (const char* name : kUnlisted) {
      unsigned long handle = 0;
      ResourceInfo info{};
      if (client->GetPath(0, name, &handle) != KT_STATUS_SUCCESS ||
          client->GetResourceInfo(handle, &info) != KT_STATUS_SUCCESS) {
        std::printf("  %s  (unlisted; none yet)\n", name);
        continue;
      }
      if (!seen.insert(handle).second) continue;
      Node(info, handle, 1, "  (unlisted)");
      Subtree(handle, 2);
    }
  }
};

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

// What the value convention reads in the description: unit, type, encoding
// and help.
void PrintValueConvention(const Metric::Description& desc) {
  const ValueConvention::Encoding encoding = ValueConvention::EncodingOf(desc);
  std::printf("  %-42s unit %s: %s (%s, %s)\n", "", desc.text2.empty() ? "-" : desc.text2.c_str(),
              desc.text1.empty() ? "-" : desc.text1.c_str(),
              ValueConvention::TypeOf(desc) == ValueConvention::kTypeCounter ? "counter" : "gauge",
              ValueConvention::EncodingName(encoding));
}

}  // namespace

std::vector<Node> WalkAll(IClientManager* client) { return WalkFrom(client, 0, ""); }

std::vector<Node> WalkFrom(IClientManager* client, unsigned long parent, const std::string& path) {
  std::vector<Node> nodes;
  Walk(client, parent, path, &nodes);
  return nodes;
}

std::vector<Node> AllMetrics(IClientManager* client) {
  std::vector<Node> metrics;
  std::set<unsigned long> seen;
  for (Node& node : WalkAll(client)) {
    const bool metric = node.info.kind == kResourceMetric || node.info.kind == kResourceProbeMetric;
    if (!node.link && metric && seen.insert(node.handle).second) metrics.push_back(node);
  }
  std::sort(metrics.begin(), metrics.end(),
            [](const Node& a, const Node& b) { return a.path < b.path; });
  return metrics;
}

int TreeCommand(HostLoader& host, bool all) {
  IClientManager* client = host.Client();
  ResourceInfo root{};
  if (client->GetResourceInfo(0, &root) != KT_STATUS_SUCCESS) {
    std::fprintf(stderr, "kt-host: reading the root failed\n");
    return kCommandFailed;
  }
  unsigned long rootHandle = 0;
  client->GetPath(0, "", &rootHandle);
  std::printf("Registry tree%s\n", all ? ", unlisted branches included" : "");
  TreePrinter printer{client, all, {}};
  printer.Node(root, rootHandle, 0, "");
  printer.Subtree(0, 1);
  if (all) printer.Unlisted();
  return 0;
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
    PrintValueConvention(desc);
  }
  std::printf("Publishers\n");
  for (const Node& node : WalkAll(client)) {
    if (node.info.kind == kResourcePublisher) PrintPublisherLists(client, node);
  }
  return 0;
}

int ProbesCommand(HostLoader& host) {
  IClientManager* client = host.Client();
  int failures = 0;
  int types = 0;
  std::printf("Probes\n");
  for (const Node& node : WalkAll(client)) {
    if (node.link || node.info.kind != kResourceProbe) continue;
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

}  // namespace kt_host
