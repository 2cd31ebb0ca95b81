// NetTransport: the extension that links this process to its peers over the
// messaging engine and carries the client-manager protocol between them.
//
// It plays the publisher role so that the host's Add hands it both managers;
// OnLoad starts it with the module's settings as they stand (listen, dial,
// serve, mount) and publishes its link figures (link_figures.h) as metrics of
// its own node, OnUnload stops it and unpublishes them. Each link is filed as
// a LinkConduit under "conduits"; the side configured to mount files the peer
// under "peers" (KTMountPeer), and requests that arrive are dispatched to this
// registry's command method on a worker thread, within the serve policy.
//
// Threads: one I/O thread owns every socket (IoLoop); registry work (filing
// conduits, mounting, unmounting) runs on one control thread in order, which
// also commits the figures once a period and frees retired conduits; requests
// are served on a small pool. Clients call Transact on their own threads.
// OnLoad and OnUnload come from the host's loading thread. The module's
// settings are process-wide (Configure, GetEndpoint) and only one transport
// runs at a time.
//
// Ownership: the host owns the extension. The transport owns its threads,
// sockets and every LinkConduit it made. A conduit whose link is gone is
// unmounted and removed from the registry, then freed on the control thread
// once no call is inside it and a whole period has passed since it left the
// registry (a client that resolved it just before is inside by then). The
// others are freed when the transport is destroyed, after OnUnload has
// removed them and their mounts from the registry.
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
#include "net_transport/figure_publisher.h"
#include "net_transport/link_conduit.h"
#include "net_transport/link_figures.h"
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

  // The link figures are its metrics; any other binding is refused.
  MetricsFramework::IBoundMetric* BindMetric(unsigned long metric, MetricsFramework::Path*,
                                             MetricsFramework::IReadWriteBuffer*,
                                             MetricsFramework::IBoundMetric**) override {
    return m_figures.Bind(metric);
  }
  void UnbindMetric(unsigned long, MetricsFramework::IBoundMetric* bound) override {
    m_figures.Unbind(bound);
  }
  void OnLoad() override;
  // Fails every call in flight with KT_STATUS_NOT_AVAILABLE, closes the
  // sockets, joins every thread, removes the mounts and conduits, and
  // unpublishes the figures.
  void OnUnload() override;

 private:
  struct Filed {
    LinkConduit* conduit;
    unsigned long mount;  // 0 while not mounted
  };
  struct Made {
    std::unique_ptr<LinkConduit> conduit;
    uint64_t retiredIn;  // the round it left the registry; 0 while filed
  };

  void Start();
  void Shutdown();
  void Say(const std::string& line);
  void FileConduit(uint64_t link);
  void Mount(uint64_t link, const Hello& peer);
  void Retire(const Filed& filed);
  void MarkRetired(const LinkConduit* conduit);
  void Round();
  void CommitFigures(size_t linksUp, size_t conduitsAlive);
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
  LinkTally m_tally;  // outlives m_io, which counts into it
  CallTable m_calls;
  std::unique_ptr<IoLoop> m_io;
  std::unique_ptr<WorkerPool> m_control;  // registry work, one task at a time
  std::unique_ptr<WorkerPool> m_serve;    // requests from peers
  std::map<uint64_t, Filed> m_filed;      // the control thread's, by link id

  std::mutex m_conduitMutex;
  std::vector<Made> m_conduits;  // every conduit made and not freed yet

  std::mutex m_inFlightMutex;
  std::condition_variable m_inFlightDone;
  int m_inFlight = 0;  // calls inside Call

  FigurePublisher m_figures{kLinkFigures, kFigureCount};
  // The control thread's: periodic rounds run (from 1), and what the last
  // round saw of the round trips.
  uint64_t m_round = 1;
  uint64_t m_answeredBefore = 0;
  uint64_t m_roundTripBefore = 0;
  double m_roundTripMs = 0;
  std::atomic<uint64_t> m_expired{0};
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_NET_TRANSPORT_H_
