// ClientManagerProxy: the client manager of a peer process, as this process
// sees it. Its namespace and subscription operations become one request each
// of the client-manager protocol (docs/remote_records.md), sent through the
// local DefaultClientManager's conduit call to the peer's "command" method
// under the well-known handle kClientCommandHandle; the peer's
// ClientCommandMethod answers them from its own registry.
//
// The proxy is the client manager a PeerState's peer hands out: the local
// client manager forwards to it every call about a handle of the peer. It owns
// nothing: the local client manager and both conduits belong to others and
// must outlive it.
//
// Threads: any thread may call. Every call builds its request and reply on
// its own stack and the proxy holds no lock; thread safety is that of the
// local client manager and of the transport conduit.
#ifndef KT_REMOTE_CLIENT_MANAGER_PROXY_H_
#define KT_REMOTE_CLIENT_MANAGER_PROXY_H_

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kt/client_manager.h"

namespace MetricsFramework {

class DefaultClientManager;
class ProxyBuffer;

class ClientManagerProxy : public IClientManager {
 public:
  // `handle` is stored only. `mountHandle` and `name` are what the peer's
  // root is shown as: its parent and its name. `manager` must be a
  // DefaultClientManager (anything else, or null, leaves the proxy without a
  // transport: every forwarded call then fails). Requests travel through the
  // local conduit `transportConduit`; the peer files this client's
  // subscriptions under its conduit `remoteConduit`.
  ClientManagerProxy(unsigned long handle, unsigned long mountHandle, const std::string& name,
                     IClientManager* manager, unsigned long transportConduit,
                     unsigned long remoteConduit);
  ~ClientManagerProxy() override;
  ClientManagerProxy(const ClientManagerProxy&) = delete;
  ClientManagerProxy& operator=(const ClientManagerProxy&) = delete;

  // Forwarded operations. Each returns the transport's status OR'ed with the
  // status of the peer's reply; a reply that never arrived counts as
  // KT_STATUS_INVALID_OPERATION. Out-parameters are written from the reply.
  KT_STATUS GetPath(unsigned long root, const char* pathname,
                    unsigned long* out_handle) const override;
  KT_STATUS GetChildCount(unsigned long parent, unsigned int* out_count) const override;
  KT_STATUS GetChildren(unsigned long parent, unsigned long* out_children,
                        unsigned int count) const override;
  // The peer's root (parent 0) is reported with parent mountHandle and this
  // proxy's name; any other node with the peer's values. `out` is written
  // only on success.
  KT_STATUS GetResourceInfo(unsigned long handle, ResourceInfo* out) const override;
  // The status of the reply records alone (the transport status is not
  // looked at). The lists are appended to, the rest overwritten.
  // KT_STATUS_INVALID_OPERATION, with nothing allocated or written, when the
  // reply claims a blob larger than the reply holds.
  KT_STATUS GetMetricDescriptor(unsigned long metric, Metric::Description* out_desc) const override;
  // Subscriptions are filed by the peer under remoteConduit.
  KT_STATUS SubscribeMetric(unsigned long consumer, unsigned long metric) override;
  KT_STATUS UnsubscribeMetric(unsigned long consumer, unsigned long metric) override;
  // Flushes remoteConduit on the peer; `consumer` is not sent.
  KT_STATUS FlushMetrics(unsigned long consumer) override;
  // Runs the peer's method `method`; the method writes straight into
  // `returns`. The result is the transport's status alone.
  KT_STATUS CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                 IWriteBuffer* returns) override;

  // Answered here: SubscribeMetric (UnsubscribeMetric) for each of the
  // `count` metrics in order, each failure told to `listener` (which may be
  // null). KT_STATUS_PARTIAL_FAILURE when any failed; success for count 0;
  // KT_STATUS_INVALID_ARGUMENT, with nothing sent, for a null `metrics` with a
  // count above 0.
  KT_STATUS SubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                             unsigned int count, IClientManagerErrorListener* listener) override;
  KT_STATUS UnsubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                               unsigned int count, IClientManagerErrorListener* listener) override;
  // No metric list crosses a proxy: does nothing and succeeds.
  KT_STATUS GetMetrics(unsigned long handle,
                       std::vector<std::pair<unsigned long, Metric::Description>>& out_metrics,
                       std::vector<std::string>* out_groups,
                       std::map<unsigned int, std::string>* out_sets) const override;
  // Probes are not available through a proxy: KT_STATUS_INVALID_OPERATION,
  // and nothing is touched.
  KT_STATUS CreateProbe(unsigned long type, void* query, unsigned long* out_site) override;
  KT_STATUS DestroyProbe(unsigned long site) override;
  KT_STATUS BeginProbe(unsigned long probe, unsigned long a, unsigned long b,
                       Metrics::EventType type, void* context) const override;
  KT_STATUS EndProbe(unsigned long probe, unsigned long a, Metrics::EventType type,
                     void* context) const override;
  KT_STATUS HandleProbe(unsigned long probe) const override;
  KT_STATUS OnChangeStateCommandList(unsigned long probe, void* a, void* b,
                                     Metrics::CommandListState state) const override;

  unsigned long GetHandle() const { return m_handle; }
  unsigned long GetMountHandle() const { return m_mountHandle; }
  const std::string& GetName() const { return m_name; }

 protected:
  // How a forwarded call's result is made of the transport's status and the
  // reply's.
  enum class Answer {
    // OR'ed, the reply's data copied whatever its status (this proxy).
    kJoined,
    // The reply's own status when a reply arrived, its data copied only on
    // success; without a reply the transport's failure, or
    // KT_STATUS_INVALID_OPERATION when the transport reported none.
    kAsAnswered,
  };

  // Sends `request` to the peer's command method, the reply landing in
  // `reply`; the transport's status.
  KT_STATUS Send(const ProxyBuffer& request, ProxyBuffer& reply) const;
  // Send, then the reply's status with its data copied into `out`.
  KT_STATUS Exchange(const ProxyBuffer& request, unsigned int replyCapacity, void* out,
                     unsigned int outSize, Answer answer = Answer::kJoined) const;
  // Op 4 for `handle`, decoded into `out` (written only on success).
  KT_STATUS FetchResourceInfo(unsigned long handle, ResourceInfo* out, Answer answer) const;
  // The status of a reply as `answer` makes it, given the transport's.
  static KT_STATUS Answered(Answer answer, KT_STATUS sent, const ProxyBuffer& reply);
  unsigned long GetRemoteConduit() const { return m_remoteConduit; }

 private:
  // Slot 9 or 10 of this proxy for every metric of a batch.
  KT_STATUS ForEachMetric(KT_STATUS (ClientManagerProxy::*operation)(unsigned long,
                                                                     unsigned long),
                          unsigned long consumer, const unsigned long* metrics,
                          unsigned int count, IClientManagerErrorListener* listener);

  unsigned long m_handle;
  unsigned long m_mountHandle;
  DefaultClientManager* m_manager;
  unsigned long m_transportConduit;
  unsigned long m_remoteConduit;
  std::string m_name;
  [[maybe_unused]] unsigned long m_reserved[3];  // zeroed; not used by the operations
};

}  // namespace MetricsFramework

#endif  // KT_REMOTE_CLIENT_MANAGER_PROXY_H_
