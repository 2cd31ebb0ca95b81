#include "state/publisher_state.h"

#include <algorithm>
#include <cstring>

#include "foundation/diagnostics.h"
#include "registry/registry.h"
#include "state/metric_state.h"
#include "state/probe_type_state.h"

namespace MetricsFramework {

namespace {

MetricState* MetricOf(Path* node) {
  if (node == nullptr || !MetricState::IsMetric(node->GetPayload())) return nullptr;
  return static_cast<MetricState*>(node->GetPayload());
}

bool Lists(const std::vector<unsigned int>& sets, unsigned int set) {
  return std::find(sets.begin(), sets.end(), set) != sets.end();
}

}  // namespace

PublisherState::PublisherState(IPublisher* publisher, Path* path)
    : PathData(path), m_publisher(publisher) {
  m_type = RESOURCE_TYPE_PUBLISHER;
}

void PublisherState::Notify(unsigned int event, unsigned long handle) {
  if (Registry* registry = RegistryOf(m_path)) registry->NotifyStateListeners(event, handle, 0);
}

KT_STATUS PublisherState::PublishMetric(const Metric::Description& desc,
                                        unsigned long* out_metricHandle) {
  if (out_metricHandle == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_metricHandle");
  // The uri is one whole name: "a/b" is a child of the publisher, not a path.
  Path* existing = m_path->GetChildNamed(desc.uri, 0);
  if (existing != nullptr && existing->GetPayload()->m_type != RESOURCE_TYPE_NODE) {
    return Fail(KT_STATUS_NON_UNIQUE, "descriptor.uri.c_str()", desc.uri.c_str());
  }
  Path* node = m_path->GetChildNamed(desc.uri, kPathCreate);
  auto* metric = new MetricState(desc, node);
  metric->m_owner = m_path;
  const unsigned long handle = node->GetHandle();
  *out_metricHandle = handle;
  // Told only now that the owner is set: a listener may subscribe at once.
  Notify(kEventMetricAvailable, handle);
  if (desc.flags & Metric::kFlagTimeBased) m_timeBasedMetrics.push_back(handle);
  UpdateAvailability(node);
  Notify(kEventMetricPublished, handle);
  return KT_STATUS_SUCCESS;
}

KT_STATUS PublisherState::UnpublishMetric(unsigned long metricHandle) {
  Path* node = m_path->GetChild(metricHandle, 0);
  if (node == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "metricHandle");
  Notify(kEventMetricUnpublished, metricHandle);
  UpdateAvailability(node);
  MetricState* metric = MetricOf(node);
  if (metric != nullptr && (metric->Flags() & Metric::kFlagTimeBased)) {
    auto it = std::find(m_timeBasedMetrics.begin(), m_timeBasedMetrics.end(), metricHandle);
    if (it != m_timeBasedMetrics.end()) m_timeBasedMetrics.erase(it);
  }
  // Deliberately, the siblings are not recomputed here: that happens at the
  // next bind or unbind.
  delete node;
  return KT_STATUS_SUCCESS;
}

KT_STATUS PublisherState::PublishGroupOrder(const std::vector<std::string>& order) {
  m_groupOrder = order;
  return KT_STATUS_SUCCESS;
}

KT_STATUS PublisherState::PublishSetNames(
    const std::vector<std::pair<unsigned int, std::string>>& names) {
  m_setNames = names;
  return KT_STATUS_SUCCESS;
}

void PublisherState::UpdateMetricAvailability() {
  m_path->ForEachChild([this](Path* child) { UpdateAvailability(child); });
}

void PublisherState::UpdateAvailability(Path* node) {
  MetricState* metric = MetricOf(node);
  if (metric == nullptr || metric->m_description.setIds.empty()) return;
  for (unsigned int set : metric->m_description.setIds) {
    bool sharedByAllBound = true;
    m_path->ForEachChild([&](Path* sibling) {
      MetricState* other = sibling == node ? nullptr : MetricOf(sibling);
      if (!sharedByAllBound || other == nullptr) return;
      const Metric::Description& d = other->m_description;
      if ((d.flags & Metric::kFlagBound) == 0 || d.setIds.empty()) return;
      if (!Lists(d.setIds, set)) sharedByAllBound = false;
    });
    if (sharedByAllBound) {
      if ((metric->Flags() & Metric::kFlagAvailable) == 0) {
        metric->UpdateAvailablity(true);
      }
      return;
    }
  }
  if (metric->Flags() & Metric::kFlagAvailable) metric->UpdateAvailablity(false);
}

KT_STATUS PublisherState::Bind(unsigned long metricHandle, Path* conduitPath,
                               IReadWriteBuffer* buffer, IBoundMetric** out) {
  *out = m_publisher->BindMetric(metricHandle, conduitPath, buffer, out);
  if (*out == nullptr) return Fail(KT_STATUS_OUT_OF_RESOURCES, "conduit");
  const unsigned long conduit = conduitPath->GetHandle();
  (*out)->AttachBuffer(conduit, buffer);
  MetricState* metric = MetricOf(m_path->GetChild(metricHandle, 0));
  if (metric == nullptr) {
    // The metric went away meanwhile: the publisher must not keep writing into
    // a buffer that goes back to the pool.
    (*out)->DetachBuffer(conduit);
    m_publisher->UnbindMetric(metricHandle, *out);
    *out = nullptr;
    return KT_STATUS_OUT_OF_RESOURCES;
  }
  const KT_STATUS status = metric->Bind(conduitPath);
  if (status != KT_STATUS_SUCCESS) return status;
  UpdateMetricAvailability();
  return KT_STATUS_SUCCESS;
}

KT_STATUS PublisherState::Unbind(unsigned long metricHandle, Path* conduitPath,
                                 IBoundMetric* bound) {
  MetricState* metric = MetricOf(m_path->GetChild(metricHandle, 0));
  if (metric == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "metric");
  bound->DetachBuffer(conduitPath->GetHandle());
  const KT_STATUS status = metric->Unbind(conduitPath);
  m_publisher->UnbindMetric(metricHandle, bound);
  UpdateMetricAvailability();
  return status;
}

IProbePublisher* PublisherState::GetProbePublisher() const {
  if (m_publisher == nullptr) return nullptr;
  if (auto* probes = dynamic_cast<IProbePublisher*>(m_publisher)) return probes;
  return static_cast<IProbePublisher*>(m_publisher->CastTo("IProbePublisher"));
}

KT_STATUS PublisherState::PublishProbe(const ProbeDesc* desc, unsigned long* out_handle) {
  if (GetProbePublisher() == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "m_publisher");
  const std::string name(desc->m_name, strnlen(desc->m_name, sizeof(desc->m_name)));
  Path* types = m_path->GetChild("probe_types", kPathCreate);
  Path* node = types->GetChild(name.c_str(), kPathCreate);
  if (node == nullptr) {
    LogUnder("RegistryState", "KT_STATUS_INVALID_ARGUMENT: desc->m_name = ", name);
    return KT_STATUS_INVALID_ARGUMENT;
  }
  auto* type = new ProbeTypeState(m_path, node);
  const KT_STATUS status = type->AttachMetrics(desc->m_metrics, desc->m_metricCount);
  if (status == KT_STATUS_SUCCESS) *out_handle = node->GetHandle();
  // Sent on failure too, with whatever the caller left in *out_handle; the
  // type's node stays. Listeners rely on this order of things.
  Notify(kEventExtensionAdded, *out_handle);
  return status;
}

KT_STATUS PublisherState::UnpublishProbe(unsigned long probeTypeHandle) {
  Path* types = m_path->GetChild("probe_types", 0);
  Path* node = types != nullptr ? types->GetChild(probeTypeHandle, 0) : nullptr;
  if (node == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "query");
  if (auto* type = dynamic_cast<ProbeTypeState*>(node->GetPayload())) type->DetachMetrics();
  Notify(kEventExtensionAdded, probeTypeHandle);
  delete node;
  return KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
