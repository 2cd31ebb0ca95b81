// Every public interface called through a raw virtual-table index, as a
// separately compiled module calls it: the expected operation must answer. The
// extension base is then checked as every module inlines it.
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
  RecordingClientManager client;
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
      {"IClientManager::FlushMetrics", static_cast<IClientManager*>(&client), 13,
       [&](unsigned long) { return client.calls == std::vector<std::string>{"FlushMetrics 0"}; }},
      {"ILock::Unlock", static_cast<ILock*>(&monitor), 4,
       [&](unsigned long) { return FreeElsewhere(monitor); }},
  };
  monitor.Lock();
  for (const SlotCase& c : cases) {
    EXPECT_TRUE(c.answered(CallSlot(c.face, c.slot))) << c.operation << " at slot " << c.slot;
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

TEST(ExtensionBaseTest, FirstLoadWinsAndUnregisterHandsBackOnceToItsOwnLoader) {
  RecordingConsumer extension;
  CountingLoader first, second;
  auto* manager = reinterpret_cast<IExtensionManager*>(0x1000);

  extension.Load(manager, nullptr, 1, &first);
  extension.Load(nullptr, nullptr, 2, &second);
  EXPECT_EQ(extension.GetHandle(), 1u);
  EXPECT_EQ(extension.GetExtensionManager(), manager);
  extension.Unload();
  EXPECT_EQ(extension.GetLoader(), nullptr);
  EXPECT_EQ(extension.GetHandle(), 1u) << "Unload forgets only the loader";
  extension.Load(nullptr, nullptr, 2, &second);
  EXPECT_EQ(static_cast<unsigned long>(extension), 2u);
  extension.Unregister();
  extension.Unregister();
  EXPECT_EQ(second.removals.load(), 1);
  EXPECT_EQ(first.removals.load(), 0);
}

TEST(ExtensionBaseTest, ConcurrentUnregisterHandsTheExtensionBackExactlyOnce) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 200; ++round) {
    CountingLoader loader;
    RecordingConsumer extension;
    extension.Load(nullptr, nullptr, 1, &loader);
    std::mutex mutex;
    std::condition_variable ready;
    int waiting = kThreads;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        {
          std::unique_lock<std::mutex> lock(mutex);
          if (--waiting == 0) ready.notify_all();
          ready.wait(lock, [&] { return waiting == 0; });
        }
        extension.Unregister();
      });
    }
    for (std::thread& t : threads) t.join();
    ASSERT_EQ(loader.removals.load(), 1) << "round " << round;
  }
}

TEST(ExtensionBaseTest, CastToAnswersExactNamesThroughTheVirtualBase) {
  RecordingLogger logger;
  ILogger* face = &logger;
  IKTExtensionBase* base = face;

  EXPECT_EQ(base->CastTo("ILogger"), static_cast<void*>(face));
  EXPECT_EQ(face->CastTo("IKTExtensionBase"), static_cast<void*>(base));
  EXPECT_EQ(face->CastTo("IExtension"), static_cast<void*>(static_cast<IExtension*>(base)));
  for (const char* other : {"ilogger", "IExtension ", "IKTExtension", "IConsumer", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(face->CastTo(other), nullptr) << (other != nullptr ? other : "(null)");
  }
}

}  // namespace
