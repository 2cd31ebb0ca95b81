// The real Prometheus scrapes the exporter and answers a query with the
// value the publisher committed; promtool accepts the exposition.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "exporter/exporter_host.h"

namespace {

using namespace kt_exporter_test;
using MetricsFramework::ValueConvention::kEncodingSigned;
using MetricsFramework::ValueConvention::kTypeCounter;

class PrometheusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host.Start(&publisher, {{"process", "scraped"}});
    ASSERT_TRUE(publisher.Write(0, DoubleBytes(42.5)));
    ASSERT_TRUE(publisher.Write(1, std::string("\x0c\0\0\0", 4)));
    char dir[] = "/tmp/kt_prometheus_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    tmp = dir;
  }
  void TearDown() override { RunProgram({"/bin/rm", "-rf", tmp}, "", &ignored); }

  ConventionPublisher publisher{{Described("queue_delay", "delay before a job starts", "s"),
                                 Described("jobs", "jobs finished", "", kEncodingSigned, kTypeCounter)}};
  ExporterHost host;
  std::string tmp;
  std::string ignored;
};

TEST_F(PrometheusTest, PromtoolAcceptsTheExposition) {
  KT_REQUIRE_PROGRAM(promtool, "promtool", "prometheus");
  const std::string text = Get(host.Port(), "/metrics").body;
  std::string output;
  EXPECT_EQ(RunProgram({promtool, "check", "metrics"}, text, &output), 0) << output << "\n" << text;
}

TEST_F(PrometheusTest, AQueryAnswersTheCommittedValueWithTheProcessLabel) {
  KT_REQUIRE_PROGRAM(prometheus, "prometheus", "prometheus");
  std::ofstream(tmp + "/prometheus.yml")
      << "global:\n  scrape_interval: 1s\nscrape_configs:\n  - job_name: kt\n    static_configs:\n"
      << "      - targets: ['127.0.0.1:" << host.Port() << "']\n";
  Child server({prometheus, "--config.file=" + tmp + "/prometheus.yml",
                "--storage.tsdb.path=" + tmp + "/data", "--web.listen-address=127.0.0.1:0"},
               tmp + "/prometheus.log");
  int port = 0;
  nlohmann::json answer;
  const std::string query = "/api/v1/query?query=publisher_queue_delay_seconds";
  for (int tries = 0; tries < 600 && answer.empty(); ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (port == 0 && !ListeningPorts(server.pid).empty()) port = ListeningPorts(server.pid).front();
    if (port == 0) continue;
    const Response response = Get(port, query);
    if (response.status != 200) continue;
    const nlohmann::json result = nlohmann::json::parse(response.body)["data"]["result"];
    if (!result.empty()) answer = result[0];
  }
  std::ifstream log(tmp + "/prometheus.log");
  ASSERT_FALSE(answer.empty()) << "no answer from prometheus on port " << port << "; its log:\n"
                               << std::string(std::istreambuf_iterator<char>(log), {});
  std::printf("query %s answered: %s\n", query.c_str(), answer.dump().c_str());
  EXPECT_EQ(answer["value"][1], "42.5");
  EXPECT_EQ(answer["metric"]["process"], "scraped");
  EXPECT_EQ(answer["metric"]["job"], "kt");
}

}  // namespace
