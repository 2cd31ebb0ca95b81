// Enumerating metrics below a node: what is listed, what is descended into,
// and what the publishers met on the way contribute.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "client_test_support.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

using Listing = std::vector<std::pair<unsigned long, Metric::Description>>;

class EnumerationTest : public ClientManagerTest {
 protected:
  unsigned long ProbeMetric(const std::string& uri) {
    return Publish(uri, 1, kUngrouped, Metric::kFlagProbe);
  }
  // A second publisher "publishers/<name>" with one probe metric.
  PublisherState* AddPublisher(const std::string& name) {
    Path* node = registry().GetChild(("publishers/" + name).c_str(), kPathCreate);
    auto* state = new PublisherState(&otherPublisher, node);
    Metric::Description d;
    d.uri = name + ".metric";
    d.flags = Metric::kFlagProbe;
    unsigned long handle = 0;
    EXPECT_EQ(state->PublishMetric(d, &handle), KT_STATUS_SUCCESS);
    return state;
  }
  // The listed handles, sorted.
  static std::vector<unsigned long> Handles(const Listing& listing) {
    std::vector<unsigned long> handles;
    for (const auto& entry : listing) handles.push_back(entry.first);
    std::sort(handles.begin(), handles.end());
    return handles;
  }
  static std::vector<unsigned long> Sorted(std::vector<unsigned long> handles) {
    std::sort(handles.begin(), handles.end());
    return handles;
  }

  CountingPublisher otherPublisher;
};

// Deliberately as it stands: ordinary metrics (kind 4) are not listed but
// descended into, like any node that is not a probe metric.
TEST_F(EnumerationTest, ProbeMetricsAreListedAndEverythingElseIsDescendedInto) {
  const unsigned long a = ProbeMetric("a");
  const unsigned long ordinary = Publish("ordinary");
  Path* below = registry().ResolveHandle(ordinary)->GetChildNamed("inner", kPathCreate);
  Metric::Description inner;
  inner.uri = "inner";
  inner.flags = Metric::kFlagProbe;
  new MetricState(inner, below);
  Listing listing;

  ASSERT_EQ(client->GetMetrics(0, listing, nullptr, nullptr), KT_STATUS_SUCCESS);

  EXPECT_EQ(Handles(listing), Sorted({a, below->GetHandle()}));
  for (const auto& entry : listing) {
    EXPECT_EQ(entry.second.uri, entry.first == a ? "a" : "inner");
  }
}

TEST_F(EnumerationTest, EveryCallAppendsToTheListingAndNeverListsTheFrameworkStateMetric) {
  const unsigned long a = ProbeMetric("a");
  ProbeMetric("com.velorn.kt.state");
  Listing listing;

  ASSERT_EQ(client->GetMetrics(publisherNode->GetHandle(), listing, nullptr, nullptr),
            KT_STATUS_SUCCESS);
  client->GetMetrics(0, listing, nullptr, nullptr);

  EXPECT_EQ(Handles(listing), (std::vector<unsigned long>{a, a}));
}

// Only once it has a child does the publisher contribute anything.
TEST_F(EnumerationTest, PublisherContributesItsGroupOrderInFrontAndItsNewSetNames) {
  publisherState->PublishGroupOrder({"g1", "g2"});
  publisherState->PublishSetNames({{1, "one"}, {2, "two"}});
  Listing listing;
  std::vector<std::string> groups{"earlier"};
  std::map<unsigned int, std::string> sets{{2, "kept"}};

  ASSERT_EQ(client->GetMetrics(publisherNode->GetHandle(), listing, &groups, &sets),
            KT_STATUS_SUCCESS);
  EXPECT_TRUE(listing.empty());
  EXPECT_EQ(groups, std::vector<std::string>{"earlier"});
  EXPECT_EQ(sets.size(), 1u);

  ProbeMetric("a");
  ASSERT_EQ(client->GetMetrics(publisherNode->GetHandle(), listing, &groups, &sets),
            KT_STATUS_SUCCESS);
  EXPECT_EQ(groups, (std::vector<std::string>{"g1", "g2", "earlier"}));
  EXPECT_EQ(sets, (std::map<unsigned int, std::string>{{1, "one"}, {2, "kept"}}));
}

TEST_F(EnumerationTest, FromTheRootTheLastPublisherVisitedComesFirstAndTheFirstNamesASet) {
  ProbeMetric("a");
  publisherState->PublishGroupOrder({"p"});
  publisherState->PublishSetNames({{7, "p"}});
  PublisherState* q = AddPublisher("q");
  q->PublishGroupOrder({"q"});
  q->PublishSetNames({{7, "q"}});
  unsigned long order[2] = {0, 0};
  registry().GetChild("publishers", 0)->GetChildHandles(2, order);
  const std::string first = order[0] == publisherNode->GetHandle() ? "p" : "q";
  const std::string last = first == "p" ? "q" : "p";
  Listing listing;
  std::vector<std::string> groups;
  std::map<unsigned int, std::string> sets;

  ASSERT_EQ(client->GetMetrics(0, listing, &groups, &sets), KT_STATUS_SUCCESS);

  EXPECT_EQ(groups, (std::vector<std::string>{last, first}));
  EXPECT_EQ(sets.at(7), first);
  EXPECT_EQ(listing.size(), 2u);
}

TEST_F(EnumerationTest, ChildThatCannotBeDescribedEndsTheCallAndKeepsWhatWasListed) {
  // Handles of our own choosing, so that the child order is the same in
  // every run: the probe metrics here and there around the broken child.
  const unsigned long base = static_cast<unsigned long>(registry().GetLocalGuid()) << 32;
  Path* tree = registry().NewChild(base | 0x100, "tree", true, true);
  Path* broken = tree->NewChild(base | 0x1FF, "broken", true, false);  // listed, not registered
  for (unsigned long id = 1; id <= 6; ++id) {
    Path* node = tree->NewChild(base | (0x100 + id), "m" + std::to_string(id), true, true);
    Metric::Description d;
    d.flags = Metric::kFlagProbe;
    new MetricState(d, node);
  }
  std::vector<unsigned long> order(7);
  tree->GetChildHandles(7, order.data());
  const auto at = std::find(order.begin(), order.end(), broken->GetHandle());
  ASSERT_NE(at, order.begin()) << "the arrangement needs a metric before the broken child";
  const std::vector<unsigned long> before(order.begin(), at);
  Listing listing{{0x1, Metric::Description()}};

  EXPECT_EQ(client->GetMetrics(tree->GetHandle(), listing, nullptr, nullptr),
            KT_STATUS_INVALID_OBJECT);

  ASSERT_EQ(listing.size(), before.size() + 1);
  EXPECT_EQ(listing[0].first, 0x1u);
  for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(listing[i + 1].first, before[i]);
  Listing fromRoot;
  EXPECT_EQ(client->GetMetrics(0, fromRoot, nullptr, nullptr), KT_STATUS_SUCCESS)
      << "a failed sub-tree is skipped";
}

TEST_F(EnumerationTest, EnumerationFromTheRootReachesTheMetricsOfAMountedPeer) {
  CountingPublisher farPublisher;
  Registry elsewhere;
  DefaultClientManager far(elsewhere);
  Path* farNode = elsewhere.GetChild("publishers/x", kPathCreate);
  auto* farState = new PublisherState(&farPublisher, farNode);
  Metric::Description d;
  d.uri = "far";
  d.flags = Metric::kFlagProbe;
  unsigned long farMetric = 0;
  ASSERT_EQ(farState->PublishMetric(d, &farMetric), KT_STATUS_SUCCESS);
  const unsigned long near = ProbeMetric("near");
  MountPeer(elsewhere.GetLocalGuid(), NewPeer(&far));
  Listing listing;

  ASSERT_EQ(client->GetMetrics(0, listing, nullptr, nullptr), KT_STATUS_SUCCESS);

  EXPECT_EQ(Handles(listing), Sorted({near, farMetric}));
}

}  // namespace
}  // namespace MetricsFramework
