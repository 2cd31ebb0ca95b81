#include "transport/queue_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "support/harness.h"
#include "transport/local_conduit.h"

namespace MetricsFramework {

// Reads the arenas of a buffer: their capacities and starts, oldest first.
struct QueueBufferInspector {
  static std::vector<size_t> Capacities(const QueueBuffer& buffer) {
    std::vector<size_t> capacities;
    for (const HeapState* heap : *buffer.heaps) capacities.push_back(heap->storage.size());
    return capacities;
  }
  static void* Start(const QueueBuffer& buffer) { return (*buffer.heaps->begin())->storage.data(); }
};

namespace {

constexpr unsigned long kBinding = 42;
using namespace testing_fakes;

class QueueBufferTest : public ::testing::Test {
 protected:
  void SetUp() override { conduit.Load(&manager, nullptr, node->GetHandle(), nullptr); }

  std::unique_ptr<QueueBuffer> Make(unsigned int size, unsigned int flags = 0,
                                    unsigned long binding = kBinding) {
    return std::make_unique<QueueBuffer>(size, &conduit, node->GetHandle(), binding, flags);
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
    std::string text(static_cast<const char*>(data), size);  // before a release frees the arena
    buffer.MakeAvailable(data);
    return text;
  }
  static const void* Oldest(const QueueBuffer& buffer) {
    const void* data = &buffer;
    buffer.GetData(&data, nullptr);
    return data;
  }

  RecordingConsumer consumer;  // outlives the registry's payloads
  FakeManager manager;
  LocalConduit conduit;
  Path* node = manager.registry.GetChild("conduits/c", kPathCreate);
};

// Null, foreign and sizeless blocks change nothing.
TEST_F(QueueBufferTest, SamplesAreReadOldestFirstAndARecommittedBlockMovesToTheBack) {
  auto buffer = Make(1024);
  int foreign = 0;
  buffer->Commit(nullptr), buffer->Commit(&foreign), buffer->CommitTimeBasedMetric(nullptr);
  buffer->Commit(buffer->Reserve(1ul << 32));  // the size is taken in 32 bits: 0
  EXPECT_EQ(Oldest(*buffer), nullptr);
  void* a = Write(*buffer, "a");
  Write(*buffer, "b");
  buffer->Commit(a);
  buffer->MakeAvailable(nullptr), buffer->MakeAvailable(&foreign);
  unsigned long size = 99;
  buffer->GetData(nullptr, &size);  // no data pointer: only the size, 0
  EXPECT_EQ(size, 0u);

  EXPECT_EQ(Take(*buffer), "b");
  EXPECT_EQ(Take(*buffer), "a");
  EXPECT_EQ(Oldest(*buffer), nullptr);
  EXPECT_EQ(buffer->Reserve(8), a) << "all released: the arena rewound";
  buffer->Commit(static_cast<char*>(a) + 1);  // inside a block: ignored
  EXPECT_EQ(Oldest(*buffer), nullptr);
}

// More blocks than the rings first hold, queued while the ring has wrapped
// and while arenas are added; one is committed again from the middle. Drained,
// the buffer keeps one arena, rewound.
TEST_F(QueueBufferTest, DeepQueueSurvivesRingAndArenaGrowthInCommitOrder) {
  auto buffer = Make(64);
  for (int i = 0; i < 5; ++i) Write(*buffer, "w" + std::to_string(i));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Take(*buffer), "w" + std::to_string(i));
  std::vector<std::string> expected = {"w3", "w4"}, taken;
  void* middle = nullptr;
  for (int i = 0; i < 40; ++i) {
    const std::string text = "sample-" + std::string(static_cast<size_t>(i % 7), 'x');
    void* block = Write(*buffer, text);
    if (i == 20) middle = block;
    if (i != 20) expected.push_back(text);
  }
  buffer->Commit(middle);
  expected.push_back("sample-xxxxxx");
  EXPECT_GT(QueueBufferInspector::Capacities(*buffer).size(), 1u);

  for (std::string text = Take(*buffer); !text.empty(); text = Take(*buffer)) taken.push_back(text);
  EXPECT_EQ(taken, expected);
  EXPECT_EQ(QueueBufferInspector::Capacities(*buffer).size(), 1u);
  EXPECT_EQ(buffer->Reserve(8), QueueBufferInspector::Start(*buffer));
}

TEST_F(QueueBufferTest, PushOnCommitDeliversEachSampleAndFlushDrainsWhatIsQueued) {
  auto pushing = Make(1024, QueueBuffer::kPushOnCommit), queued = Make(1024);
  auto unbound = Make(1024, QueueBuffer::kPushOnCommit, 0);
  auto samples = [&] {
    std::string all;
    for (const auto& push : manager.pushes) all += push.sample;
    return all;
  };
  Write(*pushing, "a"), Write(*pushing, "b");
  pushing->Flush();
  for (const char* text : {"c", "d", "e"}) Write(*queued, text);
  EXPECT_EQ(samples(), "ab");
  EXPECT_EQ(manager.pushes[0].conduit, node->GetHandle());
  EXPECT_EQ(manager.pushes[0].binding, kBinding);

  queued->Flush();
  ASSERT_EQ(samples(), "abcde");
  EXPECT_EQ(Oldest(*queued), nullptr);
  manager.drain = false;  // Flush stops when a push takes nothing
  Write(*queued, "f");
  queued->Flush();
  Write(*unbound, "u");
  EXPECT_EQ(unbound->Push(), KT_STATUS_SUCCESS);
  EXPECT_EQ(samples(), "abcdef") << "an unbound buffer pushes nothing";
}

// Tag 199 marks a time-based sample; a null one reaches nobody.
TEST_F(QueueBufferTest, TimeBasedSampleReachesConsumersWithTag199AndIsReleased) {
  new ConduitState(&conduit, node);
  Path* consumerNode = manager.registry.GetChild("consumers/k", kPathCreate);
  new ConsumerState(&consumer, consumerNode);
  node->GetChild("subscriptions", kPathCreate | kPathUnlisted | kPathNoHandleEntry)
      ->AddSymlink(consumerNode);
  auto buffer = Make(1024);
  void* block = buffer->Reserve(8);

  buffer->CommitTimeBasedMetric(nullptr);
  buffer->CommitTimeBasedMetric(block);

  ASSERT_EQ(consumer.samples.size(), 1u);
  EXPECT_EQ(consumer.samples[0].handle, kBinding);
  EXPECT_EQ(consumer.samples[0].tag, 199u);
  EXPECT_TRUE(consumer.samples[0].withoutSizes);
  EXPECT_TRUE(manager.pushes.empty()) << "straight to the consumers, not through the manager";
  EXPECT_EQ(buffer->Reserve(8), block) << "released: the arena rewound";
  QueueBuffer unfiled(1024, nullptr, 0, kBinding, 0);  // no conduit node: released all the same
  void* lone = unfiled.Reserve(8);
  unfiled.CommitTimeBasedMetric(lone);
  EXPECT_EQ(unfiled.Reserve(8), lone);
}

// One thread reserves and commits numbered samples of varying size while
// another drains them: every sample arrives once, in order and intact.
TEST_F(QueueBufferTest, ProducerAndDrainerOnTwoThreadsLoseNothing) {
  constexpr unsigned int kSamples = 5000;
  auto buffer = Make(64);  // small: arenas come and go
  auto sample = [](unsigned int i) { return std::string(8 + i % 24, static_cast<char>(i)); };
  std::atomic<bool> produced{false};
  std::thread producer([&] {
    for (unsigned int i = 0; i < kSamples; ++i) Write(*buffer, sample(i));
    produced = true;
  });

  unsigned int received = 0, corrupt = 0;
  for (bool last = false; received < kSamples && !last;) {
    last = produced;  // read before the queue: a lost sample ends the loop
    const std::string text = Take(*buffer);
    if (text.empty()) {
      std::this_thread::yield();
    } else {
      last = false;
      corrupt += text != sample(received++);
    }
  }
  producer.join();
  EXPECT_EQ(received, kSamples);
  EXPECT_EQ(corrupt, 0u);
}

}  // namespace
}  // namespace MetricsFramework
