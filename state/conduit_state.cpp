#include "state/conduit_state.h"

#include <vector>

#include "host/diagnostics.h"
#include "kt/consumer.h"
#include "registry/registry.h"
#include "state/consumer_state.h"
#include "state/metric_binding_state.h"
#include "state/metric_state.h"
#include "state/publisher_state.h"

namespace MetricsFramework {

namespace {

// The tag that marks a time-based sample to its consumers.
constexpr unsigned long kTimeBasedTag = 199;

constexpr unsigned char kPrivateNode = kPathCreate | kPathUnlisted | kPathNoHandleEntry;

PublisherState* PublisherOf(Path* metricPath) {
  auto* metric = dynamic_cast<MetricState*>(metricPath->GetPayload());
  if (metric == nullptr || metric->m_owner == nullptr) return nullptr;
  return dynamic_cast<PublisherState*>(metric->m_owner->GetPayload());
}

}  // namespace

ConduitState::ConduitState(IConduit* conduit, Path* path) : PathData(path), m_conduit(conduit) {}

ConduitState::~ConduitState() {
  Path* bindings = m_path != nullptr ? m_path->GetChild("bindings", 0) : nullptr;
  if (bindings == nullptr) return;
  // Collected first and unbound after the lock is released: a metric being
  // destroyed at the same time comes back here to delete its binding.
  std::vector<unsigned long> metrics;
  bindings->ForEachChild([&](Path* binding) { metrics.push_back(binding->GetHandle()); });
  for (unsigned long metric : metrics) {
    Path* binding = bindings->GetChild(metric, 0);
    if (binding == nullptr) continue;
    if (auto* state = dynamic_cast<MetricBindingState*>(binding->GetPayload())) state->Unbind();
  }
}

KT_STATUS ConduitState::Bind(Path* metricPath, unsigned long metricHandle) {
  Path* bindings = m_path->GetChild("bindings", kPrivateNode);
  if (bindings->GetChild(metricHandle, 0) != nullptr) {
    return Fail(KT_STATUS_ALREADY_EXISTS, "metric", metricHandle);
  }
  Path* binding = bindings->GetChild(metricHandle, kPrivateNode);
  if (binding == nullptr) return Fail(KT_STATUS_ALREADY_EXISTS, "metric", metricHandle);
  PublisherState* publisher = PublisherOf(metricPath);
  if (publisher == nullptr) {
    delete binding;
    return Fail(KT_STATUS_INVALID_OBJECT, "metric", metricHandle);
  }
  IReadWriteBuffer* buffer = nullptr;
  KT_STATUS status = m_conduit->CreateBuffer(metricPath->GetHandle(), &buffer);
  if (status != KT_STATUS_SUCCESS) {
    delete binding;  // a failed bind leaves no binding behind
    return PassOn(status, "status", "m_conduit");
  }
  auto* state = new MetricBindingState(binding);
  status = state->Bind(metricPath->GetHandle(), this, publisher, buffer);
  if (status != KT_STATUS_SUCCESS) {
    delete binding;
    m_conduit->DestroyBuffer(buffer);
    return PassOn(status, "state", "m_conduit");
  }
  return KT_STATUS_SUCCESS;
}

KT_STATUS ConduitState::Unbind(unsigned long metricHandle) {
  Path* bindings = m_path->GetChild("bindings", 0);
  if (bindings == nullptr) return Fail(KT_STATUS_DOES_NOT_EXIST, "metric", metricHandle);
  Path* binding = bindings->GetChild(metricHandle, 0);
  auto* state = binding != nullptr ? dynamic_cast<MetricBindingState*>(binding->GetPayload())
                                   : nullptr;
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "metric", metricHandle);
  state->Unbind();
  m_conduit->DestroyBuffer(state->GetBuffer());
  Registry* registry = RegistryOf(m_path);
  if (registry == nullptr || registry->ResolveHandle(metricHandle) == nullptr) {
    // Deliberately so: the emptied binding stays when the metric is no longer
    // registered.
    return Fail(KT_STATUS_INVALID_OBJECT, "metric", metricHandle);
  }
  delete binding;
  return KT_STATUS_SUCCESS;
}

KT_STATUS ConduitState::FlushMetrics() {
  Path* bindings = m_path->GetChild("bindings", 0);
  if (bindings == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "path");
  bindings->ForEachChild([](Path* binding) {
    if (auto* state = dynamic_cast<MetricBindingState*>(binding->GetPayload())) state->Flush();
  });
  return KT_STATUS_SUCCESS;
}

KT_STATUS ConduitState::PushDataForTimeBasedMetric(unsigned long metricHandle, void* data) {
  Path* subscriptions = m_path->GetChild("subscriptions", 0);
  if (subscriptions == nullptr) return KT_STATUS_SUCCESS;
  // Consumers are called one push at a time: the write lock, re-entered as a
  // read by the walk.
  WriteGuard hold(subscriptions->GetLock());
  unsigned long handle = metricHandle;
  const unsigned long tag = kTimeBasedTag;
  const void* sample = data;
  subscriptions->ForEachChild([&](Path* node) {
    auto* state = dynamic_cast<ConsumerState*>(node->GetPayload());
    if (state != nullptr && state->GetConsumer() != nullptr) {
      state->GetConsumer()->OnMetricUpdated(1, &handle, &tag, &sample, nullptr);
    }
  });
  return KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
