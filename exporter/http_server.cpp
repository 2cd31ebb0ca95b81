// SPDX-License-Identifier: Apache-2.0
#include "http_server.h"

#include <civetweb.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "assets.h"

namespace kt_exporter {

using namespace MetricsFramework;

namespace {

constexpr long long kMaxBody = 1024;
constexpr const char* kMaxHeaders = "8192";
// How long a live stream waits for a sample before it sends a comment, which
// also finds out whether the reader is still there.
constexpr long kStreamIdleMs = 2000;

const char* Reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Payload Too Large";
    case 503: return "Service Unavailable";
  }
  return "Error";
}

// One whole response. `close` ends the connection after it (a body that was
// not read must not be taken for the next request).
void Send(mg_connection* connection, int status, const char* type, const char* body, size_t size,
          bool head, bool close = false) {
  mg_printf(connection,
            "HTTP/1.1 %d %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\n"
            "Cache-Control: no-store\r\n%s\r\n",
            status, Reason(status), type, size, close ? "Connection: close\r\n" : "");
  if (!head && size > 0) mg_write(connection, body, size);
}

void Send(mg_connection* connection, int status, const char* type, const std::string& body,
          bool head, bool close = false) {
  Send(connection, status, type, body.data(), body.size(), head, close);
}

void SendError(mg_connection* connection, int status, bool close = false) {
  const std::string body = std::to_string(status) + " " + Reason(status) + "\n";
  Send(connection, status, "text/plain; charset=utf-8", body, false, close);
}

bool WholeBodyIsSmall(mg_connection* connection, const mg_request_info* request) {
  if (request->content_length > kMaxBody) return false;
  // A chunked body has no length: it cannot be told small without reading it.
  const char* encoding = mg_get_header(connection, "Transfer-Encoding");
  return encoding == nullptr || request->content_length >= 0;
}

}  // namespace

bool HttpServer::Start(const ServerConfig& config, std::string* error) {
  Stop();
  m_config = config;
  const std::string threads = std::to_string(config.threads);
  const char* options[] = {"listening_ports", config.address.c_str(),
                           "num_threads", threads.c_str(),
                           "max_request_size", kMaxHeaders,
                           "request_timeout_ms", "10000",
                           "enable_keep_alive", "yes",
                           "keep_alive_timeout_ms", "2000",
                           nullptr};
  mg_callbacks callbacks{};
  mg_init_data init{};
  init.callbacks = &callbacks;
  init.configuration_options = options;
  char reason[256] = "";
  mg_error_data failure{};
  failure.text = reason;
  failure.text_buffer_size = sizeof reason;
  mg_init_library(0);
  m_context = mg_start2(&init, &failure);
  if (m_context == nullptr) {
    mg_exit_library();
    *error = "cannot listen on " + config.address + (reason[0] != '\0' ? ": " : "") + reason;
    return false;
  }
  mg_set_request_handler(m_context, "/", &HttpServer::OnRequest, this);
  mg_server_port ports[4] = {};
  const int count = mg_get_server_ports(m_context, 4, ports);
  const std::string host = config.address.substr(0, config.address.rfind(':'));
  m_bound = count > 0 ? host + ":" + std::to_string(ports[0].port) : config.address;
  return true;
}

void HttpServer::Stop() {
  if (m_context == nullptr) return;
  mg_stop(m_context);
  mg_exit_library();
  m_context = nullptr;
  m_bound.clear();
}

int HttpServer::OnRequest(mg_connection* connection, void* self) {
  return static_cast<HttpServer*>(self)->Route(connection);
}

int HttpServer::Route(mg_connection* connection) {
  const mg_request_info* request = mg_get_request_info(connection);
  const bool head = std::strcmp(request->request_method, "HEAD") == 0;
  if (!head && std::strcmp(request->request_method, "GET") != 0) {
    SendError(connection, 405, true);
    return 405;
  }
  if (!WholeBodyIsSmall(connection, request)) {
    SendError(connection, 413, true);
    return 413;
  }
  const std::string path = request->local_uri != nullptr ? request->local_uri : "";
  if (path == "/metrics") {
    ServeMetrics(connection, head);
  } else if (path == "/api/metrics") {
    ServeApiMetrics(connection, head);
  } else if (path == "/api/tree") {
    Send(connection, 200, "application/json", m_catalog.Tree().dump(), head);
  } else if (path == "/api/stream") {
    ServeStream(connection);
  } else if (path == "/" || path == "/index.html") {
    const Asset page = PageAsset();
    Send(connection, 200, "text/html; charset=utf-8", page.data, page.size, head);
  } else if (path == "/chart.js") {
    const Asset chart = ChartAsset();
    Send(connection, 200, "text/javascript; charset=utf-8", chart.data, chart.size, head);
  } else {
    SendError(connection, 404);
    return 404;
  }
  return 200;
}

std::vector<ExposedSample> HttpServer::Exposed() {
  std::vector<ExposedSample> exposed;
  for (const RawSample& sample : m_store.Latest()) {
    ExposedSample out;
    out.info = m_catalog.Lookup(sample.handle);
    if (ValueConvention::Decode(out.info.encoding, sample.bytes, sample.size, &out.value)) {
      exposed.push_back(std::move(out));
    }
  }
  // By path, so that a scrape lists the metrics in the same order every time.
  std::sort(exposed.begin(), exposed.end(),
            [](const ExposedSample& a, const ExposedSample& b) { return a.info.path < b.info.path; });
  return exposed;
}

void HttpServer::ServeMetrics(mg_connection* connection, bool head) {
  const std::vector<Family> families = BuildFamilies(Exposed());
  if (WantsOpenMetrics(mg_get_header(connection, "Accept"))) {
    Send(connection, 200, "application/openmetrics-text; version=1.0.0; charset=utf-8",
         OpenMetricsText(families), head);
    return;
  }
  Send(connection, 200, "text/plain; version=0.0.4; charset=utf-8", PrometheusText(families), head);
}

void HttpServer::ServeApiMetrics(mg_connection* connection, bool head) {
  std::map<unsigned long, RawSample> raw;
  for (const RawSample& sample : m_store.Latest()) raw[sample.handle] = sample;
  nlohmann::json metrics = nlohmann::json::array();
  for (const auto& entry : raw) {
    const MetricInfo info = m_catalog.Lookup(entry.first);
    double value = 0;
    const bool read = ValueConvention::Decode(info.encoding, entry.second.bytes, entry.second.size, &value);
    metrics.push_back({{"path", info.path}, {"process", info.process}, {"help", info.help},
                       {"unit", info.unit},
                       {"type", info.type == ValueConvention::kTypeCounter ? "counter" : "gauge"},
                       {"encoding", ValueConvention::EncodingName(info.encoding)},
                       {"value", read ? nlohmann::json(value) : nlohmann::json()},
                       {"samples", entry.second.received}, {"time", entry.second.timeMs}});
  }
  Send(connection, 200, "application/json", metrics.dump(), head);
}

std::string HttpServer::StreamEvent(const std::vector<RawSample>& samples) {
  nlohmann::json event = nlohmann::json::array();
  for (const RawSample& sample : samples) {
    const MetricInfo info = m_catalog.Lookup(sample.handle);
    double value = 0;
    if (!ValueConvention::Decode(info.encoding, sample.bytes, sample.size, &value)) continue;
    event.push_back({{"path", info.path}, {"value", value}, {"time", sample.timeMs}});
  }
  return "data: " + event.dump() + "\n\n";
}

void HttpServer::ServeStream(mg_connection* connection) {
  if (++m_streams > m_config.maxStreams) {
    --m_streams;
    SendError(connection, 503);
    return;
  }
  mg_printf(connection,
            "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-store\r\n"
            "Connection: close\r\n\r\nretry: 2000\n\n");
  // The latest values first, so that a new reader has a point on every chart;
  // the sequence is taken before them, so nothing is missed between.
  unsigned long after = m_store.Sequence();
  std::string event = StreamEvent(m_store.Latest());
  std::vector<Change> changes;
  while (mg_write(connection, event.data(), event.size()) > 0) {
    changes.clear();
    after = m_store.ChangesAfter(after, kStreamIdleMs, &changes);
    if (m_store.Closed()) break;
    std::vector<RawSample> samples;
    for (const Change& change : changes) samples.push_back(change.sample);
    event = samples.empty() ? ": idle\n\n" : StreamEvent(samples);
  }
  --m_streams;
}

}  // namespace kt_exporter
