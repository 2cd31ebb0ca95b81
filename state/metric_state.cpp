#include "state/metric_state.h"

#include <vector>

#include "foundation/diagnostics.h"
#include "registry/registry.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"

namespace MetricsFramework {

namespace {

IMetricStateListener* ListenerOf(IConsumer* consumer) {
  if (consumer == nullptr) return nullptr;
  if (auto* listener = dynamic_cast<IMetricStateListener*>(consumer)) return listener;
  return static_cast<IMetricStateListener*>(consumer->CastTo("IMetricStateListener"));
}

}  // namespace

MetricState::MetricState(Path* path) : PathData(path) {
  m_description.flags = Metric::kFlagAvailable;
  m_description.word4 = m_description.word5 = 0xFFFFFFFF;
  m_type = RESOURCE_TYPE_METRIC;
}

MetricState::MetricState(const Metric::Description& desc, Path* path)
    : PathData(path), m_description(desc) {
  // A newly published metric is available.
  m_description.flags |= Metric::kFlagAvailable;
  m_type = (desc.flags & Metric::kFlagProbe) ? RESOURCE_TYPE_PROBE_METRIC : RESOURCE_TYPE_METRIC;
}

MetricState::~MetricState() {
  if (m_path == nullptr) return;
  Path* bindings = m_path->GetChild("bindings", 0);
  // Unbinding below comes back into Unbind, which must leave "bindings" alone.
  m_state = kMetricStateDying;
  if (bindings == nullptr) return;
  // The conduits are collected first and unbound after the lock is released:
  // holding it while calling out deadlocks against a conduit being torn down
  // at the same time.
  std::vector<unsigned long> conduits;
  bindings->ForEachChild([&](Path* conduit) { conduits.push_back(conduit->GetHandle()); });
  Registry* registry = RegistryOf(m_path);
  if (registry == nullptr) return;
  const unsigned long metric = m_path->GetHandle();
  for (unsigned long handle : conduits) {
    Path* conduit = registry->ResolveHandle(handle);
    if (conduit == nullptr) continue;
    if (auto* state = dynamic_cast<ConduitState*>(conduit->GetPayload())) state->Unbind(metric);
  }
}

MetricState::operator Metric::Description() const {
  std::lock_guard<LeafMutex> hold(m_flagsLock);
  return m_description;
}

unsigned int MetricState::Flags() const {
  std::lock_guard<LeafMutex> hold(m_flagsLock);
  return m_description.flags;
}

void MetricState::SetFlags(unsigned int bits, bool on) {
  std::lock_guard<LeafMutex> hold(m_flagsLock);
  m_description.flags = on ? (m_description.flags | bits) : (m_description.flags & ~bits);
}

void MetricState::UpdateAvailablity(bool available) {
  SetFlags(Metric::kFlagAvailable, available);
  Registry* registry = RegistryOf(m_path);
  if (registry == nullptr) return;
  const unsigned long handle = m_path->GetHandle();
  if (Path* consumers = registry->GetChild("consumers", 0)) {
    consumers->ForEachChild([&](Path* node) {
      auto* state = dynamic_cast<ConsumerState*>(node->GetPayload());
      IMetricStateListener* listener = state != nullptr ? ListenerOf(state->GetConsumer()) : nullptr;
      if (listener == nullptr) return;
      if (available) {
        listener->OnMetricAvailable(handle, m_path);
      } else {
        listener->OnMetricUnavailable(handle, m_path);
      }
    });
  }
  registry->NotifyStateListeners(available ? kEventMetricAvailable : kEventMetricUnavailable,
                                 handle, 0);
}

KT_STATUS MetricState::Bind(Path* conduitPath) {
  SetFlags(Metric::kFlagBound, true);
  Path* bindings = m_path->GetChild("bindings", kPathCreate | kPathUnlisted | kPathNoHandleEntry);
  bindings->AddSymlink(conduitPath);
  return KT_STATUS_SUCCESS;
}

KT_STATUS MetricState::Unbind(Path* conduitPath) {
  Path* bindings = m_path->GetChild("bindings", 0);
  if (bindings == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "conduitpath");
  if (m_state != kMetricStateDying) bindings->RemoveSymlink(conduitPath->GetHandle());
  if (!bindings->HasChildren()) SetFlags(Metric::kFlagBound, false);
  return KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
