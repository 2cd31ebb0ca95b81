#include "transport/queue_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/harness.h"
#include "kt/consumer.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "transport/local_conduit.h"

namespace MetricsFramework {

// Reads the arenas of a buffer: their capacities and starts, oldest first.
class QueueBufferInspector {
 public:
  static std::vector<size_t> Capacities(const QueueBuffer& buffer) {
    std::vector<size_t> capacities;
    for (const HeapState* heap : *buffer.heaps) capacities.push_back(heap->storage.size());
    return capacities;
  }
  static void* Start(const QueueBuffer& buffer, size_t arena) {
    auto heap = buffer.heaps->begin();
    while (arena-- > 0) ++heap;
    return (*heap)->storage.data();
  }
};

namespace {

constexpr unsigned long kBinding = 42;
using testing_fakes::FakeManager;
using testing_fakes::RecordingConsumer;
typedef unsigned long Handle;

class QueueBufferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    node = manager.registry.GetChild("conduits/c", kPathCreate);
    ASSERT_NE(node, nullptr);
    conduit.Load(&manager, nullptr, node->GetHandle(), nullptr);
  }

  std::unique_ptr<QueueBuffer> Make(unsigned int initialSize, unsigned int flags = 0,
                                    Handle binding = kBinding) {
    return std::make_unique<QueueBuffer>(initialSize, &conduit, node->GetHandle(), binding, flags);
  }
  static void* Write(QueueBuffer& buffer, const std::string& text) {
    void* block = buffer.Reserve(text.size());
    std::memcpy(block, text.data(), text.size());
    buffer.Commit(block);
    return block;
  }
  // Reads and releases the oldest sample; "" when none is queued.
  static std::string Take(QueueBuffer& buffer) {
    const void* data = nullptr;
    unsigned long size = 0;
    buffer.GetData(&data, &size);
    if (data == nullptr) return "";
    std::string text(static_cast<const char*>(data), size);  // copied first: a release may free the arena
    buffer.MakeAvailable(data);
    return text;
  }
  static const void* Oldest(const QueueBuffer& buffer) {
    const void* data = &buffer;
    buffer.GetData(&data, nullptr);
    return data;
  }
  static std::vector<size_t> Arenas(const QueueBuffer& buffer) {
    return QueueBufferInspector::Capacities(buffer);
  }

  RecordingConsumer consumer;  // outlives the registry's payloads
  FakeManager manager;
  LocalConduit conduit;
  Path* node = nullptr;
};

TEST_F(QueueBufferTest, SamplesAreReadOldestFirstAndARecommittedBlockMovesToTheBack) {
  auto buffer = Make(1024);
  void* a = Write(*buffer, "a");
  Write(*buffer, "b");
  buffer->Commit(a);
  EXPECT_EQ(Take(*buffer), "b");
  EXPECT_EQ(Take(*buffer), "a");
  EXPECT_EQ(Oldest(*buffer), nullptr);
  EXPECT_EQ(buffer->Reserve(8), a);  // all released: the arena rewound
  buffer->Commit(static_cast<char*>(a) + 1);  // inside a block: ignored
  EXPECT_EQ(Oldest(*buffer), nullptr);
}

TEST_F(QueueBufferTest, LastReleaseRewindsAnArenaAndDropsItWhenOthersRemain) {
  auto buffer = Make(1024);
  std::vector<void*> blocks;
  for (int i = 0; i < 5; ++i) blocks.push_back(buffer->Reserve(256));
  void* second = QueueBufferInspector::Start(*buffer, 1);

  for (int i = 0; i < 4; ++i) buffer->MakeAvailable(blocks[i]);
  EXPECT_EQ(Arenas(*buffer), std::vector<size_t>{1281});  // under ASan: freed, not leaked
  buffer->MakeAvailable(blocks[4]);
  EXPECT_EQ(Arenas(*buffer), std::vector<size_t>{1281});
  EXPECT_EQ(buffer->Reserve(8), second);
}

// More blocks than the rings first hold, queued while the ring has wrapped
// and while arenas are added; one is committed again from the middle.
TEST_F(QueueBufferTest, DeepQueueSurvivesRingAndArenaGrowthInCommitOrder) {
  auto buffer = Make(64);
  std::vector<std::string> expected;
  for (int i = 0; i < 5; ++i) Write(*buffer, "w" + std::to_string(i));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Take(*buffer), "w" + std::to_string(i));
  expected = {"w3", "w4"};
  void* middle = nullptr;
  for (int i = 0; i < 40; ++i) {
    const std::string text = "sample-" + std::string(static_cast<size_t>(i % 7), 'x');
    void* block = Write(*buffer, text);
    if (i == 20) middle = block;
    if (i != 20) expected.push_back(text);
  }
  buffer->Commit(middle);
  expected.push_back("sample-xxxxxx");
  EXPECT_GT(Arenas(*buffer).size(), 1u);

  std::vector<std::string> taken;
  for (std::string text = Take(*buffer); !text.empty(); text = Take(*buffer)) taken.push_back(text);
  EXPECT_EQ(taken, expected);
}

TEST_F(QueueBufferTest, PushOnCommitDeliversEachSampleAndFlushDrainsWhatIsQueued) {
  auto buffer = Make(1024, QueueBuffer::kPushOnCommit);
  Write(*buffer, "a");
  Write(*buffer, "b");
  buffer->Flush();
  ASSERT_EQ(manager.pushes.size(), 2u);
  EXPECT_EQ(manager.pushes[0].conduit, node->GetHandle());
  EXPECT_EQ(manager.pushes[0].binding, kBinding);
  EXPECT_EQ(manager.pushes[0].sample, "a");
  EXPECT_EQ(manager.pushes[1].sample, "b");

  auto queued = Make(1024);  // without push on commit, Flush drains the queue
  for (const char* text : {"c", "d", "e"}) Write(*queued, text);
  EXPECT_EQ(manager.pushes.size(), 2u);
  queued->Flush();
  ASSERT_EQ(manager.pushes.size(), 5u);
  EXPECT_EQ(manager.pushes[4].sample, "e");
  EXPECT_EQ(Oldest(*queued), nullptr);
  manager.drain = false;  // and stops when a push takes nothing
  Write(*queued, "f");
  queued->Flush();
  EXPECT_EQ(manager.pushes.size(), 6u);

  auto unbound = Make(1024, QueueBuffer::kPushOnCommit, 0);
  Write(*unbound, "c");
  EXPECT_EQ(unbound->Push(), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.pushes.size(), 6u) << "an unbound buffer pushes nothing";
}


TEST_F(QueueBufferTest, TimeBasedSampleReachesConsumersWithTag199AndIsReleased) {
  new ConduitState(&conduit, node);
  Path* consumerNode = manager.registry.GetChild("consumers/k", kPathCreate);
  ASSERT_NE(consumerNode, nullptr);
  new ConsumerState(&consumer, consumerNode);
  node->GetChild("subscriptions", kPathCreate | kPathUnlisted | kPathNoHandleEntry)
      ->AddSymlink(consumerNode);
  auto buffer = Make(1024);
  void* block = buffer->Reserve(8);

  buffer->CommitTimeBasedMetric(block);

  ASSERT_EQ(consumer.calls.size(), 1u);
  ASSERT_EQ(consumer.calls[0].size(), 1u);
  EXPECT_EQ(consumer.samples[0].handle, kBinding);
  EXPECT_EQ(consumer.samples[0].tag, 199u);
  EXPECT_TRUE(consumer.samples[0].withoutSizes);
  EXPECT_TRUE(manager.pushes.empty()) << "straight to the consumers, not through the manager";
  EXPECT_EQ(Oldest(*buffer), nullptr);
  EXPECT_EQ(buffer->Reserve(8), block);  // released: the arena rewound

  QueueBuffer unfiled(1024, nullptr, 0, kBinding, 0);  // no conduit node: released all the same
  void* lone = unfiled.Reserve(8);
  unfiled.CommitTimeBasedMetric(lone);
  EXPECT_EQ(unfiled.Reserve(8), lone);
}

// One thread reserves and commits numbered samples of varying size while
// another drains them: every sample arrives once, in order and intact.
TEST(QueueBufferThreadTest, ProducerAndDrainerOnTwoThreadsLoseNothing) {
  constexpr unsigned int kSamples = 5000;
  QueueBuffer buffer(64, nullptr, 0, 0, 0);  // small: arenas come and go
  auto sizeOf = [](unsigned int i) { return 8u + i % 24; };
  auto byteOf = [](unsigned i, unsigned k) { return static_cast<unsigned char>(i * 31 + k); };
  std::atomic<bool> produced{false};
  std::thread producer([&] {
    for (unsigned int i = 0; i < kSamples; ++i) {
      auto* block = static_cast<unsigned char*>(buffer.Reserve(sizeOf(i)));
      std::memcpy(block, &i, 4);
      for (unsigned int k = 4; k < sizeOf(i); ++k) block[k] = byteOf(i, k);
      buffer.Commit(block);
    }
    produced = true;
  });

  unsigned int received = 0, corrupt = 0;
  while (received < kSamples) {
    const void* data = nullptr;
    unsigned long size = 0;
    const bool last = produced;  // read before the queue: a lost sample ends the loop
    buffer.GetData(&data, &size);
    if (data == nullptr && last) break;
    if (data == nullptr) {
      std::this_thread::yield();
      continue;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    unsigned int index = 0;
    std::memcpy(&index, bytes, 4);
    bool intact = index == received && size == sizeOf(index);
    for (unsigned int k = 4; intact && k < size; ++k) intact = bytes[k] == byteOf(index, k);
    corrupt += intact ? 0 : 1;
    buffer.MakeAvailable(data);
    ++received;
  }
  producer.join();
  EXPECT_EQ(received, kSamples);
  EXPECT_EQ(corrupt, 0u);
  const void* rest = nullptr;
  buffer.GetData(&rest, nullptr);
  EXPECT_EQ(rest, nullptr);
}

}  // namespace
}  // namespace MetricsFramework
