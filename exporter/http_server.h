// SPDX-License-Identifier: Apache-2.0
//
// HttpServer: the exporter's embedded HTTP server (civetweb). It serves
//   /metrics      the Prometheus text format, or OpenMetrics when asked for
//   /api/metrics  every metric's latest value as JSON
//   /api/tree     the registry as JSON
//   /api/stream   the samples as they arrive (Server-Sent Events)
//   /, /chart.js  the page and the chart library it draws with
// and 404 for any other path, 405 for a method other than GET and HEAD, 413
// for a request body over 1 KiB, 400 for request headers over 8 KiB, and 503
// for a live stream beyond the configured number.
//
// Threads: civetweb's workers (a bounded pool; a live stream holds one while
// it lasts) read the store and the catalog under their own short locks. Start
// and Stop come from the exporter's owner thread; Stop waits for every
// request in flight to end, live streams included (the store must be closed
// first so that they stop waiting).
#ifndef KT_EXPORTER_HTTP_SERVER_H_
#define KT_EXPORTER_HTTP_SERVER_H_

#include <atomic>
#include <string>
#include <vector>

#include "exposition.h"
#include "metric_catalog.h"
#include "sample_store.h"

struct mg_connection;
struct mg_context;

namespace kt_exporter {

struct ServerConfig {
  std::string address = "127.0.0.1:9464";  // IPv4 address and port; port 0: any free one
  int threads = 64;                        // worker threads, which bound the requests served at once
  int maxStreams = 32;                     // live streams at once; must be below `threads`
};

class HttpServer {
 public:
  HttpServer(SampleStore& store, MetricCatalog& catalog) : m_store(store), m_catalog(catalog) {}
  ~HttpServer() { Stop(); }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens on config.address. False, with the reason in *error, when the
  // address cannot be listened on or the server cannot start.
  bool Start(const ServerConfig& config, std::string* error);
  // Stops listening and waits for the requests in flight. Safe to repeat.
  void Stop();
  // "127.0.0.1:43121": where it listens (the port the system chose for 0);
  // "" when it is not running.
  std::string BoundAddress() const { return m_bound; }

  // Every metric's latest sample read by the value convention, with what the
  // catalog knows of it; samples the convention cannot read are left out.
  std::vector<ExposedSample> Exposed();

 private:
  static int OnRequest(mg_connection* connection, void* self);
  int Route(mg_connection* connection);
  void ServeMetrics(mg_connection* connection, bool head);
  void ServeApiMetrics(mg_connection* connection, bool head);
  void ServeStream(mg_connection* connection);
  std::string StreamEvent(const std::vector<RawSample>& samples);

  SampleStore& m_store;
  MetricCatalog& m_catalog;
  ServerConfig m_config;
  mg_context* m_context = nullptr;
  std::string m_bound;
  std::atomic<int> m_streams{0};
};

}  // namespace kt_exporter

#endif  // KT_EXPORTER_HTTP_SERVER_H_
