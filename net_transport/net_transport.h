// NetTransport: the extension that links this process to its peers over the
// messaging engine and carries the client-manager protocol between them.
//
// It plays the publisher role so that the host's Add hands it both managers;
// OnLoad starts it with the module's settings as they stand (listen, dial,
// serve, mount), OnUnload stops it. Each link is filed as a LinkConduit under
// "conduits"; the side configured to mount files the peer under "peers"
// (KTMountPeer), and requests that arrive are dispatched to this registry's
// command method on a worker thread, within the serve policy.
//
// Threads: one I/O thread owns every socket (IoLoop); registry work (filing
// conduits, mounting, unmounting) runs on one control thread in order;
// requests are served on a small pool. Clients call Transact on their own
// threads. OnLoad and OnUnload come from the host's loading thread. The
// module's settings are process-wide (Configure, GetEndpoint) and only one
// transport runs at a time.
//
// Ownership: the host owns the extension. The transport owns its threads,
// sockets and every LinkConduit it made; conduits live until the transport is
// destroyed, after OnUnload has removed them and their mounts from the
// registry.
#ifndef KT_NET_TRANSPORT_NET_TRANSPORT_H_
#define KT_NET_TRANSPORT_NET_TRANSPORT_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kt/publisher.h"
#include "net_transport/call_table.h"
#include "net_transport/io_loop.h"
#include "net_transport/link_conduit.h"
#include "net_transport/net_settings.h"
#include "net_transport/worker_pool.h"

namespace kt_net {

class NetTransport : public MetricsFramework::IPublisher,
                     private ILinkListener,
                     private ILinkCaller {
 public:
  NetTransport() = default;
  ~NetTransport() override;
  NetTransport(const NetTransport&) = delete;
  NetTransport& operator=(const NetTransport&) = delete;

  // The module's settings (KTNetTransportConfigure): see
  // include/kt/net_transport.h for the keys and statuses. "listen" and
  // "connect" reach a running transport at once; the other keys take effect
  // at the next OnLoad.
  static MetricsFramework::KT_STATUS Configure(const char* key, const char* value);
  // The running transport's resolved listening endpoint `index`
  // (KTNetTransportGetEndpoint).
  static MetricsFramework::KT_STATUS GetEndpoint(unsigned int index, char* out, unsigned int size);
  // The running transport's counter `name` (KTNetTransportGetCounter).
  static MetricsFramework::KT_STATUS GetCounter(const char* name, unsigned long* out);

  // No metric is published: every binding is refused.
  MetricsFramework::IBoundMetric* BindMetric(unsigned long, MetricsFramework::Path*,
                                             MetricsFramework::IReadWriteBuffer*,
                                             MetricsFramework::IBoundMetric**) override {
    return nullptr;
  }
  void UnbindMetric(unsigned long, MetricsFramework::IBoundMetric*) override {}
  void OnLoad() override;
  // Fails every call in flight with KT_STATUS_NOT_AVAILABLE, closes the
  // sockets, joins every thread, and removes the mounts and conduits.
  void OnUnload() override;

  // Replies that came after their call had given up.
  uint64_t LateReplies() const { return m_late.load(); }

 private:
  struct Filed {
    LinkConduit* conduit;
    unsigned long mount;  // 0 while not mounted
  };

  void Start();
  void Shutdown();
  void Say(const std::string& line);
  void FileConduit(uint64_t link);
  void Mount(uint64_t link, const Hello& peer);
  void Retire(const Filed& filed);
  void ServeOne(uint64_t link, uint64_t correlation, Clock::time_point deadline,
                std::string record);
  MetricsFramework::KT_STATUS AddEndpoint(bool listening, const std::string& endpoint,
                                          std::string* error);

  // ILinkListener, on the I/O thread.
  void WantConduit(uint64_t link) override;
  void LinkUp(uint64_t link, LinkConduit* conduit, const Hello& peer, bool dialled) override;
  void LinkDown(uint64_t link) override;
  void LinkGone(uint64_t link) override;
  void Serve(uint64_t link, uint64_t correlation, Clock::time_point deadline,
             const Request& request) override;
  void Replied(uint64_t correlation, CallResult result) override;
  void Log(const std::string& line) override { Say(line); }

  // ILinkCaller, on clients' threads.
  MetricsFramework::KT_STATUS Call(LinkConduit& conduit, unsigned long method,
                                   const MetricsFramework::IReadBuffer* request,
                                   MetricsFramework::IWriteBuffer* reply) override;

  NetSettings m_settings;  // fixed from OnLoad on
  bool m_started = false;
  std::atomic<bool> m_stopping{false};
  CallTable m_calls;
  std::unique_ptr<IoLoop> m_io;
  std::unique_ptr<WorkerPool> m_control;  // registry work, one task at a time
  std::unique_ptr<WorkerPool> m_serve;    // requests from peers
  std::map<uint64_t, Filed> m_filed;      // the control thread's, by link id

  std::mutex m_conduitMutex;
  std::vector<std::unique_ptr<LinkConduit>> m_conduits;  // every conduit made

  std::mutex m_inFlightMutex;
  std::condition_variable m_inFlightDone;
  int m_inFlight = 0;  // calls inside Call

  std::atomic<uint64_t> m_late{0};
  std::atomic<uint64_t> m_expired{0};
  std::atomic<uint64_t> m_refused{0};
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_NET_TRANSPORT_H_
