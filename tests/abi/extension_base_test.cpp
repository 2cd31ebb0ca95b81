// IKTExtensionBase as every module inlines it from the public header: what
// Load, Unload and Unregister keep, and how CastTo answers, also for an
// extension that reaches the base through a virtual base.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kt/extension.h"
#include "kt/logger.h"
#include "support/stub_loader.h"

namespace {

using MetricsFramework::ExtensionBinaryDesc;
using MetricsFramework::IClientManager;
using MetricsFramework::IExtension;
using MetricsFramework::IExtensionLoader;
using MetricsFramework::IExtensionManager;
using MetricsFramework::IKTExtensionBase;
using MetricsFramework::ILogger;
using MetricsFramework::KT_STATUS;

// A loader that counts the extensions handed back to it.
class CountingLoader : public MetricsFramework::testing_fakes::StubLoader {
 public:
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    ++removals;
    removed = extension;
    return 0;
  }

  std::atomic<int> removals{0};
  std::atomic<IKTExtensionBase*> removed{nullptr};
};

class PlainExtension : public IKTExtensionBase {};

class SilentLogger : public ILogger {
 public:
  void Log(unsigned int, const char*) override {}
};

// Releases every waiting thread at once, once all of them have arrived.
class StartGate {
 public:
  explicit StartGate(int parties) : waiting_(parties) {}
  void ArriveAndWait() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--waiting_ == 0) ready_.notify_all();
    ready_.wait(lock, [this] { return waiting_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  int waiting_;
};

class ExtensionBaseTest : public ::testing::Test {
 protected:
  // What one Load hands over; the pointers are only compared, never followed.
  struct LoadValues {
    IExtensionManager* manager;
    IClientManager* client;
    unsigned long handle;
    IExtensionLoader* loader;
  };

  void Load(const LoadValues& v) { extension_.Load(v.manager, v.client, v.handle, v.loader); }

  void ExpectHolds(const LoadValues& v) {
    EXPECT_EQ(extension_.GetExtensionManager(), v.manager);
    EXPECT_EQ(extension_.GetClientManager(), v.client);
    EXPECT_EQ(extension_.GetHandle(), v.handle);
    EXPECT_EQ(static_cast<unsigned long>(extension_), v.handle);
    EXPECT_EQ(extension_.GetLoader(), v.loader);
  }

  CountingLoader firstLoader_;
  CountingLoader secondLoader_;
  const LoadValues first_{reinterpret_cast<IExtensionManager*>(0x1000),
                          reinterpret_cast<IClientManager*>(0x2000), 0x0000ABCD00000001u,
                          &firstLoader_};
  const LoadValues second_{reinterpret_cast<IExtensionManager*>(0x3000),
                           reinterpret_cast<IClientManager*>(0x4000), 0x0000ABCD00000002u,
                           &secondLoader_};
  PlainExtension extension_;
};

TEST_F(ExtensionBaseTest, FirstLoadWinsUntilUnloadForgetsTheLoader) {
  ExpectHolds({nullptr, nullptr, 0, nullptr});

  Load(first_);
  Load(second_);
  ExpectHolds(first_);

  extension_.Unload();
  ExpectHolds({first_.manager, first_.client, first_.handle, nullptr});

  Load(second_);
  ExpectHolds(second_);
}

TEST_F(ExtensionBaseTest, UnregisterHandsTheExtensionBackOnceAndOnlyToItsLoader) {
  Load(first_);

  extension_.Unregister();
  extension_.Unregister();

  EXPECT_EQ(firstLoader_.removals.load(), 1);
  EXPECT_EQ(firstLoader_.removed.load(), &extension_);
  EXPECT_EQ(extension_.GetHandle(), first_.handle);
  Load(second_);
  extension_.Unload();
  extension_.Unregister();
  EXPECT_EQ(secondLoader_.removals.load(), 0);
}

TEST_F(ExtensionBaseTest, ConcurrentUnregisterHandsTheExtensionBackExactlyOnce) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 200;
  for (int round = 0; round < kRounds; ++round) {
    CountingLoader loader;
    PlainExtension extension;
    extension.Load(first_.manager, first_.client, first_.handle, &loader);
    StartGate gate(kThreads);
    std::vector<std::thread> threads;

    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        gate.ArriveAndWait();
        extension.Unregister();
      });
    }
    for (std::thread& t : threads) t.join();

    ASSERT_EQ(loader.removals.load(), 1) << "round " << round;
    ASSERT_EQ(loader.removed.load(), &extension);
  }
}

TEST_F(ExtensionBaseTest, CastToAnswersItsTwoNamesExactly) {
  IKTExtensionBase* base = &extension_;

  EXPECT_EQ(base->CastTo("IKTExtensionBase"), static_cast<void*>(base));
  EXPECT_EQ(base->CastTo("IExtension"), static_cast<void*>(static_cast<IExtension*>(base)));
  for (const char* other : {"iktextensionbase", "IKTEXTENSIONBASE", "iextension", "IExtension ",
                            "IKTExtension", "ILogger", ""}) {
    EXPECT_EQ(base->CastTo(other), nullptr) << '"' << other << '"';
  }
}

TEST(VirtualExtensionBaseTest, LoggerAnswersItselfAndItsVirtualBase) {
  SilentLogger logger;
  ILogger* face = &logger;
  IKTExtensionBase* base = static_cast<IKTExtensionBase*>(face);
  ASSERT_NE(static_cast<void*>(base), static_cast<void*>(face))
      << "the virtual base must sit apart from the logger face for this test to mean anything";

  EXPECT_EQ(face->CastTo("ILogger"), static_cast<void*>(face));
  EXPECT_EQ(face->CastTo("IKTExtensionBase"), static_cast<void*>(base));
  EXPECT_EQ(face->CastTo("IExtension"), static_cast<void*>(static_cast<IExtension*>(base)));
  EXPECT_EQ(base->CastTo("ILogger"), static_cast<void*>(face)) << "asked through the base";
  EXPECT_EQ(face->CastTo("DefaultLogger"), nullptr);
  EXPECT_EQ(face->CastTo("ilogger"), nullptr);
}

}  // namespace
