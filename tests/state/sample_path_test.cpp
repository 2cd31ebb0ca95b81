// The sample path as far as the state objects and the local conduit reach: a
// publisher's metric is bound to a buffer of a local conduit, the publisher
// reserves and commits samples, the buffer pushes them to its manager, which
// reads and releases them; unpublishing gives the buffer back to the pool.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/fake_manager.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state/metric_state.h"
#include "state_fakes.h"
#include "transport/local_conduit.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

class SamplePathTest : public ::testing::Test {
 protected:
  SamplePathTest() {
    Registry& registry = manager.registry;
    publisherNode = registry.GetChild("publishers/p", kPathCreate);
    publisherState = new PublisherState(&publisher, publisherNode);
    conduitNode = registry.GetChild("conduits/LocalConduit_c", kPathCreate | kPathUnlisted);
    conduitState = new ConduitState(&conduit, conduitNode);
    conduit.Load(&manager, nullptr, conduitNode->GetHandle(), nullptr);
  }
  ~SamplePathTest() override {
    // The tree goes before the conduit that owns the buffers.
    delete publisherNode;
    delete conduitNode;
  }

  unsigned long PublishAndBind(const char* uri, unsigned int flags = 0) {
    Metric::Description d;
    d.uri = uri;
    d.flags = flags;
    unsigned long handle = 0;
    EXPECT_EQ(publisherState->PublishMetric(d, &handle), KT_STATUS_SUCCESS);
    EXPECT_EQ(conduitState->Bind(publisherNode->GetChild(handle, 0), handle), KT_STATUS_SUCCESS);
    return handle;
  }
  // The latest binding's writer: a handle can come back once its node is gone.
  IWriteBuffer* WriterOf(unsigned long metric) {
    for (auto it = publisher.bound.rbegin(); it != publisher.bound.rend(); ++it) {
      if ((*it)->metric == metric) return (*it)->attached;
    }
    return nullptr;
  }
  void Write(IWriteBuffer* buffer, const std::string& bytes) {
    void* block = buffer->Reserve(bytes.size());
    std::memcpy(block, bytes.data(), bytes.size());
    buffer->Commit(block);
  }

  FakeManager manager;
  FakePublisher publisher;
  LocalConduit conduit;
  Path* publisherNode;
  PublisherState* publisherState;
  Path* conduitNode;
  ConduitState* conduitState;
};

TEST_F(SamplePathTest, CommittedSamplesArePushedToTheManagerInOrderAndReleased) {
  const unsigned long metric = PublishAndBind("cpu");
  IWriteBuffer* writer = WriterOf(metric);
  ASSERT_NE(writer, nullptr);

  for (int i = 0; i < 100; ++i) Write(writer, "sample-" + std::to_string(i));

  ASSERT_EQ(manager.pushes.size(), 100u);
  EXPECT_EQ(manager.pushes[0].conduit, conduitNode->GetHandle());
  EXPECT_EQ(manager.pushes[0].binding, metric);
  EXPECT_EQ(manager.pushes[99].sample, "sample-99");
  const void* left = writer;
  unsigned long size = 1;
  dynamic_cast<QueueBuffer*>(writer)->GetData(&left, &size);
  EXPECT_EQ(left, nullptr) << "every sample was released";
}

TEST_F(SamplePathTest, UnpublishingGivesTheBufferBackAndTheNextBindingReusesThePool) {
  const unsigned long first = PublishAndBind("a");
  IWriteBuffer* firstWriter = WriterOf(first);
  Write(firstWriter, "x");

  ASSERT_EQ(publisherState->UnpublishMetric(first), KT_STATUS_SUCCESS);
  EXPECT_EQ(publisher.unbinds, 1);
  const unsigned long second = PublishAndBind("b");
  ASSERT_NE(WriterOf(second), nullptr);
  Write(WriterOf(second), "y");

  ASSERT_EQ(manager.pushes.size(), 2u);
  EXPECT_EQ(manager.pushes[1].binding, second);
  EXPECT_NE(WriterOf(second), firstWriter) << "a returned buffer is the last to be reused";
}

TEST_F(SamplePathTest, TimeBasedSampleGoesStraightToTheConduitsConsumers) {
  RecordingConsumer consumer;
  Path* consumerNode = manager.registry.GetChild("consumers/k", kPathCreate);
  new ConsumerState(&consumer, consumerNode);
  conduitNode->GetChild("subscriptions", kPathCreate | kPathUnlisted)->AddSymlink(consumerNode);
  const unsigned long metric = PublishAndBind("t", Metric::kFlagTimeBased);
  IWriteBuffer* writer = WriterOf(metric);

  void* block = writer->Reserve(4);
  std::memcpy(block, "tick", 4);
  writer->CommitTimeBasedMetric(block);

  ASSERT_EQ(consumer.samples.size(), 1u);
  EXPECT_EQ(consumer.samples[0].handle, metric);
  EXPECT_EQ(consumer.samples[0].tag, 199u);
  EXPECT_EQ(consumer.samples[0].data, block);
  EXPECT_TRUE(manager.pushes.empty());
}

}  // namespace
}  // namespace MetricsFramework
