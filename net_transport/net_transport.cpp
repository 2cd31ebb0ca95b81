#include "net_transport/net_transport.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "kt/extension_manager.h"
#include "kt/peer_mount.h"
#include "net_transport/record_buffer.h"

namespace kt_net {

using namespace MetricsFramework;

namespace {

// The module's settings and the transport that runs, if any.
std::mutex g_mutex;
NetSettings g_settings;
NetTransport* g_running = nullptr;

// How often the figures are committed and retired conduits looked at.
constexpr std::chrono::milliseconds kRoundPeriod{1000};

// A request being served on this thread must be answered by this time: calls
// it makes over other links inherit it.
thread_local const Clock::time_point* t_servingDeadline = nullptr;

void SayTo(IExtensionManager* manager, const std::string& line) {
  // Through the host's loggers when it has any; standard error otherwise.
  if (manager != nullptr && manager->Log(1, nullptr, "net transport: %s", line.c_str()) == 0) return;
  std::fprintf(stderr, "net transport: %s\n", line.c_str());
}

std::string StatusText(KT_STATUS status) {
  const char* name = StatusName(status);
  return name != nullptr ? name : std::to_string(status);
}

}  // namespace

// ---------------------------------------------------------------------------
// The module's settings.

KT_STATUS NetTransport::Configure(const char* key, const char* value) {
  std::lock_guard<std::mutex> hold(g_mutex);
  NetSettings next = g_settings;
  std::string error;
  KT_STATUS status = ApplySetting(next, key, value, &error);
  const bool endpoint = status == KT_STATUS_SUCCESS && g_running != nullptr && value[0] != '\0' &&
                        (std::strcmp(key, "listen") == 0 || std::strcmp(key, "connect") == 0);
  if (endpoint) status = g_running->AddEndpoint(key[0] == 'l', value, &error);
  if (status != KT_STATUS_SUCCESS) {
    SayTo(g_running != nullptr ? g_running->GetExtensionManager() : nullptr,
          StatusText(status) + ": " + error);
    return status;
  }
  g_settings = next;
  return KT_STATUS_SUCCESS;
}

KT_STATUS NetTransport::GetEndpoint(unsigned int index, char* out, unsigned int size) {
  std::lock_guard<std::mutex> hold(g_mutex);
  if (out == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  const std::vector<std::string> endpoints =
      g_running != nullptr ? g_running->m_io->Endpoints() : std::vector<std::string>{};
  if (index >= endpoints.size()) return KT_STATUS_DOES_NOT_EXIST;
  const std::string& endpoint = endpoints[index];
  if (size <= endpoint.size()) return KT_STATUS_INVALID_SIZE;
  std::memcpy(out, endpoint.c_str(), endpoint.size() + 1);
  return KT_STATUS_SUCCESS;
}

KT_STATUS NetTransport::GetCounter(const char* name, unsigned long* out) {
  std::lock_guard<std::mutex> hold(g_mutex);
  if (name == nullptr || out == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  if (g_running == nullptr) return KT_STATUS_DOES_NOT_EXIST;
  if (std::strcmp(name, "frames") == 0) {
    *out = g_running->m_tally.Get(kReceivedFrames);
  } else if (std::strcmp(name, "frame-errors") == 0) {
    *out = g_running->m_tally.Get(kFrameErrors);
  } else {
    return KT_STATUS_INVALID_ARGUMENT;
  }
  return KT_STATUS_SUCCESS;
}

KT_STATUS NetTransport::AddEndpoint(bool listening, const std::string& endpoint,
                                    std::string* error) {
  return listening ? m_io->Listen(endpoint, error) : m_io->Connect(endpoint, error);
}

// ---------------------------------------------------------------------------
// Life.

NetTransport::~NetTransport() {
  Shutdown();
  // Clients that found a conduit may still be inside it; they leave quickly,
  // since every call fails once the transport is stopping.
  std::unique_lock<std::mutex> hold(m_inFlightMutex);
  m_inFlightDone.wait(hold, [this] { return m_inFlight == 0; });
}

void NetTransport::OnLoad() {
  Start();
  if (!m_started) return;
  std::string refused;
  m_figures.Publish(this, &refused);
  if (!refused.empty()) Say("cannot publish the figures " + refused);
  m_control->Every(kRoundPeriod, [this] { Round(); });
}

void NetTransport::OnUnload() { Shutdown(); }

void NetTransport::Say(const std::string& line) { SayTo(GetExtensionManager(), line); }

void NetTransport::Start() {
  std::lock_guard<std::mutex> hold(g_mutex);
  if (m_started) return;
  if (g_running != nullptr) {
    Say("another transport runs in this process already: this one stays idle");
    return;
  }
  m_settings = g_settings;
  const auto guid = static_cast<uint32_t>(GetHandle() >> 32);
  m_control = std::make_unique<WorkerPool>(1, ~size_t{0});
  m_serve = std::make_unique<WorkerPool>(4, 1024);
  m_io = std::make_unique<IoLoop>(m_settings, guid, static_cast<ILinkListener*>(this), m_tally);
  std::string error;
  if (!m_io->Start(&error)) {
    Say(error);
    return;
  }
  m_started = true;
  g_running = this;
  for (bool listening : {true, false}) {
    for (const std::string& endpoint : listening ? m_settings.listen : m_settings.connect) {
      if (AddEndpoint(listening, endpoint, &error) != KT_STATUS_SUCCESS) Say(error);
    }
  }
}

void NetTransport::Shutdown() {
  {
    std::lock_guard<std::mutex> hold(g_mutex);
    if (!m_started) return;
    m_started = false;
    g_running = nullptr;
  }
  // Set before the calls are failed: a call that opens after FailAll sees it.
  m_stopping = true;
  m_calls.FailAll();
  m_io->Stop();
  m_serve->Stop();
  m_control->Stop();
  // The threads are joined: the filed conduits are this thread's now.
  for (const auto& [link, filed] : m_filed) Retire(filed);
  m_filed.clear();
  m_figures.Unpublish(this);
}

// ---------------------------------------------------------------------------
// Registry work, on the control thread.

void NetTransport::FileConduit(uint64_t link) {
  auto made = std::make_unique<LinkConduit>(static_cast<ILinkCaller*>(this), link, "NetLink-" + std::to_string(link));
  LinkConduit* conduit = made.get();
  {
    std::lock_guard<std::mutex> hold(m_conduitMutex);
    m_conduits.push_back({std::move(made), 0});
  }
  const KT_STATUS status = GetExtensionManager()->Add(
      ExtensionBinaryDesc{}, conduit->Name().c_str(), static_cast<IConduit*>(conduit), GetLoader());
  if (status != KT_STATUS_SUCCESS) {
    Say("cannot file the conduit " + conduit->Name() + ": " + StatusText(status));
    GetExtensionManager()->Remove(ExtensionBinaryDesc{}, conduit->Name().c_str(),
                                  static_cast<IConduit*>(conduit), GetLoader());
    MarkRetired(conduit);
    m_io->ConduitReady(link, nullptr);
    return;
  }
  m_filed[link] = {conduit, 0};
  m_io->ConduitReady(link, conduit);
}

void NetTransport::Mount(uint64_t link, const Hello& peer) {
  auto it = m_filed.find(link);
  if (it == m_filed.end() || it->second.mount != 0) return;
  unsigned long mount = 0;
  const KT_STATUS status = KTMountPeer(GetClientManager(), peer.guid, peer.name.c_str(),
                                       it->second.conduit->GetHandle(), peer.conduit, &mount);
  if (status != KT_STATUS_SUCCESS) {
    Say("cannot mount peer \"" + peer.name + "\": " + StatusText(status));
    return;
  }
  it->second.mount = mount;
  Say("mounted peer \"" + peer.name + "\" under peers");
}

void NetTransport::Retire(const Filed& filed) {
  if (filed.mount != 0) {
    const KT_STATUS status = KTUnmountPeer(GetClientManager(), filed.mount);
    if (status != KT_STATUS_SUCCESS) Say("cannot unmount a peer: " + StatusText(status));
  }
  GetExtensionManager()->Remove(ExtensionBinaryDesc{}, filed.conduit->Name().c_str(),
                                static_cast<IConduit*>(filed.conduit), GetLoader());
  MarkRetired(filed.conduit);
}

void NetTransport::MarkRetired(const LinkConduit* conduit) {
  std::lock_guard<std::mutex> hold(m_conduitMutex);
  for (Made& made : m_conduits) {
    if (made.conduit.get() == conduit) made.retiredIn = m_round;
  }
}

// ---------------------------------------------------------------------------
// Once a period, on the control thread.

void NetTransport::Round() {
  ++m_round;
  size_t up = 0;
  size_t alive = 0;
  {
    std::lock_guard<std::mutex> hold(m_conduitMutex);
    // Two rounds on, a whole period has passed since the conduit left the
    // registry: no client can be on its way into it any more.
    const auto freed = [this](const Made& made) {
      return made.retiredIn != 0 && m_round - made.retiredIn >= 2 &&
             made.conduit->CallsInside() == 0;
    };
    m_conduits.erase(std::remove_if(m_conduits.begin(), m_conduits.end(), freed),
                     m_conduits.end());
    for (const Made& made : m_conduits) up += made.conduit->IsUp();
    alive = m_conduits.size();
  }
  CommitFigures(up, alive);
}

void NetTransport::CommitFigures(size_t linksUp, size_t conduitsAlive) {
  double values[kFigureCount];
  for (unsigned figure = 0; figure < kFigureCount; ++figure) {
    values[figure] = static_cast<double>(m_tally.Get(static_cast<Figure>(figure)));
  }
  const uint64_t answered = m_tally.Get(kAnsweredCalls);
  const uint64_t roundTrip = m_tally.Get(kRoundTripMicroseconds);
  // Without calls answered in this period the figure keeps the last mean.
  if (answered > m_answeredBefore) {
    m_roundTripMs = static_cast<double>(roundTrip - m_roundTripBefore) /
                    static_cast<double>(answered - m_answeredBefore) / 1000.0;
  }
  m_answeredBefore = answered;
  m_roundTripBefore = roundTrip;
  values[kLinksUp] = static_cast<double>(linksUp);
  values[kRoundTrip] = m_roundTripMs;
  values[kConduitsAlive] = static_cast<double>(conduitsAlive);
  m_figures.Commit(values);
}

// ---------------------------------------------------------------------------
// What the I/O thread reports.

void NetTransport::WantConduit(uint64_t link) {
  m_control->Submit([this, link] { FileConduit(link); });
}

void NetTransport::LinkUp(uint64_t link, LinkConduit*, const Hello& peer, bool dialled) {
  Say(std::string("linked to peer \"") + peer.name + "\" (" + (dialled ? "dialled" : "accepted") + ")");
  if (m_settings.Mounts(dialled)) m_control->Submit([this, link, peer] { Mount(link, peer); });
}

void NetTransport::LinkDown(uint64_t link) { m_calls.FailLink(link); }

void NetTransport::LinkGone(uint64_t link) {
  m_control->Submit([this, link] {
    auto it = m_filed.find(link);
    if (it == m_filed.end()) return;
    Retire(it->second);
    m_filed.erase(it);
  });
}

void NetTransport::Replied(uint64_t correlation, CallResult result) {
  if (!m_calls.Complete(correlation, std::move(result))) m_tally.Add(kLateReplies);
}

void NetTransport::Serve(uint64_t link, uint64_t correlation, Clock::time_point deadline,
                         const Request& request) {
  uint32_t op = 0;
  if (request.size >= sizeof op) std::memcpy(&op, request.record, sizeof op);
  // Only the command method is served, and only the ops of the policy.
  if (request.method != kCommandMethodHandle || op == 0 || op > m_settings.LastServedOp()) {
    m_tally.Add(kRefusedRequests);
    m_io->SendReply(link, EncodeReply(correlation, Reply{KT_STATUS_INVALID_OPERATION, {}}));
    return;
  }
  std::string record(reinterpret_cast<const char*>(request.record), request.size);
  const bool queued = m_serve->Submit([this, link, correlation, deadline, record]() mutable {
    ServeOne(link, correlation, deadline, std::move(record));
  });
  if (!queued) {
    m_io->SendReply(link, EncodeReply(correlation, Reply{KT_STATUS_OUT_OF_RESOURCES, {}}));
  }
}

void NetTransport::ServeOne(uint64_t link, uint64_t correlation, Clock::time_point deadline,
                            std::string record) {
  // Its caller has given up already.
  if (Clock::now() >= deadline) {
    ++m_expired;
    return;
  }
  RecordBuffer request(std::move(record));
  RecordBuffer reply;
  t_servingDeadline = &deadline;
  KT_STATUS status = KT_STATUS_INVALID_OPERATION;
  try {
    status = GetExtensionManager()->DispatchRemoteMethod(kCommandMethodHandle, &request, &reply);
  } catch (...) {
    Say("serving a request threw: answered KT_STATUS_INVALID_OPERATION");
  }
  t_servingDeadline = nullptr;
  Reply out{status, {}};
  for (const std::string& record : reply.Records()) {
    out.records.push_back({reinterpret_cast<const unsigned char*>(record.data()),
                           static_cast<uint32_t>(record.size())});
  }
  std::string frame = EncodeReply(correlation, out);
  if (frame.empty()) frame = EncodeReply(correlation, Reply{KT_STATUS_OUT_OF_RESOURCES, {}});
  m_io->SendReply(link, std::move(frame));
}

// ---------------------------------------------------------------------------
// Calls, on the clients' threads.

KT_STATUS NetTransport::Call(LinkConduit& conduit, unsigned long method, const IReadBuffer* request,
                             IWriteBuffer* reply) {
  {
    std::lock_guard<std::mutex> hold(m_inFlightMutex);
    ++m_inFlight;
  }
  struct Leave {
    NetTransport* self;
    ~Leave() {
      std::lock_guard<std::mutex> hold(self->m_inFlightMutex);
      if (--self->m_inFlight == 0) self->m_inFlightDone.notify_all();
    }
  } leave{this};

  if (request == nullptr || reply == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  m_tally.Add(kCalls);
  const auto unanswered = [this] {
    m_tally.Add(kCallsFailed);
    return KT_STATUS_NOT_AVAILABLE;
  };
  if (m_stopping || !conduit.IsUp()) return unanswered();
  const void* data = nullptr;
  unsigned long size = 0;
  request->GetData(&data, &size);
  if (data == nullptr) size = 0;
  if (size > kMaxFrameSize) return KT_STATUS_INVALID_SIZE;
  const Clock::time_point now = Clock::now();
  Clock::time_point deadline = now + std::chrono::milliseconds(m_settings.deadlineMs);
  if (t_servingDeadline != nullptr && *t_servingDeadline < deadline) deadline = *t_servingDeadline;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
  if (left <= 0) return unanswered();

  const uint64_t id = m_calls.Open(conduit.Link());
  std::string frame = EncodeRequest(
      id, static_cast<uint32_t>(left),
      {method, static_cast<const unsigned char*>(data), static_cast<uint32_t>(size)});
  if (frame.empty() || m_stopping) {
    m_calls.Wait(id, now);
    return frame.empty() ? KT_STATUS_INVALID_SIZE : unanswered();
  }
  m_io->Send(conduit.Link(), id, std::move(frame));
  const CallResult result = m_calls.Wait(id, deadline);
  if (!result.answered) return unanswered();
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - now);
  m_tally.Add(kAnsweredCalls);
  m_tally.Add(kRoundTripMicroseconds, static_cast<uint64_t>(took.count()));
  for (const std::string& record : result.records) CommitRecord(reply, record.data(), record.size());
  return result.status;
}

}  // namespace kt_net
