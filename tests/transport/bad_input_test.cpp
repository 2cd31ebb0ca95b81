// Bad input at the buffer and conduit entries: null and foreign blocks, sizes
// beyond 32 bits, a null out-buffer, buffers the conduit did not make, and a
// null time-based sample (docs/bad_input.md).
#include <gtest/gtest.h>

#include "support/harness.h"
#include "transport/local_conduit.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// The oldest committed block and its size.
std::pair<const void*, unsigned long> Oldest(const IReadBuffer& buffer) {
  const void* data = nullptr;
  unsigned long size = 99;
  buffer.GetData(&data, &size);
  return {data, size};
}

TEST(QueueBufferBadInputTest, NullForeignAndSizelessBlocksChangeNothing) {
  QueueBuffer buffer(64, nullptr, 0, 0, 0);
  int foreign = 0;
  buffer.Commit(nullptr);
  buffer.Commit(&foreign);
  buffer.Commit(buffer.Reserve(1ul << 32));  // the size is taken in 32 bits: 0
  buffer.CommitTimeBasedMetric(nullptr);
  buffer.MakeAvailable(nullptr);
  buffer.MakeAvailable(&foreign);
  EXPECT_EQ(Oldest(buffer), std::make_pair(static_cast<const void*>(nullptr), 0ul));

  void* block = buffer.Reserve(8);
  buffer.Commit(block);
  buffer.MakeAvailable(&foreign);  // a foreign release leaves the queue alone
  unsigned long size = 99;
  buffer.GetData(nullptr, &size);  // no data pointer: only the size, 0
  EXPECT_EQ(size, 0u);
  const void* data = nullptr;
  buffer.GetData(&data, nullptr);  // no size pointer
  EXPECT_EQ(data, block);
  EXPECT_EQ(Oldest(buffer), std::make_pair(static_cast<const void*>(block), 8ul));
}

class ConduitBadInputTest : public ::testing::Test {
 protected:
  ConduitBadInputTest() {
    EXPECT_EQ(host.Add("pub", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("con", &consumer), KT_STATUS_SUCCESS);
    metric = host.Publish(&publisher, Describe("m"));
  }
  CountingPublisher publisher;
  RecordingConsumer consumer;
  LiveManager host;
  unsigned long metric = 0;
};

TEST_F(ConduitBadInputTest, LocalConduitRefusesNullOutputAndBuffersItDidNotMake) {
  LocalConduit conduit;
  EXPECT_EQ(conduit.CreateBuffer(1, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refusal(), "outBuffer");
  EXPECT_EQ(conduit.Transact(host.UnknownHandle(), nullptr, nullptr),
            KT_STATUS_INVALID_OPERATION);  // not loaded by a manager
  EXPECT_EQ(Refusal(), "extensionManager");

  HostBuffer stranger;
  conduit.DestroyBuffer(nullptr);
  conduit.DestroyBuffer(&stranger);  // not taken: the conduit would free it
  for (int i = 0; i < 17; ++i) {
    IReadWriteBuffer* lent = nullptr;
    ASSERT_EQ(conduit.CreateBuffer(i + 1, &lent), KT_STATUS_SUCCESS);
    EXPECT_NE(lent, nullptr);
    EXPECT_NE(lent, &stranger);
  }
}

TEST_F(ConduitBadInputTest, NullTimeBasedSampleReachesNoConsumer) {
  ASSERT_EQ(host.client->SubscribeMetric(consumer.GetHandle(), metric), KT_STATUS_SUCCESS);
  ASSERT_EQ(publisher.bound.size(), 1u);
  IWriteBuffer* buffer = publisher.bound[0]->attached;
  ASSERT_NE(buffer, nullptr);
  buffer->CommitTimeBasedMetric(nullptr);
  EXPECT_TRUE(consumer.samples.empty());
  void* block = buffer->Reserve(4);
  buffer->CommitTimeBasedMetric(block);  // a real one still arrives
  EXPECT_EQ(consumer.samples.size(), 1u);
}

}  // namespace
}  // namespace MetricsFramework
