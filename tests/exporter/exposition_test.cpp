// The value convention's reading of samples, and the exposition of what the
// exporter holds: names, units, types and labels in both text formats.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>

#include "exposition.h"
#include "kt/value_convention.h"

namespace {

using namespace MetricsFramework::ValueConvention;
using kt_exporter::ExposedSample;
using kt_exporter::MetricInfo;

std::string Bytes(const void* data, size_t size) { return std::string(static_cast<const char*>(data), size); }

struct DecodeRow {
  const char* name;
  Encoding encoding;
  std::string bytes;
  unsigned long size;  // kSizeNotGiven for a time-based sample
  bool read;
  double value;
};

TEST(ValueConventionTest, DecodesEachEncodingAndSize) {
  const double d = -2.5;
  const float f = 1.25f;
  const std::int16_t s16 = -300;
  const std::uint32_t u32 = 4000000000u;
  const std::int64_t s64 = -5;
  const DecodeRow rows[] = {
      {"double", kEncodingDouble, Bytes(&d, 8), 8, true, -2.5},
      {"double without a size", kEncodingDouble, Bytes(&d, 8), kSizeNotGiven, true, -2.5},
      {"float", kEncodingDouble, Bytes(&f, 4), 4, true, 1.25},
      {"double of 2 bytes", kEncodingDouble, "ab", 2, false, 0},
      {"signed 16", kEncodingSigned, Bytes(&s16, 2), 2, true, -300},
      {"signed 64", kEncodingSigned, Bytes(&s64, 8), 8, true, -5},
      {"unsigned 32", kEncodingUnsigned, Bytes(&u32, 4), 4, true, 4000000000.0},
      {"unsigned 8", kEncodingUnsigned, "\xff", 1, true, 255},
      {"integer of 3 bytes", kEncodingSigned, "abc", 3, false, 0},
      {"unknown encoding", static_cast<Encoding>(9), Bytes(&d, 8), 8, false, 0},
  };
  for (const DecodeRow& row : rows) {
    double value = 0;
    EXPECT_EQ(Decode(row.encoding, row.bytes.data(), row.size, &value), row.read) << row.name;
    EXPECT_EQ(value, row.value) << row.name;
  }
}

TEST(MetricNameTest, IsSnakeCaseAndValid) {
  const std::pair<const char*, const char*> rows[] = {
      {"SystemPublisher_cpu_percent", "system_publisher_cpu_percent"},
      {"HTTPServer.requests-per sec", "http_server_requests_per_sec"},
      {"9lives", "_9lives"},
      {"__a__b__", "a_b"},
      {"caf\xc3\xa9", "caf"},
  };
  for (const auto& row : rows) EXPECT_EQ(kt_exporter::SanitizeName(row.first), row.second) << row.first;
}

ExposedSample Sample(const std::string& publisher, const std::string& uri, const std::string& unit,
                     Type type, double value, const std::string& process = "host") {
  ExposedSample sample;
  sample.info.publisher = publisher;
  sample.info.uri = uri;
  sample.info.path = "publishers/" + publisher + "/" + uri;
  sample.info.unit = unit;
  sample.info.type = type;
  sample.info.help = "help of " + uri + " with \\ and \"";
  sample.info.process = process;
  sample.value = value;
  return sample;
}

class ExpositionTest : public ::testing::Test {
 protected:
  std::vector<kt_exporter::Family> families = kt_exporter::BuildFamilies({
      Sample("Pub", "latency", "ms", kTypeGauge, 250),
      Sample("Pub", "requests_total", "", kTypeCounter, 7),
      Sample("Pub", "cpu_percent", "%", kTypeGauge, 12.5),
      Sample("Pub", "cpu_percent", "%", kTypeGauge, 13, "peer1"),
      Sample("Pub", "cpu-percent", "%", kTypeGauge, 14, "peer1"),
  });
};

TEST_F(ExpositionTest, PrometheusTextCarriesUnitsTypesAndProcesses) {
  const std::string text = kt_exporter::PrometheusText(families);
  for (const char* line : {
           "# TYPE pub_latency_seconds gauge\n",
           "pub_latency_seconds{process=\"host\"} 0.25\n",
           "# TYPE pub_requests_total counter\n",
           "pub_requests_total{process=\"host\"} 7\n",
           "# HELP pub_cpu_percent help of cpu_percent with \\\\ and \"\n",
           "pub_cpu_percent{process=\"host\"} 12.5\n",
           "pub_cpu_percent{process=\"peer1\",path=\"publishers/Pub/cpu_percent\"} 13\n",
           "pub_cpu_percent{process=\"peer1\",path=\"publishers/Pub/cpu-percent\"} 14\n",
       }) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;
  }
}

TEST_F(ExpositionTest, OpenMetricsNamesFamiliesWithoutTotalAndEnds) {
  const std::string text = kt_exporter::OpenMetricsText(families);
  for (const char* line : {
           "# TYPE pub_requests counter\n",
           "pub_requests_total{process=\"host\"} 7\n",
           "# UNIT pub_latency_seconds seconds\n",
           "# HELP pub_cpu_percent help of cpu_percent with \\\\ and \\\"\n",
       }) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;
  }
  EXPECT_EQ(text.substr(text.size() - 6), "# EOF\n");
  EXPECT_TRUE(kt_exporter::WantsOpenMetrics("application/openmetrics-text;version=1.0.0,text/plain;q=0.5"));
  EXPECT_FALSE(kt_exporter::WantsOpenMetrics("text/plain"));
}

}  // namespace
