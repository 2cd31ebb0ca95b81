// DefaultClientManager: the in-process client manager. It works directly on
// the registry of the extension manager that made it and forwards to the
// client manager of a peer process whenever a handle belongs to a peer
// mounted under "peers".
//
// It keeps no tables of its own: subscriptions, bindings and conduits live in
// the registry's state objects. It owns two private extensions, registered
// through the loader on first demand and removed by its destructor: the
// NullConsumer, which discards every sample, and a LocalConduit named
// "LocalConduit_DefaultClientManager", through which it calls remote methods.
//
// Every public operation calls its private twin (prefix "__") with routing
// on; a request that has already crossed a process boundary is served with
// routing off, so that it is answered here and never sent on again.
//
// Threads: any thread may call; only the lazy registration of the local
// conduit is locked here. The client manager must be destroyed before the
// extension manager whose registry it works on.
#ifndef KT_CLIENT_DEFAULT_CLIENT_MANAGER_H_
#define KT_CLIENT_DEFAULT_CLIENT_MANAGER_H_

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "foundation/read_write_lock.h"
#include "kt/client_manager.h"
#include "kt/consumer.h"
#include "registry/registry.h"
#include "state/data_push.h"
#include "state/peer_state.h"
#include "transport/local_conduit.h"

namespace MetricsFramework {

class ConduitState;

class DefaultClientManager : public IClientManager {
 public:
  // The consumer that discards every sample.
  class NullConsumer : public IConsumer {
   public:
    void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                         unsigned long*) override {}
  };

  explicit DefaultClientManager(Registry& registry);
  // Removes the NullConsumer and the local conduit through the loader, then
  // deletes whichever of their nodes the loader left filed. Uses the registry
  // and the loader: both must still be alive.
  ~DefaultClientManager() override;
  DefaultClientManager(const DefaultClientManager&) = delete;
  DefaultClientManager& operator=(const DefaultClientManager&) = delete;

  // IClientManager (routing on).
  KT_STATUS GetPath(unsigned long root, const char* pathname,
                    unsigned long* out_handle) const override;
  KT_STATUS GetChildCount(unsigned long parent, unsigned int* out_count) const override;
  KT_STATUS GetChildren(unsigned long parent, unsigned long* out_children,
                        unsigned int count) const override;
  KT_STATUS GetMetrics(unsigned long handle,
                       std::vector<std::pair<unsigned long, Metric::Description>>& out_metrics,
                       std::vector<std::string>* out_groups,
                       std::map<unsigned int, std::string>* out_sets) const override;
  KT_STATUS GetResourceInfo(unsigned long handle, ResourceInfo* out) const override;
  KT_STATUS GetMetricDescriptor(unsigned long metric, Metric::Description* out_desc) const override;
  KT_STATUS SubscribeMetric(unsigned long consumer, unsigned long metric) override;
  KT_STATUS UnsubscribeMetric(unsigned long consumer, unsigned long metric) override;
  KT_STATUS SubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                             unsigned int count, IClientManagerErrorListener* listener) override;
  KT_STATUS UnsubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                               unsigned int count, IClientManagerErrorListener* listener) override;
  KT_STATUS FlushMetrics(unsigned long consumer) override;
  KT_STATUS CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                 IWriteBuffer* returns) override;
  KT_STATUS CreateProbe(unsigned long type, void* query, unsigned long* out_site) override;
  KT_STATUS DestroyProbe(unsigned long site) override;
  KT_STATUS BeginProbe(unsigned long probe, unsigned long a, unsigned long b,
                       Metrics::EventType type, void* context) const override;
  KT_STATUS EndProbe(unsigned long probe, unsigned long a, Metrics::EventType type,
                     void* context) const override;
  KT_STATUS HandleProbe(unsigned long probe) const override;
  KT_STATUS OnChangeStateCommandList(unsigned long probe, void* a, void* b,
                                     Metrics::CommandListState state) const override;

  // The private twins; `route` false answers from this registry only.
  KT_STATUS __GetPath(unsigned long root, const char* pathname, unsigned long* out_handle,
                      bool route) const;
  KT_STATUS __GetChildCount(unsigned long parent, unsigned int* out_count, bool route) const;
  KT_STATUS __GetChildren(unsigned long parent, unsigned long* out_children, unsigned int count,
                          bool route) const;
  KT_STATUS __GetResourceInfo(unsigned long handle, ResourceInfo* out, bool route) const;
  KT_STATUS __GetMetricDescriptor(unsigned long metric, Metric::Description* out_desc,
                                  bool route) const;
  // With `full` false (a remote client's request) the consumer is not
  // subscribed to the conduit and nothing is forwarded to a peer.
  KT_STATUS __SubscribeMetric(unsigned long consumer, unsigned long conduit, unsigned long metric,
                              bool full);
  KT_STATUS __UnsubscribeMetric(unsigned long consumer, unsigned long conduit,
                                unsigned long metric, bool full);
  // Flushes one conduit (it takes no routing flag).
  KT_STATUS __FlushMetrics(unsigned long conduit);
  KT_STATUS __CallRemoteMethodSync(unsigned long conduit, unsigned long method,
                                   const IReadBuffer* args, IWriteBuffer* returns, bool route);
  // Calls the method through the conduit `conduit`, never routed.
  KT_STATUS CallRemoteMethodSync(unsigned long conduit, unsigned long method,
                                 const IReadBuffer* args, IWriteBuffer* returns);

  // The NullConsumer's handle, registering it on first use.
  unsigned long GetNullConsumerHandle();
  // With a consumer, the conduit that links it to the process of `target`;
  // with consumer 0, this client manager's own local conduit (registered on
  // first use). 0 when there is none.
  unsigned long GetConduitHandle(unsigned long consumer, unsigned long target);
  // The client manager of the peer process that owns `handle`.
  // KT_STATUS_INVALID_OBJECT (silently) when no peer owns it. The pointer is
  // not held for the caller: a peer unmounted meanwhile may free it once the
  // calls it is serving have left (kt/peer_mount.h).
  KT_STATUS GetProxyForComponent(unsigned long handle, IClientManager** out) const;

  Registry& GetRegistry() const { return m_registry; }

  // Filled by the extension manager with the loader of the first extension it
  // is given; never owned.
  IExtensionLoader* m_loader;

 private:
  // The node registered under `handle`; null when there is none.
  Path* Resolve(unsigned long handle) const;
  // Resolve, with 0 standing for the registry root.
  Path* ResolveOrRoot(unsigned long handle) const;
  // The conduit state filed under `handle` (with its conduit); null otherwise.
  ConduitState* ConduitAt(unsigned long handle) const;
  // The peer client manager that answers for `handle`, entered for one call;
  // empty for a handle of this process (or of a process that is not mounted
  // under "peers").
  PeerCall PeerFor(unsigned long handle) const;
  // The client manager of the peer mount `node` that a path walk stopped at,
  // entered for one call; empty when `node` is no peer mount.
  PeerCall PeerAt(Path* node) const;
  // Enters the metric's tag and group (from its description and its
  // publisher) in the conduit's push.
  DataPush::Recorded RecordMetric(ConduitState* state, unsigned long metric, bool full) const;
  // Binds a metric of this process to the conduit.
  KT_STATUS BindHere(ConduitState* state, unsigned long metric);
  // The group order and set names of the publisher `handle`, if it is one.
  KT_STATUS AddPublisherLists(unsigned long handle, std::vector<std::string>* out_groups,
                              std::map<unsigned int, std::string>* out_sets) const;
  // Slot 9 or 10 for every metric of a batch.
  KT_STATUS ForEachMetric(KT_STATUS (IClientManager::*operation)(unsigned long, unsigned long),
                          unsigned long consumer, const unsigned long* metrics,
                          unsigned int count, IClientManagerErrorListener* listener);

  Registry& m_registry;
  ReadWriteLock m_lock;  // guards the lazy registration of the local conduit
  LocalConduit m_localConduit;
  NullConsumer m_nullConsumer;
};

}  // namespace MetricsFramework

#endif  // KT_CLIENT_DEFAULT_CLIENT_MANAGER_H_
