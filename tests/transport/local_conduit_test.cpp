#include "transport/local_conduit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/harness.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {

// Reads the pool of a conduit.
class LocalConduitInspector {
 public:
  static size_t Free(const LocalConduit& conduit) { return conduit.freeBuffers.size(); }
  static size_t Live(const LocalConduit& conduit) { return conduit.liveBuffers.size(); }
  static size_t Distinct(const LocalConduit& conduit) {
    return std::set<IReadWriteBuffer*>(conduit.freeBuffers.begin(), conduit.freeBuffers.end())
        .size();
  }
};

namespace {

using testing_fakes::FakeManager;
typedef unsigned long Handle;

constexpr Handle kConduitHandle = 0x1234;

class LocalConduitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager.drain = false;  // pushed samples stay queued
    conduit.Load(&manager, nullptr, kConduitHandle, nullptr);
  }

  IReadWriteBuffer* Create(Handle binding = 1) {
    IReadWriteBuffer* buffer = nullptr;
    EXPECT_EQ(conduit.CreateBuffer(binding, &buffer), KT_STATUS_SUCCESS);
    return buffer;
  }
  static void Commit(IReadWriteBuffer* buffer) { buffer->Commit(buffer->Reserve(4)); }

  FakeManager manager;
  LocalConduit conduit;
};

TEST_F(LocalConduitTest, ReturnedBufferIsReusedLastEmptyAndBoundToItsNewBinding) {
  IReadWriteBuffer* buffer = Create(5);
  ASSERT_NE(buffer, nullptr);
  Commit(buffer);  // pushed, and left queued
  conduit.DestroyBuffer(buffer);
  for (int i = 0; i < 7; ++i) EXPECT_NE(Create(), buffer);

  ASSERT_EQ(Create(9), buffer);
  const void* data = buffer;
  buffer->GetData(&data, nullptr);
  EXPECT_EQ(data, nullptr);
  Commit(buffer);
  ASSERT_EQ(manager.pushes.size(), 2u);
  EXPECT_EQ(manager.pushes[0].binding, 5u);
  EXPECT_EQ(manager.pushes[1].binding, 9u);
  EXPECT_EQ(manager.pushes[1].conduit, kConduitHandle);
}

TEST_F(LocalConduitTest, ConcurrentCreateAndDestroyKeepEveryBufferOnce) {
  std::atomic<int> ready{0};
  auto churn = [&] {
    for (++ready; ready.load() < 2;) {
    }
    for (Handle i = 1; i <= 2000; ++i) conduit.DestroyBuffer(Create(i));
  };
  std::thread a(churn), b(churn);
  a.join();
  b.join();
  EXPECT_EQ(LocalConduitInspector::Live(conduit), 0u);
  EXPECT_EQ(LocalConduitInspector::Distinct(conduit), LocalConduitInspector::Free(conduit));
}

}  // namespace
}  // namespace MetricsFramework
