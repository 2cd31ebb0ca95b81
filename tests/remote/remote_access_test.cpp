// Two processes in one test: process A and process B are each an extension
// manager with its own registry and GUID, a client manager and a host loader.
// A serves the client-manager protocol with its ClientCommandMethod; B mounts
// A under "peers" with a ClientManagerProxy whose requests travel through a
// conduit of B that dispatches straight into A's manager.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "registry/registry.h"
#include "remote/client_command_method.h"
#include "remote/client_manager_proxy.h"
#include "remote/descriptor_blob.h"
#include "remote/proxy_buffer.h"
#include "state/peer_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// A conduit of B whose transactions cross into A's manager. It notes the op
// and first value of every request; `lost` makes it drop them with that
// status instead.
class CrossingConduit : public FakeConduit {
 public:
  struct Sent {
    unsigned long method;
    unsigned int op;
    unsigned long a;
  };
  KT_STATUS Transact(unsigned long method, const IReadBuffer* request,
                     IWriteBuffer* reply) override {
    unsigned long a = 0;
    ProxyBuffer::Read(request, a);
    sent.push_back({method, ProxyBuffer::GetOp(request), a});
    if (lost != KT_STATUS_SUCCESS) return lost;
    return far->DispatchRemoteMethod(method, request, reply);
  }
  std::vector<unsigned int> Ops() const {
    std::vector<unsigned int> ops;
    for (const Sent& s : sent) ops.push_back(s.op);
    return ops;
  }
  DefaultExtensionManager* far = nullptr;
  KT_STATUS lost = KT_STATUS_SUCCESS;
  std::vector<Sent> sent;
};

// Process A publishes "publishers/p/m" and "publishers/p/m2", serves the
// protocol and files B's subscriptions under its conduit "served"; its root
// lists a "peers" node of its own. Process B mounts A as "peers/A".
// Extensions are declared first so that they outlive the registries that
// point at them; the client managers go before their managers.
class RemoteAccessTest : public ::testing::Test {
 protected:
  RemoteAccessTest() {
    EXPECT_EQ(A.Add("ClientCommandMethod", &A.command), KT_STATUS_SUCCESS);
    EXPECT_EQ(A.Add("p", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(A.Add("served", &served), KT_STATUS_SUCCESS);
    EXPECT_EQ(A.Add("echo", &echo), KT_STATUS_SUCCESS);
    metric = Publish("m");
    metric2 = Publish("m2");
    aRoot = a.GetRegistry().GetHandle();
    aPeers = a.GetRegistry().GetChild("peers", kPathCreate)->GetHandle();

    toA.far = &a;
    toA.remote = served.GetHandle();
    EXPECT_EQ(B.Add("toA", &toA), KT_STATUS_SUCCESS);
    EXPECT_EQ(B.Add("k", &consumer), KT_STATUS_SUCCESS);
    Path* peers = B.registry().GetChild("peers", kPathCreate);
    mountHandle = peers->GetHandle();
    const unsigned long key = static_cast<unsigned long>(a.GetRegistry().GetLocalGuid()) << 32;
    Path* mount = peers->GetChild(key, kPathCreate | kPathNoHandleEntry);
    mount->SetName("A");
    proxy = std::make_unique<ClientManagerProxy>(0x77, mountHandle, "A", clientB.get(),
                                                 toA.GetHandle(), served.GetHandle());
    peer.clientManager = proxy.get();
    new PeerState(&peer, mount);
  }

  unsigned long Publish(const std::string& uri) {
    Metric::Description desc;
    desc.uri = uri;
    desc.word1 = 5;
    desc.list1 = {1, 2};
    unsigned long handle = 0;
    EXPECT_EQ(a.PublishMetric(&publisher, desc, &handle), KT_STATUS_SUCCESS);
    return handle;
  }
  // A's listed root children as A itself sees them.
  std::vector<unsigned long> RootChildrenInA() {
    unsigned int n = 0;
    EXPECT_EQ(clientA->GetChildCount(aRoot, &n), KT_STATUS_SUCCESS);
    std::vector<unsigned long> children(n);
    EXPECT_EQ(clientA->GetChildren(aRoot, children.data(), n), KT_STATUS_SUCCESS);
    return children;
  }
  std::vector<unsigned long> Without(std::vector<unsigned long> handles, unsigned long gone) {
    handles.erase(std::find(handles.begin(), handles.end(), gone));
    return handles;
  }
  unsigned long ConsumerK() { return consumer.GetHandle(); }

  CountingPublisher publisher;
  FakeConduit served;
  RecordingMethod echo{"echo", "echo:"};
  CrossingConduit toA;
  RecordingConsumer consumer;
  FakePeer peer;
  LiveManager A, B;
  DefaultExtensionManager& a = A.manager;
  std::unique_ptr<DefaultClientManager>& clientA = A.client;
  std::unique_ptr<DefaultClientManager>& clientB = B.client;
  std::unique_ptr<ClientManagerProxy> proxy;
  unsigned long metric = 0;
  unsigned long metric2 = 0;
  unsigned long aRoot = 0;
  unsigned long aPeers = 0;
  unsigned long mountHandle = 0;
};

// ---------------------------------------------------------------------------
// A client of B works on A's namespace.

TEST_F(RemoteAccessTest, ListingsOfARootHidePeersAndGiveCountRealChildren) {
  const std::vector<unsigned long> all = RootChildrenInA();
  ASSERT_NE(std::find(all.begin(), all.end(), aPeers), all.end());
  const std::vector<unsigned long> visible = Without(all, aPeers);
  const auto n = static_cast<unsigned int>(visible.size());

  unsigned int count = 0;
  ASSERT_EQ(clientB->GetChildCount(aRoot, &count), KT_STATUS_SUCCESS);
  EXPECT_EQ(count, n);
  std::vector<unsigned long> children(n, 0);
  ASSERT_EQ(clientB->GetChildren(aRoot, children.data(), n), KT_STATUS_SUCCESS);
  EXPECT_EQ(children, visible) << "one more is fetched, so none is lost to the removal";

  // Asking for as many as A holds keeps the old tail: the last slot keeps
  // what A listed there (a repeat of the one before, or "peers" itself when A
  // listed it last; the order of a node's children is not fixed).
  std::vector<unsigned long> tail(n + 1, 0);
  ASSERT_EQ(clientB->GetChildren(aRoot, tail.data(), n + 1), KT_STATUS_SUCCESS);
  std::vector<unsigned long> expected = visible;
  expected.push_back(all.back());
  EXPECT_EQ(tail, expected);
}

TEST_F(RemoteAccessTest, ResourceInfoShowsARootAsTheMountAndOtherNodesAsTheyAre) {
  ResourceInfo info{};
  ASSERT_EQ(clientB->GetResourceInfo(aRoot, &info), KT_STATUS_SUCCESS);
  EXPECT_EQ(info.name, "A");
  EXPECT_EQ(info.parent, mountHandle);

  ASSERT_EQ(clientB->GetResourceInfo(metric, &info), KT_STATUS_SUCCESS);
  EXPECT_EQ(info.name, "m");
  EXPECT_EQ(info.kind, static_cast<unsigned long>(RESOURCE_TYPE_METRIC));
  EXPECT_EQ(info.parent, publisher.GetHandle());

  // A name far beyond any in-place string storage crosses whole.
  const std::string longName(300, 'n');
  const unsigned long node = a.GetRegistry().GetChild(longName.c_str(), kPathCreate)->GetHandle();
  ASSERT_EQ(proxy->GetResourceInfo(node, &info), KT_STATUS_SUCCESS);
  EXPECT_EQ(info.name, longName);
  EXPECT_EQ(info.parent, aRoot);

  // A's failure, joined with the failed dispatch of its method.
  ResourceInfo untouched{"kept", 1, 2, 3, 4};
  EXPECT_EQ(proxy->GetResourceInfo(aRoot + 12345, &untouched),
            KT_STATUS_INVALID_OBJECT | KT_STATUS_INVALID_OPERATION);
  EXPECT_EQ(untouched.name, "kept");
}

// ---------------------------------------------------------------------------
// The proxy's operations, each through the transport and back.

TEST_F(RemoteAccessTest, EveryOperationCrossesAsItsOpAndIsAnswered) {
  unsigned long handle = 0;
  unsigned int count = 0;
  unsigned long child = 0;
  ResourceInfo info{};
  Metric::Description desc;
  HostBuffer returns;
  ProxyBuffer args;

  EXPECT_EQ(proxy->GetPath(aRoot, "publishers/p", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, publisher.GetHandle());
  EXPECT_EQ(proxy->GetChildCount(handle, &count), KT_STATUS_SUCCESS);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(proxy->GetChildren(handle, &child, 1), KT_STATUS_SUCCESS);
  EXPECT_TRUE(child == metric || child == metric2);
  EXPECT_EQ(proxy->GetResourceInfo(handle, &info), KT_STATUS_SUCCESS);
  EXPECT_EQ(info.name, "p");
  EXPECT_EQ(proxy->GetMetricDescriptor(metric, &desc), KT_STATUS_SUCCESS);
  EXPECT_EQ(proxy->SubscribeMetric(ConsumerK(), metric), KT_STATUS_SUCCESS);
  EXPECT_EQ(proxy->UnsubscribeMetric(ConsumerK(), metric), KT_STATUS_SUCCESS);
  EXPECT_EQ(proxy->FlushMetrics(ConsumerK()), KT_STATUS_SUCCESS);
  EXPECT_EQ(proxy->CallRemoteMethodSync(echo.GetHandle(), &args, &returns), KT_STATUS_SUCCESS);
  ASSERT_EQ(returns.records.size(), 1u);
  EXPECT_EQ(returns.Records().front(), "echo:") << "an empty argument arrives as no record";

  EXPECT_EQ(toA.Ops(), (std::vector<unsigned int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(publisher.binds, 1);
  EXPECT_EQ(publisher.unbinds, 1);
}

TEST_F(RemoteAccessTest, DescriptorReadsTheSizeRecordTwiceAsKept) {
  Metric::Description local;
  ASSERT_EQ(clientA->GetMetricDescriptor(metric, &local), KT_STATUS_SUCCESS);
  const auto blobSize = static_cast<unsigned int>(EncodeDescription(local).size());
  Metric::Description desc;
  desc.list1 = {9};
  desc.uri = "before";

  ASSERT_EQ(proxy->GetMetricDescriptor(metric, &desc), KT_STATUS_SUCCESS);
  // The second read takes the size record again: its four bytes land at the
  // front of a zeroed blob, so the id is the blob's size and all else empty
  // (lists are appended to).
  EXPECT_EQ(std::make_tuple(desc.id, desc.flags, desc.list1, desc.word1, desc.uri, desc.word4,
                            desc.word5),
            std::make_tuple(blobSize, 0u, std::vector<unsigned int>{9}, 0u, std::string(), 0u, 0u));

  Metric::Description unknown;
  unknown.uri = "kept";
  EXPECT_EQ(proxy->GetMetricDescriptor(aRoot + 12345, &unknown), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(unknown.uri, "kept");
}

TEST_F(RemoteAccessTest, UnansweredCallsJoinTheTransportStatusWithTheMissingReply) {
  unsigned int count = 77;
  toA.lost = KT_STATUS_INVALID_SIZE;
  EXPECT_EQ(proxy->GetChildCount(aRoot, &count),
            KT_STATUS_INVALID_SIZE | KT_STATUS_INVALID_OPERATION);
  EXPECT_EQ(count, 77u);

  // A proxy whose client manager is not this library's has no transport.
  ClientManagerProxy stranded(0, mountHandle, "A", proxy.get(), toA.GetHandle(), 0);
  EXPECT_EQ(stranded.GetChildCount(aRoot, &count),
            KT_STATUS_INVALID_OBJECT | KT_STATUS_INVALID_OPERATION);

  // A request A refuses leaves no reply, which reads back as 4.
  toA.lost = KT_STATUS_SUCCESS;
  ProxyBuffer empty, reply;
  const KT_STATUS sent =
      clientB->CallRemoteMethodSync(toA.GetHandle(), kClientCommandHandle, &empty, &reply);
  EXPECT_EQ(sent, KT_STATUS_INVALID_OPERATION);
  EXPECT_EQ(sent | reply.ReadBack(nullptr, 0), KT_STATUS_INVALID_OPERATION);
}

}  // namespace
}  // namespace MetricsFramework
