#include "state/conduit_state.h"

#include <algorithm>
#include <memory>

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

// Gives back the oldest sample of `buffer`, which will not be delivered: left
// queued, the metric would lag one sample behind forever.
void ReleaseOldest(const IReadBuffer* buffer) {
  const void* data = nullptr;
  buffer->GetData(&data, nullptr);
  if (data != nullptr) buffer->MakeAvailable(data);
}

}  // namespace

// The entries one push delivers, as parallel arrays shared by every consumer.
struct ConduitState::Cycle {
  // Empties the arrays and keeps their room.
  void Clear() {
    handles.clear();
    tags.clear();
    data.clear();
    sizes.clear();
    buffers.clear();
  }

  std::vector<unsigned long> handles;
  std::vector<unsigned long> tags;
  std::vector<const void*> data;
  std::vector<unsigned long> sizes;
  std::vector<const IReadBuffer*> buffers;
};

ConduitState::ConduitState(IConduit* conduit, Path* path)
    : PathData(path),
      m_conduit(conduit),
      m_groupingLock(true),
      m_collectionLock(true),
      m_route(new PushRoute(this)),
      m_subscriptionsNode(nullptr),
      m_batchSubscriptionsNode(nullptr),
      m_spareCycle(nullptr) {}

ConduitState::~ConduitState() {
  // Buffers still bound through this state push through the manager from
  // now on. They are not touched: the conduit may have freed them already.
  m_route->Close();
  m_route->Release();
  delete m_spareCycle.exchange(nullptr);
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
  // One table at a time: holding all four locks together deadlocks against a
  // grouped push that holds two of them.
  {
    WriteGuard hold(m_tags);
    m_tags.map.clear();
  }
  {
    WriteGuard hold(m_groups);
    m_groups.map.clear();
  }
  {
    WriteGuard hold(m_groupingLock);
    m_groupTemplate.clear();
    m_groupExpected.clear();
    m_batchMetrics.clear();
  }
  WriteGuard hold(m_collectionLock);
  m_collectedHandles.clear();
  m_collectedBuffers.clear();
  m_pending.clear();
}

KT_STATUS ConduitState::Subscribe(unsigned long consumerHandle) {
  if (consumerHandle == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "consumer", consumerHandle);
  Registry* registry = RegistryOf(m_path);
  Path* consumer = registry != nullptr ? registry->ResolveHandle(consumerHandle) : nullptr;
  ConsumerState* state = ConsumerOf(consumer);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "consumer", consumerHandle);
  Path* subscriptions = m_path->GetChild("subscriptions", kPrivateNode);
  m_subscriptionsNode.store(subscriptions, std::memory_order_release);
  if (subscriptions->GetChild(consumerHandle, 0) != nullptr) return KT_STATUS_ALREADY_EXISTS;
  subscriptions->AddSymlink(consumer);
  if (state->IsConsumer2()) {
    Path* batch = m_path->GetChild("batch_subscriptions", kPrivateNode);
    m_batchSubscriptionsNode.store(batch, std::memory_order_release);
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
      m_batchSubscriptionsNode.store(nullptr, std::memory_order_release);
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
  ForgetMetric(metricHandle);
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

void ConduitState::ForgetMetric(unsigned long metricHandle) {
  std::pair<unsigned long, unsigned int> group{0, kUngrouped};
  {
    ReadGuard hold(m_groups);
    auto it = m_groups.map.find(metricHandle);
    if (it != m_groups.map.end()) group = it->second;
  }
  if (group.second != kUngrouped) {
    WriteGuard hold(m_groupingLock);
    m_groupTemplate[group.first][group.second].erase(metricHandle);
    m_groupExpected[group.first][group.second].erase(metricHandle);
  }
  {
    WriteGuard hold(m_collectionLock);
    if (group.second != kUngrouped) {
      // Handles and buffers are parallel: a pair goes together or not at all.
      std::vector<unsigned long>& handles = m_collectedHandles[group.first][group.second];
      std::vector<const IReadBuffer*>& buffers = m_collectedBuffers[group.first][group.second];
      size_t kept = 0;
      for (size_t i = 0; i < handles.size() && i < buffers.size(); ++i) {
        if (handles[i] == metricHandle) continue;
        handles[kept] = handles[i];
        buffers[kept] = buffers[i];
        ++kept;
      }
      handles.resize(kept);
      buffers.resize(kept);
    }
    m_pending.erase(metricHandle);
  }
  {
    WriteGuard hold(m_tags);
    m_tags.map.erase(metricHandle);
  }
  WriteGuard hold(m_groups);
  m_groups.map.erase(metricHandle);
}

KT_STATUS ConduitState::FlushMetrics() {
  Path* bindings = m_path->GetChild("bindings", 0);
  if (bindings == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "path");
  bindings->ForEachChild([](Path* binding) {
    if (auto* state = dynamic_cast<MetricBindingState*>(binding->GetPayload())) state->Flush();
  });
  return KT_STATUS_SUCCESS;
}

bool ConduitState::LookUpTag(unsigned long metricHandle, unsigned long* tag) {
  ReadGuard hold(m_tags);
  auto it = m_tags.map.find(metricHandle);
  if (it == m_tags.map.end()) return false;
  *tag = it->second;
  return true;
}

KT_STATUS ConduitState::PushData(unsigned long metricHandle, const IReadBuffer* buffer) {
  std::pair<unsigned long, unsigned int> group;
  {
    ReadGuard hold(m_groups);
    auto it = m_groups.map.find(metricHandle);
    if (it == m_groups.map.end()) {
      ReleaseOldest(buffer);
      return KT_STATUS_INVALID_ARGUMENT;
    }
    group = it->second;
  }
  if (group.second == kUngrouped) return PushUngrouped(metricHandle, buffer);
  // Two pushes at once find one spare at most; the other makes its own, and
  // the spare given back last is kept.
  std::unique_ptr<Cycle> cycle(m_spareCycle.exchange(nullptr, std::memory_order_acq_rel));
  if (cycle == nullptr) cycle.reset(new Cycle());
  if (CollectGrouped(metricHandle, buffer, group, cycle.get())) Deliver(*cycle);
  cycle->Clear();
  delete m_spareCycle.exchange(cycle.release(), std::memory_order_acq_rel);
  return KT_STATUS_SUCCESS;
}

bool ConduitState::CollectGrouped(unsigned long metricHandle, const IReadBuffer* buffer,
                                  std::pair<unsigned long, unsigned int> group, Cycle* cycle) {
  WriteGuard grouping(m_groupingLock);
  WriteGuard collection(m_collectionLock);
  m_pending[metricHandle] = buffer;
  std::unordered_set<unsigned long>& expected = m_groupExpected[group.first][group.second];
  std::vector<unsigned long>& handles = m_collectedHandles[group.first][group.second];
  std::vector<const IReadBuffer*>& buffers = m_collectedBuffers[group.first][group.second];

  MemberNode member = expected.extract(metricHandle);
  const bool wasExpected = !member.empty();
  if (wasExpected) {
    m_spareMembers.push_back(std::move(member));
    handles.push_back(metricHandle);
    buffers.push_back(buffer);
    if (!expected.empty()) return false;  // the cycle waits for its other members
  }
  // The cycle is complete, or ends early because this member's sample for it
  // has already arrived (or no cycle has started yet).
  for (size_t i = 0; i < handles.size(); ++i) {
    unsigned long tag = 0;
    const void* data = nullptr;
    unsigned long size = 0;
    if (!LookUpTag(handles[i], &tag)) {
      ReleaseOldest(buffers[i]);  // a member without a tag is left out, not left behind
      continue;
    }
    buffers[i]->GetData(&data, &size);
    if (data == nullptr) continue;
    cycle->handles.push_back(handles[i]);
    cycle->tags.push_back(tag);
    cycle->data.push_back(data);
    cycle->sizes.push_back(size);
    cycle->buffers.push_back(buffers[i]);
  }
  handles.clear();
  buffers.clear();
  RefillExpected(expected, m_groupTemplate[group.first][group.second]);
  if (!wasExpected) {
    // This sample opens the next cycle.
    handles.push_back(metricHandle);
    buffers.push_back(buffer);
    member = expected.extract(metricHandle);
    if (!member.empty()) m_spareMembers.push_back(std::move(member));
  }
  return !cycle->handles.empty();
}

void ConduitState::RefillExpected(std::unordered_set<unsigned long>& expected,
                                  const std::unordered_set<unsigned long>& members) {
  while (!expected.empty()) m_spareMembers.push_back(expected.extract(expected.begin()));
  for (unsigned long member : members) {
    if (m_spareMembers.empty()) {
      expected.insert(member);
      continue;
    }
    MemberNode node = std::move(m_spareMembers.back());
    m_spareMembers.pop_back();
    node.value() = member;
    expected.insert(std::move(node));
  }
}

Path* ConduitState::FixedChild(std::atomic<Path*>& cached, const char* name) {
  Path* node = cached.load(std::memory_order_acquire);
  if (node != nullptr) return node;
  node = m_path->GetChild(name, 0);
  if (node != nullptr) cached.store(node, std::memory_order_release);
  return node;
}

void ConduitState::AttachBuffer(IReadWriteBuffer* buffer, PushRoute* route) {
  if (auto* queue = dynamic_cast<QueueBuffer*>(buffer)) queue->AttachRoute(route);
}

void ConduitState::CallConsumers(unsigned int count, unsigned long* handles,
                                 const unsigned long* tags, const void** data,
                                 unsigned long* sizes) {
  Path* subscriptions = FixedChild(m_subscriptionsNode, "subscriptions");
  if (subscriptions == nullptr) return;  // delivers to nobody
  WriteGuard hold(subscriptions->GetLock());
  subscriptions->ForEachChild([&](Path* node) {
    ConsumerState* state = ConsumerOf(node);
    if (state != nullptr && state->GetConsumer() != nullptr) {
      state->GetConsumer()->OnMetricUpdated(count, handles, tags, data, sizes);
    }
  });
}

void ConduitState::Deliver(Cycle& cycle) {
  // One call per consumer for the whole cycle; the samples go back to their
  // buffers after every consumer has been called.
  CallConsumers(static_cast<unsigned int>(cycle.handles.size()), cycle.handles.data(),
                cycle.tags.data(), cycle.data.data(), cycle.sizes.data());
  for (size_t i = 0; i < cycle.buffers.size(); ++i) cycle.buffers[i]->MakeAvailable(cycle.data[i]);
}

KT_STATUS ConduitState::PushUngrouped(unsigned long metricHandle, const IReadBuffer* buffer) {
  unsigned long tag = 0;
  if (!LookUpTag(metricHandle, &tag)) {
    ReleaseOldest(buffer);
    return KT_STATUS_DOES_NOT_EXIST;
  }
  const void* data = nullptr;
  unsigned long size = 0;
  buffer->GetData(&data, &size);
  if (data == nullptr) return KT_STATUS_SUCCESS;  // nothing queued: nothing to deliver
  bool batched;
  {
    ReadGuard hold(m_groupingLock);
    batched = m_batchMetrics.count(metricHandle) != 0;
  }
  if (batched) {
    Path* batch = FixedChild(m_batchSubscriptionsNode, "batch_subscriptions");
    if (batch != nullptr) {
      WriteGuard hold(batch->GetLock());
      batch->ForEachChild([&](Path* node) {
        ConsumerState* state = ConsumerOf(node);
        IConsumer2* consumer = state != nullptr ? state->GetBatchedFace() : nullptr;
        if (consumer != nullptr) consumer->OnBatchMetricUpdated(metricHandle, tag, data);
      });
    }
  } else {
    CallConsumers(1, &metricHandle, &tag, &data, &size);
  }
  buffer->MakeAvailable(data);
  return KT_STATUS_SUCCESS;
}

KT_STATUS ConduitState::PushDataForTimeBasedMetric(unsigned long metricHandle, void* data) {
  // Deliberately a fixed tag and no sizes: that marks a time-based sample.
  const unsigned long tag = kTimeBasedTag;
  const void* sample = data;
  CallConsumers(1, &metricHandle, &tag, &sample, nullptr);
  return KT_STATUS_SUCCESS;
}

KT_STATUS ConduitState::AddBatchMetric(unsigned long metricHandle) {
  WriteGuard hold(m_groupingLock);
  m_batchMetrics.insert(metricHandle);
  return KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
