// The client manager of a host: its own extensions and their lifetime, the
// namespace queries, the metric listing, and the way to another process.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "state/metric_state.h"
#include "state/peer_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;
using Listing = std::vector<std::pair<unsigned long, Metric::Description>>;

// A host with the publisher "p".
class ClientManagerTest : public ::testing::Test {
 protected:
  ClientManagerTest() { EXPECT_EQ(live.Add("p", &publisher), KT_STATUS_SUCCESS); }

  Registry& registry() { return live.registry(); }
  DefaultClientManager& client() { return *live.client; }
  unsigned long Publish(const std::string& uri, unsigned int flags = 0) {
    return live.Publish(&publisher, Describe(uri, 1, kUngrouped, flags));
  }
  unsigned long ProbeMetric(const std::string& uri) { return Publish(uri, Metric::kFlagProbe); }

  CountingPublisher publisher;
  RecordingConsumer consumer;
  LiveManager live;
};

TEST_F(ClientManagerTest, ProxyIsFoundOnlyForAProcessMountedUnderPeers) {
  Registry elsewhere;
  DefaultClientManager far(elsewhere);
  FakePeer peer(&far);
  const unsigned long foreign = elsewhere.GetChild("x", kPathCreate)->GetHandle();
  const unsigned long own = publisher.GetHandle();
  auto mount = [&](unsigned int guid) {
    Path* peers = registry().GetChild("peers", kPathCreate);
    new PeerState(&peer, peers->GetChild(static_cast<unsigned long>(guid) << 32,
                                         kPathCreate | kPathNoHandleEntry));
  };
  IClientManager* found = nullptr;

  EXPECT_EQ(client().GetProxyForComponent(foreign, &found), kObject) << "no peers";
  mount(elsewhere.GetLocalGuid());
  EXPECT_EQ(client().GetProxyForComponent(own, &found), kObject);
  ASSERT_EQ(client().GetProxyForComponent(foreign, &found), KT_STATUS_SUCCESS);
  EXPECT_EQ(found, &far);

  found = nullptr;
  mount(registry().GetLocalGuid());
  EXPECT_EQ(client().GetProxyForComponent(own, &found), KT_STATUS_SUCCESS)
      << "the own GUID listed under peers";
  EXPECT_EQ(found, &far);
  delete registry().GetChild("peers", 0);  // before the peer
}

// Left filed, the nodes would outlive the objects they hold: the conduit
// state would give buffers back to a conduit that is gone.
TEST_F(ClientManagerTest, DestructorHandsItsExtensionsBackAndDeletesTheirNodes) {
  const unsigned long nullConsumer = client().GetNullConsumerHandle();
  const unsigned long conduit = client().GetConduitHandle(0, 0);
  const unsigned long metric = Publish("m");
  ASSERT_EQ(client().__SubscribeMetric(nullConsumer, conduit, metric, true), KT_STATUS_SUCCESS);

  live.client.reset();

  EXPECT_EQ(registry().ResolveHandle(nullConsumer), nullptr);
  EXPECT_EQ(registry().ResolveHandle(conduit), nullptr);
  EXPECT_EQ(publisher.unbinds, 1);
}

TEST_F(ClientManagerTest, ChildrenAreCountedAndListedInChildOrder) {
  for (const char* uri : {"a", "b", "c"}) Publish(uri);
  const unsigned long p = publisher.GetHandle();
  unsigned int count = 0;
  ASSERT_EQ(client().GetChildCount(p, &count), KT_STATUS_SUCCESS);
  ASSERT_EQ(count, 3u);
  std::vector<unsigned long> expected(3), all(3), first(2);
  registry().ResolveHandle(p)->GetChildHandles(3, expected.data());

  EXPECT_EQ(client().GetChildren(p, all.data(), 3), KT_STATUS_SUCCESS);
  EXPECT_EQ(client().GetChildren(p, first.data(), 2), KT_STATUS_SUCCESS);

  EXPECT_EQ(all, expected);
  EXPECT_EQ(first, std::vector<unsigned long>(expected.begin(), expected.begin() + 2));
  ASSERT_EQ(client().GetChildCount(0, &count), KT_STATUS_SUCCESS);
  EXPECT_EQ(count, registry().ChildCount()) << "0 is the root";
}

// Deliberately as it stands: ordinary metrics are not listed but descended
// into, like any node that is not a probe metric; the framework's own state
// metric is never listed, and every call appends.
TEST_F(ClientManagerTest, ListingHoldsProbeMetricsFoundBelowAnyNodeButTheStateMetric) {
  const unsigned long a = ProbeMetric("a");
  ProbeMetric("com.velorn.kt.state");
  Path* below = registry().ResolveHandle(Publish("ordinary"))->GetChildNamed("in", kPathCreate);
  new MetricState(Describe("in", 1, kUngrouped, Metric::kFlagProbe), below);
  Listing listing;

  ASSERT_EQ(client().GetMetrics(0, listing, nullptr, nullptr), KT_STATUS_SUCCESS);
  client().GetMetrics(publisher.GetHandle(), listing, nullptr, nullptr);

  std::vector<unsigned long> handles, expected{a, a, below->GetHandle(), below->GetHandle()};
  for (const auto& entry : listing) handles.push_back(entry.first);
  std::sort(handles.begin(), handles.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(handles, expected);
}

// Only once it has a child does the publisher contribute anything.
TEST_F(ClientManagerTest, PublisherContributesItsGroupOrderInFrontAndItsNewSetNames) {
  std::vector<std::string> order{"g1", "g2"};
  live.manager.PublishGroupOrder(&publisher, order);
  live.manager.PublishSetNames(&publisher, {{1, "one"}, {2, "two"}});
  Listing listing;
  std::vector<std::string> groups{"earlier"};
  std::map<unsigned int, std::string> sets{{2, "kept"}};

  ASSERT_EQ(client().GetMetrics(publisher.GetHandle(), listing, &groups, &sets),
            KT_STATUS_SUCCESS);
  EXPECT_EQ(groups, std::vector<std::string>{"earlier"});
  EXPECT_EQ(sets.size(), 1u);

  ProbeMetric("a");
  ASSERT_EQ(client().GetMetrics(publisher.GetHandle(), listing, &groups, &sets),
            KT_STATUS_SUCCESS);
  EXPECT_EQ(groups, (std::vector<std::string>{"g1", "g2", "earlier"}));
  EXPECT_EQ(sets, (std::map<unsigned int, std::string>{{1, "one"}, {2, "kept"}}));
}

}  // namespace
}  // namespace MetricsFramework
