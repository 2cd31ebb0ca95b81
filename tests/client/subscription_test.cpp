// Subscribing consumers to metrics: the conduit state's tables, the binding,
// the batch forms, flushing, and samples travelling from a publisher's commit
// to a subscribed consumer through the local conduit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "client_test_support.h"
#include "foundation/read_write_lock.h"
#include "support/data_push_inspector.h"

namespace MetricsFramework {

// Reads how many tickets a lock's write side has handed out: one per hold
// taken by a thread that did not hold it already.
class ReadWriteLockInspector {
 public:
  static int TicketsTaken(ILock* writeFace) {
    return static_cast<ReadWriteLock::ExclusiveLock*>(writeFace)->nextTicket.load();
  }
};

namespace {

using namespace testing_fakes;

class ErrorLog : public IClientManagerErrorListener {
 public:
  void OnError(unsigned long metric, unsigned int status) override {
    errors.emplace_back(metric, status);
  }
  std::vector<std::pair<unsigned long, unsigned int>> errors;
};

class SubscriptionTest : public ClientManagerTest {
 protected:
  SubscriptionTest() { k = AddConsumer("k", &consumer); }

  // The consumer's conduit to this process, and its state.
  unsigned long Conduit() { return client->GetConduitHandle(k, publisherNode->GetHandle()); }
  ConduitState* Tables() { return ConduitAt(Conduit()); }

  DataPushInspector Push() { return DataPushInspector(Tables()); }
  bool Tagged(unsigned long metric) { return Push().Tagged(metric); }
  bool Member(unsigned long metric) { return Push().Member(metric); }
  bool InTemplate(unsigned long metric, unsigned int group) {
    return Push().Template(publisherNode->GetHandle(), group).count(metric) != 0;
  }
  bool Expected(unsigned long metric, unsigned int group) {
    return Push().Expected(publisherNode->GetHandle(), group).count(metric) != 0;
  }
  bool Bound(unsigned long metric) {
    Path* bindings = registry().ResolveHandle(Conduit())->GetChild("bindings", 0);
    return bindings != nullptr && bindings->GetChild(metric, 0) != nullptr;
  }
  bool ConsumerOnConduit() {
    Path* subscriptions = registry().ResolveHandle(Conduit())->GetChild("subscriptions", 0);
    return subscriptions != nullptr && subscriptions->GetChild(k, 0) != nullptr;
  }

  unsigned long k = 0;
};

// Subscribed twice, the metric keeps one entry per table; a refused second
// bind must not take a bound member out of its group.
TEST_F(SubscriptionTest, SubscribeBindsTheMetricAndRecordsTagAndGroupOnce) {
  const unsigned long metric = Publish("m", 42, 3);

  ASSERT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_ALREADY_EXISTS);

  EXPECT_TRUE(ConsumerOnConduit());
  EXPECT_TRUE(Bound(metric));
  EXPECT_EQ(Push().TagCount(), 1u);
  EXPECT_EQ(Push().TagOf(metric), 42u);
  EXPECT_EQ(Push().MemberCount(), 1u);
  EXPECT_EQ(Push().GroupOf(metric),
            (std::pair<unsigned long, unsigned int>(publisherNode->GetHandle(), 3)));
  EXPECT_TRUE(InTemplate(metric, 3));
  EXPECT_TRUE(Expected(metric, 3));
  EXPECT_EQ(publisher.binds, 1);
}

// Left in the group sets, a member that is not bound would hold its group up.
TEST_F(SubscriptionTest, UnavailableMetricFailsButKeepsItsTagAndMembershipOnly) {
  const unsigned long metric = Publish("m", 42, 3);
  MetricAt(metric)->UpdateAvailablity(false);

  EXPECT_EQ(Refused(client->SubscribeMetric(k, metric)),
            Refusal(KT_STATUS_NOT_AVAILABLE, "metric"));

  EXPECT_TRUE(Tagged(metric));
  EXPECT_TRUE(Member(metric));
  EXPECT_FALSE(InTemplate(metric, 3));
  EXPECT_FALSE(Expected(metric, 3));
  EXPECT_TRUE(ConsumerOnConduit()) << "the conduit subscription stays";
  EXPECT_FALSE(Bound(metric));
}

// Erased and inserted under two holds, the tag would be missing for a moment
// in between, and a push landing there would be refused.
TEST_F(SubscriptionTest, TagIsWrittenUnderOneHoldOfItsLock) {
  const unsigned long metric = Publish("m", 42);
  ASSERT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);
  ILock* tagLock = Push().TablesWriteLock();
  const int before = ReadWriteLockInspector::TicketsTaken(tagLock);

  client->SubscribeMetric(k, metric);

  EXPECT_EQ(ReadWriteLockInspector::TicketsTaken(tagLock) - before, 1);
  EXPECT_EQ(Push().TagOf(metric), 42u);
}

// Each row is one call of the private twin (consumer, conduit, metric,
// full), in the order the arguments are checked.
TEST_F(SubscriptionTest, SubscribeAndUnsubscribeRefusalsNameTheArgumentInCheckOrder) {
  const unsigned long metric = Publish("m");
  const unsigned long conduit = Conduit();
  const unsigned long p = publisherNode->GetHandle();
  const struct {
    const char* why;
    bool subscribe;
    unsigned long consumer, conduit, metric;
    bool full;
    Refusal expected;
  } rows[] = {
      {"no metric", true, 0, 0, 0, true, {kArgument, "metric"}},
      {"unknown conduit", true, 0, 0x4242, metric, true, {kObject, "conduit"}},
      {"a consumer's node is no conduit", true, k, k, metric, true, {kObject, "conduit"}},
      {"consumer 0 whatever `full` is", true, 0, conduit, metric, false, {kArgument, "consumer"}},
      {"the conduit's own refusal, passed on", true, p, conduit, metric, true, {kObject, "0"}},
      {"unknown metric", true, k, conduit, 0x4242, true, {kObject, "metric"}},
      {"no metric", false, 0, 0, 0, true, {kArgument, "metric"}},
      {"unknown conduit", false, 0, 0x4242, metric, true, {kObject, "conduit"}},
      {"consumer 0", false, 0, conduit, metric, true, {kArgument, "consumer"}},
      {"unknown consumer", false, 0x4242, conduit, metric, true, {kObject, "consumer"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.subscribe ? "subscribe: " : "unsubscribe: ") + row.why);
    const KT_STATUS status =
        row.subscribe
            ? client->__SubscribeMetric(row.consumer, row.conduit, row.metric, row.full)
            : client->__UnsubscribeMetric(row.consumer, row.conduit, row.metric, row.full);
    EXPECT_EQ(Refused(status), row.expected);
  }
  EXPECT_EQ(client->__UnsubscribeMetric(0, conduit, metric, false), KT_STATUS_DOES_NOT_EXIST)
      << "unchecked consumer; the conduit never had a binding";
  // An unknown consumer has no conduit.
  EXPECT_EQ(Refused(client->SubscribeMetric(0x4242, metric)), Refusal(kObject, "conduit"));
  EXPECT_EQ(Refused(client->UnsubscribeMetric(0x4242, metric)), Refusal(kObject, "conduit"));
}

TEST_F(SubscriptionTest, ConsumerZeroRegistersTheLocalConduitFirst) {
  const unsigned long metric = Publish("m");

  EXPECT_EQ(Refused(client->SubscribeMetric(0, metric)), Refusal(kArgument, "consumer"));

  EXPECT_EQ(loader.added.back(), "LocalConduit_DefaultClientManager");
  EXPECT_NE(ConduitAt(client->GetConduitHandle(0, 0)), nullptr) << "and it stays registered";
}

TEST_F(SubscriptionTest, RemoteRequestBindsWithoutSubscribingTheConsumer) {
  const unsigned long metric = Publish("m", 42);

  ASSERT_EQ(client->__SubscribeMetric(k, Conduit(), metric, false), KT_STATUS_SUCCESS);

  EXPECT_TRUE(Bound(metric));
  EXPECT_TRUE(Tagged(metric));
  EXPECT_FALSE(ConsumerOnConduit());
}

TEST_F(SubscriptionTest, UnsubscribeUnbindsAndForgetsButKeepsTheConduitSubscription) {
  const unsigned long metric = Publish("m", 42, 3);
  ASSERT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);

  ASSERT_EQ(client->UnsubscribeMetric(k, metric), KT_STATUS_SUCCESS);

  EXPECT_FALSE(Bound(metric));
  EXPECT_EQ(publisher.unbinds, 1);
  EXPECT_FALSE(Tagged(metric));
  EXPECT_FALSE(Member(metric));
  EXPECT_FALSE(InTemplate(metric, 3));
  EXPECT_FALSE(Expected(metric, 3));
  EXPECT_TRUE(ConsumerOnConduit()) << "intended: it outlives the metric subscriptions";
}

// The membership names the group even when the metric is gone, and a pair of
// the metric's left in its group's collection would point into a buffer that
// went back to the pool.
TEST_F(SubscriptionTest, UnsubscribeDropsTheCollectedPairsOfAMetricThatIsGone) {
  const unsigned long metric = Publish("m", 42, 3);
  MetricAt(metric)->UpdateAvailablity(false);
  ASSERT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_NOT_AVAILABLE);
  const unsigned long p = publisherNode->GetHandle();
  FakeBuffer own, other;
  Push().CollectedHandles(p, 3) = {0x55, metric, 0x55, metric};
  Push().CollectedBuffers(p, 3) = {&other, &own, &other, &own};
  Push().Pending()[metric] = &own;
  ASSERT_EQ(publisherState->UnpublishMetric(metric), KT_STATUS_SUCCESS);

  client->UnsubscribeMetric(k, metric);

  EXPECT_EQ(Push().CollectedHandles(p, 3), (std::vector<unsigned long>{0x55, 0x55}));
  EXPECT_EQ(Push().CollectedBuffers(p, 3),
            (std::vector<const IReadBuffer*>{&other, &other}));
  EXPECT_EQ(Push().Pending().count(metric), 0u);
  EXPECT_FALSE(Tagged(metric));
  EXPECT_FALSE(Member(metric));
}

TEST_F(SubscriptionTest, BatchCallsTheListenerForEachFailureAndGoesOn) {
  const unsigned long first = Publish("a");
  const unsigned long third = Publish("c");
  const unsigned long metrics[3] = {first, 0x4242, third};
  ErrorLog log;

  EXPECT_EQ(client->SubscribeMetrics(k, metrics, 3, &log), KT_STATUS_PARTIAL_FAILURE);
  EXPECT_EQ(log.errors, (decltype(log.errors){{0x4242, KT_STATUS_INVALID_OBJECT}}));
  EXPECT_TRUE(Bound(first));
  EXPECT_TRUE(Bound(third));

  log.errors.clear();
  EXPECT_EQ(client->UnsubscribeMetrics(k, metrics, 3, nullptr), KT_STATUS_PARTIAL_FAILURE)
      << "without a listener";
  EXPECT_FALSE(Bound(first));
  EXPECT_FALSE(Bound(third));
  const unsigned long good[2] = {first, third};
  EXPECT_EQ(client->SubscribeMetrics(k, good, 2, &log), KT_STATUS_SUCCESS);
  EXPECT_TRUE(log.errors.empty());
}

TEST_F(SubscriptionTest, BatchChecksTheArrayBeforeTheCount) {
  const unsigned long metric = Publish("m");
  ErrorLog log;

  EXPECT_EQ(Refused(client->SubscribeMetrics(k, nullptr, 0, &log)), Refusal(kArgument, "metric"));
  EXPECT_EQ(client->UnsubscribeMetrics(k, nullptr, 0, &log), kArgument);
  EXPECT_EQ(client->SubscribeMetrics(k, &metric, 0, &log), KT_STATUS_SUCCESS);
  EXPECT_FALSE(Bound(metric));
}

TEST_F(SubscriptionTest, FlushReachesTheBoundPublishers) {
  const unsigned long metric = Publish("m");
  ASSERT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);

  EXPECT_EQ(client->FlushMetrics(k), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->__FlushMetrics(Conduit()), KT_STATUS_SUCCESS);

  ASSERT_EQ(publisher.bound.size(), 1u);
  const std::vector<std::string>& calls = publisher.bound[0]->calls;
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "flush " + std::to_string(Conduit())), 2);
}

TEST_F(SubscriptionTest, FlushRefusals) {
  EXPECT_EQ(Refused(client->FlushMetrics(0)), Refusal(kArgument, "consumer"));
  EXPECT_EQ(Refused(client->FlushMetrics(0x4242)), Refusal(kObject, "consumer"));
  EXPECT_EQ(Refused(client->FlushMetrics(publisherNode->GetHandle())),
            Refusal(kObject, "consumer"))
      << "a node that is no consumer";
  EXPECT_EQ(Refused(client->__FlushMetrics(0)), Refusal(kArgument, "conduit"));
  EXPECT_EQ(Refused(client->__FlushMetrics(k)), Refusal(kObject, "conduit"));
  EXPECT_EQ(client->__FlushMetrics(Conduit()), kObject)
      << "the conduit's own answer: it never had a binding";
}

// ---------------------------------------------------------------------------
// Samples from a publisher's commit to the consumer, with the manager's
// routing stood in by the fake manager.

class SampleDeliveryTest : public SubscriptionTest {
 protected:
  SampleDeliveryTest() { manager.route = true; }

  IWriteBuffer* WriterOf(unsigned long metric) {
    for (auto it = publisher.bound.rbegin(); it != publisher.bound.rend(); ++it) {
      if ((*it)->metric == metric) return (*it)->attached;
    }
    return nullptr;
  }
  void Write(unsigned long metric, const std::string& bytes) {
    IWriteBuffer* buffer = WriterOf(metric);
    ASSERT_NE(buffer, nullptr);
    void* block = buffer->Reserve(bytes.size());
    std::memcpy(block, bytes.data(), bytes.size());
    buffer->Commit(block);
  }
  std::vector<std::string> Call(size_t i) {
    std::vector<std::string> samples;
    for (const auto& s : consumer.calls.at(i)) samples.push_back(Sample(s.handle, s.tag, s.bytes));
    return samples;
  }
  static std::string Sample(unsigned long metric, unsigned long tag, const std::string& bytes) {
    return std::to_string(metric) + ":" + std::to_string(tag) + ":" + bytes;
  }
};

TEST_F(SampleDeliveryTest, SubscribedConsumerReceivesCommittedSamplesUntilUnsubscribed) {
  const unsigned long metric = Publish("cpu", 42);
  ASSERT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);

  Write(metric, "one");
  Write(metric, "two");
  ASSERT_EQ(client->UnsubscribeMetric(k, metric), KT_STATUS_SUCCESS);

  ASSERT_EQ(consumer.calls.size(), 2u);
  EXPECT_EQ(Call(0), (std::vector<std::string>{Sample(metric, 42, "one")}));
  EXPECT_EQ(Call(1), (std::vector<std::string>{Sample(metric, 42, "two")}));
  EXPECT_EQ(WriterOf(metric), nullptr) << "the publisher no longer writes into the buffer";
}

// Before, a member that could not be bound stayed awaited, and the group's
// cycles ended only when a bound member sent twice.
TEST_F(SampleDeliveryTest, GroupArrivesInOneCallOnceEveryBoundMemberCommitted) {
  const unsigned long a = Publish("a", 1, 5);
  const unsigned long b = Publish("b", 2, 5);
  const unsigned long c = Publish("c", 3, 5);
  MetricAt(c)->UpdateAvailablity(false);
  ASSERT_EQ(client->SubscribeMetric(k, a), KT_STATUS_SUCCESS);
  ASSERT_EQ(client->SubscribeMetric(k, b), KT_STATUS_SUCCESS);
  ASSERT_EQ(client->SubscribeMetric(k, c), KT_STATUS_NOT_AVAILABLE);

  Write(a, "x");
  EXPECT_TRUE(consumer.calls.empty());
  Write(b, "y");

  ASSERT_EQ(consumer.calls.size(), 1u);
  EXPECT_EQ(Call(0), (std::vector<std::string>{Sample(a, 1, "x"), Sample(b, 2, "y")}));
}

}  // namespace
}  // namespace MetricsFramework
