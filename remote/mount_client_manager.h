// MountClientManager: the client manager of a peer that a transport mounted
// under "peers" (kt/peer_mount.h). It forwards like ClientManagerProxy, and
// answers as the peer's own client manager would: a call the peer answered
// returns the peer's status (a failed one writes nothing), a call the peer
// never answered the transport's failure; a remote description arrives whole,
// field for field.
//
// It is also the peer object of its mount's PeerState and counts the calls it
// serves (IPeerCalls). The mount holds one count, given back by Release when
// the mount's node is destroyed; every call holds one while it runs; the
// object deletes itself when the last count goes. The router enters a call
// before it lets go of the "peers" lock, so an unmount never frees the object
// under a routed call. A caller that keeps the raw pointer from
// GetProxyForComponent is covered only while it is inside a call.
//
// Threads: any thread may call; the counts are atomic and every call keeps
// its request and reply on its own stack.
#ifndef KT_REMOTE_MOUNT_CLIENT_MANAGER_H_
#define KT_REMOTE_MOUNT_CLIENT_MANAGER_H_

#include <atomic>
#include <string>

#include "remote/client_manager_proxy.h"
#include "state/peer_state.h"

namespace MetricsFramework {

class MountClientManager : public ClientManagerProxy, public IPeer, public IPeerCalls {
 public:
  // As ClientManagerProxy's; the new object holds the mount's count.
  MountClientManager(unsigned long handle, unsigned long mountHandle, const std::string& name,
                     IClientManager* manager, unsigned long transportConduit,
                     unsigned long remoteConduit);

  // Forwarded, each counted while it runs. A null out-parameter is refused
  // here with KT_STATUS_INVALID_ARGUMENT, as the peer would refuse it.
  KT_STATUS GetPath(unsigned long root, const char* pathname,
                    unsigned long* out_handle) const override;
  KT_STATUS GetChildCount(unsigned long parent, unsigned int* out_count) const override;
  KT_STATUS GetChildren(unsigned long parent, unsigned long* out_children,
                        unsigned int count) const override;
  KT_STATUS GetResourceInfo(unsigned long handle, ResourceInfo* out) const override;
  // Reads the size record, releases it and decodes the blob record after it;
  // `*out_desc` is replaced on success. KT_STATUS_INVALID_OPERATION when the
  // blob record is missing, of another size than announced, or undecodable.
  KT_STATUS GetMetricDescriptor(unsigned long metric, Metric::Description* out_desc) const override;
  KT_STATUS SubscribeMetric(unsigned long consumer, unsigned long metric) override;
  KT_STATUS UnsubscribeMetric(unsigned long consumer, unsigned long metric) override;
  KT_STATUS FlushMetrics(unsigned long consumer) override;
  KT_STATUS SubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                             unsigned int count, IClientManagerErrorListener* listener) override;
  KT_STATUS UnsubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                               unsigned int count, IClientManagerErrorListener* listener) override;
  // The transport's status, which carries the peer's dispatch of the method.
  KT_STATUS CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                 IWriteBuffer* returns) override;

  // IPeer: gives back the mount's count; the object goes with the last call.
  void Release() override { Drop(); }
  IClientManager* GetClientManager() override { return this; }
  // IPeerCalls.
  void EnterCall() override { Hold(); }
  void LeaveCall() override { Drop(); }

 private:
  // Holds a count for the scope of one call.
  class CallScope {
   public:
    explicit CallScope(const MountClientManager& mount) : m_mount(mount) { m_mount.Hold(); }
    ~CallScope() { m_mount.Drop(); }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

   private:
    const MountClientManager& m_mount;
  };

  // Only Drop deletes.
  ~MountClientManager() override = default;
  void Hold() const { m_counts.fetch_add(1, std::memory_order_relaxed); }
  // Deletes the object when this was the last count.
  void Drop() const;

  mutable std::atomic<unsigned long> m_counts{1};  // the mount's, and one per call inside
};

}  // namespace MetricsFramework

#endif  // KT_REMOTE_MOUNT_CLIENT_MANAGER_H_
