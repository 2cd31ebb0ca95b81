// SPDX-License-Identifier: Apache-2.0
//
// MetricCatalog: what the exporter knows of each metric beyond its samples:
// its path, publisher and node name, the process it comes from, and its
// description read by the value convention. It also walks the registry for
// the page's tree.
//
// Everything is read through the client manager the exporter was loaded
// with, on the HTTP threads, never on the sample path: a metric is looked up
// the first time a reader needs it and then kept. The catalog has its own
// lock and may be called from any thread; the client manager must outlive it.
#ifndef KT_EXPORTER_METRIC_CATALOG_H_
#define KT_EXPORTER_METRIC_CATALOG_H_

#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "kt/client_manager.h"
#include "kt/value_convention.h"

namespace kt_exporter {

struct MetricInfo {
  std::string path;       // "publishers/SystemPublisher/cpu_percent", below the root
  std::string publisher;  // the publisher's node name
  std::string uri;        // the metric's node name
  std::string process;    // the process label: this process's name or the peer's mount
  std::string help;       // text1
  std::string unit;       // text2
  MetricsFramework::ValueConvention::Encoding encoding =
      MetricsFramework::ValueConvention::kEncodingDouble;
  MetricsFramework::ValueConvention::Type type = MetricsFramework::ValueConvention::kTypeGauge;
  bool described = false;  // the description could be read
};

class MetricCatalog {
 public:
  // `client` answers the lookups; `ownHandle` is a handle of this process's
  // registry (the exporter's own), whose upper half names this process;
  // `localProcess` is the process label of this process's metrics.
  MetricCatalog(MetricsFramework::IClientManager* client, unsigned long ownHandle,
                std::string localProcess);
  MetricCatalog(const MetricCatalog&) = delete;
  MetricCatalog& operator=(const MetricCatalog&) = delete;

  // The metric `handle`, looked up once. A handle the registry does not
  // know gets a path made of the handle, and is looked up again next time.
  MetricInfo Lookup(unsigned long handle);
  // The process the handle belongs to: the GUID in its upper 32 bits names
  // it; this process's own, or a peer mounted under "peers" by its mount
  // name; "guid-XXXXXXXX" for one that is neither.
  std::string ProcessOf(unsigned long handle) const;
  // The registry as nested objects {name, kind, handle, children}, with the
  // mounted peers; rebuilt at most once a second.
  nlohmann::json Tree();

 private:
  MetricInfo Resolve(unsigned long handle) const;
  nlohmann::json Subtree(unsigned long handle, const MetricsFramework::ResourceInfo& info,
                         int depth) const;

  MetricsFramework::IClientManager* const m_client;
  const unsigned long m_localGuid;
  const std::string m_localProcess;
  std::mutex m_mutex;  // guards every member below
  std::map<unsigned long, MetricInfo> m_known;
  nlohmann::json m_tree;
  std::chrono::steady_clock::time_point m_treeTime;
};

}  // namespace kt_exporter

#endif  // KT_EXPORTER_METRIC_CATALOG_H_
