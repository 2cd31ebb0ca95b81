// The system publisher's /proc parsers, on fixed texts and on this machine.
#include "system_publisher/proc_stats.h"

#include <gtest/gtest.h>

namespace {

using namespace kt_examples;

// Iowait counts as idle, guest time stays out; the percentage is the busy
// share of the interval; a cpu line needs its four first fields.
TEST(ProcStatsTest, ProcTextsGiveTheirFields) {
  const char stat[] = "cpu  100 0 50 800 50 0 0 0 10 0\ncpu0 60 0 25 400 25 0 0 0 5 0\nctxt 987654\n";
  CpuTimes times, after;
  unsigned long long switches = 0, pages = 0;
  double used = 0, available = 0, load = 0;

  ASSERT_TRUE(ParseCpuTimes(stat, &times));
  EXPECT_EQ(std::make_pair(times.idle, times.total), std::make_pair(850ull, 1000ull));
  after.idle = 880, after.total = 1120;
  EXPECT_DOUBLE_EQ(CpuPercent(times, after), 75.0);
  EXPECT_DOUBLE_EQ(CpuPercent(after, after), 0.0) << "no time passed";
  EXPECT_FALSE(ParseCpuTimes("cpu  1 2 3\n", &times));
  ASSERT_TRUE(ParseContextSwitches(stat, &switches));
  EXPECT_EQ(switches, 987654u);
  EXPECT_FALSE(ParseContextSwitches("cpu 1 2 3 4\n", &switches));
  ASSERT_TRUE(ParseMemInfo("MemTotal: 4194304 kB\nMemFree: 524288 kB\nMemAvailable: 1048576 kB\n",
                           &used, &available));
  EXPECT_EQ(std::make_pair(used, available), std::make_pair(3072.0, 1024.0));
  EXPECT_FALSE(ParseMemInfo("MemTotal: 10 kB\n", &used, &available));
  ASSERT_TRUE(ParseLoadAverage("0.42 0.30 0.20 1/123 4567\n", &load));
  ASSERT_TRUE(ParseResidentPages("2000 345 100 10 0 200 0\n", &pages));
  EXPECT_EQ(std::make_pair(load, pages), std::make_pair(0.42, 345ull));
}

TEST(ProcStatsTest, SamplerReadsThisMachine) {
  ProcSampler sampler;
  double values[kSystemValueCount] = {};

  ASSERT_TRUE(sampler.Sample(values));

  EXPECT_TRUE(values[kCpuPercent] >= 0.0 && values[kCpuPercent] <= 100.0) << values[kCpuPercent];
  EXPECT_GT(values[kMemoryAvailable], 0.0);
  EXPECT_GT(values[kResidentSize], 0.0);
  EXPECT_GE(values[kContextSwitchRate], 0.0);
}

}  // namespace
