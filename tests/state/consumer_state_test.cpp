#include "state/consumer_state.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "state/conduit_state.h"
#include "state/metric_binding_state.h"
#include "state/metric_state.h"
#include "state_fakes.h"
#include "support/fake_manager.h"
#include "support/data_push_inspector.h"
#include "support/filing_loader.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

class ConsumerStateTest : public ::testing::Test {
 protected:
  ConsumerStateTest() : loader(manager) {
    consumer.Load(&manager, nullptr, 0, &loader);
    node = registry().GetChild("consumers/k", kPathCreate);
    state = new ConsumerState(&consumer, node);
    publisherNode = registry().GetChild("publishers/p", kPathCreate);
    publisherState = new PublisherState(&publisher, publisherNode);
  }
  Registry& registry() { return manager.registry; }
  unsigned int LocalGuid() { return registry().GetLocalGuid(); }
  ConduitState* LocalConduit() {
    Path* conduit = registry().ResolveHandle(state->GetConduitHandle(LocalGuid()));
    return conduit != nullptr ? dynamic_cast<ConduitState*>(conduit->GetPayload()) : nullptr;
  }
  // A metric subscribed through the consumer's local conduit and bound to it.
  Path* SubscribedMetric(const char* uri) {
    const unsigned long h = Published(publisherState, uri);
    ConduitState* conduit = LocalConduit();
    EXPECT_EQ(conduit->Subscribe(node->GetHandle()), KT_STATUS_SUCCESS);
    EXPECT_EQ(conduit->Bind(publisherNode->GetChild(h, 0), h), KT_STATUS_SUCCESS);
    DataPushInspector(conduit).SetTag(h, 1);
    DataPushInspector(conduit).SetGroup(h, {publisherNode->GetHandle(), kUngrouped});
    return publisherNode->GetChild(h, 0);
  }

  FakeManager manager;
  FilingLoader loader;
  RecordingConsumer consumer;
  FakePublisher publisher;
  Path* node;
  ConsumerState* state;
  Path* publisherNode;
  PublisherState* publisherState;
};

TEST_F(ConsumerStateTest, LocalConduitIsRegisteredOnceAndOnlyForThisMachine) {
  const unsigned long first = state->GetConduitHandle(LocalGuid());
  const unsigned long second = state->GetConduitHandle(LocalGuid());

  EXPECT_NE(first, 0u);
  EXPECT_EQ(second, first);
  EXPECT_EQ(loader.added.size(), 1u);
  EXPECT_EQ(registry().GetChild("conduits", 0)->GetChildNamed("LocalConduit_k", 0)->GetHandle(),
            first);
  // A foreign machine, or a consumer without a loader, gets none.
  EXPECT_EQ(state->GetConduitHandle(LocalGuid() + 1), 0u);
  RecordingConsumer unloaded;
  auto* orphan = new ConsumerState(&unloaded, registry().GetChild("consumers/o", kPathCreate));
  EXPECT_EQ(orphan->GetConduitHandle(LocalGuid()), 0u);
  EXPECT_EQ(loader.added.size(), 1u);
}

TEST_F(ConsumerStateTest, SubscriptionsAreLinkedOnBothSidesOnce) {
  ConduitState* conduit = LocalConduit();

  ASSERT_EQ(conduit->Subscribe(node->GetHandle()), KT_STATUS_SUCCESS);
  EXPECT_EQ(conduit->Subscribe(node->GetHandle()), KT_STATUS_ALREADY_EXISTS);
  EXPECT_EQ(state->Subscribe(conduit->m_path), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(node->GetChild(conduit->m_path->GetHandle(), 0), conduit->m_path);
  EXPECT_EQ(conduit->Subscribe(0), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(conduit->Subscribe(publisherNode->GetHandle()), KT_STATUS_INVALID_OBJECT)
      << "a publisher's handle names no consumer";

  ASSERT_EQ(conduit->Unsubscribe(node->GetHandle()), KT_STATUS_SUCCESS);
  EXPECT_EQ(node->GetChild(conduit->m_path->GetHandle(), 0), nullptr);
  EXPECT_EQ(conduit->Unsubscribe(node->GetHandle()), KT_STATUS_INVALID_OBJECT);
}

TEST_F(ConsumerStateTest, BatchedConsumerWithoutBatchBranchStaysInSubscriptions) {
  BatchedConsumer batched;
  Path* batchedNode = registry().GetChild("consumers/b", kPathCreate);
  auto* batchedState = new ConsumerState(&batched, batchedNode);
  ConduitState* conduit = LocalConduit();
  ASSERT_TRUE(batchedState->IsConsumer2());
  ASSERT_EQ(conduit->Subscribe(batchedNode->GetHandle()), KT_STATUS_SUCCESS);
  delete conduit->m_path->GetChild("batch_subscriptions", 0);

  EXPECT_EQ(conduit->Unsubscribe(batchedNode->GetHandle()), KT_STATUS_INVALID_OBJECT);

  EXPECT_NE(conduit->m_path->GetChild("subscriptions", 0)->GetChild(batchedNode->GetHandle(), 0),
            nullptr)
      << "deliberately left in subscriptions";
}

TEST_F(ConsumerStateTest, FlushReachesThePublishersOfTheLocalConduit) {
  EXPECT_EQ(state->FlushConduits(), KT_STATUS_SUCCESS) << "nothing registered yet";
  SubscribedMetric("m");

  EXPECT_EQ(state->FlushConduits(), KT_STATUS_SUCCESS);

  EXPECT_EQ(publisher.bound.at(0)->calls.back().rfind("flush", 0), 0u);
}

TEST_F(ConsumerStateTest, UnbindForgetsTheMetricInThePushTables) {
  Path* metric = SubscribedMetric("m");
  ConduitState* conduit = LocalConduit();
  const unsigned long h = metric->GetHandle();
  DataPushInspector tables(conduit);
  tables.SetGroup(h, {7, 1});
  tables.Template(7, 1) = {h, 0x55};
  tables.Expected(7, 1) = {0x55};
  QueueBuffer other(64, nullptr, 0, 0, 0);
  tables.CollectedHandles(7, 1) = {0x55, h, 0x55};
  tables.CollectedBuffers(7, 1) = {&other, nullptr, &other};

  ASSERT_EQ(conduit->Unbind(h), KT_STATUS_SUCCESS);

  EXPECT_EQ(tables.Template(7, 1).count(h), 0u);
  EXPECT_EQ(tables.CollectedHandles(7, 1), (std::vector<unsigned long>{0x55, 0x55}));
  EXPECT_EQ(tables.CollectedBuffers(7, 1),
            (std::vector<const IReadBuffer*>{&other, &other}));
  EXPECT_FALSE(tables.Tagged(h));
  EXPECT_FALSE(tables.Member(h));
}

// Every order of teardown leaves no link, binding or buffer behind (run under
// AddressSanitizer): the samples keep flowing until the end.
TEST_F(ConsumerStateTest, DestroyingTheConsumerFirstUnsubscribesAndDropsItsConduit) {
  Path* metric = SubscribedMetric("m");
  Path* conduitNode = LocalConduit()->m_path;
  const unsigned long conduitHandle = conduitNode->GetHandle();

  delete node;

  EXPECT_EQ(registry().ResolveHandle(conduitHandle), nullptr);
  EXPECT_EQ(loader.removed.size(), 1u);
  EXPECT_FALSE(metric->GetChild("bindings", 0)->HasChildren());
  EXPECT_EQ(publisher.unbinds, 1);
}

TEST_F(ConsumerStateTest, DestroyingTheConduitFirstLeavesTheConsumerWithoutLinks) {
  Path* metric = SubscribedMetric("m");
  Path* conduitNode = LocalConduit()->m_path;

  delete conduitNode;

  EXPECT_FALSE(node->HasChildren());
  EXPECT_FALSE(metric->GetChild("bindings", 0)->HasChildren());
  EXPECT_EQ(publisher.unbinds, 1);
}

TEST_F(ConsumerStateTest, DestroyingTheMetricFirstKeepsTheSubscription) {
  Path* metric = SubscribedMetric("m");
  ConduitState* conduit = LocalConduit();
  const unsigned long h = metric->GetHandle();

  ASSERT_EQ(publisherState->UnpublishMetric(h), KT_STATUS_SUCCESS);

  EXPECT_FALSE(conduit->m_path->GetChild("bindings", 0)->HasChildren());
  EXPECT_FALSE(DataPushInspector(conduit).Tagged(h));
  EXPECT_NE(node->GetChild(conduit->m_path->GetHandle(), 0), nullptr);
}

TEST(ConsumerTeardownTest, RegistryTeardownDoesNotAskTheLoader) {
  auto manager = std::make_unique<FakeManager>();
  FilingLoader loader(*manager);
  RecordingConsumer consumer;
  consumer.Load(manager.get(), nullptr, 0, &loader);
  auto* state = new ConsumerState(&consumer, manager->registry.GetChild("consumers/k", kPathCreate));
  ASSERT_NE(state->GetConduitHandle(manager->registry.GetLocalGuid()), 0u);

  manager.reset();

  EXPECT_TRUE(loader.removed.empty());
}

}  // namespace
}  // namespace MetricsFramework
