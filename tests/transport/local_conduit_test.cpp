#include "transport/local_conduit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "support/harness.h"

namespace MetricsFramework {

// Reads the pool of a conduit.
struct LocalConduitInspector {
  static size_t Live(const LocalConduit& c) { return c.liveBuffers.size(); }
  static size_t Free(const LocalConduit& c) { return c.freeBuffers.size(); }
  static size_t Distinct(const LocalConduit& c) {
    return std::set<IReadWriteBuffer*>(c.freeBuffers.begin(), c.freeBuffers.end()).size();
  }
};

namespace {

using namespace testing_fakes;

class LocalConduitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager.drain = false;  // pushed samples stay queued
    conduit.Load(&manager, nullptr, 0x1234, nullptr);
  }
  IReadWriteBuffer* Create(unsigned long binding = 1) {
    IReadWriteBuffer* buffer = nullptr;
    EXPECT_EQ(conduit.CreateBuffer(binding, &buffer), KT_STATUS_SUCCESS);
    return buffer;
  }
  static void Commit(IReadWriteBuffer* buffer) { buffer->Commit(buffer->Reserve(4)); }

  FakeManager manager;
  LocalConduit conduit;
};

TEST(LocalConduitBadInputTest, RefusesANullOutputAndTransactionsBeforeItIsLoaded) {
  LocalConduit conduit;
  ExpectRefusals({
      REFUSAL(conduit.CreateBuffer(1, nullptr), kArgument, "outBuffer"),
      REFUSAL(conduit.Transact(0x5eed, nullptr, nullptr), KT_STATUS_INVALID_OPERATION,
              "extensionManager"),
  });
}

// A buffer the conduit did not make is not taken: the conduit would free it.
TEST_F(LocalConduitTest, ReturnedBufferIsReusedLastEmptyAndBoundToItsNewBinding) {
  IReadWriteBuffer* buffer = Create(5);
  ASSERT_NE(buffer, nullptr);
  Commit(buffer);  // pushed, and left queued
  HostBuffer stranger;
  conduit.DestroyBuffer(buffer), conduit.DestroyBuffer(&stranger), conduit.DestroyBuffer(nullptr);
  for (int i = 0; i < 7; ++i) {
    IReadWriteBuffer* fresh = Create();
    EXPECT_TRUE(fresh != buffer && fresh != &stranger && fresh != nullptr);
  }

  ASSERT_EQ(Create(9), buffer);
  const void* data = buffer;
  buffer->GetData(&data, nullptr);
  EXPECT_EQ(data, nullptr);
  Commit(buffer);
  ASSERT_EQ(manager.pushes.size(), 2u);
  EXPECT_EQ(manager.pushes[0].binding, 5u);
  EXPECT_EQ(manager.pushes[1].binding, 9u);
  EXPECT_EQ(manager.pushes[1].conduit, 0x1234u);
}

TEST_F(LocalConduitTest, ConcurrentCreateAndDestroyKeepEveryBufferOnce) {
  std::atomic<int> ready{0};
  auto churn = [&] {
    for (++ready; ready.load() < 2;) {
    }
    for (unsigned long i = 1; i <= 2000; ++i) conduit.DestroyBuffer(Create(i));
  };
  std::thread a(churn), b(churn);
  a.join();
  b.join();
  EXPECT_EQ(LocalConduitInspector::Live(conduit), 0u);
  EXPECT_EQ(LocalConduitInspector::Distinct(conduit), LocalConduitInspector::Free(conduit));
}

}  // namespace
}  // namespace MetricsFramework
