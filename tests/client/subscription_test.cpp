// Subscriptions as a host and its clients make them: samples committed into the
// buffers the publisher was bound to reach consumers through local conduits.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "state/conduit_state.h"
#include "state/metric_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;
using Strings = std::vector<std::string>;

class SubscriptionTest : public ::testing::Test {
 protected:
  SubscriptionTest() {
    EXPECT_EQ(live.Add("p", &publisher), KT_STATUS_SUCCESS);
    k = AddConsumer("k", &consumer);
  }
  unsigned long AddConsumer(const char* name, IConsumer* c) {
    EXPECT_EQ(live.Add(name, c), KT_STATUS_SUCCESS);
    return c->GetHandle();
  }
  unsigned long Publish(const char* uri, unsigned int tag = 1, unsigned int group = kUngrouped) {
    return live.Publish(&publisher, Describe(uri, tag, group));
  }
  // Commits `bytes` into every buffer `metric` is bound to.
  void Write(unsigned long metric, const std::string& bytes) {
    for (IWriteBuffer* buffer : publisher.WritersOf(metric)) {
      void* block = buffer->Reserve(bytes.size() + 1);
      std::memcpy(block, bytes.c_str(), bytes.size() + 1);
      buffer->Commit(block);
    }
  }
  // Whether every buffer `metric` is bound to has given back all its samples.
  bool Drained(unsigned long metric) {
    for (IWriteBuffer* writer : publisher.WritersOf(metric)) {
      const void* data = nullptr;
      dynamic_cast<IReadBuffer*>(writer)->GetData(&data, nullptr);
      if (data != nullptr) return false;
    }
    return true;
  }
  // The samples of the `i`th call, as "metric:tag:text".
  static Strings Call(const RecordingConsumer& c, size_t i) {
    Strings samples;
    for (const auto& s : c.calls.at(i)) samples.push_back(Sample(s.handle, s.tag, s.bytes.c_str()));
    return samples;
  }
  static std::string Sample(unsigned long metric, unsigned long tag, const std::string& text) {
    return std::to_string(metric) + ":" + std::to_string(tag) + ":" + text;
  }

  CountingPublisher publisher;
  RecordingConsumer consumer;
  LiveManager live;
  unsigned long k = 0;
};

TEST_F(SubscriptionTest, SubscribedConsumersReceiveEachSampleOnceUntilUnsubscribed) {
  RecordingConsumer second;
  const unsigned long k2 = AddConsumer("k2", &second);
  const unsigned long metric = Publish("cpu", 42);
  ASSERT_EQ(live.client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);
  EXPECT_EQ(live.client->SubscribeMetric(k, metric), KT_STATUS_ALREADY_EXISTS);
  ASSERT_EQ(live.client->SubscribeMetric(k2, metric), KT_STATUS_SUCCESS);
  EXPECT_EQ(publisher.binds, 2) << "one binding per consumer's conduit";

  Write(metric, "one");
  Write(metric, "two");

  for (RecordingConsumer* c : {&consumer, &second}) {
    ASSERT_EQ(c->calls.size(), 2u);
    EXPECT_EQ(Call(*c, 0), Strings{Sample(metric, 42, "one")});
    EXPECT_EQ(Call(*c, 1), Strings{Sample(metric, 42, "two")});
    EXPECT_EQ(c->samples[0].bytes.size(), 4u) << "the size of the sample, terminator included";
  }
  EXPECT_TRUE(Drained(metric));
  const unsigned long conduit = live.client->GetConduitHandle(k, metric);
  EXPECT_EQ(live.client->FlushMetrics(k), KT_STATUS_SUCCESS);
  EXPECT_EQ(live.client->__FlushMetrics(conduit), KT_STATUS_SUCCESS);
  const Strings& flushed = publisher.bound.at(0)->calls;
  EXPECT_EQ(std::count(flushed.begin(), flushed.end(), "flush " + std::to_string(conduit)), 2);
  ASSERT_EQ(live.client->UnsubscribeMetric(k, metric), KT_STATUS_SUCCESS);
  EXPECT_EQ(publisher.unbinds, 1);
  EXPECT_EQ(publisher.WritersOf(metric).size(), 1u) << "the publisher no longer writes there";
  // The conduit subscription outlives the metric subscriptions, and the
  // metric can be subscribed afresh.
  const unsigned long other = Publish("other", 7);
  ASSERT_EQ(live.client->SubscribeMetric(k, other), KT_STATUS_SUCCESS);
  Write(other, "three");
  EXPECT_EQ(Call(consumer, 2), Strings{Sample(other, 7, "three")});
  ASSERT_EQ(live.client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);
  Write(metric, "four");
  EXPECT_EQ(Call(consumer, 3), Strings{Sample(metric, 42, "four")});
}

TEST_F(SubscriptionTest, GroupCycleDeliversEveryBoundMemberInOneCallInArrivalOrder) {
  const unsigned long a = Publish("a", 1, 5), b = Publish("b", 2, 5), c = Publish("c", 3, 5);
  const unsigned long gone = Publish("gone", 4, 5);
  live.StateAt<MetricState>(gone)->UpdateAvailablity(false);
  for (unsigned long m : {a, b, c}) ASSERT_EQ(live.client->SubscribeMetric(k, m), 0u);
  // Left awaited, a member that could not be bound would hold its group up.
  EXPECT_EQ(live.client->SubscribeMetric(k, gone), KT_STATUS_NOT_AVAILABLE);

  Write(b, "b1");
  Write(a, "a1");
  EXPECT_TRUE(consumer.calls.empty());
  Write(c, "c1");
  Write(a, "a2");
  Write(c, "c2");

  ASSERT_EQ(consumer.calls.size(), 1u) << "the next cycle waits for all three again";
  EXPECT_EQ(Call(consumer, 0), (Strings{Sample(b, 2, "b1"), Sample(a, 1, "a1"), Sample(c, 3, "c1")}));
  EXPECT_TRUE(Drained(b));
  // A member sending twice ends the cycle early: a2, c2 now, then b3 opens
  // a cycle of its own.
  Write(a, "a3");
  ASSERT_EQ(consumer.calls.size(), 2u);
  EXPECT_EQ(Call(consumer, 1), (Strings{Sample(a, 1, "a2"), Sample(c, 3, "c2")}));
  Write(b, "b3");
  Write(c, "c3");
  ASSERT_EQ(consumer.calls.size(), 3u);
  EXPECT_EQ(Call(consumer, 2), (Strings{Sample(a, 1, "a3"), Sample(b, 2, "b3"), Sample(c, 3, "c3")}));
  EXPECT_TRUE(Drained(a) && Drained(b) && Drained(c));
  // An unsubscribed member leaves its group.
  ASSERT_EQ(live.client->UnsubscribeMetric(k, b), KT_STATUS_SUCCESS);
  Write(a, "a4"), Write(c, "c4");
  EXPECT_EQ(Call(consumer, 3), (Strings{Sample(a, 1, "a4"), Sample(c, 3, "c4")}));
}

TEST_F(SubscriptionTest, BatchedMetricGoesOneSampleAtATimeToBatchedConsumersOnly) {
  BatchedConsumer batched;
  const unsigned long kb = AddConsumer("kb", &batched);
  const unsigned long metric = Publish("m", 7);
  ASSERT_EQ(live.client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);
  ASSERT_EQ(live.client->SubscribeMetric(kb, metric), KT_STATUS_SUCCESS);
  for (unsigned long c : {k, kb}) {
    auto* conduit = live.StateAt<ConduitState>(live.client->GetConduitHandle(c, metric));
    ASSERT_EQ(conduit->AddBatchMetric(metric), KT_STATUS_SUCCESS);
    conduit->AddBatchMetric(metric);
  }

  Write(metric, "x");
  Write(metric, "y");

  ASSERT_EQ(batched.batches.size(), 2u);
  EXPECT_EQ(batched.batches[1].first, "y");
  EXPECT_EQ(batched.batches[1].tag, 7u);
  EXPECT_EQ(batched.batches[1].handle, metric);
  EXPECT_TRUE(consumer.calls.empty());
  EXPECT_EQ(batched.received, 2u) << "no plain call besides the batches";
  EXPECT_TRUE(Drained(metric));
}

// Whichever goes first, the metric is unbound once and nothing is left
// pointing at what went.
TEST_F(SubscriptionTest, TeardownInAnyOrderUnbindsOnce) {
  const struct {
    const char* first;
    std::function<void(unsigned long metric, Path* conduit)> remove;
    bool conduitStays;
  } rows[] = {
      {"consumer", [this](unsigned long, Path*) { live.Remove("k", &consumer); }, false},
      {"conduit", [](unsigned long, Path* conduit) { delete conduit; }, false},
      {"metric", [this](unsigned long m, Path*) { live.manager.UnpublishMetric(&publisher, m); },
       true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.first) + " first");
    const unsigned long metric = Publish(row.first);
    if (consumer.GetHandle() == 0) k = AddConsumer("k", &consumer);
    ASSERT_EQ(live.client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);
    const unsigned long conduit = live.client->GetConduitHandle(k, metric);
    const int unbinds = publisher.unbinds;

    row.remove(metric, live.registry().ResolveHandle(conduit));

    EXPECT_EQ(publisher.unbinds, unbinds + 1);
    EXPECT_EQ(live.registry().ResolveHandle(conduit) != nullptr, row.conduitStays);
    if (auto* state = live.StateAt<MetricState>(metric)) {
      EXPECT_FALSE(state->m_description.flags & Metric::kFlagBound);
      EXPECT_FALSE(live.registry().ResolveHandle(metric)->GetChild("bindings", 0)->HasChildren());
    }
    if (Path* consumerNode = live.registry().ResolveHandle(k)) {
      EXPECT_EQ(consumerNode->GetChild(conduit, 0) != nullptr, row.conduitStays);
      live.Remove("k", &consumer);
    }
    consumer.Load(nullptr, nullptr, 0, nullptr);  // forgets the handle: filed afresh
  }
}

// Holds every call until calls on two conduits have arrived: the pushes of two
// conduits must run side by side.
struct MeetingConsumer : IConsumer {
  struct Place {
    std::mutex mutex;
    std::condition_variable met;
    int arrived = 0;
  };
  void OnMetricUpdated(unsigned, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    std::unique_lock<std::mutex> hold(place->mutex);
    ++place->arrived, place->met.notify_all();
    together = place->met.wait_for(hold, std::chrono::seconds(10),
                                   [&] { return place->arrived >= 2; });
  }
  Place* place = nullptr;
  bool together = false;
};

TEST_F(SubscriptionTest, PushesOfTwoConduitsRunSideBySide) {
  MeetingConsumer::Place place;
  MeetingConsumer left, right;
  left.place = right.place = &place;
  const unsigned long a = Publish("a"), b = Publish("b");
  ASSERT_EQ(live.client->SubscribeMetric(AddConsumer("left", &left), a), KT_STATUS_SUCCESS);
  ASSERT_EQ(live.client->SubscribeMetric(AddConsumer("right", &right), b), KT_STATUS_SUCCESS);

  std::thread first([&] { Write(a, "a"); }), second([&] { Write(b, "b"); });
  first.join(), second.join();

  EXPECT_TRUE(left.together && right.together);
}

// Counts how many of its calls overlap.
struct OverlapConsumer : IConsumer {
  void OnMetricUpdated(unsigned int count, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
    std::this_thread::yield();
    received += count;  // plain on purpose: calls of one conduit never overlap
    inside.fetch_sub(1);
  }
  std::atomic<int> inside{0}, overlaps{0};
  int received = 0;
};

TEST_F(SubscriptionTest, PushesOnOneConduitCallConsumersOnePushAtATime) {
  OverlapConsumer overlap;
  const unsigned long c = AddConsumer("overlap", &overlap);
  const unsigned long a = Publish("a"), b = Publish("b");
  ASSERT_EQ(live.client->SubscribeMetric(c, a), KT_STATUS_SUCCESS);
  ASSERT_EQ(live.client->SubscribeMetric(c, b), KT_STATUS_SUCCESS);
  auto writes = [&](unsigned long metric) {
    return std::thread([this, metric] {
      for (int i = 0; i < 2000; ++i) Write(metric, "x");
    });
  };

  std::thread first = writes(a), second = writes(b);
  first.join(), second.join();

  EXPECT_EQ(overlap.overlaps.load(), 0);
  EXPECT_EQ(overlap.received, 4000);
  EXPECT_TRUE(Drained(a) && Drained(b));
}

}  // namespace
}  // namespace MetricsFramework
