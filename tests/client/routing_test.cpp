// Handles of another process: with a peer mounted under "peers", the routed
// operations reach the peer's client manager with the caller's arguments and
// return its status unchanged; with routing off nothing is forwarded.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client_test_support.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

class RoutingTest : public ClientManagerTest {
 protected:
  RoutingTest() {
    MountPeer(elsewhere.GetLocalGuid(), NewPeer(&far));
    foreign = elsewhere.GetChild("publishers/x/m", kPathCreate)->GetHandle();
    conduitToPeer.remote = elsewhere.GetChild("conduits/c", kPathCreate)->GetHandle();
    EXPECT_EQ(loader.AddExtension("peer_conduit", &conduitToPeer, nullptr), KT_STATUS_SUCCESS);
    conduit = conduitToPeer.GetHandle();
    k = AddConsumer("k", &consumer);
  }
  // The conduit's node goes while the conduit it holds is alive.
  ~RoutingTest() override { delete registry().ResolveHandle(conduit); }
  // The peer answers for `foreign`: group 3 of the publisher 0x77, tag `tag`;
  // its subscription answers `subscribed`.
  void DescribeForeign(unsigned int tag, KT_STATUS subscribed) {
    far.status = KT_STATUS_SUCCESS;
    far.description.word1 = tag;
    far.description.word4 = 3;
    far.info.parent = 0x77;
    far.subscribeStatus = subscribed;
  }
  template <typename... Args>
  static std::string Call(const char* operation, const Args&... args) {
    return RecordingClientManager::Call(operation, args...);
  }

  FakeConduit conduitToPeer;
  Registry elsewhere;
  RecordingClientManager far;
  unsigned long foreign = 0;
  unsigned long conduit = 0;
  unsigned long k = 0;
};

TEST_F(RoutingTest, NamespaceQueriesOfAPeerHandleAreAnsweredByThePeer) {
  unsigned long handle = 0;
  // The pointer checks of GetPath come before routing.
  EXPECT_EQ(client->GetPath(foreign, "a", nullptr), kArgument);
  EXPECT_EQ(client->GetPath(foreign, nullptr, &handle), kArgument);
  EXPECT_TRUE(far.calls.empty());

  unsigned long children[2] = {0, 0};
  ResourceInfo info{};
  Metric::Description desc;

  EXPECT_EQ(client->GetPath(foreign, "a/b", &handle), 77u);
  EXPECT_EQ(client->GetChildCount(foreign, nullptr), 77u) << "routing comes before the check";
  EXPECT_EQ(client->GetChildren(foreign, children, 2), 77u);
  EXPECT_EQ(client->GetResourceInfo(foreign, &info), 77u);
  EXPECT_EQ(client->GetMetricDescriptor(foreign, &desc), 77u);

  EXPECT_EQ(far.calls, (std::vector<std::string>{
                           Call("GetPath", foreign, std::string("a/b"), &handle),
                           Call("GetChildCount", foreign, static_cast<unsigned int*>(nullptr)),
                           Call("GetChildren", foreign, children, 2u),
                           Call("GetResourceInfo", foreign, &info),
                           Call("GetMetricDescriptor", foreign, &desc)}));
}

TEST_F(RoutingTest, SubscriptionThroughAConduitToThePeerIsBoundThere) {
  DescribeForeign(9, KT_STATUS_OUT_OF_RESOURCES);

  EXPECT_EQ(client->__SubscribeMetric(k, conduit, foreign, true), KT_STATUS_OUT_OF_RESOURCES)
      << "the peer's status, unchanged";

  ASSERT_EQ(far.calls.size(), 3u);
  EXPECT_EQ(far.calls[2], Call("SubscribeMetric", k, foreign));
  EXPECT_TRUE(conduitToPeer.buffers.empty()) << "nothing is bound here";
  far.subscribeStatus = KT_STATUS_SUCCESS;
  EXPECT_EQ(client->__SubscribeMetric(k, conduit, foreign, true), KT_STATUS_SUCCESS);
}

TEST_F(RoutingTest, UnsubscriptionThroughAConduitToThePeerIsUndoneThereAndForgottenHere) {
  DescribeForeign(0, KT_STATUS_SUCCESS);
  ASSERT_EQ(client->__SubscribeMetric(k, conduit, foreign, true), KT_STATUS_SUCCESS);
  far.calls.clear();
  far.status = KT_STATUS_DOES_NOT_EXIST;

  EXPECT_EQ(client->__UnsubscribeMetric(k, conduit, foreign, true), KT_STATUS_DOES_NOT_EXIST);

  ASSERT_FALSE(far.calls.empty());
  EXPECT_EQ(far.calls[0], Call("UnsubscribeMetric", k, foreign));
}

TEST_F(RoutingTest, MethodOfAPeerIsCalledThereWithoutTouchingAConduit) {
  client->m_loader = nullptr;  // no local conduit can be made
  HostBuffer args, returns;

  EXPECT_EQ(client->CallRemoteMethodSync(foreign, &args, &returns), 77u);
  EXPECT_EQ(client->__CallRemoteMethodSync(0, foreign, &args, &returns, true), 77u);

  const std::string call = Call("CallRemoteMethodSync", foreign,
                                static_cast<const IReadBuffer*>(&args),
                                static_cast<IWriteBuffer*>(&returns));
  EXPECT_EQ(far.calls, (std::vector<std::string>{call, call}));
  EXPECT_EQ(manager.dispatched, 0u);
}

// A request that has already crossed a process boundary is answered from
// this registry and never sent on again.
TEST_F(RoutingTest, TwinsWithRoutingOffNeverForward) {
  unsigned long handle = 0;
  unsigned int count = 0;
  unsigned long children[1] = {0};
  ResourceInfo info{};
  Metric::Description desc;
  HostBuffer args, returns;

  EXPECT_EQ(client->__GetPath(foreign, "a", &handle, false), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(client->__GetChildCount(foreign, &count, false), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(client->__GetChildren(foreign, children, 1, false), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(client->__GetResourceInfo(foreign, &info, false), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(client->__GetMetricDescriptor(foreign, &desc, false), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(client->__CallRemoteMethodSync(conduit, foreign, &args, &returns, false),
            KT_STATUS_SUCCESS);
  EXPECT_EQ(client->__SubscribeMetric(k, conduit, foreign, false), KT_STATUS_INVALID_OBJECT)
      << "unknown here";
  client->__UnsubscribeMetric(k, conduit, foreign, false);

  EXPECT_TRUE(far.calls.empty());
  EXPECT_EQ(conduitToPeer.transacted, std::vector<unsigned long>{foreign});
}

}  // namespace
}  // namespace MetricsFramework
