// What the push keeps between samples (the consumer list of "subscriptions",
// the lock-free copy of ungrouped entries) follows every change, and a
// consumer that throws costs only its own call.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "state/conduit_state.h"
#include "registry/registry.h"
#include "state/consumer_state.h"
#include "support/fakes.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

constexpr unsigned long kMetric = 0xA;

class ThrowingConsumer : public RecordingConsumer {
 public:
  void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    throw std::runtime_error("consumer failed");
  }
};

// A conduit with one metric's buffer, and consumers subscribed to it.
struct PushRig {
  PushRig()
      : conduit(new ConduitState(&extension, registry.GetChild("conduits/c", kPathCreate))),
        buffer(64, nullptr, 0, kMetric, 0) {}

  void Subscribe(IConsumer* consumer) {
    Path* node = registry.GetChild(("consumers/" + std::to_string(next++)).c_str(), kPathCreate);
    new ConsumerState(consumer, node);
    EXPECT_EQ(conduit->Subscribe(node->GetHandle()), KT_STATUS_SUCCESS);
  }
  DataPush& Push() { return conduit->GetDataPush(); }
  KT_STATUS Send(const char* sample, unsigned long metric = kMetric) {
    void* block = buffer.Reserve(std::strlen(sample) + 1);
    std::memcpy(block, sample, std::strlen(sample) + 1);
    buffer.Commit(block);
    return conduit->PushData(metric, &buffer);
  }
  bool Drained() {
    const void* data = &data;
    buffer.GetData(&data, nullptr);
    return data == nullptr;
  }

  Registry registry;
  FakeConduit extension;
  ConduitState* conduit;
  QueueBuffer buffer;
  int next = 0;
};

TEST(PushOwnerTest, ThrowingConsumerIsSkippedAndTheOthersStillGetTheSample) {
  PushRig rig;
  ThrowingConsumer throwing;
  RecordingConsumer after;
  rig.Subscribe(&throwing);
  rig.Subscribe(&after);
  rig.Push().RecordMetric(kMetric, 5, {1, kUngrouped});

  EXPECT_EQ(rig.Send("a"), KT_STATUS_SUCCESS);
  EXPECT_EQ(rig.Send("b"), KT_STATUS_SUCCESS) << "the locks were let go";

  ASSERT_EQ(after.samples.size(), 2u);
  EXPECT_EQ(after.samples[1].bytes, std::string("b", 2));
  EXPECT_TRUE(rig.Drained());
}

// Each row changes what the push kept from an earlier sample; the next
// sample must see the change.
TEST(PushOwnerTest, NextSampleSeesEveryChangeOfWhatThePushKept) {
  const struct {
    const char* change;
    void (*apply)(PushRig&, RecordingConsumer& late);
    KT_STATUS status;
    size_t lateSamples;
    unsigned long tag;
  } rows[] = {
      {"tag recorded again", [](PushRig& t, RecordingConsumer&) {
         t.Push().RecordMetric(kMetric, 6, {1, kUngrouped});
       }, KT_STATUS_SUCCESS, 0, 6},
      {"metric forgotten", [](PushRig& t, RecordingConsumer&) {
         t.Push().ForgetMetric(kMetric);
       }, KT_STATUS_INVALID_ARGUMENT, 0, 5},
      {"consumer subscribed", [](PushRig& t, RecordingConsumer& late) {
         t.Subscribe(&late);
       }, KT_STATUS_SUCCESS, 1, 5},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.change);
    PushRig t;
    RecordingConsumer first, late;
    t.Subscribe(&first);
    t.Push().RecordMetric(kMetric, 5, {1, kUngrouped});
    ASSERT_EQ(t.Send("x"), KT_STATUS_SUCCESS);

    row.apply(t, late);

    EXPECT_EQ(t.Send("y"), row.status);
    EXPECT_EQ(late.samples.size(), row.lateSamples);
    EXPECT_EQ(first.samples.back().tag, row.tag);
    EXPECT_TRUE(t.Drained());
  }
}

}  // namespace
}  // namespace MetricsFramework
