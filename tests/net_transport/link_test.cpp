// Links between this test process and net_peer processes it starts: mounts,
// calls, serve policies, deadlines, a killed and restarted peer, mutual
// mounts, concurrent clients and removal. Loopback and ipc only; every wait
// is bounded, every child killed by the test that started it.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "net_host.h"

extern char** environ;

namespace net_test {
namespace {

using namespace MetricsFramework;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A net_peer process: started with fork+exec (posix_spawn), read until it is
// ready, killed when the object goes.
class PeerProcess {
 public:
  explicit PeerProcess(std::vector<std::string> args) {
    int out[2], in[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    args.insert(args.begin(), KT_NET_PEER_PATH);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (posix_spawn(&m_pid, KT_NET_PEER_PATH, &actions, nullptr, argv.data(), environ) != 0) m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(in[0]);
    m_out = out[0];
    m_in = in[1];
    m_ready = ReadUntilReady();
  }
  ~PeerProcess() { Kill(); }
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  void Kill() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    m_pid = -1;
    if (m_out >= 0) close(m_out);
    if (m_in >= 0) close(m_in);
    m_out = m_in = -1;
  }
  bool Ready() const { return m_ready; }
  std::string Endpoint(size_t i = 0) const { return i < m_endpoints.size() ? m_endpoints[i] : ""; }
  const std::string& Answers() const { return m_answers; }
  unsigned int Guid() const { return m_guid; }

 private:
  // Lines until "ready", for at most ten seconds.
  bool ReadUntilReady() {
    const auto end = Clock::now() + std::chrono::seconds(10);
    std::string pending;
    bool inAnswers = false;
    while (m_pid > 0 && Clock::now() < end) {
      pollfd item{m_out, POLLIN, 0};
      if (poll(&item, 1, 100) <= 0) continue;
      char chunk[4096];
      const ssize_t n = read(m_out, chunk, sizeof chunk);
      if (n <= 0) return false;
      pending.append(chunk, static_cast<size_t>(n));
      for (size_t eol; (eol = pending.find('\n')) != std::string::npos;) {
        const std::string line = pending.substr(0, eol);
        pending.erase(0, eol + 1);
        if (line == "ready") return true;
        if (inAnswers && line != "end") m_answers += line + '\n';
        inAnswers = (inAnswers && line != "end") || line == "answers";
        if (line.rfind("guid ", 0) == 0) m_guid = std::stoul(line.substr(5), nullptr, 16);
        if (line.rfind("endpoint ", 0) == 0) m_endpoints.push_back(line.substr(9));
      }
    }
    return false;
  }

  pid_t m_pid = -1;
  int m_out = -1, m_in = -1;
  bool m_ready = false;
  unsigned int m_guid = 0;
  std::string m_answers;
  std::vector<std::string> m_endpoints;
};

// Waits, for at most five seconds, until `done` holds.
template <typename Done>
bool Eventually(Done done) {
  for (const auto end = Clock::now() + std::chrono::seconds(5); Clock::now() < end;) {
    if (done()) return true;
    std::this_thread::sleep_for(milliseconds(10));
  }
  return done();
}

long ElapsedMs(Clock::time_point since) {
  return static_cast<long>(std::chrono::duration_cast<milliseconds>(Clock::now() - since).count());
}

// This process's host; the peers it talks to are net_peer processes.
class LinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(host.Open(KT_LIBRARY_PATH, KT_NET_MODULE_PATH)) << host.Error();
    // The module's settings outlive a test: every one is set here.
    Set({{"listen", ""}, {"connect", ""}, {"serve", "full"}, {"mount", "dialled"},
         {"name", "local"}, {"heartbeat-ms", "100"}, {"grace-ms", "3600000"},
         {"deadline-ms", "2000"}, {"grace-ms", "5000"}});
  }
  void TearDown() override { host.Stop(); }

  void Set(std::vector<std::pair<const char*, std::string>> settings) {
    for (const auto& [key, value] : settings) {
      ASSERT_EQ(host.Configure(key, value), KT_STATUS_SUCCESS) << key << " " << value;
    }
  }
  // A peer that listens on `endpoint`, named "remote", with the options given.
  std::unique_ptr<PeerProcess> Peer(std::vector<std::string> options,
                                    const std::string& endpoint = "tcp://127.0.0.1:*") {
    std::vector<std::string> args = {"--listen", endpoint, "--name", "remote",
                                     "--heartbeat-ms", "100"};
    args.insert(args.end(), options.begin(), options.end());
    auto peer = std::make_unique<PeerProcess>(args);
    EXPECT_TRUE(peer->Ready());
    return peer;
  }
  // Starts this host dialling `peer` and waits for its mount.
  bool Dial(const PeerProcess& peer, const char* mount = "peers/remote") {
    if (host.Configure("connect", peer.Endpoint()) != KT_STATUS_SUCCESS) return false;
    if (host.Start() != KT_STATUS_SUCCESS) return false;
    return Mounted(mount);
  }
  bool Mounted(const std::string& mount) {
    return Eventually([&] { return PathHandle(host.Client(), mount) != 0; });
  }
  unsigned long Remote(const std::string& path) {
    return PathHandle(host.Client(), path.empty() ? "peers/remote" : "peers/remote/" + path);
  }
  // How many peers are mounted, linked or not.
  unsigned int Mounts() {
    unsigned int count = 0;
    host.Client()->GetChildCount(PathHandle(host.Client(), "peers"), &count);
    return count;
  }

  NetHost host;
};

TEST_F(LinkTest, AnswersAcrossTheLinkEqualThoseOfTheServingProcess) {
  auto peer = Peer({"--serve", "full", "--answers"});
  ASSERT_TRUE(Dial(*peer));
  ASSERT_FALSE(peer->Answers().empty());
  EXPECT_EQ(Answers(host.Client(), "peers/remote"), peer->Answers());
  // The peer's root shows as the mount.
  ResourceInfo info{};
  ASSERT_EQ(host.Client()->GetResourceInfo(Remote(""), &info), KT_STATUS_SUCCESS);
  EXPECT_EQ(info.name, "remote");
  EXPECT_EQ(info.parent, PathHandle(host.Client(), "peers"));
  EXPECT_EQ(Remote("") >> 32, peer->Guid());
}

TEST_F(LinkTest, OpsOutsideTheServePolicyAreRefused) {
  auto browse = Peer({"--serve", "browse", "--name", "browse"});
  auto none = Peer({"--serve", "none", "--name", "none"});
  Set({{"connect", none->Endpoint()}});
  ASSERT_TRUE(Dial(*browse, "peers/browse"));
  ASSERT_TRUE(Eventually([&] { return Mounts() == 2; }));
  const unsigned long echo = PathHandle(host.Client(), "peers/browse/methods/echo");
  unsigned int count = 0;
  // A peer's root is its GUID shifted up: under "none" not even a path
  // through the mount resolves.
  auto childCount = [&](const PeerProcess& peer) {
    return host.Client()->GetChildCount(static_cast<unsigned long>(peer.Guid()) << 32, &count);
  };
  const std::pair<const char*, std::pair<KT_STATUS, KT_STATUS>> rows[] = {
      {"browse op 9", {CallMethod(host.Client(), echo, "x", nullptr), KT_STATUS_INVALID_OPERATION}},
      {"browse op 2", {childCount(*browse), KT_STATUS_SUCCESS}},
      {"none op 2", {childCount(*none), KT_STATUS_INVALID_OPERATION}},
  };
  for (const auto& [call, statuses] : rows) EXPECT_EQ(statuses.first, statuses.second) << call;
}

TEST_F(LinkTest, AMethodThatBlocksFailsAtTheDeadline) {
  Set({{"deadline-ms", "200"}});
  auto peer = Peer({"--serve", "full"});
  ASSERT_TRUE(Dial(*peer));
  const auto start = Clock::now();
  EXPECT_EQ(CallMethod(host.Client(), Remote("methods/block"), "10000", nullptr),
            KT_STATUS_NOT_AVAILABLE);
  EXPECT_GE(ElapsedMs(start), 190);
  EXPECT_LT(ElapsedMs(start), 1500);
  // The link stays usable: the late reply is dropped.
  std::string reply;
  EXPECT_EQ(CallMethod(host.Client(), Remote("methods/echo"), "after", &reply), KT_STATUS_SUCCESS);
  EXPECT_EQ(reply, "echo:after");
}

TEST_F(LinkTest, AKilledPeerFailsItsCallsLosesItsMountAndARestartIsMountedAnew) {
  char dir[] = "/tmp/kt_net_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string endpoint = std::string("ipc://") + dir + "/peer";
  Set({{"deadline-ms", "1000"}, {"grace-ms", "1500"}});
  auto peer = Peer({"--serve", "full"}, endpoint);
  ASSERT_TRUE(Dial(*peer));
  const unsigned long block = Remote("methods/block");

  const auto start = Clock::now();
  auto call = std::async(std::launch::async, [&] {
    return CallMethod(host.Client(), block, "10000", nullptr);
  });
  std::this_thread::sleep_for(milliseconds(100));  // the call is on its way
  peer->Kill();
  EXPECT_EQ(call.get(), KT_STATUS_NOT_AVAILABLE);
  EXPECT_LT(ElapsedMs(start), 1000 + 500);
  EXPECT_TRUE(Eventually([&] { return Mounts() == 0; })) << "the mount outlived the grace";

  auto restarted = Peer({"--serve", "full"}, endpoint);
  ASSERT_TRUE(Mounted("peers/remote"));
  EXPECT_EQ(Remote("") >> 32, restarted->Guid());
  EXPECT_NE(restarted->Guid(), peer->Guid());
  restarted->Kill();
  unlink((std::string(dir) + "/peer").c_str());
  rmdir(dir);
}

TEST_F(LinkTest, MutualMountsAndABouncingCallEndWithinTheDeadline) {
  Set({{"listen", "tcp://127.0.0.1:*"}, {"mount", "all"}, {"deadline-ms", "1000"}});
  ASSERT_EQ(host.Start(), KT_STATUS_SUCCESS);
  PeerProcess peer({"--connect", host.Endpoint(), "--name", "remote", "--serve", "full",
                    "--heartbeat-ms", "100", "--deadline-ms", "1000"});
  ASSERT_TRUE(peer.Ready());
  ASSERT_TRUE(Mounted("peers/remote"));
  const unsigned long here = PathHandle(host.Client(), "methods/relay");
  const unsigned long there = Remote("methods/relay");
  auto Chain = [&](int hops, unsigned long last) {
    std::string handles;
    for (int i = 1; i < hops; ++i) {
      const unsigned long hop = i % 2 == 1 ? here : there;
      handles.append(reinterpret_cast<const char*>(&hop), 8);
    }
    handles.append(reinterpret_cast<const char*>(&last), 8);
    return handles;
  };
  // remote relay -> local relay -> remote relay -> remote echo.
  std::string reply;
  EXPECT_EQ(CallMethod(host.Client(), there, Chain(3, Remote("methods/echo")), &reply),
            KT_STATUS_SUCCESS);
  EXPECT_EQ(reply, "echo:");
  // Far more hops than either side has workers: it fails, in time.
  const auto start = Clock::now();
  EXPECT_NE(CallMethod(host.Client(), there, Chain(60, there), nullptr), KT_STATUS_SUCCESS);
  EXPECT_LT(ElapsedMs(start), 1000 + 500);
}

TEST_F(LinkTest, EightClientsBrowsingAtOnceGetEachTheirOwnAnswers) {
  auto peer = Peer({"--serve", "browse"});
  ASSERT_TRUE(Dial(*peer));
  const unsigned long publisher = Remote("publishers/PeerPublisher");
  const unsigned long metrics[2] = {Remote("publishers/PeerPublisher/cpu_percent"),
                                    Remote("publishers/PeerPublisher/mem_used")};
  const char* names[2] = {"cpu_percent", "mem_used"};
  std::atomic<int> wrong{0}, answered{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 8; ++t) {
    clients.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        const int m = (t + i) % 2;
        unsigned long handle = 0;
        ResourceInfo info{};
        const bool right =
            host.Client()->GetPath(publisher, names[m], &handle) == KT_STATUS_SUCCESS &&
            handle == metrics[m] &&
            host.Client()->GetResourceInfo(handle, &info) == KT_STATUS_SUCCESS &&
            info.name == names[m];
        ++(right ? answered : wrong);
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(answered.load(), 8 * 40);
}

TEST_F(LinkTest, RemovingTheTransportFailsCallsInFlightAndLeavesNothingFiled) {
  Set({{"deadline-ms", "4000"}});
  auto peer = Peer({"--serve", "full"});
  ASSERT_TRUE(Dial(*peer));
  ASSERT_NE(PathHandle(host.Client(), "conduits/NetLink-1"), 0u);
  const unsigned long block = Remote("methods/block");
  std::vector<std::future<KT_STATUS>> calls;
  for (int i = 0; i < 3; ++i) {
    calls.push_back(std::async(std::launch::async, [&] {
      return CallMethod(host.Client(), block, "10000", nullptr);
    }));
  }
  std::this_thread::sleep_for(milliseconds(100));
  const auto start = Clock::now();
  host.StopTransport();
  for (auto& call : calls) EXPECT_EQ(call.get(), KT_STATUS_NOT_AVAILABLE);
  EXPECT_LT(ElapsedMs(start), 2000);
  EXPECT_EQ(Mounts(), 0u);
  EXPECT_EQ(PathHandle(host.Client(), "conduits/NetLink-1"), 0u);
}

TEST_F(LinkTest, ItselfAndASecondLinkToOnePeerAreRefused) {
  Set({{"listen", "tcp://127.0.0.1:*"}});
  auto peer = Peer({"--listen", "tcp://127.0.0.1:*"});
  ASSERT_TRUE(Dial(*peer));
  // The peer's second endpoint, and this process's own.
  ASSERT_EQ(host.Configure("connect", peer->Endpoint(1)), KT_STATUS_SUCCESS);
  ASSERT_EQ(host.Configure("connect", host.Endpoint()), KT_STATUS_SUCCESS);
  std::this_thread::sleep_for(milliseconds(500));  // hellos said and refused
  EXPECT_EQ(Mounts(), 1u) << "one mount, of the first link";
  // Neither side filed a conduit for a refused link: the peer has one, this
  // side its three dialled links and no accepted one.
  EXPECT_NE(Remote("conduits/NetLink-1"), 0u);
  EXPECT_EQ(Remote("conduits/NetLink-2"), 0u);
  EXPECT_NE(PathHandle(host.Client(), "conduits/NetLink-3"), 0u);
  EXPECT_EQ(PathHandle(host.Client(), "conduits/NetLink-4"), 0u);
}

}  // namespace
}  // namespace net_test
