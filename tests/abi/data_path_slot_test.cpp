// The interfaces of the data path, called through raw virtual-table indexes as
// a separately built module calls them: the expected operation must answer.
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "abi/slot_support.h"
#include "kt/buffer.h"
#include "kt/conduit.h"
#include "kt/consumer.h"
#include "kt/metric.h"
#include "kt/probe.h"
#include "kt/publisher.h"

namespace {

using namespace MetricsFramework;
using namespace slot_support;

static_assert(sizeof(ProbeDesc) == 272 && offsetof(ProbeDesc, m_metrics) == 256 &&
                  offsetof(ProbeDesc, m_metricCount) == 264,
              "probe description: name, metrics, count");

std::vector<std::string> g_calls;

void Called(const char* name) { g_calls.push_back(name); }

class Bound : public IBoundMetric {
 public:
  void AttachBuffer(unsigned long, IWriteBuffer*) override { Called("AttachBuffer"); }
  void DetachBuffer(unsigned long) override { Called("DetachBuffer"); }
  unsigned long GetMetricHandle() override { return Called("GetMetricHandle"), 0; }
  bool IsAttached(unsigned long) override { return Called("IsAttached"), false; }
  void Flush(unsigned long) override { Called("Flush"); }
};

class Publisher : public IProbePublisher {
 public:
  IBoundMetric* BindMetric(unsigned long, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    return Called("BindMetric"), nullptr;
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override { Called("UnbindMetric"); }
  void OnLoad() override { Called("OnLoad"); }
  void OnUnload() override { Called("OnUnload"); }
  Metrics::IProbe* CreateProbe(void*, unsigned long) override {
    return Called("CreateProbe"), nullptr;
  }
};

class Buffer : public IReadWriteBuffer {
 public:
  void GetData(const void**, unsigned long*) const override { Called("GetData"); }
  void MakeAvailable(const void*) const override { Called("MakeAvailable"); }
  void Flush() override { Called("Flush"); }
  void* Reserve(unsigned long) override { return Called("Reserve"), nullptr; }
  void Commit(void*) override { Called("Commit"); }
  void CommitTimeBasedMetric(void*) override { Called("CommitTimeBasedMetric"); }
};

class Conduit : public IConduit {
 public:
  void OnSubscribed(unsigned long) override { Called("OnSubscribed"); }
  void OnUnsubscribed(unsigned long) override { Called("OnUnsubscribed"); }
  KT_STATUS CreateBuffer(unsigned long, IReadWriteBuffer**) override {
    return Called("CreateBuffer"), 0;
  }
  void DestroyBuffer(IReadWriteBuffer*) override { Called("DestroyBuffer"); }
  KT_STATUS Transact(unsigned long, const IReadBuffer*, IWriteBuffer*) override {
    return Called("Transact"), 0;
  }
  unsigned long GetRemoteHandle() override { return Called("GetRemoteHandle"), 0; }
};

class Consumer : public IConsumer2, public IMetricStateListener {
 public:
  void* CastTo(const char* name) override { return IConsumer2::CastTo(name); }
  void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    Called("OnMetricUpdated");
  }
  void OnBatchMetricUpdated(unsigned long, unsigned long, const void*) override {
    Called("OnBatchMetricUpdated");
  }
  void OnMetricAvailable(unsigned long, Path*) override { Called("OnMetricAvailable"); }
  void OnMetricUnavailable(unsigned long, Path*) override { Called("OnMetricUnavailable"); }
};

class Probe : public Metrics::IProbe {
 public:
  KT_STATUS Begin(unsigned long, unsigned long, Metrics::EventType, void*) override {
    return Called("Begin"), 0;
  }
  KT_STATUS End(unsigned long, Metrics::EventType, void*) override { return Called("End"), 0; }
  KT_STATUS Handle() override { return Called("Handle"), 0; }
};

// The operations that answer the `slots` of `face`, called in that order.
template <typename Face>
std::vector<std::string> CallSlots(Face* face, std::vector<std::size_t> slots) {
  g_calls.clear();
  for (std::size_t slot : slots) CallSlot(face, slot);
  return g_calls;
}

using Names = std::vector<std::string>;

TEST(DataPathSlotTest, PublisherAndBoundMetricAnswerInDeclaredOrder) {
  Publisher publisher;
  Bound bound;

  EXPECT_EQ(CallSlots<IProbePublisher>(&publisher, {1, 2, 5, 6, 7}),
            (Names{"BindMetric", "UnbindMetric", "OnLoad", "OnUnload", "CreateProbe"}));
  EXPECT_EQ(CallSlots<IBoundMetric>(&bound, {2, 3, 4, 5, 6}),
            (Names{"AttachBuffer", "DetachBuffer", "GetMetricHandle", "IsAttached", "Flush"}));
  IPublisher* face = &publisher;
  EXPECT_EQ(Slot<CastToCall>(face, 0)(face, "IPublisher"), face);
}

TEST(DataPathSlotTest, BufferFacesAnswerInDeclaredOrder) {
  Buffer buffer;

  EXPECT_EQ(CallSlots<IReadBuffer>(&buffer, {0, 1}), (Names{"GetData", "MakeAvailable"}));
  EXPECT_EQ(CallSlots<IWriteBuffer>(&buffer, {0, 1, 2, 3}),
            (Names{"Flush", "Reserve", "Commit", "CommitTimeBasedMetric"}));
}

TEST(DataPathSlotTest, ConduitAnswersInDeclaredOrder) {
  Conduit conduit;

  EXPECT_EQ(CallSlots<IConduit>(&conduit, {1, 2, 3, 4, 5, 6}),
            (Names{"OnSubscribed", "OnUnsubscribed", "CreateBuffer", "DestroyBuffer", "Transact",
                   "GetRemoteHandle"}));
  IConduit* face = &conduit;
  EXPECT_EQ(Slot<CastToCall>(face, 0)(face, "IConduit"), face);
}

TEST(DataPathSlotTest, ConsumerListenerAndProbeAnswerInDeclaredOrder) {
  Consumer consumer;
  Probe probe;

  EXPECT_EQ(CallSlots<IConsumer2>(&consumer, {1, 4}),
            (Names{"OnMetricUpdated", "OnBatchMetricUpdated"}));
  EXPECT_EQ(CallSlots<IMetricStateListener>(&consumer, {1, 2}),
            (Names{"OnMetricAvailable", "OnMetricUnavailable"}));
  EXPECT_EQ(CallSlots<Metrics::IProbe>(&probe, {2, 3, 4}), (Names{"Begin", "End", "Handle"}));
  EXPECT_TRUE(CallSlots<Metrics::IProbe>(&probe, {5}).empty())
      << "the sixth entry's default does nothing";
  Metrics::IProbe* face = &probe;
  EXPECT_EQ(static_cast<KT_STATUS>(CallSlot(face, 5)), 0u);
}

}  // namespace
