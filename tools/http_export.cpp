// kt-host --http: loads the exporter and subscribes it.
#include "http_export.h"

#include <dlfcn.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "exporter_config.h"
#include "kt/client_manager.h"

namespace kt_host {

using namespace MetricsFramework;

namespace {

// The module's C function `name`; the module is open already, so this only
// finds it (and leaves the module's use count as it was).
void* ExporterFunction(const std::string& modulePath, const char* name) {
  void* module = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
  if (module == nullptr) return nullptr;
  void* function = dlsym(module, name);
  dlclose(module);
  return function;
}

// Every metric: this process's, then those below "peers", which a walk from
// the root does not meet.
std::vector<Node> MetricsWithPeers(IClientManager* client) {
  std::vector<Node> metrics = AllMetrics(client);
  unsigned long peers = 0;
  if (client->GetPath(0, "peers", &peers) != KT_STATUS_SUCCESS) return metrics;
  for (const Node& node : WalkFrom(client, peers, "peers")) {
    if (!node.link && (node.info.kind == kResourceMetric || node.info.kind == kResourceProbeMetric)) {
      metrics.push_back(node);
    }
  }
  return metrics;
}

}  // namespace

int OpenExporter(HostLoader& host, const std::string& modulePath, const std::string& address) {
  if (!host.OpenModule(modulePath)) {
    std::fprintf(stderr, "kt-host: --http needs the exporter module: %s\n", host.Error().c_str());
    return kUsageError;
  }
  auto configure = reinterpret_cast<KTExporterConfigureFunction>(
      ExporterFunction(modulePath, "KTExporterConfigure"));
  if (configure == nullptr) {
    std::fprintf(stderr, "kt-host: %s has no KTExporterConfigure\n", modulePath.c_str());
    return kUsageError;
  }
  if (configure("address", address.c_str()) != KT_STATUS_SUCCESS) {
    std::fprintf(stderr,
                 "kt-host: --http %s: not an address to listen on (HOST:PORT with an IPv4 "
                 "address, e.g. 127.0.0.1:9464)\n",
                 address.c_str());
    return kUsageError;
  }
  return 0;
}

int ServeHttp(HostLoader& host, const std::string& modulePath) {
  auto address = reinterpret_cast<KTExporterGetAddressFunction>(
      ExporterFunction(modulePath, "KTExporterGetAddress"));
  IExtension* exporter = host.FindExtension("Exporter");
  char where[512] = "";
  if (address == nullptr || exporter == nullptr ||
      address(where, sizeof where) != KT_STATUS_SUCCESS) {
    std::fprintf(stderr, "kt-host: --http: %s\n", where[0] != '\0' ? where : "the exporter was not added");
    return kCommandFailed;
  }
  IClientManager* client = host.Client();
  const unsigned long consumer =
      static_cast<IKTExtensionBase*>(exporter->CastTo("IKTExtensionBase"))->GetHandle();
  const std::vector<Node> metrics = MetricsWithPeers(client);
  size_t subscribed = 0;
  std::string refused;
  for (const Node& node : metrics) {
    Metric::Description desc;
    if (client->GetMetricDescriptor(node.handle, &desc) != KT_STATUS_SUCCESS ||
        (desc.flags & Metric::kFlagAvailable) == 0) {
      continue;
    }
    const KT_STATUS status = client->SubscribeMetric(consumer, node.handle);
    if (status == KT_STATUS_SUCCESS) {
      ++subscribed;
      continue;
    }
    refused += (refused.empty() ? "" : ", ") + node.path + " (" + StatusName(status) + ")";
  }
  std::fprintf(stderr,
               "kt-host: exporter at http://%s/ (Prometheus: http://%s/metrics), subscribed to "
               "%zu of %zu metrics\n",
               where, where, subscribed, metrics.size());
  if (!refused.empty()) std::fprintf(stderr, "kt-host: exporter not subscribed to %s\n", refused.c_str());
  return 0;
}

}  // namespace kt_host
