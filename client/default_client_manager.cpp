#include "client/default_client_manager.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "client/extension_call.h"
#include "client/metric_batch.h"
#include "foundation/diagnostics.h"
#include "foundation/logger.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state/metric_state.h"
#include "state/peer_state.h"
#include "state/probe_state.h"
#include "state/probe_type_state.h"
#include "state/publisher_state.h"

namespace MetricsFramework {

namespace {

constexpr const char* kNullConsumerName = "_NullConsumer";
constexpr const char* kLocalConduitName = "LocalConduit_DefaultClientManager";

// The uri of the framework's own state metric, which is never enumerated.
constexpr const char* kStateMetricUri = "com.velorn.kt.state";

// Set by the client manager on metrics that are not time-based when their
// publisher has time-based ones.
constexpr unsigned int kFlagPublisherHasTimeBased = 0x20;

template <typename State>
State* StateAt(Path* node) {
  return node != nullptr ? dynamic_cast<State*>(node->GetPayload()) : nullptr;
}

// The client manager of the peer mounted at `node`, entered for one call;
// empty when `node` holds no peer mount.
PeerCall EnterPeerAt(Path* node) {
  auto* state = StateAt<PeerState>(node);
  return state != nullptr ? state->EnterCall() : PeerCall();
}

Path* NamedChild(Registry& registry, const char* branch, const char* name) {
  Path* parent = registry.GetChild(branch, 0);
  return parent != nullptr ? parent->GetChildNamed(name, 0) : nullptr;
}

// Runs `body`, the client call `call` about `handle`, which reaches into
// extensions (publishers, conduits, methods, probes). When one of them throws,
// the call fails with KT_STATUS_INVALID_OPERATION and one log line naming the
// call and the node (or, for a probe, the address) it was about.
template <typename Body>
KT_STATUS Guarded(Registry& registry, const char* call, unsigned long handle, Body&& body) {
  KT_STATUS status = KT_STATUS_SUCCESS;
  std::string what;
  if (CallExtension([&] { status = body(); }, &what)) return status;
  Path* node = registry.ResolveHandle(handle);
  char shown[24];
  std::snprintf(shown, sizeof shown, "0x%lx", handle);
  return Fail(KT_STATUS_INVALID_OPERATION, call, node != nullptr ? node->GetName().c_str() : shown,
              ": ", what.c_str());
}

}  // namespace

DefaultClientManager::DefaultClientManager(Registry& registry)
    : m_loader(nullptr), m_registry(registry), m_lock(true) {
  GetLogger().RegisterLogTag("DefaultClientManager", LOG_LEVEL_ERROR);
}

DefaultClientManager::~DefaultClientManager() {
  if (m_loader != nullptr && m_nullConsumer.GetHandle() != 0) {
    m_loader->RemoveExtension(&m_nullConsumer);
  }
  if (m_loader != nullptr && m_localConduit.GetHandle() != 0) {
    m_loader->RemoveExtension(&m_localConduit);
  }
  // Whatever the loader left filed still points into this object: the states
  // must go while the consumer and the conduit (which owns the bindings'
  // buffers) are alive. This is why the client manager has to be destroyed
  // before the registry it works on.
  Path* node = NamedChild(m_registry, "consumers", kNullConsumerName);
  auto* consumer = StateAt<ConsumerState>(node);
  if (consumer != nullptr && consumer->GetConsumer() == &m_nullConsumer) delete node;
  node = NamedChild(m_registry, "conduits", kLocalConduitName);
  auto* conduit = StateAt<ConduitState>(node);
  if (conduit != nullptr && conduit->m_conduit == &m_localConduit) delete node;
}

Path* DefaultClientManager::Resolve(unsigned long handle) const {
  return m_registry.ResolveHandle(handle);
}

Path* DefaultClientManager::ResolveOrRoot(unsigned long handle) const {
  return Resolve(handle != 0 ? handle : m_registry.GetHandle());
}

ConduitState* DefaultClientManager::ConduitAt(unsigned long handle) const {
  auto* state = handle != 0 ? StateAt<ConduitState>(Resolve(handle)) : nullptr;
  return state != nullptr && state->m_conduit != nullptr ? state : nullptr;
}

PeerCall DefaultClientManager::PeerFor(unsigned long handle) const {
  const unsigned long key = static_cast<unsigned long>(Registry::GetGuid(handle)) << 32;
  Path* peers = m_registry.GetChild("peers", 0);
  if (peers == nullptr) return PeerCall();
  // Entered before the lock goes: an unmount detaches the node under it, so
  // the mount cannot be freed under this call.
  ReadGuard hold(peers->GetLock());
  // A node under "peers" that is not a peer mount, or a mount without a
  // client manager, cannot answer for anything.
  return EnterPeerAt(peers->GetChild(key, 0));
}

PeerCall DefaultClientManager::PeerAt(Path* node) const {
  Path* peers = m_registry.GetChild("peers", 0);
  if (peers != nullptr) {
    ReadGuard hold(peers->GetLock());
    // Compared by address, not read: a mount detached since the walk may be
    // gone.
    bool filed = false;
    peers->ForEachChild([&](Path* child) { filed = filed || child == node; });
    if (filed) return EnterPeerAt(node);
  }
  // A mount filed elsewhere is taken as the walk found it.
  const PathData* payload = node->GetPayload();
  if (payload == nullptr || payload->m_type != RESOURCE_TYPE_PEER) return PeerCall();
  return EnterPeerAt(node);
}

// ---------------------------------------------------------------------------
// Private extensions and routing.

unsigned long DefaultClientManager::GetNullConsumerHandle() {
  const unsigned long handle = m_nullConsumer.GetHandle();
  if (handle != 0) return handle;
  // Not locked, as intended: two first callers may both register it; the
  // loader keeps the first.
  if (m_loader == nullptr) return 0;
  if (m_loader->AddExtension(kNullConsumerName, &m_nullConsumer, nullptr) != KT_STATUS_SUCCESS) {
    // The status is deliberately not printed between the two pieces.
    LogUnder("Default", "Error when attempting to create the NullConsumer: got ",
             " from AddExtension()");
  }
  return m_nullConsumer.GetHandle();
}

unsigned long DefaultClientManager::GetConduitHandle(unsigned long consumer,
                                                     unsigned long target) {
  if (consumer != 0) {
    auto* state = StateAt<ConsumerState>(Resolve(consumer));
    return state != nullptr ? state->GetConduitHandle(Registry::GetGuid(target)) : 0;
  }
  WriteGuard hold(m_lock);
  if (m_localConduit.GetHandle() == 0 && m_loader != nullptr) {
    m_loader->AddExtension(kLocalConduitName, &m_localConduit, nullptr);
  }
  return m_localConduit.GetHandle();
}

KT_STATUS DefaultClientManager::GetProxyForComponent(unsigned long handle,
                                                     IClientManager** out) const {
  const PeerCall peer = PeerFor(handle);
  if (!peer) return KT_STATUS_INVALID_OBJECT;
  *out = peer.Get();
  return KT_STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Namespace queries.

KT_STATUS DefaultClientManager::GetPath(unsigned long root, const char* pathname,
                                        unsigned long* out_handle) const {
  return __GetPath(root, pathname, out_handle, true);
}

KT_STATUS DefaultClientManager::GetChildCount(unsigned long parent,
                                              unsigned int* out_count) const {
  return __GetChildCount(parent, out_count, true);
}

KT_STATUS DefaultClientManager::GetChildren(unsigned long parent, unsigned long* out_children,
                                            unsigned int count) const {
  return __GetChildren(parent, out_children, count, true);
}

KT_STATUS DefaultClientManager::GetResourceInfo(unsigned long handle, ResourceInfo* out) const {
  return __GetResourceInfo(handle, out, true);
}

KT_STATUS DefaultClientManager::GetMetricDescriptor(unsigned long metric,
                                                    Metric::Description* out_desc) const {
  return __GetMetricDescriptor(metric, out_desc, true);
}

KT_STATUS DefaultClientManager::__GetPath(unsigned long root, const char* pathname,
                                          unsigned long* out_handle, bool route) const {
  if (out_handle == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_handle");
  if (pathname == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "pathname", pathname);
  if (route) {
    if (const PeerCall peer = PeerFor(root)) return peer->GetPath(root, pathname, out_handle);
  }
  Path* start = ResolveOrRoot(root);
  if (start == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "root");
  if (*pathname == '\0') {
    *out_handle = start->GetHandle();
    return KT_STATUS_SUCCESS;
  }
  const char* rest = nullptr;
  Path* found = start->GetChild(pathname, 0, &rest);
  if (found == nullptr) return Fail(KT_STATUS_DOES_NOT_EXIST, "root");
  if (rest == nullptr) {
    *out_handle = found->GetHandle();
    return KT_STATUS_SUCCESS;
  }
  // The walk stopped at a peer mount: the rest of the path is the peer's.
  const PeerCall peer = PeerAt(found);
  if (!peer) return Fail(KT_STATUS_DOES_NOT_EXIST, "root");
  unsigned long peerRoot = 0;
  peer->GetPath(0, "", &peerRoot);  // its status is deliberately not looked at
  return peer->GetPath(peerRoot, rest, out_handle);
}

KT_STATUS DefaultClientManager::__GetChildCount(unsigned long parent, unsigned int* out_count,
                                                bool route) const {
  if (route) {
    if (const PeerCall peer = PeerFor(parent)) return peer->GetChildCount(parent, out_count);
  }
  if (out_count == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_count");
  Path* node = ResolveOrRoot(parent);
  if (node == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "parent");
  *out_count = static_cast<unsigned int>(node->ChildCount());
  return KT_STATUS_SUCCESS;
}

KT_STATUS DefaultClientManager::__GetChildren(unsigned long parent, unsigned long* out_children,
                                              unsigned int count, bool route) const {
  if (route) {
    if (const PeerCall peer = PeerFor(parent)) {
      return peer->GetChildren(parent, out_children, count);
    }
  }
  if (count != 0 && out_children == nullptr) {
    return Fail(KT_STATUS_INVALID_ARGUMENT, "out_children");
  }
  Path* node = ResolveOrRoot(parent);
  if (node == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "parent");
  unsigned int existing = 0;
  const KT_STATUS status = __GetChildCount(parent, &existing, route);
  if (status != KT_STATUS_SUCCESS) return status;
  if (existing < count) return Fail(KT_STATUS_INVALID_SIZE, "count");
  node->GetChildHandles(count, out_children);
  return KT_STATUS_SUCCESS;
}

KT_STATUS DefaultClientManager::__GetResourceInfo(unsigned long handle, ResourceInfo* out,
                                                  bool route) const {
  if (route) {
    if (const PeerCall peer = PeerFor(handle)) return peer->GetResourceInfo(handle, out);
  }
  if (out == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_resource");
  Path* node = ResolveOrRoot(handle);
  if (node == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "handle");
  const PathData* payload = node->GetPayload();
  out->name.assign(node->GetName());
  out->data = payload != nullptr ? payload->m_data : 0;
  out->kind = payload != nullptr ? payload->m_type : 0;
  out->parent = node->GetParent() != nullptr ? node->GetParent()->GetHandle() : 0;
  out->target = payload != nullptr && payload->m_owner != nullptr ? payload->m_owner->GetHandle()
                                                                  : 0;
  return KT_STATUS_SUCCESS;
}

KT_STATUS DefaultClientManager::__GetMetricDescriptor(unsigned long metric,
                                                      Metric::Description* out_desc,
                                                      bool route) const {
  if (route) {
    if (const PeerCall peer = PeerFor(metric)) return peer->GetMetricDescriptor(metric, out_desc);
  }
  if (out_desc == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_desc");
  // No root default here: handle 0 is simply unknown.
  Path* node = Resolve(metric);
  auto* state = StateAt<MetricState>(node);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "metric");
  if ((state->Flags() & Metric::kFlagTimeBased) == 0) {
    // The parent is read as a publisher only when its type word says it is
    // one: a metric filed under any other node must not have that node's
    // payload taken for a publisher's.
    Path* parent = node->GetParent();
    PathData* owner = parent != nullptr ? parent->GetPayload() : nullptr;
    auto* publisher = owner != nullptr && owner->m_type == RESOURCE_TYPE_PUBLISHER
                          ? dynamic_cast<PublisherState*>(owner)
                          : nullptr;
    if (publisher != nullptr && !publisher->GetTimeBasedMetrics().empty()) {
      state->SetFlags(kFlagPublisherHasTimeBased, true);  // kept in the registry
    }
  }
  *out_desc = static_cast<Metric::Description>(*state);
  return KT_STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Metric enumeration.

KT_STATUS DefaultClientManager::GetMetrics(
    unsigned long handle, std::vector<std::pair<unsigned long, Metric::Description>>& out_metrics,
    std::vector<std::string>* out_groups, std::map<unsigned int, std::string>* out_sets) const {
  unsigned int count = 0;
  KT_STATUS status = GetChildCount(handle, &count);
  if (status != KT_STATUS_SUCCESS) return status;
  // Intended: a node without children contributes nothing, not even the
  // group order and set names of a publisher.
  if (count == 0) return KT_STATUS_SUCCESS;
  std::vector<unsigned long> children(count);
  status = GetChildren(handle, children.data(), count);
  if (status != KT_STATUS_SUCCESS) return status;

  for (unsigned long child : children) {
    ResourceInfo info{};
    status = GetResourceInfo(child, &info);
    if (status != KT_STATUS_SUCCESS) return status;  // what was appended stays
    // Intended as it stands: only probe metrics (kind 8) are listed, and
    // every other node, an ordinary metric (kind 4) included, is descended
    // into instead.
    if (info.kind != RESOURCE_TYPE_PROBE_METRIC) {
      GetMetrics(child, out_metrics, out_groups, out_sets);  // a failed sub-tree is skipped
      continue;
    }
    Metric::Description desc;
    GetMetricDescriptor(child, &desc);  // listed with the default description on failure
    if (desc.uri == kStateMetricUri) continue;
    out_metrics.emplace_back(child, std::move(desc));
  }

  if (handle == 0) return KT_STATUS_SUCCESS;
  return AddPublisherLists(handle, out_groups, out_sets);
}

KT_STATUS DefaultClientManager::AddPublisherLists(
    unsigned long handle, std::vector<std::string>* out_groups,
    std::map<unsigned int, std::string>* out_sets) const {
  ResourceInfo self{};
  if (GetResourceInfo(handle, &self) != KT_STATUS_SUCCESS) return KT_STATUS_SUCCESS;
  if (self.kind != RESOURCE_TYPE_PUBLISHER) return KT_STATUS_SUCCESS;
  Path* node = Resolve(handle);
  if (node == nullptr) return Fail(KT_STATUS_LOOKUP_FAILED, "handle");
  auto* publisher = StateAt<PublisherState>(node);
  if (publisher == nullptr) return KT_STATUS_SUCCESS;
  const std::vector<std::string>& order = publisher->GetGroupOrder();
  if (out_groups != nullptr && !order.empty()) {
    // Each publisher goes in front: from the root, the last one visited
    // comes first. Intended, as clients know it.
    out_groups->insert(out_groups->begin(), order.begin(), order.end());
  }
  if (out_sets != nullptr) {
    for (const auto& set : publisher->GetSetNames()) out_sets->emplace(set.first, set.second);
  }
  return KT_STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Subscriptions and flushing.

KT_STATUS DefaultClientManager::SubscribeMetric(unsigned long consumer, unsigned long metric) {
  return Guarded(m_registry, "SubscribeMetric", metric, [&]() -> KT_STATUS {
    return __SubscribeMetric(consumer, GetConduitHandle(consumer, metric), metric, true);
  });
}

KT_STATUS DefaultClientManager::UnsubscribeMetric(unsigned long consumer, unsigned long metric) {
  return Guarded(m_registry, "UnsubscribeMetric", metric, [&]() -> KT_STATUS {
    return __UnsubscribeMetric(consumer, GetConduitHandle(consumer, metric), metric, true);
  });
}

KT_STATUS DefaultClientManager::__SubscribeMetric(unsigned long consumer, unsigned long conduit,
                                                  unsigned long metric, bool full) {
  if (metric == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "metric");
  ConduitState* state = ConduitAt(conduit);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "conduit");
  if (consumer == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "consumer");
  if (full) {
    const KT_STATUS status = state->Subscribe(consumer);
    if (status != KT_STATUS_SUCCESS && status != KT_STATUS_ALREADY_EXISTS) {
      return PassOn(status, "status", "0");  // these pieces, in this order, deliberately
    }
  }
  const unsigned long remote = state->m_conduit->GetRemoteHandle();
  const DataPush::Recorded recorded = RecordMetric(state, metric, full);
  const PeerCall peer = full ? PeerFor(remote) : PeerCall();
  // The peer binds in its own process.
  const KT_STATUS status =
      peer ? peer->SubscribeMetric(consumer, metric) : BindHere(state, metric);
  if (status != KT_STATUS_SUCCESS) {
    // A member that is not bound delivers nothing, and its group would wait
    // for it forever: what this call added to the group sets goes again. The
    // tag and the membership stay as written, and the consumer stays
    // subscribed to the conduit.
    state->GetDataPush().WithdrawFromGroup(metric, recorded);
  }
  return status;
}

DataPush::Recorded DefaultClientManager::RecordMetric(ConduitState* state, unsigned long metric,
                                                    bool full) const {
  // The fetches route only when the request may be forwarded at all: a
  // request that has crossed a process boundary is answered here alone.
  Metric::Description desc;  // group id 0xFFFFFFFF unless the metric says otherwise
  __GetMetricDescriptor(metric, &desc, full);
  ResourceInfo info{};
  __GetResourceInfo(metric, &info, full);
  return state->GetDataPush().RecordMetric(metric, desc.word1,
                                           DataPush::GroupKey(info.parent, desc.word4));
}

KT_STATUS DefaultClientManager::BindHere(ConduitState* state, unsigned long metric) {
  Path* node = Resolve(metric);
  auto* metricState = StateAt<MetricState>(node);
  if (metricState == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "metric");
  if ((metricState->Flags() & Metric::kFlagAvailable) == 0) {
    return Fail(KT_STATUS_NOT_AVAILABLE, "metric");
  }
  return state->Bind(node, metric);
}

KT_STATUS DefaultClientManager::__UnsubscribeMetric(unsigned long consumer, unsigned long conduit,
                                                    unsigned long metric, bool full) {
  if (metric == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "metric");
  ConduitState* state = ConduitAt(conduit);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "conduit");
  if (full) {
    if (consumer == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "consumer");
    if (Resolve(consumer) == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "consumer");
  }
  const PeerCall peer = full ? PeerFor(state->m_conduit->GetRemoteHandle()) : PeerCall();
  const KT_STATUS status =
      peer ? peer->UnsubscribeMetric(consumer, metric) : state->Unbind(metric);
  // Intended: the consumer stays subscribed to the conduit, whatever the
  // result; a conduit subscription outlives the metric subscriptions. The
  // group is the one the membership names: the metric's own description may
  // be gone by now (or be answered by a peer that no longer knows it).
  state->GetDataPush().ForgetMetric(metric);
  return status;
}

KT_STATUS DefaultClientManager::SubscribeMetrics(unsigned long consumer,
                                                 const unsigned long* metrics, unsigned int count,
                                                 IClientManagerErrorListener* listener) {
  return ForEachMetric(&IClientManager::SubscribeMetric, consumer, metrics, count, listener);
}

KT_STATUS DefaultClientManager::UnsubscribeMetrics(unsigned long consumer,
                                                   const unsigned long* metrics,
                                                   unsigned int count,
                                                   IClientManagerErrorListener* listener) {
  return ForEachMetric(&IClientManager::UnsubscribeMetric, consumer, metrics, count, listener);
}

KT_STATUS DefaultClientManager::ForEachMetric(
    KT_STATUS (IClientManager::*operation)(unsigned long, unsigned long), unsigned long consumer,
    const unsigned long* metrics, unsigned int count, IClientManagerErrorListener* listener) {
  if (metrics == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "metric");
  // Through the slot, as a client would call it.
  return ForEachMetricOf(metrics, count, listener,
                         [&](unsigned long metric) { return (this->*operation)(consumer, metric); });
}

KT_STATUS DefaultClientManager::FlushMetrics(unsigned long consumer) {
  return Guarded(m_registry, "FlushMetrics", consumer, [&]() -> KT_STATUS {
    if (consumer == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "consumer");
    auto* state = StateAt<ConsumerState>(Resolve(consumer));
    if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "consumer");
    return state->FlushConduits();
  });
}

KT_STATUS DefaultClientManager::__FlushMetrics(unsigned long conduit) {
  if (conduit == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "conduit");
  ConduitState* state = ConduitAt(conduit);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "conduit");
  return state->FlushMetrics();
}

// ---------------------------------------------------------------------------
// Remote method calls.

KT_STATUS DefaultClientManager::CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                                     IWriteBuffer* returns) {
  return Guarded(m_registry, "CallRemoteMethodSync", method, [&]() -> KT_STATUS {
    return __CallRemoteMethodSync(GetConduitHandle(0, method), method, args, returns, true);
  });
}

KT_STATUS DefaultClientManager::__CallRemoteMethodSync(unsigned long conduit, unsigned long method,
                                                       const IReadBuffer* args,
                                                       IWriteBuffer* returns, bool route) {
  if (args == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "args");
  if (returns == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "returns");
  if (route) {
    if (const PeerCall peer = PeerFor(method)) {
      return peer->CallRemoteMethodSync(method, args, returns);
    }
  }
  return CallRemoteMethodSync(conduit, method, args, returns);
}

KT_STATUS DefaultClientManager::CallRemoteMethodSync(unsigned long conduit, unsigned long method,
                                                     const IReadBuffer* args,
                                                     IWriteBuffer* returns) {
  if (args == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "args");
  if (returns == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "returns");
  ConduitState* state = ConduitAt(conduit);
  // An argument error here, not an unknown object as elsewhere: intended.
  if (state == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "conduit");
  return state->m_conduit->Transact(method, args, returns);
}

// ---------------------------------------------------------------------------
// Probes and command lists.

KT_STATUS DefaultClientManager::CreateProbe(unsigned long type, void* query,
                                            unsigned long* out_site) {
  return Guarded(m_registry, "CreateProbe", type, [&]() -> KT_STATUS {
    Path* node = Resolve(type);
    if (node != nullptr && out_site != nullptr) {
      PathData* payload = node->GetPayload();
      if (payload == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "query");
      // Checked, not cast blindly: a handle of any other node is refused the
      // way a type without a probe publisher is, and so is a type whose owner
      // node is missing.
      auto* probeType = dynamic_cast<ProbeTypeState*>(payload);
      if (probeType == nullptr || probeType->m_owner == nullptr) {
        return Fail(KT_STATUS_INVALID_OBJECT, "qpub");
      }
      return probeType->CreateProbe(m_registry, query, out_site);
    }
    if (out_site == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_site");
    // An unknown probe type is reported as "query", deliberately.
    return Fail(KT_STATUS_INVALID_ARGUMENT, "query");
  });
}

KT_STATUS DefaultClientManager::DestroyProbe(unsigned long site) {
  return Guarded(m_registry, "DestroyProbe", site, [&]() -> KT_STATUS {
    Path* node = Resolve(site);
    // Only a probe site is deleted: the root would take the registry embedded
    // in the extension manager with it, and any other node its owner's data.
    if (node == nullptr || node->GetParent() == nullptr ||
        dynamic_cast<ProbeState*>(node->GetPayload()) == nullptr) {
      return Fail(KT_STATUS_INVALID_ARGUMENT, "sitePath");
    }
    delete node;
    return KT_STATUS_SUCCESS;
  });
}

// The probe's own results are not the client's: only a throw fails these.
KT_STATUS DefaultClientManager::BeginProbe(unsigned long probe, unsigned long a, unsigned long b,
                                           Metrics::EventType type, void* context) const {
  return Guarded(m_registry, "BeginProbe", probe, [&] {
    if (probe != 0) reinterpret_cast<Metrics::IProbe*>(probe)->Begin(a, b, type, context);
    return KT_STATUS_SUCCESS;
  });
}

KT_STATUS DefaultClientManager::EndProbe(unsigned long probe, unsigned long a,
                                         Metrics::EventType type, void* context) const {
  return Guarded(m_registry, "EndProbe", probe, [&] {
    if (probe != 0) reinterpret_cast<Metrics::IProbe*>(probe)->End(a, type, context);
    return KT_STATUS_SUCCESS;
  });
}

KT_STATUS DefaultClientManager::HandleProbe(unsigned long probe) const {
  return Guarded(m_registry, "HandleProbe", probe, [&] {
    if (probe != 0) reinterpret_cast<Metrics::IProbe*>(probe)->Handle();
    return KT_STATUS_SUCCESS;
  });
}

KT_STATUS DefaultClientManager::OnChangeStateCommandList(unsigned long probe, void* a, void* b,
                                                         Metrics::CommandListState state) const {
  // A probe that keeps the default operation gets a call that does nothing,
  // which is the same as no call; one that overrides it gets the state.
  return Guarded(m_registry, "OnChangeStateCommandList", probe, [&] {
    if (probe != 0) {
      reinterpret_cast<Metrics::IProbe*>(probe)->OnChangeStateCommandList(a, b, state);
    }
    return KT_STATUS_SUCCESS;
  });
}

}  // namespace MetricsFramework
