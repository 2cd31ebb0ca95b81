#include "state/metric_state.h"

#include <gtest/gtest.h>

#include "state/consumer_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// A consumer whose listener face is reached only through CastTo.
class AskedListenerConsumer : public RecordingConsumer {
 public:
  void* CastTo(const char* name) override {
    if (name != nullptr && std::string(name) == "IMetricStateListener") {
      return static_cast<IMetricStateListener*>(&listener);
    }
    return RecordingConsumer::CastTo(name);
  }
  ListeningConsumer listener;
};

class MetricStateTest : public ::testing::Test {
 protected:
  MetricState* Make(const Metric::Description& desc) {
    return new MetricState(desc, registry.GetChild(("publishers/p/" + desc.uri).c_str(), kPathCreate));
  }
  Path* Conduit(const char* name) {
    return registry.GetChild((std::string("conduits/") + name).c_str(), kPathCreate | kPathUnlisted);
  }
  void AddConsumer(const char* name, IConsumer* consumer) {
    new ConsumerState(consumer, registry.GetChild((std::string("consumers/") + name).c_str(),
                                                  kPathCreate));
  }

  Registry registry;
};

TEST_F(MetricStateTest, BoundBitStaysUntilTheLastBindingGoes) {
  MetricState* state = Make(FullDescription("m"));
  Path* first = Conduit("a");
  Path* second = Conduit("b");
  EXPECT_EQ(state->Unbind(first), KT_STATUS_INVALID_OBJECT);

  state->Bind(first);
  state->Bind(second);
  state->Unbind(first);
  const bool boundWithOneLeft = state->m_description.flags & Metric::kFlagBound;
  state->Unbind(second);

  EXPECT_TRUE(boundWithOneLeft);
  EXPECT_FALSE(state->m_description.flags & Metric::kFlagBound);
  EXPECT_FALSE(state->m_path->GetChild("bindings", 0)->HasChildren());
}

TEST_F(MetricStateTest, AvailabilityNoticesReachListeningConsumersAndTheRegistry) {
  ListeningConsumer byCast;
  AskedListenerConsumer byName;
  RecordingConsumer deaf;
  AddConsumer("cast", &byCast);
  AddConsumer("name", &byName);
  AddConsumer("deaf", &deaf);
  EventLog events;
  events.Listen(registry);
  MetricState* state = Make(FullDescription("m"));
  const unsigned long h = state->m_path->GetHandle();

  state->UpdateAvailablity(false);
  state->UpdateAvailablity(true);

  using Notices = std::vector<std::pair<unsigned long, bool>>;
  EXPECT_EQ(byCast.notices, (Notices{{h, false}, {h, true}}));
  EXPECT_EQ(byName.listener.notices, (Notices{{h, false}, {h, true}}));
  EXPECT_EQ(events.events, (Events{{4, h}, {3, h}}));
  EXPECT_TRUE(state->m_description.flags & Metric::kFlagAvailable);
}

}  // namespace
}  // namespace MetricsFramework
