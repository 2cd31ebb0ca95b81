#include "state/conduit_state.h"

#include <vector>

#include "foundation/diagnostics.h"
#include "registry/registry.h"
#include "state/consumer_state.h"
#include "state/metric_binding_state.h"
#include "state/metric_state.h"
#include "state/publisher_state.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {

namespace {

constexpr unsigned char kPrivateNode = kPathCreate | kPathUnlisted | kPathNoHandleEntry;

PublisherState* PublisherOf(Path* metricPath) {
  auto* metric = dynamic_cast<MetricState*>(metricPath->GetPayload());
  if (metric == nullptr || metric->m_owner == nullptr) return nullptr;
  return dynamic_cast<PublisherState*>(metric->m_owner->GetPayload());
}

ConsumerState* ConsumerOf(Path* node) {
  return node != nullptr ? dynamic_cast<ConsumerState*>(node->GetPayload()) : nullptr;
}

// The handles of the children of `node`, copied under its read lock, so that
// the caller can call out without holding it.
std::vector<unsigned long> ChildHandles(Path* node) {
  std::vector<unsigned long> handles;
  if (node != nullptr) node->ForEachChild([&](Path* child) { handles.push_back(child->GetHandle()); });
  return handles;
}

}  // namespace

ConduitState::ConduitState(IConduit* conduit, Path* path)
    : PathData(path),
      m_conduit(conduit),
      m_push(path),
      m_route(new PushRoute(this)) {}

ConduitState::~ConduitState() {
  // Buffers still bound through this state push through the manager from
  // now on. They are not touched: the conduit may have freed them already.
  m_route->Close();
  m_route->Release();
  if (m_path == nullptr) return;
  // Bindings first, so that every publisher stops writing into this
  // conduit's buffers; each is looked up again after the lock is released,
  // since a metric being destroyed at the same time deletes its own.
  Path* bindings = m_path->GetChild("bindings", 0);
  for (unsigned long metric : ChildHandles(bindings)) {
    Path* binding = bindings->GetChild(metric, 0);
    auto* state = binding != nullptr ? dynamic_cast<MetricBindingState*>(binding->GetPayload())
                                     : nullptr;
    if (state != nullptr) state->Unbind();
  }
  Path* subscriptions = m_path->GetChild("subscriptions", 0);
  for (unsigned long consumer : ChildHandles(subscriptions)) {
    if (ConsumerState* state = ConsumerOf(subscriptions->GetChild(consumer, 0))) {
      state->Unsubscribe(m_path);
    }
  }
  m_push.Clear();
}

KT_STATUS ConduitState::Subscribe(unsigned long consumerHandle) {
  if (consumerHandle == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "consumer", consumerHandle);
  Registry* registry = RegistryOf(m_path);
  Path* consumer = registry != nullptr ? registry->ResolveHandle(consumerHandle) : nullptr;
  ConsumerState* state = ConsumerOf(consumer);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "consumer", consumerHandle);
  Path* subscriptions = m_path->GetChild("subscriptions", kPrivateNode);
  if (subscriptions->GetChild(consumerHandle, 0) != nullptr) return KT_STATUS_ALREADY_EXISTS;
  subscriptions->AddSymlink(consumer);
  if (state->IsConsumer2()) {
    Path* batch = m_path->GetChild("batch_subscriptions", kPrivateNode);
    batch->AddSymlink(consumer);
  }
  return state->Subscribe(m_path);
}

KT_STATUS ConduitState::Unsubscribe(unsigned long consumerHandle) {
  if (consumerHandle == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "consumer", consumerHandle);
  Path* subscriptions = m_path->GetChild("subscriptions", 0);
  if (subscriptions == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "subPath", consumerHandle);
  ConsumerState* state = ConsumerOf(subscriptions->GetChild(consumerHandle, 0));
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "path", consumerHandle);
  const KT_STATUS status = state->Unsubscribe(m_path);
  if (state->IsConsumer2()) {
    Path* batch = m_path->GetChild("batch_subscriptions", 0);
    if (batch == nullptr) {
      // Only a node removed by hand gets here; the push must not use it.
      m_push.ForgetNodes();
      // Deliberately, as it stands: the entry stays in "subscriptions".
      return Fail(KT_STATUS_INVALID_OBJECT, "batchSubPath", consumerHandle);
    }
    batch->RemoveSymlink(consumerHandle);
  }
  subscriptions->RemoveSymlink(consumerHandle);
  return status;
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
  // Attached before the publisher has the buffer, so that its first sample
  // already takes the direct way.
  AttachBuffer(buffer, m_route);
  auto* state = new MetricBindingState(binding);
  status = state->Bind(metricPath->GetHandle(), this, publisher, buffer);
  if (status != KT_STATUS_SUCCESS) {
    delete binding;
    AttachBuffer(buffer, nullptr);
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
  // The push tables must not keep the metric: its samples would stay in a
  // group's collection beside the buffer that goes back to the pool, and the
  // group would wait forever for a member that is gone.
  m_push.ForgetMetric(metricHandle);
  if (IReadWriteBuffer* buffer = state->TakeBuffer()) {
    AttachBuffer(buffer, nullptr);  // back in the pool, it may serve another state
    m_conduit->DestroyBuffer(buffer);
  }
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

KT_STATUS ConduitState::PushData(unsigned long metricHandle, const IReadBuffer* buffer) {
  return m_push.Push(metricHandle, buffer);
}

void ConduitState::AttachBuffer(IReadWriteBuffer* buffer, PushRoute* route) {
  if (auto* queue = dynamic_cast<QueueBuffer*>(buffer)) queue->AttachRoute(route);
}

KT_STATUS ConduitState::PushDataForTimeBasedMetric(unsigned long metricHandle, void* data) {
  m_push.PushTimeBased(metricHandle, data);
  return KT_STATUS_SUCCESS;
}

KT_STATUS ConduitState::AddBatchMetric(unsigned long metricHandle) {
  m_push.AddBatchMetric(metricHandle);
  return KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
