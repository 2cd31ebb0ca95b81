// Probe types and probes: a publisher that also offers IProbePublisher can
// publish probe types over its probe metrics, and make probe objects
// (Metrics::IProbe) of a type when a client asks. The publisher owns the probes
// it makes. The slot numbers are a binary contract: never insert, remove or
// reorder.
#ifndef KT_PROBE_H_
#define KT_PROBE_H_

#include <cstring>

#include "kt/publisher.h"
#include "kt/status.h"
#include "kt/visibility.h"

namespace MetricsFramework {

// What a publisher passes to PublishProbe.
struct ProbeDesc {
  char m_name[256];                // zero-terminated; the probe type's node name
  const unsigned long* m_metrics;  // handles of probe metrics of the same publisher
  unsigned long m_metricCount;
};

namespace Metrics {

// Passed through unchanged between clients and probes.
enum EventType : unsigned int { kEventNone = 0 };
enum CommandListState : unsigned int { kCommandListIdle = 0 };

class KT_EXPORT IProbe {
 public:
  virtual ~IProbe() {}  // entries 1, 2
  // Entry 3: a probed event begins.
  virtual KT_STATUS Begin(unsigned long a, unsigned long b, EventType type, void* context) = 0;
  // Entry 4: a probed event ends.
  virtual KT_STATUS End(unsigned long a, EventType type, void* context) = 0;
  // Entry 5: handle the probe.
  virtual KT_STATUS Handle() = 0;
  // Entry 6: the state of a command list changed; by default nothing happens.
  virtual KT_STATUS OnChangeStateCommandList(void*, void*, CommandListState) { return 0; }
};

}  // namespace Metrics

class KT_EXPORT IProbePublisher : public IPublisher {
 public:
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IProbePublisher") == 0) return static_cast<IProbePublisher*>(this);
    return IPublisher::CastTo(name);
  }
  // Slot 7: a new probe of the type `probeTypeHandle`, made for `args`; null
  // when the publisher cannot make one.
  virtual Metrics::IProbe* CreateProbe(void* args, unsigned long probeTypeHandle) = 0;
};

}  // namespace MetricsFramework

#endif  // KT_PROBE_H_
