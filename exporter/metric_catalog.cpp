// SPDX-License-Identifier: Apache-2.0
#include "metric_catalog.h"

#include <cstdio>
#include <utility>
#include <vector>

namespace kt_exporter {

using namespace MetricsFramework;

namespace {

// Deeper than any tree the library builds; a cycle of links cannot hold a
// walk forever.
constexpr int kMaxDepth = 16;

std::vector<unsigned long> Children(IClientManager* client, unsigned long parent) {
  unsigned int count = 0;
  if (client->GetChildCount(parent, &count) != KT_STATUS_SUCCESS || count == 0) return {};
  std::vector<unsigned long> children(count);
  if (client->GetChildren(parent, children.data(), count) != KT_STATUS_SUCCESS) return {};
  return children;
}

std::string Hex(unsigned long value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%016lx", value);
  return text;
}

}  // namespace

MetricCatalog::MetricCatalog(IClientManager* client, unsigned long ownHandle,
                             std::string localProcess)
    : m_client(client), m_localGuid(ownHandle >> 32), m_localProcess(std::move(localProcess)) {}

MetricInfo MetricCatalog::Lookup(unsigned long handle) {
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    auto known = m_known.find(handle);
    if (known != m_known.end()) return known->second;
  }
  MetricInfo info = Resolve(handle);
  std::lock_guard<std::mutex> hold(m_mutex);
  if (info.described) m_known[handle] = info;
  return info;
}

MetricInfo MetricCatalog::Resolve(unsigned long handle) const {
  MetricInfo info;
  info.process = ProcessOf(handle);
  ResourceInfo node{};
  Metric::Description desc;
  if (m_client->GetResourceInfo(handle, &node) != KT_STATUS_SUCCESS ||
      m_client->GetMetricDescriptor(handle, &desc) != KT_STATUS_SUCCESS) {
    info.path = info.uri = Hex(handle);
    return info;
  }
  info.uri = node.name;
  info.path = node.name;
  unsigned long parent = node.parent;
  for (int depth = 0; parent != 0 && depth < kMaxDepth; ++depth) {
    ResourceInfo up{};
    // The root (whose parent is 0) is not part of a path.
    if (m_client->GetResourceInfo(parent, &up) != KT_STATUS_SUCCESS || up.parent == 0) break;
    if (depth == 0) info.publisher = up.name;
    info.path = up.name + "/" + info.path;
    parent = up.parent;
  }
  info.help = desc.text1;
  info.unit = desc.text2;
  info.encoding = ValueConvention::EncodingOf(desc);
  info.type = ValueConvention::TypeOf(desc);
  info.described = true;
  return info;
}

std::string MetricCatalog::ProcessOf(unsigned long handle) const {
  const unsigned long guid = handle >> 32;
  if (guid == m_localGuid) return m_localProcess;
  unsigned long peers = 0;
  if (m_client->GetPath(0, "peers", &peers) == KT_STATUS_SUCCESS) {
    for (unsigned long peer : Children(m_client, peers)) {
      ResourceInfo info{};
      if (peer >> 32 == guid && m_client->GetResourceInfo(peer, &info) == KT_STATUS_SUCCESS) {
        return info.name;
      }
    }
  }
  char text[24];
  std::snprintf(text, sizeof text, "guid-%08lx", guid);
  return text;
}

nlohmann::json MetricCatalog::Tree() {
  std::lock_guard<std::mutex> hold(m_mutex);
  const auto now = std::chrono::steady_clock::now();
  if (!m_tree.is_null() && now - m_treeTime < std::chrono::seconds(1)) return m_tree;
  ResourceInfo root{};
  m_client->GetResourceInfo(0, &root);
  nlohmann::json tree = Subtree(0, root, 0);
  // "peers" is not listed under the root: a walk meets it only by name.
  unsigned long peers = 0;
  ResourceInfo info{};
  if (m_client->GetPath(0, "peers", &peers) == KT_STATUS_SUCCESS &&
      m_client->GetResourceInfo(peers, &info) == KT_STATUS_SUCCESS) {
    tree["children"].push_back(Subtree(peers, info, 1));
  }
  m_tree = std::move(tree);
  m_treeTime = now;
  return m_tree;
}

nlohmann::json MetricCatalog::Subtree(unsigned long handle, const ResourceInfo& info,
                                      int depth) const {
  nlohmann::json node = {{"name", info.name}, {"kind", info.kind}, {"handle", Hex(handle)}};
  node["metric"] = info.kind == kResourceMetric || info.kind == kResourceProbeMetric;
  node["children"] = nlohmann::json::array();
  if (depth >= kMaxDepth) return node;
  for (unsigned long child : Children(m_client, handle)) {
    ResourceInfo childInfo{};
    if (m_client->GetResourceInfo(child, &childInfo) != KT_STATUS_SUCCESS) continue;
    // A link (listed under another node than its parent) is shown, not followed.
    if (handle != 0 && childInfo.parent != handle) {
      node["children"].push_back({{"name", childInfo.name}, {"kind", childInfo.kind},
                                  {"handle", Hex(child)}, {"link", true}});
      continue;
    }
    node["children"].push_back(Subtree(child, childInfo, depth + 1));
  }
  return node;
}

}  // namespace kt_exporter
