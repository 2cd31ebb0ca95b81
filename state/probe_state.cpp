#include "state/probe_state.h"

#include "state/publisher_state.h"

namespace MetricsFramework {

ProbeState::ProbeState(Path* publisherPath, unsigned long probeTypeHandle, Metrics::IProbe* probe,
                       Path* path)
    : PathData(path), probeTypeHandle(probeTypeHandle), probe(probe) {
  m_type = RESOURCE_TYPE_PROBE;
  m_owner = publisherPath;
}

Metrics::IProbe* ProbeState::CreateProbe(Path* publisherPath, void* args,
                                         unsigned long probeTypeHandle) {
  auto* publisher = dynamic_cast<PublisherState*>(publisherPath->GetPayload());
  IProbePublisher* probes = publisher != nullptr ? publisher->GetProbePublisher() : nullptr;
  return probes != nullptr ? probes->CreateProbe(args, probeTypeHandle) : nullptr;
}

}  // namespace MetricsFramework
