// SPDX-License-Identifier: Apache-2.0
//
// Exporter: a consumer that keeps the latest sample of every metric it is
// subscribed to and serves them over HTTP (http_server.h): to Prometheus at
// /metrics, and to people as a page of live charts at /.
//
// It starts serving when the manager files it (Load) and stops when it is
// removed (Unload) or destroyed, waiting for the requests in flight. Its
// callback only copies the samples into the store (sample_store.h); what the
// HTTP threads need besides (names, descriptions, the tree) they read through
// the client manager. Configured by the module's C functions
// (exporter_config.h).
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>

#include "exporter_config.h"
#include "http_server.h"
#include "kt/consumer.h"
#include "kt/export_table.h"
#include "kt/extension_manager.h"
#include "kt/visibility.h"
#include "metric_catalog.h"
#include "sample_store.h"

namespace {

using namespace MetricsFramework;
using kt_exporter::ServerConfig;

// The program's name, the default process label.
std::string ProgramName() {
  std::ifstream comm("/proc/self/comm");
  std::string name;
  std::getline(comm, name);
  return name.empty() ? "local" : name;
}

// The module's settings and what the running exporter reports.
struct Settings {
  std::mutex mutex;  // guards every member below
  ServerConfig server;
  bool streamsSet = false;
  std::string process = ProgramName();
  const void* running = nullptr;  // the exporter whose address or failure is below
  std::string address;
  std::string failure = "no exporter has started";
};

Settings& TheSettings() {
  static Settings settings;
  return settings;
}

bool ParseNumber(const char* text, long low, long high, int* out) {
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < low || value > high) return false;
  *out = static_cast<int>(value);
  return true;
}

// "HOST:PORT", ":PORT" or "PORT", made the form civetweb listens on.
bool ParseAddress(const std::string& text, std::string* out) {
  const size_t colon = text.rfind(':');
  std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
  const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
  int number = 0;
  if (port.empty() || !ParseNumber(port.c_str(), 0, 65535, &number)) return false;
  if (host.empty() || host == "localhost") host = "127.0.0.1";
  in_addr parsed{};
  if (inet_pton(AF_INET, host.c_str(), &parsed) != 1) return false;
  *out = host + ":" + std::to_string(number);
  return true;
}

class Exporter : public IConsumer {
 public:
  Exporter() = default;
  ~Exporter() override { StopServing(); }

  void Load(IExtensionManager* manager, IClientManager* client, unsigned long handle,
            IExtensionLoader* loader) override {
    const bool first = GetLoader() == nullptr && m_server == nullptr;
    IKTExtensionBase::Load(manager, client, handle, loader);
    if (first && client != nullptr) StartServing();
  }
  void Unload() override {
    StopServing();
    IKTExtensionBase::Unload();
  }
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long*,
                       const void** data, unsigned long* sizes) override {
    m_store.Update(count, handles, data, sizes);
  }

 private:
  void StartServing() {
    Settings& settings = TheSettings();
    std::lock_guard<std::mutex> hold(settings.mutex);
    ServerConfig config = settings.server;
    if (!settings.streamsSet || config.maxStreams > config.threads - 2) {
      config.maxStreams = config.threads / 2;
    }
    m_catalog = std::make_unique<kt_exporter::MetricCatalog>(GetClientManager(), GetHandle(),
                                                             settings.process);
    m_server = std::make_unique<kt_exporter::HttpServer>(m_store, *m_catalog);
    settings.running = this;
    std::string failure;
    if (m_server->Start(config, &failure)) {
      settings.address = m_server->BoundAddress();
      return;
    }
    settings.address.clear();
    settings.failure = failure;
    if (IExtensionManager* manager = GetExtensionManager()) {
      manager->Log(1, "Exporter", "Exporter: %s", failure.c_str());
    }
  }
  void StopServing() {
    // Closed first: the live streams stop waiting, so the server's stop does
    // not wait for them.
    m_store.Close();
    if (m_server != nullptr) m_server->Stop();
    Settings& settings = TheSettings();
    std::lock_guard<std::mutex> hold(settings.mutex);
    if (settings.running != this) return;
    settings.running = nullptr;
    settings.address.clear();
    settings.failure = "the exporter has stopped";
  }

  kt_exporter::SampleStore m_store;
  std::unique_ptr<kt_exporter::MetricCatalog> m_catalog;
  std::unique_ptr<kt_exporter::HttpServer> m_server;
};

IExtension* CreateExporter() { return static_cast<IConsumer*>(new Exporter); }

}  // namespace

extern "C" KT_EXPORT KT_STATUS KTExporterConfigure(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  Settings& settings = TheSettings();
  std::lock_guard<std::mutex> hold(settings.mutex);
  const std::string name = key;
  if (name == "address") {
    return ParseAddress(value, &settings.server.address) ? KT_STATUS_SUCCESS
                                                         : KT_STATUS_INVALID_ARGUMENT;
  }
  if (name == "threads") {
    return ParseNumber(value, 4, 1024, &settings.server.threads) ? KT_STATUS_SUCCESS
                                                                 : KT_STATUS_INVALID_ARGUMENT;
  }
  if (name == "streams") {
    if (!ParseNumber(value, 1, settings.server.threads - 2, &settings.server.maxStreams)) {
      return KT_STATUS_INVALID_ARGUMENT;
    }
    settings.streamsSet = true;
    return KT_STATUS_SUCCESS;
  }
  if (name == "process" && value[0] != '\0') {
    settings.process = value;
    return KT_STATUS_SUCCESS;
  }
  return KT_STATUS_INVALID_ARGUMENT;
}

extern "C" KT_EXPORT KT_STATUS KTExporterGetAddress(char* out, unsigned int size) {
  if (out == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  Settings& settings = TheSettings();
  std::lock_guard<std::mutex> hold(settings.mutex);
  const std::string& text = settings.address.empty() ? settings.failure : settings.address;
  if (text.size() + 1 > size) return KT_STATUS_INVALID_SIZE;
  std::memcpy(out, text.c_str(), text.size() + 1);
  return settings.address.empty() ? KT_STATUS_NOT_AVAILABLE : KT_STATUS_SUCCESS;
}

extern "C" KT_EXPORT const ExtensionExportRow __extension_export_table__[2] = {
    {"Exporter", kExportKindExtension, kExportRowMagic, 0, &CreateExporter},
    {"", 0, 0, 0, nullptr},
};
