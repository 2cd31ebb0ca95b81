// SPDX-License-Identifier: Apache-2.0
//
// ProbePublisher: one probe metric ("probe_events", tag 201) and one probe type
// over it ("event_counter"), so that a client's CreateProbe and DestroyProbe
// act on something real.
//
// Each probe counts the events it is handed (Begin, End, Handle). The
// publisher owns every probe it makes and frees them when it is unloaded or
// destroyed: DestroyProbe removes a probe's site from the registry but does
// not tell the publisher. A probe's Handle writes the probe's count of events,
// as a double, into every buffer the probe metric is bound to. The metric
// follows the value convention (include/kt/value_convention.h): a double
// gauge, help in text1, unit in text2.
//
// Threads: probes are called on the clients' threads; the publisher's state is
// guarded by one mutex, which DetachBuffer takes.
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "kt/export_table.h"
#include "kt/extension_manager.h"
#include "kt/metric.h"
#include "kt/probe.h"
#include "kt/value_convention.h"
#include "kt/visibility.h"

namespace {

using namespace MetricsFramework;

constexpr unsigned int kProbeMetricTag = 201;

class ProbeBoundMetric : public IBoundMetric {
 public:
  ProbeBoundMetric(unsigned long metric, std::mutex& guard) : m_metric(metric), m_guard(guard) {}
  ProbeBoundMetric(const ProbeBoundMetric&) = delete;
  ProbeBoundMetric& operator=(const ProbeBoundMetric&) = delete;

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
  void Flush(unsigned long) override {}

  // The caller holds the publisher's mutex.
  void WriteLocked(double value) {
    if (m_buffer == nullptr) return;
    void* block = m_buffer->Reserve(sizeof value);
    if (block == nullptr) return;
    std::memcpy(block, &value, sizeof value);
    m_buffer->Commit(block);
  }

 private:
  const unsigned long m_metric;
  std::mutex& m_guard;
  IWriteBuffer* m_buffer = nullptr;
};

class ProbePublisher;

class CountingProbe : public Metrics::IProbe {
 public:
  explicit CountingProbe(ProbePublisher& owner) : m_owner(owner) {}
  KT_STATUS Begin(unsigned long, unsigned long, Metrics::EventType, void*) override;
  KT_STATUS End(unsigned long, Metrics::EventType, void*) override;
  KT_STATUS Handle() override;

 private:
  ProbePublisher& m_owner;
  unsigned long m_events = 0;  // guarded by the owner's mutex
};

class ProbePublisher : public IProbePublisher {
 public:
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                           IBoundMetric**) override {
    if (metric != m_metric) return nullptr;
    auto bound = std::make_unique<ProbeBoundMetric>(metric, m_mutex);
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
    Metric::Description desc;
    desc.uri = "probe_events";
    desc.flags = Metric::kFlagProbe;
    desc.word1 = kProbeMetricTag;
    desc.text1 = "events counted by the probe that was last handled";
    desc.text2 = "events";
    desc.byte1 = ValueConvention::kEncodingDouble;
    desc.byte2 = ValueConvention::kTypeGauge;
    IExtensionManager* manager = GetExtensionManager();
    if (manager->PublishMetric(this, desc, &m_metric) != KT_STATUS_SUCCESS) return;
    ProbeDesc probe{};
    std::strncpy(probe.m_name, "event_counter", sizeof probe.m_name - 1);
    probe.m_metrics = &m_metric;
    probe.m_metricCount = 1;
    manager->PublishProbe(this, probe, &m_probeType);
  }
  void OnUnload() override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound.clear();
    m_probes.clear();
  }
  Metrics::IProbe* CreateProbe(void*, unsigned long type) override {
    if (type != m_probeType) return nullptr;
    std::lock_guard<std::mutex> hold(m_mutex);
    m_probes.push_back(std::make_unique<CountingProbe>(*this));
    return m_probes.back().get();
  }

  std::mutex& Mutex() { return m_mutex; }
  // The caller holds the mutex.
  void WriteLocked(double value) {
    for (auto& entry : m_bound) entry.second->WriteLocked(value);
  }

 private:
  unsigned long m_metric = 0;
  unsigned long m_probeType = 0;
  std::mutex m_mutex;  // guards the containers, the bound metrics and the probes' counts
  std::map<IBoundMetric*, std::unique_ptr<ProbeBoundMetric>> m_bound;
  std::vector<std::unique_ptr<CountingProbe>> m_probes;
};

KT_STATUS CountingProbe::Begin(unsigned long, unsigned long, Metrics::EventType, void*) {
  std::lock_guard<std::mutex> hold(m_owner.Mutex());
  ++m_events;
  return KT_STATUS_SUCCESS;
}

KT_STATUS CountingProbe::End(unsigned long, Metrics::EventType, void*) {
  std::lock_guard<std::mutex> hold(m_owner.Mutex());
  ++m_events;
  return KT_STATUS_SUCCESS;
}

KT_STATUS CountingProbe::Handle() {
  std::lock_guard<std::mutex> hold(m_owner.Mutex());
  ++m_events;
  m_owner.WriteLocked(static_cast<double>(m_events));
  return KT_STATUS_SUCCESS;
}

IExtension* CreateProbePublisher() { return static_cast<IPublisher*>(new ProbePublisher); }

}  // namespace

extern "C" KT_EXPORT const ExtensionExportRow
    __extension_export_table__[2] = {
        {"ProbePublisher", kExportKindExtension, kExportRowMagic, 0, &CreateProbePublisher},
        {"", 0, 0, 0, nullptr},
};
