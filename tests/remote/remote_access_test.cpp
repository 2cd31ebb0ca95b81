// Two processes in one test: "far" serves the client-manager protocol; "near"
// mounts it with KTMountPeer through a conduit whose transactions dispatch
// straight into far's manager. A bare ClientManagerProxy over the same conduit
// shows the records and statuses as the old proxy keeps them.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kt/peer_mount.h"
#include "remote/client_manager_proxy.h"
#include "remote/descriptor_blob.h"
#include "remote/proxy_buffer.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// Notes the op of every request; `lost` drops them with that status instead.
class CrossingConduit : public FakeConduit {
 public:
  KT_STATUS Transact(unsigned long method, const IReadBuffer* request,
                     IWriteBuffer* reply) override {
    ops.push_back(ProxyBuffer::GetOp(request));
    return lost != KT_STATUS_SUCCESS ? lost : far->DispatchRemoteMethod(method, request, reply);
  }
  IExtensionManager* far = nullptr;
  KT_STATUS lost = KT_STATUS_SUCCESS;
  std::vector<unsigned int> ops;
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

// The parts joined by ':'.
template <typename... T>
std::string Said(const T&... parts) {
  std::ostringstream out;
  ((out << parts << ':'), ...);
  return out.str();
}
std::string Members(const Metric::Description& d) {
  using ::testing::PrintToString;
  return Said(d.id, d.flags, PrintToString(d.list1), d.word1, PrintToString(d.setIds), d.word2,
              int{d.byte1}, d.uri,
              d.text1, d.text2, d.text3, d.text4, d.text5, d.word3, d.text6, int{d.byte2},
              d.block[0], d.block[1], int{d.byte3}, d.word4, d.word5);
}

// Far publishes "publishers/p/m" (every field set, so that a field lost on the
// way shows) and "m2", and lists a "peers" node of its own. Extensions first,
// so that they outlive the managers that point at them.
class RemoteAccessTest : public ::testing::Test {
 protected:
  RemoteAccessTest() {
    EXPECT_EQ(far.Add("ClientCommandMethod", &far.command), KT_STATUS_SUCCESS);
    EXPECT_EQ(far.Add("p", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(far.Add("echo", &echo), KT_STATUS_SUCCESS);
    EXPECT_EQ(far.Add("slow", &slow), KT_STATUS_SUCCESS);
    EXPECT_EQ(far.Add("served", &served), KT_STATUS_SUCCESS);
    Metric::Description d = Describe("m", 3, 10, 0x100);
    d.id = 17, d.list1 = {1, 2}, d.setIds = {4, 5}, d.word2 = 5, d.byte1 = 6, d.text1 = "one";
    d.text2 = "two", d.text3 = "three", d.text4 = "four", d.text5 = "five", d.word3 = 7;
    d.text6 = "six", d.byte2 = 8, d.block[0] = 0x1111, d.block[1] = 0x2222, d.byte3 = 9, d.word5 = 11;
    metric = far.Publish(&publisher, d);
    far.Publish(&publisher, Describe("m2"));
    farRoot = far.registry().GetHandle();
    farPeers = far.registry().GetChild("peers", kPathCreate)->GetHandle();
    toFar.far = &far.manager;
    EXPECT_EQ(near.Add("toFar", &toFar), KT_STATUS_SUCCESS);
    EXPECT_EQ(near.Add("k", &consumer), KT_STATUS_SUCCESS);
    EXPECT_EQ(Mount(FarGuid(), "far"), KT_STATUS_SUCCESS);
  }
  unsigned int FarGuid() { return far.registry().GetLocalGuid(); }
  KT_STATUS Mount(unsigned int guid, const char* name) {
    return KTMountPeer(near.client.get(), guid, name, toFar.GetHandle(), served.GetHandle(),
                       &mount);
  }
  unsigned long PeersHandle() { return near.registry().GetChild("peers", 0)->GetHandle(); }
  std::vector<unsigned long> Children(IClientManager& client, unsigned int n) {
    std::vector<unsigned long> children(n, 0);
    EXPECT_EQ(client.GetChildren(farRoot, children.data(), n), KT_STATUS_SUCCESS);
    return children;
  }

  CountingPublisher publisher;
  RecordingMethod echo{"echo", "echo:"};
  LatchedMethod slow;
  FakeConduit served;
  CrossingConduit toFar;
  RecordingConsumer consumer;
  LiveManager far, near;
  unsigned long metric = 0, farRoot = 0, farPeers = 0, mount = 0;
};

// Each row asks one client manager one question and prints status and
// answer; `root` is the path of far's root as that client sees it.
TEST_F(RemoteAccessTest, CallsThroughTheMountAnswerAsTheFarClientManagerDoes) {
  const unsigned long unknown = far.UnknownHandle();
  // A name far beyond any in-place string storage crosses whole.
  const unsigned long longName =
      far.registry().GetChild(std::string(300, 'n').c_str(), kPathCreate)->GetHandle();
  using Ask = std::function<std::string(IClientManager&, const std::string&)>;
  auto path = [](const char* name) -> Ask {
    return [name](IClientManager& c, const std::string& root) {
      unsigned long h = 7;
      return Said(c.GetPath(0, (root + name).c_str(), &h), h);
    };
  };
  auto info = [](unsigned long handle) -> Ask {
    return [handle](IClientManager& c, const std::string&) {
      ResourceInfo i{"kept", 1, 2, 3, 4};
      return Said(c.GetResourceInfo(handle, &i), i.name, i.data, i.kind, i.parent, i.target);
    };
  };
  auto description = [](unsigned long handle) -> Ask {
    return [handle](IClientManager& c, const std::string&) {
      Metric::Description d;
      d.list1 = {99};
      const KT_STATUS s = c.GetMetricDescriptor(handle, &d);
      return Said(s, Members(d));
    };
  };
  const std::vector<std::pair<const char*, Ask>> rows = {
      {"path", path("publishers/p/m")},
      {"missing path", path("publishers/p/none")},
      {"resource", info(metric)},
      {"long name", info(longName)},
      {"unknown resource", info(unknown)},
      {"description", description(metric)},
      {"unknown description", description(unknown)},
      {"method", [&](IClientManager& c, const std::string&) {
         HostBuffer args("hello"), returns;
         const KT_STATUS s = c.CallRemoteMethodSync(echo.GetHandle(), &args, &returns);
         return Said(s, ::testing::PrintToString(returns.Records()));
       }},
  };
  for (const auto& [name, ask] : rows) {
    EXPECT_EQ(ask(*near.client, "peers/far/"), ask(*far.client, "")) << name;
  }
  // The answers compared mean something.
  EXPECT_EQ(rows[0].second(*far.client, ""), Said(0, metric));
  EXPECT_NE(rows[5].second(*far.client, "").find(":{ 4, 5 }:5:6:m:one:two:three:four:five:7:six:"),
            std::string::npos);

  // Far's root shows as the mount.
  ResourceInfo root{};
  ASSERT_EQ(near.client->GetResourceInfo(farRoot, &root), KT_STATUS_SUCCESS);
  EXPECT_EQ(root.name, "far");
  EXPECT_EQ(root.parent, PeersHandle());
}

TEST_F(RemoteAccessTest, ListingsOfARootHidePeersAndGiveCountRealChildren) {
  unsigned int all = 0, count = 0;
  ASSERT_EQ(far.client->GetChildCount(farRoot, &all), KT_STATUS_SUCCESS);
  const std::vector<unsigned long> listed = Children(*far.client, all);
  std::vector<unsigned long> visible = listed;
  visible.erase(std::find(visible.begin(), visible.end(), farPeers));

  ASSERT_EQ(near.client->GetChildCount(farRoot, &count), KT_STATUS_SUCCESS);
  EXPECT_EQ(count, all - 1);
  EXPECT_EQ(Children(*near.client, all - 1), visible)
      << "one more is fetched, so none is lost to the removal";
  // Asking for as many as far holds keeps the old tail: the last slot keeps
  // what far listed there (a repeat of the one before, or "peers" itself when
  // listed last; the order of a node's children is not fixed).
  visible.push_back(listed.back());
  EXPECT_EQ(Children(*near.client, all), visible);
}

// The bare proxy reads the descriptor's size record twice, joins the
// transport's status into a failed reply's, and leaves no reply for a request
// far cannot serve; the mount does none of this.
TEST_F(RemoteAccessTest, TheBareProxySendsEveryOpAndKeepsItsOldRecordRules) {
  ClientManagerProxy proxy(0x77, PeersHandle(), "A", near.client.get(), toFar.GetHandle(),
                           served.GetHandle());
  const unsigned long k = consumer.GetHandle();
  unsigned long handle = 0, child = 0;
  unsigned int count = 0;
  ResourceInfo info{};
  Metric::Description local, desc;
  desc.list1 = {9};
  ASSERT_EQ(far.client->GetMetricDescriptor(metric, &local), KT_STATUS_SUCCESS);
  HostBuffer returns;
  ProxyBuffer args;
  toFar.ops.clear();

  KT_STATUS status = proxy.GetPath(farRoot, "publishers/p", &handle);
  status |= proxy.GetChildCount(handle, &count);
  status |= proxy.GetChildren(handle, &child, 1);
  status |= proxy.GetResourceInfo(handle, &info);
  EXPECT_EQ(std::make_tuple(status, handle, count, info.name),
            std::make_tuple(KT_STATUS_SUCCESS, publisher.GetHandle(), 2u, "p"));
  // The size record read again lands at the front of a zeroed blob: the id is
  // the blob's size, all else empty (lists are appended to).
  EXPECT_EQ(proxy.GetMetricDescriptor(metric, &desc), KT_STATUS_SUCCESS);
  EXPECT_EQ(std::make_tuple(desc.id, desc.list1, desc.uri, desc.word5),
            std::make_tuple(static_cast<unsigned int>(EncodeDescription(local).size()),
                            std::vector<unsigned int>{9}, std::string(), 0u));
  status = proxy.SubscribeMetric(k, metric);
  status |= proxy.UnsubscribeMetric(k, metric);
  status |= proxy.FlushMetrics(k);
  EXPECT_EQ(status | proxy.CallRemoteMethodSync(echo.GetHandle(), &args, &returns), 0u);
  EXPECT_EQ(returns.Records(), std::vector<std::string>{"echo:"})
      << "an empty argument arrives as no record";
  EXPECT_EQ(toFar.ops, (std::vector<unsigned int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(std::make_pair(publisher.binds, publisher.unbinds), std::make_pair(1, 1));

  ResourceInfo kept{"kept", 1, 2, 3, 4};
  EXPECT_EQ(proxy.GetResourceInfo(farRoot + 12345, &kept),
            KT_STATUS_INVALID_OBJECT | KT_STATUS_INVALID_OPERATION);
  desc.uri = "kept";
  EXPECT_EQ(proxy.GetMetricDescriptor(farRoot + 12345, &desc), KT_STATUS_INVALID_OBJECT);
  toFar.lost = KT_STATUS_INVALID_SIZE;
  EXPECT_EQ(proxy.GetChildCount(farRoot, &count),
            KT_STATUS_INVALID_SIZE | KT_STATUS_INVALID_OPERATION);
  EXPECT_EQ(std::make_tuple(kept.name, desc.uri, count), std::make_tuple("kept", "kept", 2u));
}

TEST_F(RemoteAccessTest, MountAndUnmountRefuseWhatTheyCannotServe) {
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

TEST_F(RemoteAccessTest, MountNamesLoseTheirSeparatorsAndTakeASuffixWhenTaken) {
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
TEST_F(RemoteAccessTest, UnmountLetsACallInFlightFinishAndHidesTheMountFromNewOnes) {
  HostBuffer args, returns;
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
  EXPECT_EQ(returns.Records(), std::vector<std::string>{"slow:"});
  ASSERT_EQ(Mount(FarGuid(), "far"), KT_STATUS_SUCCESS) << "the name is free again";
  EXPECT_EQ(near.client->GetPath(0, "peers/far/publishers/p/m", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, metric);
}

}  // namespace
}  // namespace MetricsFramework
