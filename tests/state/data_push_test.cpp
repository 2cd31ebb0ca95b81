// The data push of a conduit: ungrouped, grouped, batched delivery, the
// release of every sample, and the threads pushes may come from.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state_fakes.h"
#include "support/data_push_inspector.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

constexpr unsigned long kA = 0xA, kB = 0xB, kC = 0xC;
constexpr unsigned long kPublisher = 0x99;

// A consumer that also takes batches, offered through CastTo only.
class BatchConsumer : public RecordingConsumer {
 public:
  void* CastTo(const char* name) override {
    if (std::string(name) == "IConsumer2") return static_cast<IConsumer2*>(&batched);
    return RecordingConsumer::CastTo(name);
  }
  BatchedConsumer batched;
};

class DataPushTest : public ::testing::Test {
 protected:
  DataPushTest() : conduit(NewConduit("c", &extension)) {}

  ConduitState* NewConduit(const char* name, FakeConduit* with) {
    Path* node = registry.GetChild((std::string("conduits/") + name).c_str(),
                                   kPathCreate | kPathUnlisted);
    return new ConduitState(with, node);
  }
  void Subscribe(ConduitState* to, IConsumer* consumer) {
    Path* node = registry.GetChild(("consumers/" + std::to_string(next++)).c_str(), kPathCreate);
    new ConsumerState(consumer, node);
    ASSERT_EQ(to->Subscribe(node->GetHandle()), KT_STATUS_SUCCESS);
  }
  void Tag(unsigned long metric, unsigned long tag, unsigned int group = kUngrouped) {
    DataPushInspector(conduit).SetTag(metric, tag);
    DataPushInspector(conduit).SetGroup(metric, {kPublisher, group});
  }
  void Group(std::initializer_list<unsigned long> members) {
    for (unsigned long m : members) {
      Tag(m, m * 10, 1);
      DataPushInspector(conduit).Template(kPublisher, 1).insert(m);
      DataPushInspector(conduit).Expected(kPublisher, 1).insert(m);
    }
  }
  // Each metric has its own buffer; Commit queues a sample without pushing.
  QueueBuffer& BufferOf(unsigned long metric) {
    auto& buffer = buffers[metric];
    if (!buffer) buffer = std::make_unique<QueueBuffer>(64, nullptr, 0, metric, 0);
    return *buffer;
  }
  KT_STATUS Push(unsigned long metric, const std::string& sample, ConduitState* to = nullptr) {
    QueueBuffer& buffer = BufferOf(metric);
    void* block = buffer.Reserve(sample.size() + 1);
    std::memcpy(block, sample.c_str(), sample.size() + 1);
    buffer.Commit(block);
    return (to != nullptr ? to : conduit)->PushData(metric, &buffer);
  }
  bool Drained(unsigned long metric) {
    const void* data = &data;
    BufferOf(metric).GetData(&data, nullptr);
    return data == nullptr;
  }
  static std::vector<std::string> Bytes(const std::vector<RecordingConsumer::Sample>& call) {
    std::vector<std::string> bytes;
    for (const auto& sample : call) bytes.push_back(sample.bytes.c_str());
    return bytes;
  }

  Registry registry;
  FakeConduit extension;
  ConduitState* conduit;
  std::map<unsigned long, std::unique_ptr<QueueBuffer>> buffers;
  int next = 0;
};

using Strings = std::vector<std::string>;

// A push of an unknown or untagged metric fails and calls nobody; every
// sample is released either way.
TEST_F(DataPushTest, UngroupedSampleReachesEveryConsumerOnceAndIsReleased) {
  RecordingConsumer first, second;
  Subscribe(conduit, &first);
  Subscribe(conduit, &second);
  DataPushInspector(conduit).SetGroup(kB, {kPublisher, kUngrouped});
  EXPECT_EQ(Push(kA, "a"), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Push(kB, "b"), KT_STATUS_DOES_NOT_EXIST);
  EXPECT_TRUE(first.calls.empty());
  EXPECT_TRUE(Drained(kA) && Drained(kB));
  Tag(kA, 42);

  ASSERT_EQ(Push(kA, "one"), KT_STATUS_SUCCESS);

  for (RecordingConsumer* consumer : {&first, &second}) {
    ASSERT_EQ(consumer->calls.size(), 1u);
    ASSERT_EQ(consumer->calls[0].size(), 1u);
    EXPECT_EQ(consumer->calls[0][0].handle, kA);
    EXPECT_EQ(consumer->calls[0][0].tag, 42u);
    EXPECT_EQ(consumer->calls[0][0].bytes, std::string("one", 4));
  }
  EXPECT_TRUE(Drained(kA));
}

TEST_F(DataPushTest, GroupCycleDeliversAllMembersInOneCallInArrivalOrder) {
  RecordingConsumer consumer;
  Subscribe(conduit, &consumer);
  Group({kA, kB, kC});

  Push(kB, "b1");
  Push(kA, "a1");
  const size_t callsBeforeLast = consumer.calls.size();
  Push(kC, "c1");
  Push(kA, "a2");
  Push(kC, "c2");

  EXPECT_EQ(callsBeforeLast, 0u);
  ASSERT_EQ(consumer.calls.size(), 1u) << "the next cycle waits for all three again";
  EXPECT_EQ(Bytes(consumer.calls[0]), (Strings{"b1", "a1", "c1"}));
  EXPECT_EQ(consumer.calls[0][1].tag, kA * 10);
  EXPECT_TRUE(Drained(kB));
}

TEST_F(DataPushTest, MemberPushingTwiceEndsTheCycleEarlyAndLosesNothing) {
  RecordingConsumer consumer;
  Subscribe(conduit, &consumer);
  Group({kA, kB, kC});

  Push(kA, "a1");
  Push(kB, "b1");
  Push(kA, "a2");  // ends the cycle with a1, b1; opens the next with a2
  Push(kB, "b2");
  Push(kC, "c2");

  ASSERT_EQ(consumer.calls.size(), 2u);
  EXPECT_EQ(Bytes(consumer.calls[0]), (Strings{"a1", "b1"}));
  EXPECT_EQ(Bytes(consumer.calls[1]), (Strings{"a2", "b2", "c2"}));
  EXPECT_TRUE(Drained(kA) && Drained(kB) && Drained(kC));
}

TEST_F(DataPushTest, MemberWhoseTagWasRemovedIsLeftOutAndReleased) {
  RecordingConsumer consumer;
  Subscribe(conduit, &consumer);
  Group({kA, kB, kC});
  DataPushInspector(conduit).EraseTag(kB);

  Push(kA, "a");
  Push(kB, "b");
  Push(kC, "c");

  ASSERT_EQ(consumer.calls.size(), 1u);
  EXPECT_EQ(Bytes(consumer.calls[0]), (Strings{"a", "c"}));
  EXPECT_TRUE(Drained(kB));
}

TEST_F(DataPushTest, GroupCompletesWithoutSubscriptionsAndStillReleases) {
  Group({kA, kB});

  Push(kA, "a");
  Push(kB, "b");

  EXPECT_TRUE(Drained(kA) && Drained(kB));
}

TEST_F(DataPushTest, BatchedMetricGoesOneSampleAtATimeToBatchedConsumersOnly) {
  BatchConsumer batched;
  RecordingConsumer plain;
  Subscribe(conduit, &batched);
  Subscribe(conduit, &plain);
  Tag(kA, 7);
  conduit->AddBatchMetric(kA);
  conduit->AddBatchMetric(kA);

  Push(kA, "x");
  Push(kA, "y");

  EXPECT_EQ(DataPushInspector(conduit).BatchCount(), 1u);
  ASSERT_EQ(batched.batched.batches.size(), 2u);
  EXPECT_EQ(batched.batched.batches[1].first, "y");
  EXPECT_EQ(batched.batched.batches[1].tag, 7u);
  EXPECT_TRUE(plain.calls.empty());
  EXPECT_TRUE(batched.calls.empty());
  EXPECT_TRUE(Drained(kA));
}

// Holds every consumer call of one conduit until a call on another conduit has
// happened: pushes of two conduits must run side by side.
class MeetingConsumer : public IConsumer {
 public:
  MeetingConsumer(std::mutex& mutex, std::condition_variable& met, int& arrived)
      : mutex(mutex), met(met), arrived(arrived) {}
  void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    std::unique_lock<std::mutex> hold(mutex);
    ++arrived;
    met.notify_all();
    together = met.wait_for(hold, std::chrono::seconds(10), [&] { return arrived >= 2; });
  }
  std::mutex& mutex;
  std::condition_variable& met;
  int& arrived;
  bool together = false;
};

TEST_F(DataPushTest, PushesOfTwoConduitsRunSideBySide) {
  FakeConduit otherExtension;
  ConduitState* other = NewConduit("d", &otherExtension);
  std::mutex mutex;
  std::condition_variable met;
  int arrived = 0;
  MeetingConsumer left(mutex, met, arrived), right(mutex, met, arrived);
  Subscribe(conduit, &left);
  Subscribe(other, &right);
  Tag(kA, 1);
  DataPushInspector(other).SetTag(kB, 2);
  DataPushInspector(other).SetGroup(kB, {kPublisher, kUngrouped});
  BufferOf(kA);  // made before the threads start
  BufferOf(kB);

  std::thread first([&] { Push(kA, "a"); });
  std::thread second([&] { Push(kB, "b", other); });
  first.join();
  second.join();

  EXPECT_TRUE(left.together);
  EXPECT_TRUE(right.together);
}

// Counts how many of its calls overlap.
class OverlapConsumer : public IConsumer {
 public:
  void OnMetricUpdated(unsigned int count, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
    std::this_thread::yield();
    received += count;  // plain on purpose: calls of one conduit never overlap
    inside.fetch_sub(1);
  }
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  int received = 0;
};

TEST_F(DataPushTest, PushesOnOneConduitCallConsumersOnePushAtATime) {
  OverlapConsumer consumer;
  Subscribe(conduit, &consumer);
  Tag(kA, 1);
  Tag(kB, 2);
  BufferOf(kA);
  BufferOf(kB);
  constexpr int kSamples = 2000;

  std::thread first([&] {
    for (int i = 0; i < kSamples; ++i) Push(kA, "a");
  });
  std::thread second([&] {
    for (int i = 0; i < kSamples; ++i) Push(kB, "b");
  });
  first.join();
  second.join();

  EXPECT_EQ(consumer.overlaps.load(), 0);
  EXPECT_EQ(consumer.received, 2 * kSamples);
  EXPECT_TRUE(Drained(kA) && Drained(kB));
}

}  // namespace
}  // namespace MetricsFramework
