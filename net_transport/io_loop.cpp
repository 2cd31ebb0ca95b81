#include "net_transport/io_loop.h"

#include <sys/eventfd.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <future>

#include "net_transport/sockets.h"

namespace kt_net {

using MetricsFramework::KT_STATUS;
using MetricsFramework::KT_STATUS_INVALID_ARGUMENT;
using MetricsFramework::KT_STATUS_NOT_AVAILABLE;
using MetricsFramework::KT_STATUS_SUCCESS;

namespace {

constexpr size_t kDetached = ~size_t{0};
// A refused hello is said again this much later, quietly: the peer may have
// been restarted or reconfigured meanwhile.
constexpr std::chrono::milliseconds kRefusedRetry{2000};
// The most messages taken from one socket before the others get their turn.
constexpr int kReceiveBatch = 256;

std::string Describe(const Hello& hello) {
  char guid[16];
  std::snprintf(guid, sizeof guid, "%08" PRIx32, hello.guid);
  return "\"" + hello.name + "\" (registry " + guid + ")";
}

}  // namespace

struct IoLoop::Socket {
  void* socket;
  bool listening;
  std::string endpoint;
  uint64_t link = 0;  // dialled: the current link, 0 while none
  Clock::time_point retryAt;
};

struct IoLoop::Link {
  uint64_t id = 0;
  bool dialled = false;
  size_t socket = kDetached;
  std::string routing;              // on a listening socket: the peer's routing id
  LinkConduit* conduit = nullptr;   // null until filed
  Hello peer;                       // guid 0 until the handshake
  bool up = false;
  bool everUp = false;
  bool refused = false;
  Clock::time_point lastHeard, downSince, nextHello;
};

IoLoop::IoLoop(const NetSettings& settings, uint32_t guid, ILinkListener* listener,
               LinkTally& tally)
    : m_settings(settings),
      m_guid(guid),
      m_name(settings.OfferedName()),
      m_listener(listener),
      m_tally(tally),
      m_zap([listener](const std::string& line) { listener->Log(line); }) {}

IoLoop::~IoLoop() { Stop(); }

bool IoLoop::Start(std::string* error) {
  m_context = zmq_ctx_new();
  m_wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (m_context == nullptr || m_wake < 0) {
    *error = "cannot start the messaging engine";
    return false;
  }
  // The ZAP handler answers before the first CURVE listener binds.
  if (!m_settings.curve.Check(!m_settings.listen.empty(), error)) return false;
  if (m_settings.curve.Serving() && !m_zap.Start(m_context, m_settings.curve.Allowed(), error)) {
    return false;
  }
  m_nextBeat = Clock::now();
  m_thread = std::thread([this] { Run(); });
  return true;
}

void IoLoop::Stop() {
  {
    std::lock_guard<std::mutex> life(m_lifeMutex);
    if (m_stopped) return;
    m_stopped = true;
  }
  if (m_thread.joinable()) {
    Post([this] { m_running = false; });
    m_thread.join();
  }
  m_zap.Stop();
  if (m_context != nullptr) zmq_ctx_term(m_context);
  m_context = nullptr;
  std::lock_guard<std::mutex> hold(m_queueMutex);
  if (m_wake >= 0) close(m_wake);
  m_wake = -1;
  m_queue.clear();
}

void IoLoop::Post(std::function<void()> task) {
  // Under the queue's lock: Stop closes the wake-up under it too, so a late
  // poster never writes to a descriptor that was closed (or reused).
  std::lock_guard<std::mutex> hold(m_queueMutex);
  m_queue.push_back(std::move(task));
  const uint64_t one = 1;
  if (m_wake >= 0) (void)!write(m_wake, &one, sizeof one);
}

KT_STATUS IoLoop::Listen(const std::string& endpoint, std::string* error) {
  return AddSocketOnLoop(endpoint, true, error);
}

KT_STATUS IoLoop::Connect(const std::string& endpoint, std::string* error) {
  return AddSocketOnLoop(endpoint, false, error);
}

KT_STATUS IoLoop::AddSocketOnLoop(const std::string& endpoint, bool listening, std::string* error) {
  // Held until the loop has answered: Stop waits for it, so the task is
  // never queued behind the loop's last round.
  std::lock_guard<std::mutex> life(m_lifeMutex);
  if (m_stopped || !m_thread.joinable()) return KT_STATUS_NOT_AVAILABLE;
  auto outcome = std::make_shared<std::promise<std::pair<KT_STATUS, std::string>>>();
  auto future = outcome->get_future();
  Post([this, endpoint, listening, outcome] {
    std::string reason;
    const KT_STATUS status = AddSocket(endpoint, listening, &reason);
    outcome->set_value({status, reason});
  });
  // The loop answers every queued task before it stops.
  auto [status, reason] = future.get();
  *error = reason;
  return status;
}

std::vector<std::string> IoLoop::Endpoints() {
  std::lock_guard<std::mutex> hold(m_endpointMutex);
  return m_endpoints;
}

void IoLoop::Send(uint64_t link, uint64_t correlation, std::string frame) {
  Post([this, link, correlation, frame = std::move(frame)] {
    Link* target = Find(link);
    if (target != nullptr && target->up && SendTo(*target, frame)) return;
    m_listener->Replied(correlation, CallResult{});
  });
}

void IoLoop::SendReply(uint64_t link, std::string frame) {
  Post([this, link, frame = std::move(frame)] {
    Link* target = Find(link);
    if (target != nullptr) SendTo(*target, frame);
  });
}

void IoLoop::ConduitReady(uint64_t link, LinkConduit* conduit) {
  Post([this, link, conduit] {
    Link* target = Find(link);
    if (target == nullptr) {
      // Filed for a link that went meanwhile: it goes too.
      if (conduit != nullptr) m_listener->LinkGone(link);
      return;
    }
    if (conduit == nullptr) {
      if (target->dialled && target->socket != kDetached) {
        m_sockets[target->socket].link = 0;
        m_sockets[target->socket].retryAt = Clock::now() + kRefusedRetry;
      }
      m_links.erase(link);
      return;
    }
    target->conduit = conduit;
    if (target->dialled) {
      target->nextHello = Clock::now();
      return;
    }
    conduit->SetRemote(target->peer.conduit);
    SendTo(*target, HelloFrame(FrameType::kWelcome, *target));
    MarkUp(*target);
  });
}

// ---------------------------------------------------------------------------
// The loop.

void IoLoop::Run() {
  const auto tick = std::chrono::milliseconds(std::max<uint32_t>(5, m_settings.heartbeatMs / 5));
  std::vector<zmq_pollitem_t> items;
  while (m_running) {
    items.assign(1, zmq_pollitem_t{nullptr, m_wake, ZMQ_POLLIN, 0});
    for (const Socket& socket : m_sockets) items.push_back({socket.socket, 0, ZMQ_POLLIN, 0});
    if (zmq_poll(items.data(), static_cast<int>(items.size()), static_cast<long>(tick.count())) < 0 &&
        zmq_errno() != EINTR) {
      break;
    }
    if (items[0].revents & ZMQ_POLLIN) RunQueued();
    // Sockets added by the queued tasks were not polled this round.
    for (size_t i = 1; i < items.size(); ++i) {
      if (items[i].revents & ZMQ_POLLIN) Receive(i - 1);
    }
    Tick(Clock::now());
  }
  CloseAll();
}

void IoLoop::RunQueued() {
  uint64_t count = 0;
  (void)!read(m_wake, &count, sizeof count);
  std::deque<std::function<void()>> tasks;
  {
    std::lock_guard<std::mutex> hold(m_queueMutex);
    tasks.swap(m_queue);
  }
  for (auto& task : tasks) task();
}

void IoLoop::CloseAll() {
  // Whatever was queued meanwhile still gets its answer.
  RunQueued();
  for (auto& [id, link] : m_links) {
    if (link.up) SendTo(link, EncodeBye({ByeReason::kShutdown, "shutting down"}));
    if (link.conduit != nullptr) link.conduit->SetUp(false);
  }
  for (Socket& socket : m_sockets) zmq_close(socket.socket);
  m_sockets.clear();
  m_links.clear();
  std::lock_guard<std::mutex> hold(m_endpointMutex);
  m_endpoints.clear();
}

KT_STATUS IoLoop::AddSocket(const std::string& endpoint, bool listening, std::string* error) {
  void* socket = listening ? MakeListeningSocket(m_context, m_settings, error)
                           : MakeDiallingSocket(m_context, m_settings, error);
  if (socket == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  const int rc = listening ? zmq_bind(socket, endpoint.c_str()) : zmq_connect(socket, endpoint.c_str());
  if (rc != 0) {
    *error = std::string(listening ? "cannot listen on " : "cannot dial ") + endpoint + ": " +
             zmq_strerror(zmq_errno());
    zmq_close(socket);
    return KT_STATUS_INVALID_ARGUMENT;
  }
  m_sockets.push_back({socket, listening, endpoint, 0, Clock::now()});
  if (!listening) return KT_STATUS_SUCCESS;
  char resolved[1024] = {};
  size_t size = sizeof resolved - 1;
  zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, resolved, &size);
  std::lock_guard<std::mutex> hold(m_endpointMutex);
  m_endpoints.push_back(resolved);
  return KT_STATUS_SUCCESS;
}

void IoLoop::Receive(size_t socket) {
  void* zsocket = m_sockets[socket].socket;
  const bool listening = m_sockets[socket].listening;
  for (int i = 0; i < kReceiveBatch; ++i) {
    zmq_msg_t part;
    zmq_msg_init(&part);
    if (zmq_msg_recv(&part, zsocket, ZMQ_DONTWAIT) < 0) {
      zmq_msg_close(&part);
      return;
    }
    std::string routing;
    if (listening) {
      // The routing id the engine put in front, then the frame.
      routing.assign(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
      const bool more = zmq_msg_more(&part);
      zmq_msg_close(&part);
      zmq_msg_init(&part);
      if (!more || zmq_msg_recv(&part, zsocket, 0) < 0) {
        m_tally.Add(kFrameErrors);
        zmq_msg_close(&part);
        continue;
      }
    }
    // A frame is one part: anything after it is drained and the whole
    // message dropped.
    bool extra = false;
    while (zmq_msg_more(&part)) {
      extra = true;
      zmq_msg_t rest;
      zmq_msg_init(&rest);
      const int rc = zmq_msg_recv(&rest, zsocket, 0);
      const bool more = rc >= 0 && zmq_msg_more(&rest);
      zmq_msg_close(&rest);
      if (!more) break;
    }
    if (extra) {
      m_tally.Add(kFrameErrors);
    } else {
      OnFrame(socket, routing, static_cast<const unsigned char*>(zmq_msg_data(&part)),
              zmq_msg_size(&part));
    }
    zmq_msg_close(&part);
  }
}

// ---------------------------------------------------------------------------
// Frames.

void IoLoop::OnFrame(size_t socket, const std::string& routing, const unsigned char* data,
                     size_t size) {
  m_tally.Add(kReceivedFrames);
  m_tally.Add(kReceivedBytes, size);
  FrameHeader header;
  const unsigned char* body = nullptr;
  uint32_t bodySize = 0;
  if (!DecodeHeader(data, size, &header, &body, &bodySize)) {
    m_tally.Add(kFrameErrors);
    return;
  }
  const bool listening = m_sockets[socket].listening;
  if (header.version != kFrameVersion) {
    // Only a hello is answered: the peer learns why it gets no welcome.
    m_tally.Add(kFrameErrors);
    if (listening && header.type == FrameType::kHello) {
      m_listener->Log("refused a peer speaking frame version " + std::to_string(header.version) +
                      " (this side " + std::to_string(kFrameVersion) + ")");
      SendOn(socket, routing, EncodeBye({ByeReason::kVersion, "another frame version"}));
    }
    return;
  }
  Link* link = LinkAt(socket, routing);
  Hello hello;
  Bye bye;
  switch (header.type) {
    case FrameType::kHello:
      if (!listening || !DecodeHello(body, bodySize, &hello)) break;
      return OnHello(socket, routing, hello);
    case FrameType::kWelcome:
      if (listening || !DecodeHello(body, bodySize, &hello)) break;
      return OnWelcome(socket, hello);
    case FrameType::kBye:
      if (!DecodeBye(body, bodySize, &bye)) break;
      return OnBye(link, bye);
    case FrameType::kHeartbeat:
      if (bodySize != 0) break;
      if (link != nullptr && link->everUp) Heard(*link);
      return;
    case FrameType::kRequest:
      return OnRequest(link, socket, routing, header, body, bodySize);
    case FrameType::kReply:
      if (link != nullptr && link->everUp) Heard(*link);
      return OnReply(header, body, bodySize);
  }
  m_tally.Add(kFrameErrors);
}

bool IoLoop::Refused(const Hello& hello, const Link* self, ByeReason* reason) {
  const char* why = nullptr;
  if (hello.protocol != kLinkProtocol) {
    *reason = ByeReason::kVersion;
    why = "it speaks another link protocol version";
  } else if (hello.guid == m_guid) {
    *reason = ByeReason::kSameRegistry;
    why = "its registry GUID is this registry's";
  } else if (LinkOfGuid(hello.guid, self) != nullptr) {
    *reason = ByeReason::kAlreadyLinked;
    why = "it is linked already";
  } else {
    return false;
  }
  std::string line = "refused peer " + Describe(hello) + ": " + why;
  if (*reason == ByeReason::kVersion) {
    line += " (" + std::to_string(hello.protocol) + ", this side " + std::to_string(kLinkProtocol) + ")";
  }
  m_listener->Log(line);
  return true;
}

void IoLoop::OnHello(size_t socket, const std::string& routing, const Hello& hello) {
  Link* here = LinkAt(socket, routing);
  if (here != nullptr && here->conduit == nullptr) return;  // its conduit is being filed
  // The link this hello continues: the one on this connection to the same
  // peer, or an accepted link to it that went down (the peer reconnected).
  Link* known = here != nullptr && here->peer.guid == hello.guid ? here : nullptr;
  if (known == nullptr && here == nullptr) {
    Link* other = LinkOfGuid(hello.guid, nullptr);
    if (other != nullptr && !other->up && !other->dialled && other->conduit != nullptr) known = other;
  }
  ByeReason reason;
  if (Refused(hello, known, &reason)) {
    SendOn(socket, routing, EncodeBye({reason, "link refused"}));
    return;
  }
  if (known != nullptr) {
    known->routing = routing;
    known->socket = socket;
    known->peer = hello;
    known->conduit->SetRemote(hello.conduit);
    SendTo(*known, HelloFrame(FrameType::kWelcome, *known));
    if (!known->up) MarkUp(*known);
    return;
  }
  if (here != nullptr) return;  // another registry on a known connection: never happens
  Link link;
  link.id = ++m_nextLink;
  link.socket = socket;
  link.routing = routing;
  link.peer = hello;
  m_links.emplace(link.id, link);
  m_listener->WantConduit(link.id);
}

void IoLoop::OnWelcome(size_t socket, const Hello& hello) {
  Link* link = Find(m_sockets[socket].link);
  if (link == nullptr || link->conduit == nullptr) return;  // a welcome for an earlier hello
  if (link->peer.guid != 0 && link->peer.guid != hello.guid) {
    // The peer behind the endpoint was restarted: the old link lives out its
    // grace detached, and the socket starts a new one.
    m_listener->Log("peer " + Describe(link->peer) + " was replaced by " + Describe(hello));
    if (link->up) MarkDown(*link, "its process was replaced");
    link->socket = kDetached;
    m_sockets[socket].link = 0;
    m_sockets[socket].retryAt = Clock::now();
    return;
  }
  ByeReason reason;
  if (Refused(hello, link, &reason)) {
    link->refused = true;
    link->nextHello = Clock::now() + kRefusedRetry;
    return;
  }
  link->peer = hello;
  link->refused = false;
  link->conduit->SetRemote(hello.conduit);
  if (!link->up) MarkUp(*link);
}

void IoLoop::OnBye(Link* link, const Bye& bye) {
  if (link == nullptr) return;
  if (bye.reason != ByeReason::kNotLinked) {
    m_listener->Log("peer " + Who(*link) + " closed the link: " + bye.text + " (reason " +
                    std::to_string(static_cast<uint32_t>(bye.reason)) + ")");
  }
  if (link->up) MarkDown(*link, "it said bye");
  if (!link->dialled) return;
  const bool refusal = bye.reason == ByeReason::kVersion ||
                       bye.reason == ByeReason::kSameRegistry ||
                       bye.reason == ByeReason::kAlreadyLinked;
  link->refused = refusal;
  link->nextHello = Clock::now() + (refusal ? kRefusedRetry : std::chrono::milliseconds(0));
}

void IoLoop::OnRequest(Link* link, size_t socket, const std::string& routing,
                       const FrameHeader& header, const unsigned char* body, uint32_t size) {
  if (link == nullptr || !link->up) {
    // The peer believes in a link this side has dropped: it should say hello.
    if (m_sockets[socket].listening) SendOn(socket, routing, EncodeBye({ByeReason::kNotLinked, ""}));
    m_tally.Add(kFrameErrors);
    return;
  }
  Request request;
  if (!DecodeRequest(body, size, &request)) {
    m_tally.Add(kFrameErrors);
    return;
  }
  Heard(*link);
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(header.remainingMs);
  m_listener->Serve(link->id, header.correlation, deadline, request);
}

void IoLoop::OnReply(const FrameHeader& header, const unsigned char* body, uint32_t size) {
  Reply reply;
  if (!DecodeReply(body, size, &reply)) {
    m_tally.Add(kFrameErrors);
    return;
  }
  CallResult result;
  result.answered = true;
  result.status = reply.status;
  result.records.reserve(reply.records.size());
  for (const RecordView& record : reply.records) {
    result.records.emplace_back(reinterpret_cast<const char*>(record.data), record.size);
  }
  m_listener->Replied(header.correlation, std::move(result));
}

// ---------------------------------------------------------------------------
// Liveness.

void IoLoop::Tick(Clock::time_point now) {
  for (size_t i = 0; i < m_sockets.size(); ++i) {
    if (!m_sockets[i].listening && m_sockets[i].link == 0 && now >= m_sockets[i].retryAt) {
      NewDialledLink(i);
    }
  }
  const bool beat = now >= m_nextBeat;
  if (beat) m_nextBeat = now + std::chrono::milliseconds(m_settings.heartbeatMs);
  for (auto it = m_links.begin(); it != m_links.end();) {
    if (beat && it->second.up) SendTo(it->second, EncodeHeartbeat());
    it = TickLink(it->second, now) ? std::next(it) : m_links.erase(it);
  }
}

// False when the link is gone and must be erased.
bool IoLoop::TickLink(Link& link, Clock::time_point now) {
  const auto silence = std::chrono::milliseconds(3 * m_settings.heartbeatMs);
  if (link.up && now - link.lastHeard > silence) MarkDown(link, "it fell silent");
  if (!link.up && link.everUp &&
      now - link.downSince > std::chrono::milliseconds(m_settings.graceMs)) {
    m_listener->Log("peer " + Describe(link.peer) + " is gone");
    m_listener->LinkGone(link.id);
    if (link.dialled && link.socket != kDetached) {
      m_sockets[link.socket].link = 0;
      m_sockets[link.socket].retryAt = now;
    }
    return false;
  }
  if (link.dialled && link.socket != kDetached && !link.up && link.conduit != nullptr &&
      now >= link.nextHello) {
    SendTo(link, HelloFrame(FrameType::kHello, link));
    link.nextHello = now + (link.refused ? std::chrono::milliseconds(kRefusedRetry)
                                         : std::chrono::milliseconds(m_settings.heartbeatMs));
  }
  return true;
}

void IoLoop::NewDialledLink(size_t socket) {
  Link link;
  link.id = ++m_nextLink;
  link.dialled = true;
  link.socket = socket;
  m_sockets[socket].link = link.id;
  m_links.emplace(link.id, link);
  m_listener->WantConduit(link.id);
}

void IoLoop::Heard(Link& link) {
  link.lastHeard = Clock::now();
  // An accepted link that went down on this side while its peer kept talking
  // comes back.
  if (!link.up && !link.dialled && link.conduit != nullptr) MarkUp(link);
}

void IoLoop::MarkUp(Link& link) {
  link.up = true;
  link.everUp = true;
  link.lastHeard = Clock::now();
  link.conduit->SetUp(true);
  m_listener->LinkUp(link.id, link.conduit, link.peer, link.dialled);
}

void IoLoop::MarkDown(Link& link, const char* why) {
  link.up = false;
  link.downSince = Clock::now();
  link.conduit->SetUp(false);
  m_tally.Add(kLinksDown);
  m_listener->Log("link to peer " + Who(link) + " is down: " + why);
  m_listener->LinkDown(link.id);
}

std::string IoLoop::Who(const Link& link) const {
  if (link.peer.guid != 0 || link.socket == kDetached) return Describe(link.peer);
  return "at " + m_sockets[link.socket].endpoint;
}

IoLoop::Link* IoLoop::Find(uint64_t id) {
  auto it = m_links.find(id);
  return it != m_links.end() ? &it->second : nullptr;
}

IoLoop::Link* IoLoop::LinkAt(size_t socket, const std::string& routing) {
  if (!m_sockets[socket].listening) return Find(m_sockets[socket].link);
  for (auto& [id, link] : m_links) {
    if (link.socket == socket && link.routing == routing) return &link;
  }
  return nullptr;
}

// A link to `guid` that is up or coming up, other than `except`.
IoLoop::Link* IoLoop::LinkOfGuid(uint32_t guid, const Link* except) {
  for (auto& [id, link] : m_links) {
    if (&link == except || link.peer.guid != guid) continue;
    if (link.up || link.conduit == nullptr || link.everUp) return &link;
  }
  return nullptr;
}

bool IoLoop::SendOn(size_t socket, const std::string& routing, const std::string& frame) {
  void* zsocket = m_sockets[socket].socket;
  if (m_sockets[socket].listening &&
      zmq_send(zsocket, routing.data(), routing.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) < 0) {
    return false;
  }
  if (zmq_send(zsocket, frame.data(), frame.size(), ZMQ_DONTWAIT) < 0) return false;
  m_tally.Add(kSentFrames);
  m_tally.Add(kSentBytes, frame.size());
  return true;
}

bool IoLoop::SendTo(const Link& link, const std::string& frame) {
  if (link.socket == kDetached || frame.empty()) return false;
  return SendOn(link.socket, link.routing, frame);
}

std::string IoLoop::HelloFrame(FrameType type, const Link& link) const {
  return EncodeHello(type, {m_guid, kLinkProtocol, link.conduit->GetHandle(), m_name});
}

}  // namespace kt_net
