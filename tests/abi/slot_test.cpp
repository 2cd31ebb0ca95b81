// Each public interface called through a raw virtual-table index, as a module
// calls it: the expected operation must answer. Then the inlined extension base.
#include <atomic>
#include <cstddef>
#include <functional>
#include <future>
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

// The entry `index` of the virtual table of `face`, called with `arg` and zeros.
unsigned long CallSlot(void* face, std::size_t index, unsigned long arg = 0) {
  using AnyCall = unsigned long (*)(void*, unsigned long, unsigned long, unsigned long,
                                    unsigned long, unsigned long);
  void* const* table = *static_cast<void* const* const*>(face);
  return reinterpret_cast<AnyCall>(table[index])(face, arg, 0, 0, 0, 0);
}

// Every operation answers the number of its slot.
struct NumberedClientManager : IClientManager {
  using H = unsigned long;
  using Listing = std::vector<std::pair<H, Metric::Description>>;
  using Groups = std::vector<std::string>*;
  using Sets = std::map<unsigned int, std::string>*;
  using Event = Metrics::EventType;
  using CommandState = Metrics::CommandListState;
  using Errors = IClientManagerErrorListener*;
  KT_STATUS GetPath(H, const char*, H*) const override { return 3; }
  KT_STATUS GetChildCount(H, unsigned int*) const override { return 4; }
  KT_STATUS GetChildren(H, H*, unsigned int) const override { return 5; }
  KT_STATUS GetMetrics(H, Listing&, Groups, Sets) const override { return 6; }
  KT_STATUS GetResourceInfo(H, ResourceInfo*) const override { return 7; }
  KT_STATUS GetMetricDescriptor(H, Metric::Description*) const override { return 8; }
  KT_STATUS SubscribeMetric(H, H) override { return 9; }
  KT_STATUS UnsubscribeMetric(H, H) override { return 10; }
  KT_STATUS SubscribeMetrics(H, const H*, unsigned, Errors) override { return 11; }
  KT_STATUS UnsubscribeMetrics(H, const H*, unsigned, Errors) override { return 12; }
  KT_STATUS FlushMetrics(H) override { return 13; }
  KT_STATUS CallRemoteMethodSync(H, const IReadBuffer*, IWriteBuffer*) override { return 14; }
  KT_STATUS CreateProbe(H, void*, H*) override { return 15; }
  KT_STATUS DestroyProbe(H) override { return 16; }
  KT_STATUS BeginProbe(H, H, H, Event, void*) const override { return 17; }
  KT_STATUS EndProbe(H, H, Event, void*) const override { return 18; }
  KT_STATUS HandleProbe(H) const override { return 19; }
  KT_STATUS OnChangeStateCommandList(H, void*, void*, CommandState) const override { return 20; }
};

TEST(SlotTest, EachInterfaceAnswersItsOperationAtItsIndex) {
  RecordingConsumer consumer;  // also the extension base
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
  RemoteMethodDesc desc;
  IKTExtensionBase* base = &consumer;
  auto* fakeClient = reinterpret_cast<IClientManager*>(0x2220);
  base->Load(nullptr, fakeClient, 0x77, &loader);
  publisher.lastProbeType = 99;
  const auto word = [](const void* p) { return reinterpret_cast<unsigned long>(p); };
  const struct {
    void* face;
    std::size_t slot;
    std::function<bool(unsigned long)> answered;  // given what the entry returned
    unsigned long arg = 0;
  } cases[] = {
      {base, 6, [&](unsigned long r) { return r == word(fakeClient); }},  // GetClientManager
      {base, 9, [&](unsigned long r) { return r == word(&loader); }},     // GetLoader
      {static_cast<IConsumer*>(&consumer), 1, [&](auto) { return consumer.calls.size() == 1; }},
      {static_cast<IConsumer2*>(&batched), 4, [&](auto) { return batched.batches.size() == 1; }},
      {static_cast<IMetricStateListener*>(&listener), 2,  // OnMetricUnavailable
       [&](auto) { return listener.notices == decltype(listener.notices){{0, false}}; }},
      {static_cast<IPublisher*>(&publisher), 1, [&](auto) { return publisher.binds == 1; }},
      {static_cast<IProbePublisher*>(&publisher), 7,  // CreateProbe
       [&](auto) { return publisher.lastProbeType == 0 && publisher.binds == 1; }},
      {static_cast<IBoundMetric*>(&bound), 3,  // DetachBuffer
       [&](auto) { return bound.calls == std::vector<std::string>{"detach 0"}; }},
      {static_cast<IReadBuffer*>(&buffer), 1, [&](auto) { return buffer.releases == 1; }},
      {static_cast<IWriteBuffer*>(&buffer), 0, [&](auto) { return buffer.flushes == 1; }},
      {static_cast<IConduit*>(&conduit), 4, [&](auto) { return conduit.returned.size() == 1; }},
      {static_cast<ILock*>(&monitor), 4, [&](auto) {  // Unlock: another thread gets it
         return std::async([&] { return monitor.TryLock() && (monitor.Unlock(), true); }).get();
       }},
      {static_cast<ILogger*>(&logger), 1,
       [&](auto) { return logger.lines == std::vector<std::string>{"0:(null)"}; }},
      {static_cast<IRemoteMethod*>(&method), 2,  // GetRemoteMethodDesc
       [&](auto) { return std::string(desc.m_name) == "echo"; }, word(&desc)},
  };
  monitor.Lock();
  for (const auto& c : cases) {
    EXPECT_TRUE(c.answered(CallSlot(c.face, c.slot, c.arg))) << "slot " << c.slot << " of row "
                                                             << &c - cases;
  }
  for (std::size_t slot = 3; slot <= 20; ++slot) {
    EXPECT_EQ(CallSlot(static_cast<IClientManager*>(&client), slot), slot) << "IClientManager";
  }
}

// A loader that counts the extensions handed back to it.
struct CountingLoader : StubLoader {
  KT_STATUS RemoveExtension(IKTExtensionBase*) override { return ++removals, 0; }
  std::atomic<int> removals{0};
};

TEST(ExtensionBaseTest, ConcurrentUnregisterHandsTheExtensionBackExactlyOnce) {
  for (int round = 0; round < 200; ++round) {
    CountingLoader loader;
    RecordingConsumer extension;
    extension.Load(nullptr, nullptr, 1, &loader);
    std::atomic<int> waiting{8};
    std::vector<std::thread> threads(8);
    for (std::thread& t : threads) {
      t = std::thread([&] {  // each spins until the last has started: the calls overlap
        for (--waiting; waiting.load() > 0;) std::this_thread::yield();
        extension.Unregister();
      });
    }
    for (std::thread& t : threads) t.join();
    ASSERT_EQ(loader.removals.load(), 1) << "round " << round;
  }
}

}  // namespace
