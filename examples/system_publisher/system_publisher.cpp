// SPDX-License-Identifier: Apache-2.0
//
// SystemPublisher: publishes this machine's figures read from /proc, sampled on
// its own thread every KT_SYSTEM_PUBLISHER_PERIOD_MS milliseconds (500 by
// default).
//
// All metrics form group 1, so a consumer receives one consistent snapshot per
// period in one call. The metrics follow the value convention
// (include/kt/value_convention.h): each sample is the value as a double (8
// bytes, byte1 0), each metric a gauge (byte2 0), with a one-line explanation
// in text1 and the unit in text2; the description also carries the tag in
// word1.
//
// Threads: OnLoad starts the sampling thread and OnUnload (or the destructor)
// stops and joins it. The bound metrics are guarded by one mutex, which the
// sampling thread holds while it writes and which DetachBuffer and
// UnbindMetric take, so that no sample is written into a buffer after the
// library has taken it back.
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kt/export_table.h"
#include "kt/extension_manager.h"
#include "kt/metric.h"
#include "kt/publisher.h"
#include "kt/value_convention.h"
#include "kt/visibility.h"
#include "proc_stats.h"

namespace {

using namespace MetricsFramework;
using kt_examples::kSystemValueCount;

struct MetricTemplate {
  const char* uri;
  unsigned int tag;
  const char* unit;
  const char* text;
};

// In the order of kt_examples::SystemValue.
const MetricTemplate kMetrics[kSystemValueCount] = {
    {"cpu_percent", 101, "%", "share of CPU time spent busy since the previous sample"},
    {"memory_used", 102, "MiB", "memory in use: total minus available"},
    {"memory_available", 103, "MiB", "memory available to new work without swapping"},
    {"load_average_1m", 104, "", "run-queue load average over one minute"},
    {"context_switches", 105, "1/s", "context switches per second"},
    {"resident_size", 106, "MiB", "resident size of this process"},
};
constexpr unsigned int kGroup = 1;
constexpr unsigned int kSet = 1;

std::chrono::milliseconds PeriodFromEnvironment() {
  const char* text = std::getenv("KT_SYSTEM_PUBLISHER_PERIOD_MS");
  const long ms = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::milliseconds(ms >= 10 ? ms : 500);
}

// One metric's binding to one conduit's buffer. Every member after
// construction is read and written under the publisher's mutex.
class SystemBoundMetric : public IBoundMetric {
 public:
  SystemBoundMetric(unsigned long metric, unsigned int index, std::mutex& guard)
      : m_metric(metric), m_index(index), m_guard(guard) {}
  SystemBoundMetric(const SystemBoundMetric&) = delete;
  SystemBoundMetric& operator=(const SystemBoundMetric&) = delete;

  void AttachBuffer(unsigned long, IWriteBuffer* buffer) override {
    std::lock_guard<std::mutex> hold(m_guard);
    m_buffer = buffer;
  }
  void DetachBuffer(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    m_buffer = nullptr;
  }
  unsigned long GetMetricHandle() override { return m_metric; }
  bool IsAttached(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    return m_buffer != nullptr;
  }
  void Flush(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    if (m_buffer != nullptr) m_buffer->Flush();
  }

  // The caller holds the publisher's mutex.
  void WriteLocked(const double* values) {
    if (m_buffer == nullptr) return;
    void* block = m_buffer->Reserve(sizeof(double));
    if (block == nullptr) return;
    std::memcpy(block, &values[m_index], sizeof(double));
    m_buffer->Commit(block);
  }

 private:
  const unsigned long m_metric;
  const unsigned int m_index;
  std::mutex& m_guard;
  IWriteBuffer* m_buffer = nullptr;
};

class SystemPublisher : public IPublisher {
 public:
  SystemPublisher() = default;
  ~SystemPublisher() override { Stop(); }

  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                           IBoundMetric**) override {
    unsigned int index = 0;
    while (index < kSystemValueCount && m_handles[index] != metric) ++index;
    if (index == kSystemValueCount) return nullptr;
    auto bound = std::make_unique<SystemBoundMetric>(metric, index, m_mutex);
    IBoundMetric* made = bound.get();
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound[made] = std::move(bound);
    return made;
  }
  void UnbindMetric(unsigned long, IBoundMetric* bound) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound.erase(bound);
  }

  void OnLoad() override {
    IExtensionManager* manager = GetExtensionManager();
    for (unsigned int i = 0; i < kSystemValueCount; ++i) {
      Metric::Description desc;
      desc.uri = kMetrics[i].uri;
      desc.word1 = kMetrics[i].tag;
      desc.word4 = kGroup;
      desc.setIds = {kSet};
      desc.text1 = kMetrics[i].text;
      desc.text2 = kMetrics[i].unit;
      desc.byte1 = ValueConvention::kEncodingDouble;
      desc.byte2 = ValueConvention::kTypeGauge;
      manager->PublishMetric(this, desc, &m_handles[i]);
    }
    std::vector<std::string> order{"system"};
    manager->PublishGroupOrder(this, order);
    manager->PublishSetNames(this, {{kSet, "system"}});
    Start();
  }
  void OnUnload() override {
    Stop();
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound.clear();
  }

 private:
  void Start() {
    if (m_thread.joinable()) return;
    m_stopping = false;
    m_thread = std::thread([this, period = PeriodFromEnvironment()] { Run(period); });
  }
  void Stop() {
    {
      std::lock_guard<std::mutex> hold(m_stopMutex);
      m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
  }
  void Run(std::chrono::milliseconds period) {
    kt_examples::ProcSampler sampler;
    std::unique_lock<std::mutex> wait(m_stopMutex);
    while (!m_wake.wait_for(wait, period, [this] { return m_stopping; })) {
      wait.unlock();
      double values[kSystemValueCount];
      if (sampler.Sample(values)) Write(values);
      wait.lock();
    }
  }
  void Write(const double* values) {
    std::lock_guard<std::mutex> hold(m_mutex);
    for (auto& entry : m_bound) entry.second->WriteLocked(values);
  }

  unsigned long m_handles[kSystemValueCount] = {};
  std::mutex m_mutex;  // guards m_bound and every bound metric's buffer
  std::map<IBoundMetric*, std::unique_ptr<SystemBoundMetric>> m_bound;
  std::mutex m_stopMutex;  // guards m_stopping
  std::condition_variable m_wake;
  bool m_stopping = false;
  std::thread m_thread;
};

IExtension* CreateSystemPublisher() { return static_cast<IPublisher*>(new SystemPublisher); }

}  // namespace

extern "C" KT_EXPORT const ExtensionExportRow
    __extension_export_table__[2] = {
        {"SystemPublisher", kExportKindExtension, kExportRowMagic, 0, &CreateSystemPublisher},
        {"", 0, 0, 0, nullptr},
};
