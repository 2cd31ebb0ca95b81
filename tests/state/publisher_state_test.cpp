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

  unsigned long Publish(const std::string& uri, std::vector<unsigned int> sets = {},
                        unsigned int flags = 0) {
    Metric::Description d;
    d.uri = uri;
    d.flags = flags;
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

TEST_F(PublisherStateTest, NullOutPointerOrSecondMetricOfTheSameNameFailsAndChangesNothing) {
  Metric::Description m;
  m.uri = "m";
  EXPECT_EQ(state->PublishMetric(m, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(node->GetChild("m", 0), nullptr);
  EXPECT_TRUE(events.events.empty());

  const unsigned long first = Publish("m");
  events.events.clear();
  Metric::Description d;
  d.uri = "m";
  d.id = 99;
  unsigned long out = 0x5555;

  EXPECT_EQ(state->PublishMetric(d, &out), KT_STATUS_NON_UNIQUE);

  EXPECT_EQ(out, 0x5555u);
  EXPECT_EQ(node->GetChild("m", 0)->GetHandle(), first);
  EXPECT_EQ(MetricAt(first)->m_description.id, 0xFFFFFFFFu);
  EXPECT_TRUE(events.events.empty());
}

TEST_F(PublisherStateTest, PlainNodeOfTheNameBecomesTheMetricAndUriIsOneWholeName) {
  Path* plain = node->GetChild("pre", kPathCreate);

  const unsigned long reused = Publish("pre");
  const unsigned long slashed = Publish("a/b");

  EXPECT_EQ(reused, plain->GetHandle());
  EXPECT_EQ(node->GetChildNamed("a/b", 0)->GetHandle(), slashed);
  EXPECT_EQ(node->GetChild("a", 0), nullptr);
}

TEST_F(PublisherStateTest, PublishTellsAvailableThenPublishedWithTheOwnerAlreadySet) {
  static Path* ownerSeen;
  ownerSeen = nullptr;
  registry.AddStateListener(
      [](void* context, unsigned int event, unsigned long handle, unsigned long) {
        if (event != kEventMetricAvailable) return;
        auto* r = static_cast<Registry*>(context);
        ownerSeen = r->ResolveHandle(handle)->GetPayload()->m_owner;
      },
      &registry);

  const unsigned long h = Publish("m");
  ASSERT_EQ(state->UnpublishMetric(h), KT_STATUS_SUCCESS);

  EXPECT_EQ(ownerSeen, node);
  EXPECT_EQ(events.events, (Events{{3, h}, {6, h}, {7, h}}));
  EXPECT_EQ(registry.ResolveHandle(h), nullptr);
  EXPECT_EQ(state->UnpublishMetric(h), KT_STATUS_INVALID_OBJECT);
}

TEST_F(PublisherStateTest, TimeBasedMetricsAreListedInPublishOrder) {
  const unsigned long a = Publish("a", {}, Metric::kFlagTimeBased);
  Publish("plain");
  const unsigned long b = Publish("b", {}, Metric::kFlagTimeBased);
  const unsigned long c = Publish("c", {}, Metric::kFlagTimeBased);

  state->UnpublishMetric(a);

  EXPECT_EQ(state->GetTimeBasedMetrics(), (std::vector<unsigned long>{b, c}));
}

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

TEST_F(PublisherStateTest, BindAttachesTheBufferAndUnbindGivesTheBoundMetricBack) {
  const unsigned long m = Publish("m");
  HostBuffer buffer;
  IBoundMetric* bound = nullptr;

  ASSERT_EQ(state->Bind(m, conduit, &buffer, &bound), KT_STATUS_SUCCESS);
  auto* fake = static_cast<BoundMetric*>(bound);
  EXPECT_EQ(fake->attached, static_cast<IWriteBuffer*>(&buffer));
  EXPECT_TRUE(MetricAt(m)->m_description.flags & Metric::kFlagBound);

  ASSERT_EQ(state->Unbind(m, conduit, bound), KT_STATUS_SUCCESS);
  EXPECT_EQ(fake->attached, nullptr);
  EXPECT_EQ(publisher.lastUnbound, bound);
  EXPECT_FALSE(MetricAt(m)->m_description.flags & Metric::kFlagBound);
  EXPECT_EQ(state->Unbind(0x1234, conduit, bound), KT_STATUS_INVALID_OBJECT);
}

TEST_F(PublisherStateTest, BindOfAMetricThatIsGoneOrThatThePublisherRefusesFails) {
  IBoundMetric* bound = nullptr;
  EXPECT_EQ(state->Bind(0x1234, conduit, nullptr, &bound), KT_STATUS_OUT_OF_RESOURCES);
  EXPECT_EQ(bound, nullptr);
  ASSERT_EQ(publisher.bound.size(), 1u);  // the publisher's side is undone
  EXPECT_EQ(publisher.bound[0]->calls.back(), "detach " + std::to_string(conduit->GetHandle()));
  EXPECT_EQ(publisher.lastUnbound, publisher.bound[0].get());

  const unsigned long m = Publish("m");
  publisher.refuseBinding = true;
  EXPECT_EQ(state->Bind(m, conduit, nullptr, &bound), KT_STATUS_OUT_OF_RESOURCES);
  EXPECT_EQ(bound, nullptr);
  EXPECT_FALSE(MetricAt(m)->m_description.flags & Metric::kFlagBound);
}

}  // namespace
}  // namespace MetricsFramework
