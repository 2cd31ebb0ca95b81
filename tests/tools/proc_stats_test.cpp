// The system publisher's /proc parsers, on fixed texts and on this machine.
#include "system_publisher/proc_stats.h"

#include <gtest/gtest.h>

namespace {

using namespace kt_examples;

const char kStat[] =
    "cpu  100 0 50 800 50 0 0 0 10 0\n"
    "cpu0 60 0 25 400 25 0 0 0 5 0\n"
    "intr 12345 0 0\n"
    "ctxt 987654\n"
    "btime 1700000000\n";

// Iowait counts as idle, guest time stays out; the percentage is the busy
// share of the interval; context switches come from the ctxt line.
TEST(ProcStatsTest, StatGivesCpuTimesAndContextSwitches) {
  CpuTimes times;
  ASSERT_TRUE(ParseCpuTimes(kStat, &times));
  EXPECT_EQ(times.idle, 850u);
  EXPECT_EQ(times.total, 1000u);
  CpuTimes after;
  after.idle = 880;
  after.total = 1120;
  EXPECT_DOUBLE_EQ(CpuPercent(times, after), 75.0);
  EXPECT_DOUBLE_EQ(CpuPercent(after, after), 0.0) << "no time passed";

  unsigned long long switches = 0;
  ASSERT_TRUE(ParseContextSwitches(kStat, &switches));
  EXPECT_EQ(switches, 987654u);
  EXPECT_FALSE(ParseContextSwitches("cpu 1 2 3 4\n", &switches));
}

TEST(ProcStatsTest, MemInfoGivesUsedAndAvailableInMiB) {
  const char meminfo[] =
      "MemTotal:        4194304 kB\n"
      "MemFree:          524288 kB\n"
      "MemAvailable:    1048576 kB\n";
  double used = 0;
  double available = 0;

  ASSERT_TRUE(ParseMemInfo(meminfo, &used, &available));

  EXPECT_DOUBLE_EQ(used, 3072.0);
  EXPECT_DOUBLE_EQ(available, 1024.0);
  EXPECT_FALSE(ParseMemInfo("MemTotal: 10 kB\n", &used, &available));
}

TEST(ProcStatsTest, LoadAverageAndResidentPagesAreTheirFields) {
  double load = 0;
  unsigned long long pages = 0;

  ASSERT_TRUE(ParseLoadAverage("0.42 0.30 0.20 1/123 4567\n", &load));
  ASSERT_TRUE(ParseResidentPages("2000 345 100 10 0 200 0\n", &pages));

  EXPECT_DOUBLE_EQ(load, 0.42);
  EXPECT_EQ(pages, 345u);
}

TEST(ProcStatsTest, SamplerReadsThisMachine) {
  ProcSampler sampler;
  double values[kSystemValueCount] = {};

  ASSERT_TRUE(sampler.Sample(values));

  EXPECT_GE(values[kCpuPercent], 0.0);
  EXPECT_LE(values[kCpuPercent], 100.0);
  EXPECT_GT(values[kMemoryAvailable], 0.0);
  EXPECT_GT(values[kResidentSize], 0.0);
  EXPECT_GE(values[kContextSwitchRate], 0.0);
}

}  // namespace
