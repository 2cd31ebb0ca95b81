// What the push keeps between samples (the consumer list, the lock-free copy of
// ungrouped entries) follows every change; a consumer that throws costs its call.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "registry/registry.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "support/fakes.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

constexpr unsigned long kMetric = 0xA;

struct ThrowingConsumer : RecordingConsumer {
  void OnMetricUpdated(unsigned, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override { throw std::runtime_error("consumer failed"); }
};

// A conduit with one metric's buffer, and consumers subscribed to it.
struct PushRig {
  void Subscribe(IConsumer* consumer) {
    Path* node = registry.GetChild(("consumers/" + std::to_string(next++)).c_str(), kPathCreate);
    new ConsumerState(consumer, node);
    EXPECT_EQ(conduit->Subscribe(node->GetHandle()), KT_STATUS_SUCCESS);
  }
  DataPush& Push() { return conduit->GetDataPush(); }
  KT_STATUS Send(const char* sample) {  // one character and its terminator
    void* block = buffer.Reserve(2);
    std::memcpy(block, sample, 2);
    return buffer.Commit(block), conduit->PushData(kMetric, &buffer);
  }
  bool Drained() {
    const void* data = &data;
    return buffer.GetData(&data, nullptr), data == nullptr;
  }

  Registry registry;
  FakeConduit extension;
  ConduitState* conduit{new ConduitState(&extension, registry.GetChild("conduits/c", kPathCreate))};
  QueueBuffer buffer{64, nullptr, 0, kMetric, 0};
  int next = 0;
};

// Each row changes what the push kept from an earlier sample; the next samples see it.
TEST(PushOwnerTest, NextSampleSeesEveryChangeOfWhatThePushKept) {
  const struct {
    const char* change;
    void (*apply)(PushRig&, RecordingConsumer& late);
    KT_STATUS status;
    bool reachesLate;
    unsigned long tag;
  } rows[] = {
      {"tag recorded again",
       [](PushRig& t, RecordingConsumer&) { t.Push().RecordMetric(kMetric, 6, {1, kUngrouped}); },
       KT_STATUS_SUCCESS, false, 6},
      {"metric forgotten", [](PushRig& t, RecordingConsumer&) { t.Push().ForgetMetric(kMetric); },
       KT_STATUS_INVALID_ARGUMENT, false, 5},
      {"consumer subscribed", [](PushRig& t, RecordingConsumer& late) { t.Subscribe(&late); },
       KT_STATUS_SUCCESS, true, 5},
      {"throwing consumer subscribed in front of another",
       [](PushRig& t, RecordingConsumer& late) {
         static ThrowingConsumer throwing;
         t.Subscribe(&throwing), t.Subscribe(&late);
       },
       KT_STATUS_SUCCESS, true, 5},
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
    EXPECT_EQ(t.Send("z"), row.status) << "the locks were let go";
    ASSERT_EQ(late.samples.size(), row.reachesLate ? 2u : 0u);
    EXPECT_TRUE(!row.reachesLate || late.samples.back().bytes == std::string("z", 2));
    EXPECT_EQ(first.samples.back().tag, row.tag);
    EXPECT_TRUE(t.Drained());
  }
}

}  // namespace
}  // namespace MetricsFramework
