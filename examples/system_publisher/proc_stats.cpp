// SPDX-License-Identifier: Apache-2.0
//
#include "proc_stats.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace kt_examples {

namespace {

// The text after the line that starts with `key`, or empty when none does.
std::string LineAfter(const std::string& text, const std::string& key) {
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    if (text.compare(at, key.size(), key) == 0) return text.substr(at + key.size(), end - at - key.size());
    at = end + 1;
  }
  return std::string();
}

bool MemInfoKiB(const std::string& meminfo, const char* key, double* out) {
  const std::string rest = LineAfter(meminfo, key);
  return std::sscanf(rest.c_str(), "%lf", out) == 1;
}

}  // namespace

bool ParseCpuTimes(const std::string& stat, CpuTimes* out) {
  const std::string rest = LineAfter(stat, "cpu ");
  if (rest.empty()) return false;
  std::istringstream fields(rest);
  unsigned long long value = 0;
  CpuTimes times;
  int index = 0;
  // user nice system idle iowait irq softirq steal; guest time is already
  // counted in user and nice, so the fields after steal are left out.
  for (; index < 8 && fields >> value; ++index) {
    times.total += value;
    if (index == 3 || index == 4) times.idle += value;
  }
  if (index < 4) return false;
  *out = times;
  return true;
}

bool ParseContextSwitches(const std::string& stat, unsigned long long* out) {
  const std::string rest = LineAfter(stat, "ctxt ");
  return !rest.empty() && std::sscanf(rest.c_str(), "%llu", out) == 1;
}

bool ParseMemInfo(const std::string& meminfo, double* usedMiB, double* availableMiB) {
  double total = 0;
  double available = 0;
  if (!MemInfoKiB(meminfo, "MemTotal:", &total)) return false;
  if (!MemInfoKiB(meminfo, "MemAvailable:", &available)) return false;
  *usedMiB = (total - available) / 1024.0;
  *availableMiB = available / 1024.0;
  return true;
}

bool ParseLoadAverage(const std::string& loadavg, double* out) {
  return std::sscanf(loadavg.c_str(), "%lf", out) == 1;
}

bool ParseResidentPages(const std::string& statm, unsigned long long* out) {
  unsigned long long size = 0;
  return std::sscanf(statm.c_str(), "%llu %llu", &size, out) == 2;
}

double CpuPercent(const CpuTimes& before, const CpuTimes& after) {
  if (after.total <= before.total) return 0.0;
  const double total = static_cast<double>(after.total - before.total);
  const double idle = after.idle >= before.idle ? static_cast<double>(after.idle - before.idle) : 0.0;
  return idle >= total ? 0.0 : 100.0 * (total - idle) / total;
}

std::string ReadProcFile(const char* path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

ProcSampler::ProcSampler() : m_when(std::chrono::steady_clock::now()) {
  const std::string stat = ReadProcFile("/proc/stat");
  ParseCpuTimes(stat, &m_cpu);
  ParseContextSwitches(stat, &m_switches);
}

bool ProcSampler::Sample(double* values) {
  const auto now = std::chrono::steady_clock::now();
  const std::string stat = ReadProcFile("/proc/stat");
  CpuTimes cpu;
  unsigned long long switches = 0;
  double used = 0, available = 0, load = 0;
  unsigned long long pages = 0;
  if (!ParseCpuTimes(stat, &cpu) || !ParseContextSwitches(stat, &switches)) return false;
  if (!ParseMemInfo(ReadProcFile("/proc/meminfo"), &used, &available)) return false;
  if (!ParseLoadAverage(ReadProcFile("/proc/loadavg"), &load)) return false;
  if (!ParseResidentPages(ReadProcFile("/proc/self/statm"), &pages)) return false;

  const double seconds = std::chrono::duration<double>(now - m_when).count();
  values[kCpuPercent] = CpuPercent(m_cpu, cpu);
  values[kMemoryUsed] = used;
  values[kMemoryAvailable] = available;
  values[kLoadAverage] = load;
  values[kContextSwitchRate] =
      seconds > 0 && switches >= m_switches ? static_cast<double>(switches - m_switches) / seconds : 0.0;
  values[kResidentSize] = static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) /
                          (1024.0 * 1024.0);
  m_cpu = cpu;
  m_switches = switches;
  m_when = now;
  return true;
}

}  // namespace kt_examples
