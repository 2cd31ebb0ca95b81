// Every public interface called through a raw virtual-table index, as a
// separately compiled module calls it: the expected operation must answer. The
// extension base is then checked as every module inlines it.
#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kt/lock.h"
#include "support/fakes.h"

namespace {

using namespace MetricsFramework;
using namespace MetricsFramework::testing_fakes;

static_assert(sizeof(ProbeDesc) == 272 && offsetof(ProbeDesc, m_metrics) == 256 &&
                  offsetof(ProbeDesc, m_metricCount) == 264,
              "probe description: name, metrics, count");
static_assert(sizeof(IKTExtensionBase) == 56 && sizeof(Monitor) == 16,
              "extension base: vptr, four words and a monitor of vptr and mutex pointer");

// The entry `index` of the virtual table of `face`, called with zero words.
unsigned long CallSlot(void* face, std::size_t index) {
  using AnyCall = unsigned long (*)(void*, unsigned long, unsigned long, unsigned long,
                                    unsigned long, unsigned long);
  void* const* table = *static_cast<void* const* const*>(face);
  return reinterpret_cast<AnyCall>(table[index])(face, 0, 0, 0, 0, 0);
}

struct SlotCase {
  const char* operation;
  void* face;
  std::size_t slot;
  std::function<bool(unsigned long)> answered;  // given what the entry returned
};

// Every operation answers the number of its slot.
class NumberedClientManager : public IClientManager {
 public:
  using Listing = std::vector<std::pair<unsigned long, Metric::Description>>;
  KT_STATUS GetPath(unsigned long, const char*, unsigned long*) const override { return 3; }
  KT_STATUS GetChildCount(unsigned long, unsigned int*) const override { return 4; }
  KT_STATUS GetChildren(unsigned long, unsigned long*, unsigned int) const override { return 5; }
  KT_STATUS GetMetrics(unsigned long, Listing&, std::vector<std::string>*,
                       std::map<unsigned int, std::string>*) const override {
    return 6;
  }
  KT_STATUS GetResourceInfo(unsigned long, ResourceInfo*) const override { return 7; }
  KT_STATUS GetMetricDescriptor(unsigned long, Metric::Description*) const override { return 8; }
  KT_STATUS SubscribeMetric(unsigned long, unsigned long) override { return 9; }
  KT_STATUS UnsubscribeMetric(unsigned long, unsigned long) override { return 10; }
  KT_STATUS SubscribeMetrics(unsigned long, const unsigned long*, unsigned int,
                             IClientManagerErrorListener*) override {
    return 11;
  }
  KT_STATUS UnsubscribeMetrics(unsigned long, const unsigned long*, unsigned int,
                               IClientManagerErrorListener*) override {
    return 12;
  }
  KT_STATUS FlushMetrics(unsigned long) override { return 13; }
  KT_STATUS CallRemoteMethodSync(unsigned long, const IReadBuffer*, IWriteBuffer*) override {
    return 14;
  }
  KT_STATUS CreateProbe(unsigned long, void*, unsigned long*) override { return 15; }
  KT_STATUS DestroyProbe(unsigned long) override { return 16; }
  KT_STATUS BeginProbe(unsigned long, unsigned long, unsigned long, Metrics::EventType,
                       void*) const override {
    return 17;
  }
  KT_STATUS EndProbe(unsigned long, unsigned long, Metrics::EventType, void*) const override {
    return 18;
  }
  KT_STATUS HandleProbe(unsigned long) const override { return 19; }
  KT_STATUS OnChangeStateCommandList(unsigned long, void*, void*,
                                     Metrics::CommandListState) const override {
    return 20;
  }
};

// Whether another thread finds `lock` free.
bool FreeElsewhere(ILock& lock) {
  bool taken = false;
  std::thread([&] {
    taken = lock.TryLock();
    if (taken) lock.Unlock();
  }).join();
  return taken;
}

TEST(SlotTest, EachInterfaceAnswersItsOperationAtItsIndex) {
  RecordingConsumer consumer;
  ListeningConsumer listener;
  BatchedConsumer batched;
  CountingPublisher publisher;
  BoundMetric bound(7);
  HostBuffer buffer;
  FakeConduit conduit;
  RecordingMethod method;
  RecordingLogger logger;
  NumberedClientManager client;
  StubLoader loader;
  Monitor monitor;
  IKTExtensionBase* base = &consumer;
  auto* fakeClient = reinterpret_cast<IClientManager*>(0x2220);
  base->Load(nullptr, fakeClient, 0x77, &loader);
  publisher.lastProbeType = 99;

  const std::vector<SlotCase> cases = {
      {"IKTExtensionBase::GetClientManager", base, 6,
       [&](unsigned long r) { return r == reinterpret_cast<unsigned long>(fakeClient); }},
      {"IKTExtensionBase::GetLoader", base, 9,
       [&](unsigned long r) { return r == reinterpret_cast<unsigned long>(&loader); }},
      {"IConsumer::OnMetricUpdated", static_cast<IConsumer*>(&consumer), 1,
       [&](unsigned long) { return consumer.calls.size() == 1; }},
      {"IConsumer2::OnBatchMetricUpdated", static_cast<IConsumer2*>(&batched), 4,
       [&](unsigned long) { return batched.batches.size() == 1; }},
      {"IMetricStateListener::OnMetricUnavailable", static_cast<IMetricStateListener*>(&listener),
       2, [&](unsigned long) { return listener.notices.size() == 1 && !listener.notices[0].second; }},
      {"IPublisher::BindMetric", static_cast<IPublisher*>(&publisher), 1,
       [&](unsigned long) { return publisher.binds == 1; }},
      {"IProbePublisher::CreateProbe", static_cast<IProbePublisher*>(&publisher), 7,
       [&](unsigned long) { return publisher.lastProbeType == 0 && publisher.binds == 1; }},
      {"IBoundMetric::DetachBuffer", static_cast<IBoundMetric*>(&bound), 3,
       [&](unsigned long) { return bound.calls == std::vector<std::string>{"detach 0"}; }},
      {"IReadBuffer::MakeAvailable", static_cast<IReadBuffer*>(&buffer), 1,
       [&](unsigned long) { return buffer.releases == 1; }},
      {"IWriteBuffer::Flush", static_cast<IWriteBuffer*>(&buffer), 0,
       [&](unsigned long) { return buffer.flushes == 1; }},
      {"IConduit::DestroyBuffer", static_cast<IConduit*>(&conduit), 4,
       [&](unsigned long) { return conduit.returned.size() == 1; }},
      {"ILock::Unlock", static_cast<ILock*>(&monitor), 4,
       [&](unsigned long) { return FreeElsewhere(monitor); }},
  };
  monitor.Lock();
  for (const SlotCase& c : cases) {
    EXPECT_TRUE(c.answered(CallSlot(c.face, c.slot))) << c.operation << " at slot " << c.slot;
  }
  for (std::size_t slot = 3; slot <= 20; ++slot) {
    EXPECT_EQ(CallSlot(static_cast<IClientManager*>(&client), slot), slot) << "IClientManager";
  }

  // Entries whose arguments must point somewhere.
  using LogCall = void (*)(void*, unsigned int, const char*);
  using DescribeCall = void (*)(void*, RemoteMethodDesc*);
  ILogger* loggerFace = &logger;
  IRemoteMethod* methodFace = &method;
  RemoteMethodDesc desc;
  reinterpret_cast<LogCall>((*reinterpret_cast<void***>(loggerFace))[1])(loggerFace, 2, "hi");
  reinterpret_cast<DescribeCall>((*reinterpret_cast<void***>(methodFace))[2])(methodFace, &desc);
  EXPECT_EQ(logger.lines, std::vector<std::string>{"2:hi"});
  EXPECT_STREQ(desc.m_name, "echo");
}

// A loader that counts the extensions handed back to it.
class CountingLoader : public StubLoader {
 public:
  KT_STATUS RemoveExtension(IKTExtensionBase*) override { return ++removals, 0; }
  std::atomic<int> removals{0};
};

TEST(ExtensionBaseTest, ConcurrentUnregisterHandsTheExtensionBackExactlyOnce) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 200; ++round) {
    CountingLoader loader;
    RecordingConsumer extension;
    extension.Load(nullptr, nullptr, 1, &loader);
    std::atomic<int> waiting{kThreads};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        // Every thread spins until the last has started, so the calls overlap.
        for (--waiting; waiting.load() > 0;) std::this_thread::yield();
        extension.Unregister();
      });
    }
    for (std::thread& t : threads) t.join();
    ASSERT_EQ(loader.removals.load(), 1) << "round " << round;
  }
}

}  // namespace
