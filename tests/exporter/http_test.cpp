// The exporter over loopback HTTP, loaded as a host loads it: what each path
// answers, bad and heavy requests, the live stream, removal while requests are
// in flight, and 200 connections at once beside a publisher.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "exporter/exporter_host.h"

namespace {

using namespace kt_exporter_test;
using MetricsFramework::ValueConvention::kEncodingUnsigned;

class ExporterHttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host.Start(&publisher, {{"process", "tester"}});
    ASSERT_TRUE(publisher.Write(0, DoubleBytes(42.5)));
  }
  // The exporter's count of samples of the first metric.
  unsigned long Received() {
    const nlohmann::json metrics = nlohmann::json::parse(Get(host.Port(), "/api/metrics").body);
    for (const auto& metric : metrics) {
      if (metric["path"] == "publishers/Publisher/wait_time") return metric["samples"];
    }
    return 0;
  }

  ConventionPublisher publisher{{Described("wait_time", "time spent waiting", "s"),
                                 Described("jobs", "jobs done", "", kEncodingUnsigned, 1)}};
  ExporterHost host;
};

std::string Request(const std::string& path) {
  return "GET " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
}

TEST_F(ExporterHttpTest, EachPathAnswersAndBadRequestsAreRefused) {
  const std::string get = "GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n";
  const struct {
    const char* name;
    std::string request;
    int status;
    const char* type;
  } rows[] = {
      {"metrics", get + "\r\n", 200, "text/plain; version=0.0.4"},
      {"openmetrics", get + "Accept: application/openmetrics-text; version=1.0.0\r\n\r\n", 200,
       "application/openmetrics-text"},
      {"api metrics", Request("/api/metrics"), 200, "application/json"},
      {"tree", Request("/api/tree"), 200, "application/json"},
      {"page", Request("/"), 200, "text/html"},
      {"chart library", Request("/chart.js"), 200, "text/javascript"},
      {"unknown path", Request("/metrics/x"), 404, "text/plain"},
      {"post", "POST /metrics HTTP/1.1\r\nContent-Length: 2\r\n\r\nab", 405, "text/plain"},
      {"large body", get + "Content-Length: 5000\r\n\r\n" + std::string(5000, 'x'), 413, "text/plain"},
      {"chunked body", get + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 413, "text/plain"},
      {"large headers", get + "X-Big: " + std::string(9000, 'a') + "\r\n\r\n", 400, ""},
  };
  for (const auto& row : rows) {
    const Response response = Send(host.Port(), row.request);
    EXPECT_EQ(response.status, row.status) << row.name;
    EXPECT_NE(response.headers.find(std::string("Content-Type: ") + row.type), std::string::npos)
        << row.name << ": " << response.headers;
  }
  const Response metrics = Get(host.Port(), "/metrics");
  EXPECT_NE(metrics.body.find("publisher_wait_time_seconds{process=\"tester\"} 42.5\n"), std::string::npos)
      << metrics.body;
}

TEST_F(ExporterHttpTest, LiveStreamSendsTheLatestValuesThenEachNewSample) {
  std::thread writer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    publisher.Write(1, std::string("\x09\0\0\0\0\0\0\0", 8));
  });
  const Response stream = Get(host.Port(), "/api/stream", "", 1500);
  writer.join();
  EXPECT_EQ(stream.status, 200);
  const size_t first = stream.body.find("\"path\":\"publishers/Publisher/wait_time\",\"time\"");
  const size_t second = stream.body.find("{\"path\":\"publishers/Publisher/jobs\",\"time\"");
  ASSERT_NE(first, std::string::npos) << stream.body;
  ASSERT_NE(second, std::string::npos) << stream.body;
  EXPECT_LT(first, second);
  EXPECT_NE(stream.body.find("\"value\":9.0}"), std::string::npos) << stream.body;
}

TEST_F(ExporterHttpTest, RemovingTheExporterWhileRequestsAreInFlightEndsThem) {
  std::atomic<bool> removed{false};
  std::vector<std::thread> readers;
  for (const char* path : {"/metrics", "/api/tree", "/api/stream", "/api/metrics"}) {
    readers.emplace_back([&, path] {
      while (!removed) Get(host.Port(), path, "", 3000);
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  host.RemoveExporter();
  removed = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(Get(host.Port(), "/metrics").status, 0);
}

// The publisher's commit times, in microseconds, of `count` samples.
std::vector<double> CommitTimes(ConventionPublisher& publisher, int count) {
  std::vector<double> times;
  for (int i = 0; i < count; ++i) {
    const auto start = std::chrono::steady_clock::now();
    publisher.Write(0, DoubleBytes(i));
    times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  std::sort(times.begin(), times.end());
  return times;
}

void PrintTimes(const char* what, const std::vector<double>& times) {
  std::printf("commit time %s: median %.1f us, 99th percentile %.1f us, max %.1f us\n", what,
              times[times.size() / 2], times[times.size() * 99 / 100], times.back());
}

// Connects `count` clients, then sends each a scrape once all are connected,
// and counts the 200 answers that arrive within 60 seconds.
int ServeManyAtOnce(int port, int count) {
  std::vector<pollfd> clients;
  for (int i = 0; i < count; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
    clients.push_back({fd, POLLIN, 0});
  }
  const std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  for (const pollfd& client : clients) send(client.fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::vector<std::string> answers(clients.size());
  size_t open = clients.size();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (open > 0 && std::chrono::steady_clock::now() < deadline) {
    if (poll(clients.data(), clients.size(), 100) <= 0) continue;
    for (size_t i = 0; i < clients.size(); ++i) {
      if (clients[i].fd < 0 || (clients[i].revents & (POLLIN | POLLHUP)) == 0) continue;
      char chunk[4096];
      const ssize_t got = recv(clients[i].fd, chunk, sizeof chunk, 0);
      if (got > 0) {
        answers[i].append(chunk, static_cast<size_t>(got));
        continue;
      }
      close(clients[i].fd);
      clients[i].fd = -1;
      --open;
    }
  }
  for (const pollfd& client : clients) {
    if (client.fd >= 0) close(client.fd);
  }
  return static_cast<int>(std::count_if(answers.begin(), answers.end(), [](const std::string& answer) {
    return answer.rfind("HTTP/1.1 200 OK", 0) == 0;
  }));
}

TEST_F(ExporterHttpTest, TwoHundredConnectionsAreServedBesideAPublisher) {
  constexpr int kSamples = 2000;
  const std::vector<double> quiet = CommitTimes(publisher, kSamples);
  std::atomic<int> served{-1};
  std::thread load([&] { served = ServeManyAtOnce(host.Port(), 200); });
  const std::vector<double> loaded = CommitTimes(publisher, kSamples);
  load.join();
  PrintTimes("without HTTP load", quiet);
  PrintTimes("with 200 connections", loaded);
  EXPECT_EQ(served, 200);
  EXPECT_EQ(Received(), 1u + 2 * kSamples);
}

}  // namespace
