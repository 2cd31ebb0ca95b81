// IoLoop: the one thread that owns every socket of the transport (the engine's
// sockets are not thread-safe). It listens and dials, says hello and welcome,
// keeps each link alive with heartbeats, notices a silent peer, and moves
// frames between the sockets and the rest of the transport.
//
// A link is one connection to one peer process, known by a local id. A
// dialled socket has at most one link at a time; a listening socket has one
// per peer that said hello. A link needs a conduit filed in the registry
// before it can come up (its handle goes into the handshake): the loop asks
// its listener for one (WantConduit) and is handed it back (ConduitReady).
// A link that falls silent goes down; after the grace period it is gone, and
// a dialled socket starts a new link.
//
// Threads: Listen, Connect, Send, SendReply, ConduitReady, Endpoints and Stop
// may be called from any thread but the loop's own; they hand their work to
// the loop through a locked queue and a wake-up the loop polls. The listener
// is called on the loop's thread and must not block.
#ifndef KT_NET_TRANSPORT_IO_LOOP_H_
#define KT_NET_TRANSPORT_IO_LOOP_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kt/status.h"
#include "net_transport/call_table.h"
#include "net_transport/curve.h"
#include "net_transport/frame.h"
#include "net_transport/link_conduit.h"
#include "net_transport/link_figures.h"
#include "net_transport/net_settings.h"

namespace kt_net {

// What the loop tells the rest of the transport, on the loop's thread.
class ILinkListener {
 public:
  // File a conduit for the link `link`, then hand it to ConduitReady.
  virtual void WantConduit(uint64_t link) = 0;
  // The link came up (or back up): `peer` is what the peer said of itself.
  virtual void LinkUp(uint64_t link, LinkConduit* conduit, const Hello& peer, bool dialled) = 0;
  // The link went down: its calls fail.
  virtual void LinkDown(uint64_t link) = 0;
  // The link is gone for good: unmount it and remove its conduit.
  virtual void LinkGone(uint64_t link) = 0;
  // A request arrived on `link`; answer it with SendReply.
  virtual void Serve(uint64_t link, uint64_t correlation, Clock::time_point deadline,
                     const Request& request) = 0;
  // A reply arrived for the call `correlation` (or the call could not be sent).
  virtual void Replied(uint64_t correlation, CallResult result) = 0;
  virtual void Log(const std::string& line) = 0;

 protected:
  ~ILinkListener() = default;
};

class IoLoop {
 public:
  // Counts frames, bytes, frame errors and links down into `tally`, which
  // outlives the loop.
  IoLoop(const NetSettings& settings, uint32_t guid, ILinkListener* listener, LinkTally& tally);
  ~IoLoop();
  IoLoop(const IoLoop&) = delete;
  IoLoop& operator=(const IoLoop&) = delete;

  // Makes the engine's context and starts the thread; false, with the reason
  // in *error, when it cannot.
  bool Start(std::string* error);
  // Listens on, or dials, `endpoint`, on the loop's thread; waits for the
  // outcome. KT_STATUS_INVALID_ARGUMENT (reason in *error) when the engine
  // refuses it; KT_STATUS_NOT_AVAILABLE once stopped.
  MetricsFramework::KT_STATUS Listen(const std::string& endpoint, std::string* error);
  MetricsFramework::KT_STATUS Connect(const std::string& endpoint, std::string* error);
  // The listening endpoints as the engine resolved them (ports chosen).
  std::vector<std::string> Endpoints();
  // Sends the request frame of the call `correlation` on `link`; when the
  // link is not up or the frame cannot go, the call is answered
  // KT_STATUS_NOT_AVAILABLE at once.
  void Send(uint64_t link, uint64_t correlation, std::string frame);
  // Sends a reply frame on `link`, if it is still there.
  void SendReply(uint64_t link, std::string frame);
  void ConduitReady(uint64_t link, LinkConduit* conduit);
  // Says bye on every link, closes every socket and joins the thread.
  // Idempotent.
  void Stop();

 private:
  struct Socket;
  struct Link;

  void Post(std::function<void()> task);
  void Run();
  void RunQueued();
  void Receive(size_t socket);
  void OnFrame(size_t socket, const std::string& routing, const unsigned char* data, size_t size);
  void OnHello(size_t socket, const std::string& routing, const Hello& hello);
  void OnWelcome(size_t socket, const Hello& hello);
  void OnBye(Link* link, const Bye& bye);
  void OnRequest(Link* link, size_t socket, const std::string& routing, const FrameHeader& header,
                 const unsigned char* body, uint32_t size);
  void OnReply(const FrameHeader& header, const unsigned char* body, uint32_t size);
  bool Refused(const Hello& hello, const Link* self, ByeReason* reason);
  void Tick(Clock::time_point now);
  bool TickLink(Link& link, Clock::time_point now);
  void NewDialledLink(size_t socket);
  void Heard(Link& link);
  void MarkUp(Link& link);
  void MarkDown(Link& link, const char* why);
  Link* Find(uint64_t id);
  Link* LinkAt(size_t socket, const std::string& routing);
  Link* LinkOfGuid(uint32_t guid, const Link* except);
  bool SendOn(size_t socket, const std::string& routing, const std::string& frame);
  bool SendTo(const Link& link, const std::string& frame);
  std::string HelloFrame(FrameType type, const Link& link) const;
  std::string Who(const Link& link) const;
  MetricsFramework::KT_STATUS AddSocketOnLoop(const std::string& endpoint, bool listening,
                                              std::string* error);
  MetricsFramework::KT_STATUS AddSocket(const std::string& endpoint, bool listening,
                                        std::string* error);
  void CloseAll();

  const NetSettings m_settings;
  const uint32_t m_guid;
  const std::string m_name;
  ILinkListener* const m_listener;
  LinkTally& m_tally;
  void* m_context = nullptr;
  int m_wake = -1;  // an eventfd the loop polls beside its sockets
  std::thread m_thread;
  std::mutex m_lifeMutex;  // orders Stop after every Listen and Connect
  bool m_stopped = false;

  std::mutex m_queueMutex;
  std::deque<std::function<void()>> m_queue;
  bool m_running = true;  // read and cleared on the loop's thread

  std::mutex m_endpointMutex;
  std::vector<std::string> m_endpoints;

  // The loop's own state.
  std::vector<Socket> m_sockets;
  std::map<uint64_t, Link> m_links;
  uint64_t m_nextLink = 0;
  Clock::time_point m_nextBeat;
  ZapHandler m_zap;  // CURVE listeners' allow-list, with a thread of its own
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_IO_LOOP_H_
