#include "state/conduit_state.h"

#include <gtest/gtest.h>

#include "state/consumer_state.h"
#include "state/metric_binding_state.h"
#include "state/metric_state.h"
#include "state_fakes.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// A publisher with metrics and a conduit, all filed as the manager files them.
class ConduitStateTest : public ::testing::Test {
 protected:
  ConduitStateTest() {
    publisherNode = registry.GetChild("publishers/p", kPathCreate);
    publisherState = new PublisherState(&publisher, publisherNode);
    conduitNode = Conduit("c", &conduit);
    state = static_cast<ConduitState*>(conduitNode->GetPayload());
  }
  Path* Conduit(const char* name, FakeConduit* extension) {
    Path* node = registry.GetChild((std::string("conduits/") + name).c_str(),
                                   kPathCreate | kPathUnlisted);
    new ConduitState(extension, node);
    return node;
  }
  Path* Publish(const char* uri) {
    return publisherNode->GetChild(Published(publisherState, uri), 0);
  }
  Path* Binding(Path* conduitNode, Path* metric) {
    Path* bindings = conduitNode->GetChild("bindings", 0);
    return bindings != nullptr ? bindings->GetChild(metric->GetHandle(), 0) : nullptr;
  }
  Path* MetricBindings(Path* metric) { return metric->GetChild("bindings", 0); }

  Registry registry;
  FakePublisher publisher;
  FakeConduit conduit;
  Path* publisherNode;
  PublisherState* publisherState;
  Path* conduitNode;
  ConduitState* state;
};

TEST_F(ConduitStateTest, BindLinksMetricBufferAndPublisherBothWays) {
  Path* metric = Publish("m");

  ASSERT_EQ(state->Bind(metric, metric->GetHandle()), KT_STATUS_SUCCESS);

  Path* binding = Binding(conduitNode, metric);
  ASSERT_NE(binding, nullptr);
  auto* bindingState = dynamic_cast<MetricBindingState*>(binding->GetPayload());
  ASSERT_NE(bindingState, nullptr);
  EXPECT_EQ(bindingState->GetBuffer(), conduit.buffers.at(0).get());
  EXPECT_EQ(publisher.bound.at(0)->attached,
            static_cast<IWriteBuffer*>(conduit.buffers[0].get()));
  EXPECT_EQ(MetricBindings(metric)->GetChild(conduitNode->GetHandle(), 0), conduitNode);
  EXPECT_EQ(state->Bind(metric, metric->GetHandle()), KT_STATUS_ALREADY_EXISTS);
  EXPECT_EQ(publisher.binds, 1);
  // A second conduit gets a binding of its own.
  FakeConduit other;
  Path* otherNode = Conduit("d", &other);
  static_cast<ConduitState*>(otherNode->GetPayload())->Bind(metric, metric->GetHandle());
  EXPECT_EQ(MetricBindings(metric)->GetChild(conduitNode->GetHandle(), 0), conduitNode);
  EXPECT_EQ(MetricBindings(metric)->GetChild(otherNode->GetHandle(), 0), otherNode);
}

TEST_F(ConduitStateTest, FailedBindLeavesNoBindingAndReturnsTheBuffer) {
  Path* metric = Publish("m");
  conduit.createStatus = KT_STATUS_OUT_OF_RESOURCES;
  EXPECT_EQ(state->Bind(metric, metric->GetHandle()), KT_STATUS_OUT_OF_RESOURCES);
  EXPECT_EQ(Binding(conduitNode, metric), nullptr);

  conduit.createStatus = KT_STATUS_SUCCESS;
  publisher.refuseBinding = true;
  EXPECT_EQ(state->Bind(metric, metric->GetHandle()), KT_STATUS_OUT_OF_RESOURCES);
  EXPECT_EQ(Binding(conduitNode, metric), nullptr);
  ASSERT_EQ(conduit.returned.size(), 1u);
  EXPECT_EQ(conduit.returned[0], conduit.buffers.at(0).get());
}

TEST_F(ConduitStateTest, UnbindUndoesBindOnceAndReportsWhatIsMissing) {
  Path* metric = Publish("m");
  EXPECT_EQ(state->Unbind(metric->GetHandle()), KT_STATUS_DOES_NOT_EXIST);
  state->Bind(metric, metric->GetHandle());
  auto* binding = static_cast<MetricBindingState*>(Binding(conduitNode, metric)->GetPayload());
  binding->Unbind();
  binding->Unbind();
  EXPECT_EQ(publisher.unbinds, 1);

  ASSERT_EQ(state->Unbind(metric->GetHandle()), KT_STATUS_SUCCESS);

  EXPECT_EQ(publisher.unbinds, 1);
  EXPECT_EQ(Binding(conduitNode, metric), nullptr);
  EXPECT_EQ(conduit.returned.size(), 1u);
  EXPECT_EQ(state->Unbind(metric->GetHandle()), KT_STATUS_INVALID_OBJECT);
}

TEST_F(ConduitStateTest, FlushNeedsABindingThenFlushesPublisherAndBuffer) {
  EXPECT_EQ(state->FlushMetrics(), KT_STATUS_INVALID_OBJECT);
  Path* metric = Publish("m");
  state->Bind(metric, metric->GetHandle());

  EXPECT_EQ(state->FlushMetrics(), KT_STATUS_SUCCESS);

  EXPECT_EQ(publisher.bound.at(0)->calls.back(), "flush " + std::to_string(conduitNode->GetHandle()));
  EXPECT_EQ(conduit.buffers.at(0)->flushes, 1);
}

TEST_F(ConduitStateTest, TimeBasedSampleReachesEverySubscriberWithTag199AndNoSizes) {
  RecordingConsumer first;
  RecordingConsumer second;
  Path* subscriptions = conduitNode->GetChild("subscriptions", kPathCreate | kPathUnlisted);
  for (RecordingConsumer* consumer : {&first, &second}) {
    Path* node = registry.GetChild(("consumers/" + std::to_string(reinterpret_cast<unsigned long>(consumer))).c_str(),
                                   kPathCreate);
    new ConsumerState(consumer, node);
    subscriptions->AddSymlink(node);
  }
  int sample = 5;

  EXPECT_EQ(state->PushDataForTimeBasedMetric(0x77, &sample), KT_STATUS_SUCCESS);

  for (RecordingConsumer* consumer : {&first, &second}) {
    ASSERT_EQ(consumer->samples.size(), 1u);
    EXPECT_EQ(consumer->samples[0].handle, 0x77u);
    EXPECT_EQ(consumer->samples[0].tag, 199u);
    EXPECT_EQ(consumer->samples[0].data, &sample);
    EXPECT_TRUE(consumer->samples[0].withoutSizes);
  }
}

// Teardown in either order leaves no link, binding or bound metric behind
// (run under AddressSanitizer).
TEST_F(ConduitStateTest, DestroyingTheMetricFirstUnbindsItFromTheConduit) {
  Path* metric = Publish("m");
  state->Bind(metric, metric->GetHandle());

  ASSERT_EQ(publisherState->UnpublishMetric(metric->GetHandle()), KT_STATUS_SUCCESS);

  EXPECT_EQ(publisher.unbinds, 1);
  EXPECT_EQ(conduit.returned.size(), 1u);
  EXPECT_FALSE(conduitNode->GetChild("bindings", 0)->HasChildren());
}

TEST_F(ConduitStateTest, DestroyingTheConduitFirstUnbindsItsMetrics) {
  Path* metric = Publish("m");
  state->Bind(metric, metric->GetHandle());

  delete conduitNode;

  EXPECT_EQ(publisher.unbinds, 1);
  EXPECT_FALSE(MetricBindings(metric)->HasChildren());
  EXPECT_FALSE(dynamic_cast<MetricState*>(metric->GetPayload())->m_description.flags &
               Metric::kFlagBound);
}

}  // namespace
}  // namespace MetricsFramework
