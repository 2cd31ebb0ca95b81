// Two processes in one test: "far" serves the client-manager protocol; "near"
// mounts it with KTMountPeer through a conduit whose transactions dispatch
// straight into far's manager.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kt/peer_mount.h"
#include "remote/client_manager_proxy.h"
#include "support/harness.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

class CrossingConduit : public FakeConduit {
 public:
  KT_STATUS Transact(unsigned long method, const IReadBuffer* request,
                     IWriteBuffer* reply) override {
    return far->DispatchRemoteMethod(method, request, reply);
  }
  IExtensionManager* far = nullptr;
};

// Answers only once `release` is set, after telling `entered`.
class LatchedMethod : public RecordingMethod {
 public:
  LatchedMethod() : RecordingMethod("slow", "slow:") {}
  bool Run(const IReadBuffer* args, IWriteBuffer* returns) override {
    entered.set_value();
    release.get_future().wait();
    return RecordingMethod::Run(args, returns);
  }
  std::promise<void> entered, release;
};

std::string Oldest(const IReadBuffer& buffer) {
  const void* data = nullptr;
  unsigned long size = 0;
  buffer.GetData(&data, &size);
  return data != nullptr ? std::string(static_cast<const char*>(data), size) : "";
}

// The parts, read when called, joined by ':'.
template <typename... T>
std::string Said(const T&... parts) {
  std::ostringstream out;
  ((out << parts << ':'), ...);
  return out.str();
}
std::string List(const std::vector<unsigned int>& v) {
  std::string text;
  for (unsigned int x : v) text += std::to_string(x) + ',';
  return text;
}
// Every member of a description, in order.
std::string Members(const Metric::Description& d) {
  return Said(d.id, d.flags, List(d.list1), d.word1, List(d.setIds), d.word2, int{d.byte1}, d.uri,
              d.text1, d.text2, d.text3, d.text4, d.text5, d.word3, d.text6, int{d.byte2},
              d.block[0], d.block[1], int{d.byte3}, d.word4, d.word5);
}

// Extensions first, so that they outlive the managers that point at them.
class PeerMountTest : public ::testing::Test {
 protected:
  PeerMountTest() {
    EXPECT_EQ(far.Add("ClientCommandMethod", &far.command), KT_STATUS_SUCCESS);
    EXPECT_EQ(far.Add("p", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(far.Add("echo", &echo), KT_STATUS_SUCCESS);
    EXPECT_EQ(far.Add("slow", &slow), KT_STATUS_SUCCESS);
    // Every field set, so that a field lost on the way shows.
    Metric::Description full = Describe("m", 3, 10, 0x100);
    full.id = 17;
    full.list1 = {1, 2};
    full.setIds = {4, 5};
    full.word2 = 5;
    full.byte1 = 6;
    full.text1 = "one";
    full.text2 = "two";
    full.text3 = "three";
    full.text4 = "four";
    full.text5 = "five";
    full.word3 = 7;
    full.text6 = "six";
    full.byte2 = 8;
    full.block[0] = 0x1111;
    full.block[1] = 0x2222;
    full.byte3 = 9;
    full.word5 = 11;
    metric = far.Publish(&publisher, full);
    far.Publish(&publisher, Describe("m2"));
    toFar.far = &far.manager;
    EXPECT_EQ(near.Add("toFar", &toFar), KT_STATUS_SUCCESS);
    EXPECT_EQ(Mount(FarGuid(), "far"), KT_STATUS_SUCCESS);
  }
  unsigned int FarGuid() { return far.registry().GetLocalGuid(); }
  KT_STATUS Mount(unsigned int guid, const char* name) {
    return KTMountPeer(near.client.get(), guid, name, toFar.GetHandle(), 0, &mount);
  }
  unsigned long PeersHandle() { return near.registry().GetChild("peers", 0)->GetHandle(); }

  CountingPublisher publisher;
  RecordingMethod echo{"echo", "echo:"};
  LatchedMethod slow;
  CrossingConduit toFar;
  LiveManager far;
  LiveManager near;
  unsigned long metric = 0;
  unsigned long mount = 0;
};

// Each row asks one client manager one question and prints status and
// answer; `root` is the path of far's root as that client sees it.
TEST_F(PeerMountTest, CallsThroughTheMountAnswerAsTheFarClientManagerDoes) {
  const unsigned long p = publisher.GetHandle();
  const unsigned long unknown = far.UnknownHandle();
  using Ask = std::function<std::string(DefaultClientManager&, const std::string&)>;
  auto path = [](const char* name) -> Ask {
    return [name](DefaultClientManager& c, const std::string& root) {
      unsigned long h = 7;
      return Said(c.GetPath(0, (root + name).c_str(), &h), h);
    };
  };
  auto info = [](unsigned long handle) -> Ask {
    return [handle](DefaultClientManager& c, const std::string&) {
      ResourceInfo i{"kept", 1, 2, 3, 4};
      return Said(c.GetResourceInfo(handle, &i), i.name, i.data, i.kind, i.parent, i.target);
    };
  };
  auto description = [](unsigned long handle) -> Ask {
    return [handle](DefaultClientManager& c, const std::string&) {
      Metric::Description d;
      d.list1 = {99};
      const KT_STATUS s = c.GetMetricDescriptor(handle, &d);
      return Said(s, Members(d));
    };
  };
  const std::vector<std::pair<const char*, Ask>> rows = {
      {"path", path("publishers/p/m")},
      {"missing path", path("publishers/p/none")},
      {"count", [&](DefaultClientManager& c, const std::string&) {
         unsigned int n = 9;
         return Said(c.GetChildCount(p, &n), n);
       }},
      {"children", [&](DefaultClientManager& c, const std::string&) {
         unsigned long h[2] = {0, 0};
         return Said(c.GetChildren(p, h, 2), h[0], h[1]);
       }},
      {"resource", info(metric)},
      {"unknown resource", info(unknown)},
      {"description", description(metric)},
      {"unknown description", description(unknown)},
      {"method", [&](DefaultClientManager& c, const std::string&) {
         QueueBuffer args(0, nullptr, 0, 0, 0), returns(0, nullptr, 0, 0, 0);
         void* block = args.Reserve(5);
         std::memcpy(block, "hello", 5);
         args.Commit(block);
         const KT_STATUS s = c.CallRemoteMethodSync(echo.GetHandle(), &args, &returns);
         return Said(s, Oldest(returns));
       }},
  };
  for (const auto& [name, ask] : rows) {
    EXPECT_EQ(ask(*near.client, "peers/far/"), ask(*far.client, "")) << name;
  }
  // The answers compared mean something.
  EXPECT_EQ(rows[0].second(*far.client, ""), Said(0, metric));
  EXPECT_NE(rows[6].second(*far.client, "").find(":4,5,:5:6:m:one:two:three:four:five:7:six:"),
            std::string::npos);

  // Far's root shows as the mount.
  ResourceInfo root{};
  ASSERT_EQ(near.client->GetResourceInfo(far.registry().GetHandle(), &root), KT_STATUS_SUCCESS);
  EXPECT_EQ(root.name, "far");
  EXPECT_EQ(root.parent, PeersHandle());
}

TEST_F(PeerMountTest, MountAndUnmountRefuseWhatTheyCannotServe) {
  ClientManagerProxy foreign(0, 0, "", nullptr, 0, 0);  // a client manager of another class
  FakePeer handMade;
  Path* peers = near.registry().GetChild("peers", 0);
  new PeerState(&handMade, peers->GetChild(0x1234ul << 32, kPathCreate | kPathNoHandleEntry));
  IClientManager* client = near.client.get();
  const unsigned long conduit = toFar.GetHandle();
  unsigned long out = 5;
  ExpectRefusals({
      REFUSAL(KTMountPeer(nullptr, 77, "x", conduit, 0, &out), kArgument, "clientManager"),
      REFUSAL(KTMountPeer(&foreign, 77, "x", conduit, 0, &out), kArgument, "clientManager"),
      REFUSAL(KTMountPeer(client, 77, nullptr, conduit, 0, &out), kArgument, "name"),
      REFUSAL(KTMountPeer(client, 77, "x", conduit, 0, nullptr), kArgument, "outMount"),
      REFUSAL(KTMountPeer(client, 0, "x", conduit, 0, &out), kArgument, "peerGuid"),
      REFUSAL(KTMountPeer(client, near.registry().GetLocalGuid(), "x", conduit, 0, &out),
              kArgument, "peerGuid"),
      REFUSAL(KTMountPeer(client, FarGuid(), "x", conduit, 0, &out), KT_STATUS_ALREADY_EXISTS,
              "peerGuid"),
      REFUSAL(KTMountPeer(client, 77, "x", 0, 0, &out), kObject, "transportConduit"),
      REFUSAL(KTMountPeer(client, 77, "x", PeersHandle(), 0, &out), kObject, "transportConduit"),
      REFUSAL(KTUnmountPeer(nullptr, mount), kArgument, "clientManager"),
      REFUSAL(KTUnmountPeer(client, 0x1234ul << 32), kObject, "mount"),
      REFUSAL(KTUnmountPeer(client, PeersHandle()), kObject, "mount"),
      // The far side never sees a null out-parameter: the mount refuses it.
      REFUSAL(near.client->GetMetricDescriptor(metric, nullptr), kArgument, "out_desc"),
      REFUSAL(near.client->GetChildren(metric, nullptr, 1), kArgument, "out_children"),
  });
  EXPECT_EQ(out, 0u);
  delete peers->GetChild(0x1234ul << 32, 0);
}

TEST_F(PeerMountTest, NamesLoseTheirSeparatorsAndTakeASuffixWhenTaken) {
  const std::vector<std::pair<const char*, std::string>> rows = {
      {"a/b\\c", "a_b_c"}, {"", "peer"}, {"far", "far-2"}, {"far", "far-3"}, {"far-2", "far-2-2"},
  };
  unsigned int guid = 100;
  for (const auto& [name, expected] : rows) {
    ASSERT_EQ(Mount(++guid, name), KT_STATUS_SUCCESS) << expected;
    unsigned long found = 0;
    EXPECT_EQ(near.client->GetPath(0, ("peers/" + expected).c_str(), &found), KT_STATUS_SUCCESS);
    EXPECT_EQ(found, mount) << expected;
  }
}

// The call holds the mount's client manager; the sanitizers see that it is
// freed once, after the call has left.
TEST_F(PeerMountTest, UnmountLetsACallInFlightFinishAndHidesTheMountFromNewOnes) {
  QueueBuffer args(0, nullptr, 0, 0, 0), returns(0, nullptr, 0, 0, 0);
  KT_STATUS status = KT_STATUS_INVALID_OPERATION;
  std::thread caller(
      [&] { status = near.client->CallRemoteMethodSync(slow.GetHandle(), &args, &returns); });
  slow.entered.get_future().wait();

  EXPECT_EQ(KTUnmountPeer(near.client.get(), mount), KT_STATUS_SUCCESS);
  unsigned long handle = 0;
  EXPECT_EQ(near.client->GetPath(0, "peers/far/publishers/p/m", &handle),
            KT_STATUS_DOES_NOT_EXIST);
  EXPECT_EQ(KTUnmountPeer(near.client.get(), mount), KT_STATUS_INVALID_OBJECT);
  slow.release.set_value();
  caller.join();

  EXPECT_EQ(status, KT_STATUS_SUCCESS);
  EXPECT_EQ(Oldest(returns), "slow:");
  ASSERT_EQ(Mount(FarGuid(), "far"), KT_STATUS_SUCCESS) << "the name is free again";
  EXPECT_EQ(near.client->GetPath(0, "peers/far/publishers/p/m", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, metric);
}

}  // namespace
}  // namespace MetricsFramework
