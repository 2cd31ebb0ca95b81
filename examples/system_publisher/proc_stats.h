// SPDX-License-Identifier: Apache-2.0
//
// Reading this machine's figures from /proc: pure parsers over the text of
// one /proc file each, and ProcSampler, which turns successive readings into
// the system publisher's values (rates need two readings).
//
// The parsers keep no state and may be called from any thread. A ProcSampler
// belongs to one thread at a time (the publisher's sampling thread).
#ifndef KT_EXAMPLES_SYSTEM_PUBLISHER_PROC_STATS_H_
#define KT_EXAMPLES_SYSTEM_PUBLISHER_PROC_STATS_H_

#include <chrono>
#include <string>

namespace kt_examples {

// Jiffies of the "cpu" line of /proc/stat: idle (idle + iowait) and all.
struct CpuTimes {
  unsigned long long idle = 0;
  unsigned long long total = 0;
};

// The first "cpu " line of /proc/stat; false when there is none.
bool ParseCpuTimes(const std::string& stat, CpuTimes* out);
// The "ctxt" line of /proc/stat; false when there is none.
bool ParseContextSwitches(const std::string& stat, unsigned long long* out);
// MemTotal - MemAvailable and MemAvailable of /proc/meminfo, in MiB; false
// when either line is missing.
bool ParseMemInfo(const std::string& meminfo, double* usedMiB, double* availableMiB);
// The first figure of /proc/loadavg; false when it does not start with one.
bool ParseLoadAverage(const std::string& loadavg, double* out);
// The resident page count (second field) of /proc/self/statm.
bool ParseResidentPages(const std::string& statm, unsigned long long* out);
// Busy share of the interval between two readings, 0 to 100; 0 when no time
// passed.
double CpuPercent(const CpuTimes& before, const CpuTimes& after);

// The whole contents of a /proc file; empty when it cannot be read.
std::string ReadProcFile(const char* path);

// The values the system publisher sends, in the order of its metrics.
enum SystemValue : unsigned int {
  kCpuPercent,
  kMemoryUsed,
  kMemoryAvailable,
  kLoadAverage,
  kContextSwitchRate,
  kResidentSize,
  kSystemValueCount
};

class ProcSampler {
 public:
  ProcSampler();
  ProcSampler(const ProcSampler&) = delete;
  ProcSampler& operator=(const ProcSampler&) = delete;

  // Reads /proc and fills values[kSystemValueCount]. The rates cover the time
  // since the previous call (since construction for the first). Returns false
  // when a file could not be read or parsed; the values are then unchanged.
  bool Sample(double* values);

 private:
  CpuTimes m_cpu;
  unsigned long long m_switches = 0;
  std::chrono::steady_clock::time_point m_when;
};

}  // namespace kt_examples

#endif  // KT_EXAMPLES_SYSTEM_PUBLISHER_PROC_STATS_H_
