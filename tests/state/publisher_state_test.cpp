#include "state/publisher_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// A bound metric makes its siblings unavailable unless they share one of its
// sets; unbound again, they come back. Child order decides who is told first.
TEST(PublisherStateTest, MetricIsAvailableExactlyWhenOneOfItsSetsIsSharedByAllBound) {
  Registry registry;
  CountingPublisher publisher;
  auto* state = new PublisherState(&publisher, registry.GetChild("publishers/p", kPathCreate));
  Path* conduit = registry.GetChild("conduits/c", kPathCreate | kPathUnlisted);
  EventLog log;
  log.Listen(registry);
  auto publish = [&](const char* uri, std::vector<unsigned int> sets) {
    Metric::Description d = Describe(uri);
    d.setIds = std::move(sets);
    unsigned long handle = 0;
    EXPECT_EQ(state->PublishMetric(d, &handle), KT_STATUS_SUCCESS);
    return handle;
  };
  // The events of binding `handle`, then of unbinding it, each sorted.
  auto bindAndUnbind = [&](unsigned long handle) {
    std::pair<Events, Events> events;
    IBoundMetric* bound = nullptr;
    log.events.clear();
    EXPECT_EQ(state->Bind(handle, conduit, nullptr, &bound), KT_STATUS_SUCCESS);
    events.first.swap(log.events);
    EXPECT_EQ(state->Unbind(handle, conduit, bound), KT_STATUS_SUCCESS);
    events.second.swap(log.events);
    for (Events* e : {&events.first, &events.second}) std::sort(e->begin(), e->end());
    return events;
  };
  const unsigned long a = publish("a", {1, 2}), b = publish("b", {2});

  EXPECT_EQ(bindAndUnbind(b), std::make_pair(Events{}, Events{})) << "a shares set 2";
  const unsigned long c = publish("c", {3});
  EXPECT_EQ(bindAndUnbind(c), std::make_pair(Events{{4, a}, {4, b}}, Events{{3, a}, {3, b}}));
}

}  // namespace
}  // namespace MetricsFramework
