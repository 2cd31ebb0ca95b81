#include "state/metric_binding_state.h"

#include "foundation/diagnostics.h"
#include "registry/registry.h"
#include "state/conduit_state.h"
#include "state/publisher_state.h"

namespace MetricsFramework {

MetricBindingState::MetricBindingState(Path* path)
    : PathData(path),
      publisherHandle(0),
      conduitHandle(0),
      m_buffer(nullptr),
      boundMetric(nullptr),
      metricHandle(0) {
  m_type = RESOURCE_TYPE_METRIC_BINDING;
}

KT_STATUS MetricBindingState::Bind(unsigned long metric, ConduitState* conduit,
                                   PublisherState* publisher, IReadWriteBuffer* buffer) {
  m_buffer = buffer;
  const KT_STATUS status = publisher->Bind(metric, conduit->m_path, buffer, &boundMetric);
  if (status != KT_STATUS_SUCCESS) return PassOn(status, "status", "m_buffer");
  publisherHandle = publisher->m_path->GetHandle();
  conduitHandle = conduit->m_path->GetHandle();
  metricHandle = metric;
  return KT_STATUS_SUCCESS;
}

void MetricBindingState::Unbind() {
  // Taken before the publisher is called: a re-entry from the publisher or a
  // concurrent unsubscribe finds 0 and does not unbind twice.
  const unsigned long conduitNode = conduitHandle.exchange(0);
  if (conduitNode == 0) return;
  Registry* registry = RegistryOf(m_path);
  Path* conduit = registry != nullptr ? registry->ResolveHandle(conduitNode) : nullptr;
  Path* publisher = registry != nullptr ? registry->ResolveHandle(publisherHandle) : nullptr;
  auto* state = publisher != nullptr ? dynamic_cast<PublisherState*>(publisher->GetPayload())
                                     : nullptr;
  if (conduit != nullptr && state != nullptr) {
    state->Unbind(m_path->GetHandle(), conduit, boundMetric);
  }
}

KT_STATUS MetricBindingState::Flush() {
  if (boundMetric != nullptr) boundMetric->Flush(conduitHandle.load());
  if (m_buffer != nullptr) m_buffer->Flush();
  return KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
