// Links between this test process and peers it starts (this program run with
// --peer, see main), over loopback and ipc: every wait bounded, every child
// killed by the test that started it.
#include <signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host_loader.h"
#include "kt/net_transport.h"
#include "kt/value_convention.h"
#include "net_host/net_kit.h"
#include "support/fakes.h"

namespace net_test {
namespace {

using namespace MetricsFramework;
using kt_net_test::ServedHost;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

unsigned long PathHandle(IClientManager* client, const std::string& path) {
  unsigned long handle = 0;
  return client->GetPath(0, path.c_str(), &handle) == KT_STATUS_SUCCESS ? handle : 0;
}

// Calls `method` with `argument`; its first reply record goes to *reply.
KT_STATUS CallMethod(IClientManager* client, unsigned long method, const std::string& argument,
                     std::string* reply = nullptr) {
  testing_fakes::HostBuffer args(argument), returns;
  const KT_STATUS status = client->CallRemoteMethodSync(method, &args, &returns);
  if (reply != nullptr) *reply = returns.Records().empty() ? "" : returns.Records().front();
  return status;
}

// Ops 1-5 and 9 on a test host's nodes below `prefix` ("", or "peers/<name>").
std::string Answers(IClientManager* client, const std::string& prefix) {
  const std::string below = prefix.empty() ? "" : prefix + "/";
  auto List = [](const auto& values) {
    std::ostringstream out;
    for (auto value : values) out << value << ',';
    return out.str();
  };
  std::ostringstream out;
  const unsigned long root = PathHandle(client, prefix);
  const unsigned long publisher = PathHandle(client, below + "publishers/PeerPublisher");
  unsigned long handle = 0;
  out << std::hex << "op1 " << root << ' ' << publisher << ' '
      << client->GetPath(0, (below + "publishers/nothing").c_str(), &handle) << '\n';
  for (unsigned long parent : {root, publisher}) {
    unsigned int count = 0;
    out << "op2 " << client->GetChildCount(parent, &count) << ' ' << count;
    std::vector<unsigned long> children(count);
    out << " op3 " << client->GetChildren(parent, children.data(), count) << ' ' << List(children) << '\n';
  }
  for (const char* metric : {"cpu_percent", "mem_used"}) {
    ResourceInfo info{};
    Metric::Description d;
    out << "op1 " << client->GetPath(publisher, metric, &handle) << ' ' << handle << " op4 "
        << client->GetResourceInfo(handle, &info) << " '" << info.name << "' " << info.data << ' '
        << info.kind << ' ' << info.parent << ' ' << info.target << " op5 "
        << client->GetMetricDescriptor(handle, &d) << ' ' << d.id << ' ' << d.flags << " ["
        << List(d.list1) << "] " << d.word1 << " [" << List(d.setIds) << "] " << d.word2 << ' '
        << int{d.byte1} << " '" << d.uri << "' '" << d.text1 << "' '" << d.text2 << "' '" << d.text3
        << "' '" << d.text4 << "' '" << d.text5 << "' " << d.word3 << " '" << d.text6 << "' "
        << int{d.byte2} << ' ' << d.block[0] << ':' << d.block[1] << ' ' << int{d.byte3} << ' '
        << d.word4 << ' ' << d.word5 << '\n';
  }
  std::string reply;
  const unsigned long echo = PathHandle(client, below + "methods/echo");
  out << "op9 " << echo << ' ' << CallMethod(client, echo, "hi", &reply) << " '" << reply << "'\n";
  return out.str();
}

// A method that answers its argument record with at most one reply record.
class Method : public IRemoteMethod {
 public:
  using Body = bool (*)(IClientManager* client, const std::string& argument, std::string* reply);
  explicit Method(Body body) : m_body(body) {}
  bool Run(const IReadBuffer* args, IWriteBuffer* returns) override {
    const void* data = nullptr;
    unsigned long size = 0;
    args->GetData(&data, &size);
    std::string reply;
    const std::string argument(static_cast<const char*>(data), data != nullptr ? size : 0);
    const bool ran = m_body(GetClientManager(), argument, &reply);
    void* block = ran && !reply.empty() ? returns->Reserve(reply.size()) : nullptr;
    if (block != nullptr) returns->Commit(std::memcpy(block, reply.data(), reply.size()));
    return ran;
  }
  void GetRemoteMethodDesc(RemoteMethodDesc&) override {}

 private:
  Body m_body;
};

// What every test host files: a publisher and four methods. "relay" calls the
// method its argument's first u64 names with the rest as argument.
struct TestExtensions {
  testing_fakes::CountingPublisher publisher;
  testing_fakes::RecordingMethod echo{"echo", "echo:"};
  Method block{[](IClientManager*, const std::string& milliseconds, std::string*) {
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stol(milliseconds)));
    return true;
  }};
  Method relay{[](IClientManager* client, const std::string& argument, std::string* reply) {
    unsigned long next = 0;
    std::memcpy(&next, argument.data(), std::min<size_t>(8, argument.size()));
    return CallMethod(client, next, argument.substr(std::min<size_t>(8, argument.size())), reply) == 0;
  }};
  Method answers{[](IClientManager* client, const std::string& prefix, std::string* reply) {
    *reply = Answers(client, prefix);
    return true;
  }};
};

// A test host: the library, `extensions`, two metrics and the transport module,
// which AddOpenedModules starts. The first call files the client manager's conduit.
bool OpenHost(kt_host::HostLoader& host, TestExtensions& extensions) {
  const std::pair<const char*, IKTExtensionBase*> filed[] = {
      {"PeerPublisher", &extensions.publisher}, {"echo", &extensions.echo},
      {"block", &extensions.block}, {"relay", &extensions.relay}, {"answers", &extensions.answers}};
  if (!host.OpenLibrary(KT_LIBRARY_PATH)) return false;
  for (const auto& [name, extension] : filed) {
    if (host.AddExtension(name, extension, nullptr) != KT_STATUS_SUCCESS) return false;
  }
  Metric::Description cpu = testing_fakes::Describe("cpu_percent", 101, 1);
  cpu.id = 17;
  cpu.list1 = {3, 1, 4};
  cpu.block[1] = 6;
  cpu.text1 = "share of CPU time spent busy";
  unsigned long handle = 0;
  host.Manager()->PublishMetric(&extensions.publisher, cpu, &handle);
  host.Manager()->PublishMetric(&extensions.publisher, testing_fakes::Describe("mem_used", 102), &handle);
  CallMethod(host.Client(), PathHandle(host.Client(), "methods/echo"), "");
  return host.OpenModule(KT_NET_MODULE_PATH);
}

// Sets a key of the transport module, whose settings outlive a transport.
KT_STATUS Configure(kt_host::HostLoader& host, const char* key, const std::string& value) {
  return reinterpret_cast<KTNetTransportConfigureFn>(
      host.FindSymbol(KT_NET_MODULE_PATH, "KTNetTransportConfigure"))(key, value.c_str());
}

// The running transport's first listening endpoint, "" when none.
std::string Endpoint(kt_host::HostLoader& host) {
  char out[1024] = {};
  return reinterpret_cast<KTNetTransportGetEndpointFn>(host.FindSymbol(
             KT_NET_MODULE_PATH, "KTNetTransportGetEndpoint"))(0, out, sizeof out) == 0 ? out : "";
}

// Removes the transport, if filed, before the methods its threads serve go.
void StopTransport(kt_host::HostLoader& host) {
  if (IExtension* transport = host.FindExtension("NetTransport")) {
    host.RemoveExtension(static_cast<IKTExtensionBase*>(transport->CastTo("IKTExtensionBase")));
  }
}

// Waits, for at most five seconds, until `done` holds.
template <typename Done>
bool Eventually(Done done) {
  const auto end = Clock::now() + std::chrono::seconds(5);
  while (!done() && Clock::now() < end) std::this_thread::sleep_for(milliseconds(10));
  return done();
}

long MsSince(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<milliseconds>(Clock::now() - start).count());
}

// Keeps the last sample of each metric; samples come on the transport's threads.
class LastSamples : public IConsumer {
 public:
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long*,
                       const void** data, unsigned long* sizes) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    for (unsigned int i = 0; i < count; ++i) {
      m_last[handles[i]].assign(static_cast<const char*>(data[i]), sizes != nullptr ? sizes[i] : 8);
    }
  }
  std::string Last(unsigned long handle) {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_last[handle];
  }

 private:
  std::mutex m_mutex;
  std::map<unsigned long, std::string> m_last;
};

class LinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(OpenHost(host, extensions)) << host.Error();
    // The module's settings outlive a test: every one is set here.
    Set({{"listen", ""}, {"connect", ""}, {"serve", "full"}, {"mount", "dialled"},
         {"name", "local"}, {"heartbeat-ms", "100"}, {"grace-ms", "3600000"},
         {"deadline-ms", "2000"}, {"grace-ms", "5000"}});
  }
  void TearDown() override { StopTransport(host); }
  void Set(const std::vector<std::pair<const char*, std::string>>& settings) {
    for (const auto& [key, value] : settings) ASSERT_EQ(Configure(host, key, value), 0) << key;
  }
  // A peer named `name` serving `policy` that listens on, or dials, `endpoint`.
  std::unique_ptr<ServedHost> Peer(const char* name, const char* policy,
                                   const std::string& endpoint = "tcp://127.0.0.1:*", bool dial = false) {
    auto peer = std::make_unique<ServedHost>();
    EXPECT_TRUE(peer->Start("/proc/self/exe", {"--peer", dial ? "--connect" : "--listen", endpoint, "--name",
                                               name, "--serve", policy, "--heartbeat-ms", "100"}))
        << peer->Output();
    return peer;
  }
  // Starts the transport dialling `peer`, and waits for its mount "remote".
  bool Dial(const ServedHost& peer) {
    return Configure(host, "connect", peer.Endpoint()) == 0 && host.AddOpenedModules() &&
           Eventually([&] { return Remote("") != 0; });
  }
  unsigned long Remote(const std::string& path, const std::string& peer = "remote") {
    return PathHandle(host.Client(), "peers/" + peer + (path.empty() ? "" : "/" + path));
  }
  unsigned int Mounts() {
    unsigned int count = 0;
    host.Client()->GetChildCount(PathHandle(host.Client(), "peers"), &count);
    return count;
  }
  KT_STATUS Call(unsigned long method, const std::string& argument, std::string* reply = nullptr) {
    return CallMethod(host.Client(), method, argument, reply);
  }

  TestExtensions extensions;  // outlives the loader
  LastSamples figures;        // as do the transport's figures
  kt_host::HostLoader host;
};

TEST_F(LinkTest, PeersAnswerAsInTheirOwnProcessWithinTheirPolicyAndLinkOnce) {
  const std::pair<const char*, std::unique_ptr<ServedHost>> peers[] = {
      {"full", Peer("full", "full")}, {"browse", Peer("browse", "browse")}, {"none", Peer("none", "none")}};
  for (const auto& [name, peer] : peers) Set({{"connect", peer->Endpoint()}});
  Set({{"listen", "tcp://127.0.0.1:*"}});
  ASSERT_TRUE(host.AddOpenedModules());
  ASSERT_TRUE(Eventually([&] { return Mounts() == 3; }));
  for (const auto& [name, peer] : peers) EXPECT_EQ(Remote("", name) >> 32, peer->Guid()) << name;
  std::string here, there;
  EXPECT_EQ(Call(PathHandle(host.Client(), "methods/answers"), "peers/full", &here), 0);
  EXPECT_EQ(Call(Remote("methods/answers", "full"), "", &there), 0);
  EXPECT_EQ(here, there);
  unsigned int count = 0;
  const unsigned long noneRoot = static_cast<unsigned long>(peers[2].second->Guid()) << 32;
  const std::pair<const char*, std::pair<KT_STATUS, KT_STATUS>> rows[] = {
      {"browse op 9", {Call(Remote("methods/echo", "browse"), "x"), KT_STATUS_INVALID_OPERATION}},
      {"browse op 2", {host.Client()->GetChildCount(Remote("", "browse"), &count), 0}},
      {"none op 2", {host.Client()->GetChildCount(noneRoot, &count), KT_STATUS_INVALID_OPERATION}},
  };
  for (const auto& [call, statuses] : rows) EXPECT_EQ(statuses.first, statuses.second) << call;
  // Eight clients browse one link at once; each call is answered, and rightly.
  const char* names[2] = {"cpu_percent", "mem_used"};
  const unsigned long publisher = Remote("publishers/PeerPublisher", "browse");
  const unsigned long metrics[2] = {Remote("publishers/PeerPublisher/cpu_percent", "browse"),
                                    Remote("publishers/PeerPublisher/mem_used", "browse")};
  std::atomic<int> right{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 8; ++t) {
    clients.emplace_back([&, t] {
      for (int i = t; i < t + 40; ++i) {
        unsigned long handle = 0;
        ResourceInfo info{};
        right += host.Client()->GetPath(publisher, names[i % 2], &handle) == 0 && handle == metrics[i % 2] &&
                 host.Client()->GetResourceInfo(handle, &info) == 0 && info.name == names[i % 2];
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(right.load(), 8 * 40);

  // A second link to a peer and one to this process are refused, unfiled there.
  Set({{"connect", peers[0].second->Endpoint()}, {"connect", Endpoint(host)}});
  std::this_thread::sleep_for(milliseconds(500));  // hellos said and refused
  EXPECT_EQ(Mounts(), 3u);
  EXPECT_NE(Remote("conduits/NetLink-1", "full"), 0u);
  EXPECT_EQ(Remote("conduits/NetLink-2", "full"), 0u);
  EXPECT_NE(PathHandle(host.Client(), "conduits/NetLink-5"), 0u) << "five dialled links";
  EXPECT_EQ(PathHandle(host.Client(), "conduits/NetLink-6"), 0u) << "none accepted";
  EXPECT_EQ(peers[0].second->Stop(), 0) << "a peer stops cleanly:\n" << peers[0].second->Output();
}

TEST_F(LinkTest, AMethodThatBlocksFailsAtTheDeadlineAndItsLateReplyIsDropped) {
  Set({{"deadline-ms", "200"}});
  auto peer = Peer("remote", "full");
  ASSERT_TRUE(Dial(*peer));
  const auto start = Clock::now();
  EXPECT_EQ(Call(Remote("methods/block"), "300"), KT_STATUS_NOT_AVAILABLE);
  EXPECT_GE(MsSince(start), 190);
  EXPECT_LT(MsSince(start), 1500);
  // The block's reply, at 300 ms, is never taken for a later call's answer.
  int wrong = 0, calls = 0;
  for (const auto end = Clock::now() + milliseconds(300); Clock::now() < end; ++calls) {
    std::string reply;
    wrong += Call(Remote("methods/echo"), std::to_string(calls), &reply) != 0 ||
             reply != "echo:" + std::to_string(calls);
  }
  EXPECT_EQ(wrong, 0) << "of " << calls;
}

TEST_F(LinkTest, AKilledPeerFailsItsCallAndLosesItsMountARestartIsMountedAnew) {
  kt_net_test::TempDir dir;
  const std::string endpoint = "ipc://" + dir.Path() + "/peer";
  Set({{"grace-ms", "2500"}});
  auto peer = Peer("remote", "full", endpoint);
  ASSERT_TRUE(Dial(*peer));
  const auto start = Clock::now();
  auto call = std::async(std::launch::async, [&] { return Call(Remote("methods/block"), "10000"); });
  std::this_thread::sleep_for(milliseconds(100));  // the call is on its way
  peer->Kill();
  EXPECT_EQ(call.get(), KT_STATUS_NOT_AVAILABLE);
  // Three silent heartbeats (300 ms) take the link down, long before the
  // call's deadline (2 s); after the grace (2.5 s) its mount and conduit go.
  EXPECT_LT(MsSince(start), 1200);
  EXPECT_TRUE(Eventually([&] { return Mounts() == 0; }));

  auto restarted = Peer("remote", "full", endpoint);
  ASSERT_TRUE(Eventually([&] { return Remote("") >> 32 == restarted->Guid(); }));
  // The old conduit went right after the old mount, on the thread that has
  // since mounted the restarted peer; looked up while it goes, its node could
  // be freed under the lookup.
  EXPECT_EQ(PathHandle(host.Client(), "conduits/NetLink-1"), 0u);
}

TEST_F(LinkTest, MutualMountsABouncingCallAndRemovalEndWithinTheDeadline) {
  Set({{"listen", "tcp://127.0.0.1:*"}, {"mount", "all"}, {"deadline-ms", "1000"}});
  ASSERT_TRUE(host.AddOpenedModules());
  auto peer = Peer("remote", "full", Endpoint(host), true);
  ASSERT_TRUE(Eventually([&] { return Remote("") != 0; }));
  const unsigned long here = PathHandle(host.Client(), "methods/relay"), there = Remote("methods/relay");
  // The relays' argument: `hops` - 1 relays, there and here by turns, then `last`.
  auto chain = [&](int hops, unsigned long last) {
    std::string handles;
    for (int i = 1; i < hops; ++i) handles.append(reinterpret_cast<const char*>(i % 2 ? &here : &there), 8);
    return handles.append(reinterpret_cast<const char*>(&last), 8);
  };
  std::string reply;
  EXPECT_EQ(Call(there, chain(3, Remote("methods/echo")), &reply), 0);
  EXPECT_EQ(reply, "echo:");
  // Far more hops than either side has workers: it fails, in time.
  const auto start = Clock::now();
  EXPECT_NE(Call(there, chain(60, there)), 0);
  EXPECT_LT(MsSince(start), 1500);
  // Removing the transport fails a call in flight at once and leaves nothing filed.
  auto blocked = std::async(std::launch::async, [&] { return Call(Remote("methods/block"), "10000"); });
  std::this_thread::sleep_for(milliseconds(100));
  const auto removed = Clock::now();
  StopTransport(host);
  EXPECT_EQ(blocked.get(), KT_STATUS_NOT_AVAILABLE);
  EXPECT_LT(MsSince(removed), 500) << "long before the deadline";
  EXPECT_EQ(Mounts(), 0u);
  EXPECT_EQ(PathHandle(host.Client(), "conduits/NetLink-1"), 0u);
}

TEST_F(LinkTest, LinkFiguresFollowCallsAKilledPeerAndTheRestartThatFreesItsConduit) {
  using namespace ValueConvention;
  kt_net_test::TempDir dir;
  const std::string endpoint = "ipc://" + dir.Path() + "/peer";
  Set({{"deadline-ms", "300"}, {"grace-ms", "800"}});
  auto peer = Peer("remote", "browse", endpoint);
  ASSERT_TRUE(Dial(*peer));
  ASSERT_EQ(host.AddExtension("figures", &figures, nullptr), 0);
  IClientManager* client = host.Client();
  const std::string node = "publishers/NetTransport/";
  auto Described = [&](const std::string& figure) {
    Metric::Description desc;
    client->GetMetricDescriptor(PathHandle(client, node + figure), &desc);
    return desc;
  };
  auto Figure = [&](const std::string& figure) {  // its last sample, -1 before the first
    const std::string bytes = figures.Last(PathHandle(client, node + figure));
    double value = -1;
    Decode(EncodingOf(Described(figure)), bytes.data(), bytes.size(), &value);
    return value;
  };
  unsigned int count = 0;
  ASSERT_EQ(client->GetChildCount(PathHandle(client, node), &count), 0);
  std::vector<unsigned long> handles(count);
  ASSERT_EQ(client->GetChildren(PathHandle(client, node), handles.data(), count), 0);
  for (unsigned long handle : handles) ASSERT_EQ(client->SubscribeMetric(figures.GetHandle(), handle), 0);
  const std::tuple<const char*, const char*, Encoding, Type> rows[] = {
      {"links_up", "", kEncodingUnsigned, kTypeGauge},
      {"calls", "", kEncodingUnsigned, kTypeCounter},
      {"received_bytes", "B", kEncodingUnsigned, kTypeCounter},
      {"round_trip", "ms", kEncodingDouble, kTypeGauge}};
  for (const auto& [figure, unit, encoding, type] : rows) {
    const Metric::Description d = Described(figure);
    EXPECT_TRUE(!d.text1.empty() && d.text2 == unit && EncodingOf(d) == encoding && TypeOf(d) == type)
        << figure;
  }

  // Calls across the link move the calls and the frames each way.
  ASSERT_TRUE(Eventually([&] { return Figure("links_up") == 1 && Figure("conduits_alive") == 1; }));
  const double calls = Figure("calls"), sent = Figure("sent_frames"), received = Figure("received_frames");
  for (int i = 0; i < 5; ++i) ASSERT_EQ(client->GetChildCount(Remote(""), &count), 0);
  EXPECT_TRUE(Eventually([&] {
    return Figure("calls") >= calls + 5 && Figure("sent_frames") >= sent + 5 &&
           Figure("received_frames") >= received + 5 && Figure("round_trip") > 0;
  })) << Figure("calls") << " calls, " << Figure("sent_frames") << " frames sent";
  EXPECT_EQ(Figure("calls_failed"), 0);

  const unsigned long root = Remote("");
  peer->Kill();
  EXPECT_EQ(client->GetChildCount(root, &count), KT_STATUS_NOT_AVAILABLE);
  EXPECT_TRUE(Eventually([&] {
    return Figure("links_up") == 0 && Figure("links_down") >= 1 && Figure("calls_failed") >= 1;
  }));

  // The restarted peer gets a link and a conduit of its own; the old link's
  // conduit is freed once the link is gone.
  auto restarted = Peer("remote", "browse", endpoint);
  EXPECT_TRUE(Eventually([&] {
    return Figure("links_up") == 1 && PathHandle(client, "conduits/NetLink-2") != 0 &&
           Figure("conduits_alive") == 1;
  })) << Figure("conduits_alive") << " conduits alive";
  host.RemoveExtension(&figures);
}

}  // namespace
}  // namespace net_test

// With --peer: a test host that sets each --KEY VALUE given, starts the transport,
// says what `kt-host serve` says, and stops cleanly on SIGTERM or SIGINT.
int main(int argc, char** argv) {
  if (argc < 2 || std::string(argv[1]) != "--peer") {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
  }
  // Blocked before any thread starts, so that every thread inherits the mask.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  net_test::TestExtensions extensions;
  kt_host::HostLoader host;
  bool ok = net_test::OpenHost(host, extensions);
  for (int i = 2; ok && i + 1 < argc; i += 2) ok = net_test::Configure(host, argv[i] + 2, argv[i + 1]) == 0;
  if (!ok || !host.AddOpenedModules()) return 1;
  std::printf("listening on %s\nserving registry GUID 0x%08lx\n", net_test::Endpoint(host).c_str(),
              net_test::PathHandle(host.Client(), "") >> 32);
  std::fflush(stdout);
  int signal = 0;
  sigwait(&stop, &signal);
  net_test::StopTransport(host);
  return 0;
}
