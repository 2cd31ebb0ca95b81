// SPDX-License-Identifier: Apache-2.0
//
// Probe types and probes: a publisher that also offers IProbePublisher can
// publish probe types over its probe metrics (IExtensionManager::PublishProbe),
// and make probe objects (Metrics::IProbe) of a type when a client asks
// (IClientManager::CreateProbe).
//
// Ownership: the ProbeDesc and the metric handles it points to are the
// publisher's and are read only during PublishProbe. The publisher owns every
// probe it makes; the library files its address (which is also the site the
// client is given) and never deletes it. A probe must stay valid until the
// client's DestroyProbe or the publisher's removal.
//
// Threads: CreateProbe runs on the thread of the client that calls
// IClientManager::CreateProbe, and a probe's operations on the threads of the
// clients that call Begin/End/HandleProbe and OnChangeStateCommandList, with no
// lock of the library held: a probe that several clients drive must guard
// itself. The slot numbers are a binary contract: never insert, remove or
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
  virtual ~IProbe() {}  // slots 0, 1
  // Slot 2: a probed event begins. The client is not told the result.
  virtual KT_STATUS Begin(unsigned long a, unsigned long b, EventType type, void* context) = 0;
  // Slot 3: a probed event ends. The client is not told the result.
  virtual KT_STATUS End(unsigned long a, EventType type, void* context) = 0;
  // Slot 4: handle the probe.
  virtual KT_STATUS Handle() = 0;
  // Slot 5: the state of a command list changed; by default nothing happens.
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
