#include "state/publisher_state.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "state/metric_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

class PublisherStateTest : public ::testing::Test {
 protected:
  PublisherStateTest() {
    node = registry.GetChild("publishers/p", kPathCreate);
    state = new PublisherState(&publisher, node);
    conduit = registry.GetChild("conduits/c", kPathCreate | kPathUnlisted);
    events.Listen(registry);
  }

  unsigned long Publish(const std::string& uri, std::vector<unsigned int> sets) {
    Metric::Description d;
    d.uri = uri;
    d.setIds = std::move(sets);
    unsigned long handle = 0;
    EXPECT_EQ(state->PublishMetric(d, &handle), KT_STATUS_SUCCESS);
    return handle;
  }
  MetricState* MetricAt(unsigned long handle) {
    return dynamic_cast<MetricState*>(node->GetChild(handle, 0)->GetPayload());
  }
  bool Available(unsigned long handle) {
    return (MetricAt(handle)->m_description.flags & Metric::kFlagAvailable) != 0;
  }
  IBoundMetric* Bind(unsigned long handle) {
    IBoundMetric* bound = nullptr;
    EXPECT_EQ(state->Bind(handle, conduit, nullptr, &bound), KT_STATUS_SUCCESS);
    return bound;
  }

  static Events Sorted(Events events) {
    std::sort(events.begin(), events.end());
    return events;
  }

  Registry registry;
  CountingPublisher publisher;
  Path* node;
  PublisherState* state;
  Path* conduit;
  EventLog events;
};

TEST_F(PublisherStateTest, MetricIsAvailableExactlyWhenOneOfItsSetsIsSharedByAllBound) {
  const unsigned long a = Publish("a", {1, 2});
  const unsigned long shares = Publish("b", {2});
  events.events.clear();
  IBoundMetric* sharing = Bind(shares);
  EXPECT_TRUE(Available(a)) << "a bound sibling sharing a set keeps it available";
  EXPECT_TRUE(events.events.empty());
  ASSERT_EQ(state->Unbind(shares, conduit, sharing), KT_STATUS_SUCCESS);
  EXPECT_TRUE(Available(a));
  const unsigned long other = Publish("c", {3});
  events.events.clear();

  IBoundMetric* bound = Bind(other);
  const Events whileBound = events.events;
  events.events.clear();
  ASSERT_EQ(state->Unbind(other, conduit, bound), KT_STATUS_SUCCESS);

  // Both unbound siblings lose their shared set; child order decides who is told first.
  EXPECT_EQ(Sorted(whileBound), Sorted({{4, a}, {4, shares}}));
  EXPECT_EQ(Sorted(events.events), Sorted({{3, a}, {3, shares}}));
  EXPECT_TRUE(Available(a));
  EXPECT_TRUE(Available(other));
}

}  // namespace
}  // namespace MetricsFramework
