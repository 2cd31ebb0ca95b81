#include "state/probe_type_state.h"

#include "foundation/diagnostics.h"
#include "state/probe_state.h"
#include "state/publisher_state.h"

namespace MetricsFramework {

ProbeTypeState::ProbeTypeState(Path* publisherPath, Path* path) : PathData(path) {
  m_type = RESOURCE_TYPE_PROBE;
  m_owner = publisherPath;
}

KT_STATUS ProbeTypeState::AttachMetrics(const unsigned long* metrics, unsigned long count) {
  if (count == 0) return KT_STATUS_SUCCESS;
  if (metrics == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "metrics");
  for (unsigned long i = 0; i < count; ++i) {
    Path* metric = m_owner->GetChild(metrics[i], 0);
    if (metric == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "metrics[i]", metrics[i]);
    const PathData* data = metric->GetPayload();
    if (data == nullptr || data->m_type != RESOURCE_TYPE_PROBE_METRIC) {
      LogUnder("RegistryState",
               "KT_STATUS_INVALID_OBJECT: Attempted to publish a probe associated with metric ",
               metrics[i], " whose type is not RESOURCE_TYPE_PROBE_METRIC");
      return KT_STATUS_INVALID_OBJECT;
    }
  }
  for (unsigned long i = 0; i < count; ++i) {
    Path* metric = m_owner->GetChild(metrics[i], 0);
    m_owner->AddSymlink(metric);  // already its owned child: changes nothing
    metric->AddSymlink(m_path);
  }
  return KT_STATUS_SUCCESS;
}

void ProbeTypeState::DetachMetrics() {
  const unsigned long type = m_path->GetHandle();
  m_owner->ForEachChild([type](Path* child) {
    const PathData* data = child->GetPayload();
    if (data != nullptr && data->m_type == RESOURCE_TYPE_PROBE_METRIC) child->RemoveSymlink(type);
  });
}

KT_STATUS ProbeTypeState::CreateProbe(Registry&, void* args, unsigned long* out) {
  auto* publisher = dynamic_cast<PublisherState*>(m_owner->GetPayload());
  if (publisher == nullptr || publisher->GetProbePublisher() == nullptr) {
    return Fail(KT_STATUS_INVALID_OBJECT, "qpub");
  }
  Metrics::IProbe* probe = ProbeState::CreateProbe(m_owner, args, m_path->GetHandle());
  if (probe == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  const unsigned long address = reinterpret_cast<unsigned long>(probe);
  Path* instances = m_path->GetChild("instances", kPathCreate | kPathUnlisted | kPathNoHandleEntry);
  Path* site = instances->GetChild(address, kPathCreate);
  if (site == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  new ProbeState(m_owner, m_path->GetHandle(), probe, site);
  // The client is handed the probe's own address, not a registry handle.
  *out = address;
  return KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
