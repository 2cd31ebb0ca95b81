// The sample path as far as the state objects and the local conduit reach: a
// publisher's metric is bound to a buffer of a local conduit, the publisher
// reserves and commits samples, the buffer pushes them to its manager, which
// reads and releases them; unpublishing gives the buffer back to the pool.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host/default_extension_manager.h"
#include "support/fake_manager.h"
#include "support/data_push_inspector.h"
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
    const unsigned long handle = Published(publisherState, uri, flags);
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

// Under this library's own manager a buffer hands its pushes straight to the
// conduit state it was bound through; either may go first.
class DirectSamplePathTest : public ::testing::Test {
 protected:
  DirectSamplePathTest() : conduit(new LocalConduit()) {
    Registry& registry = manager.GetRegistry();
    publisherNode = registry.GetChild("publishers/p", kPathCreate);
    publisherState = new PublisherState(&publisher, publisherNode);
    conduitNode = registry.GetChild("conduits/LocalConduit_c", kPathCreate | kPathUnlisted);
    auto* state = new ConduitState(conduit.get(), conduitNode);
    conduit->Load(&manager, nullptr, conduitNode->GetHandle(), nullptr);
    Path* consumerNode = registry.GetChild("consumers/k", kPathCreate);
    new ConsumerState(&consumer, consumerNode);
    EXPECT_EQ(state->Subscribe(consumerNode->GetHandle()), KT_STATUS_SUCCESS);
    metric = Published(publisherState, "cpu");
    EXPECT_EQ(state->Bind(publisherNode->GetChild(metric, 0), metric), KT_STATUS_SUCCESS);
    DataPushInspector(state).SetTag(metric, 9);
    DataPushInspector(state).SetGroup(metric, {publisherNode->GetHandle(), kUngrouped});
    writer = dynamic_cast<QueueBuffer*>(publisher.bound.at(0)->attached);
  }
  void Write(const char* text) {
    void* block = writer->Reserve(std::strlen(text));
    std::memcpy(block, text, std::strlen(text));
    writer->Commit(block);
  }

  RecordingConsumer consumer;
  FakePublisher publisher;
  std::unique_ptr<LocalConduit> conduit;  // reset by a test to go before the tree
  DefaultExtensionManager manager;
  Path* publisherNode;
  PublisherState* publisherState;
  Path* conduitNode;
  unsigned long metric = 0;
  QueueBuffer* writer = nullptr;
};

TEST_F(DirectSamplePathTest, BufferOutlivingItsConduitStatePushesThroughTheManagerAgain) {
  ASSERT_NE(writer, nullptr);
  Write("a");
  ASSERT_EQ(consumer.calls.size(), 1u);
  EXPECT_EQ(consumer.samples.at(0).tag, 9u);

  delete conduitNode;  // the state goes; the conduit keeps the buffer
  Write("b");          // the manager no longer finds the conduit: nothing delivered

  EXPECT_EQ(consumer.calls.size(), 1u);
  const void* left = nullptr;
  writer->GetData(&left, nullptr);
  EXPECT_NE(left, nullptr) << "the undelivered sample stays queued";
}

TEST_F(DirectSamplePathTest, ConduitAndItsBuffersMayGoBeforeTheConduitState) {
  ASSERT_NE(writer, nullptr);
  Write("a");
  conduit.reset();  // the buffers let go of the route; the state closes it later
  EXPECT_EQ(consumer.calls.size(), 1u);
}

}  // namespace
}  // namespace MetricsFramework
