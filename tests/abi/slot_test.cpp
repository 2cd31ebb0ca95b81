// Calls every public interface through raw virtual-table indexes, as a module
// compiled from other sources does, and checks that the expected operation
// answers. Also pins the layout of the records that cross a module boundary.
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "abi/slot_support.h"
#include "kt/export_table.h"
#include "kt/extension.h"
#include "kt/extension_manager.h"
#include "kt/lock.h"
#include "kt/logger.h"

namespace {

using namespace MetricsFramework;
using namespace slot_support;

static_assert(sizeof(ExtensionExportRow) == 32, "an export row is 32 bytes");
static_assert(offsetof(ExtensionExportRow, name) == 0 && offsetof(ExtensionExportRow, kind) == 8 &&
                  offsetof(ExtensionExportRow, magic) == 12 &&
                  offsetof(ExtensionExportRow, reserved) == 16 &&
                  offsetof(ExtensionExportRow, factory) == 24,
              "export row fields at 0, 8, 12, 16, 24");
static_assert(offsetof(ExtensionBinaryDesc, m_descriptor) == 256, "descriptor word at byte 256");
static_assert(sizeof(Monitor) == 16, "a monitor is its vptr and its mutex pointer");
static_assert(sizeof(IKTExtensionBase) == 56, "vptr, four words and a monitor");

using Call = void (*)(void*);
using LoadCall = void (*)(void*, void*, void*, unsigned long, void*);

class RecordingLock : public ILock, public CountsLifetime {
 public:
  void Lock() override { calls.push_back("Lock"); }
  bool TryLock() override { return calls.push_back("TryLock"), true; }
  void Unlock() override { calls.push_back("Unlock"); }
  std::vector<std::string> calls;
};

class NamedExtension : public IExtension, public CountsLifetime {
 public:
  void* CastTo(const char* name) override { return asked = name, this; }
  std::string asked;
};

class PlainExtension : public IKTExtensionBase, public CountsLifetime {};

class RecordingLogger : public ILogger, public CountsLifetime {
 public:
  void Log(unsigned int level, const char* line) override {
    lines.push_back(std::to_string(level) + ":" + line);
  }
  std::vector<std::string> lines;
};

// Answers each operation with 100 plus its slot; keeps the extension it is
// handed back.
class RecordingLoader : public IExtensionLoader, public CountsLifetime {
 public:
  KT_STATUS LoadModule(const char*) override { return 102; }
  KT_STATUS UnloadModule(const char*) override { return 103; }
  unsigned int GetModuleCount() override { return 104; }
  const ExtensionBinaryDesc* GetModule(unsigned int) override {
    return reinterpret_cast<const ExtensionBinaryDesc*>(105);
  }
  IExtension* FindExtension(const char*) override { return reinterpret_cast<IExtension*>(106); }
  KT_STATUS AddExtension(const char*, IKTExtensionBase*, const ExtensionBinaryDesc*) override {
    return 107;
  }
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    return removed = extension, 108;
  }
  IKTExtensionBase* removed = nullptr;
};

// Answers each operation with 100 plus its slot; keeps the notice and the
// formatted log line it is given.
class RecordingManager : public IExtensionManager, public CountsLifetime {
 public:
  void* CastTo(const char*) override { return nullptr; }
  KT_STATUS Add(const ExtensionBinaryDesc&, const char*, IExtension*, IExtensionLoader*) override {
    return 103;
  }
  KT_STATUS Remove(const ExtensionBinaryDesc&, const char*, IExtension*,
                   IExtensionLoader*) override {
    return 104;
  }
  KT_STATUS PublishMetric(IPublisher*, const Metric::Description&, unsigned long*) override {
    return 105;
  }
  KT_STATUS UnpublishMetric(IPublisher*, unsigned long) override { return 106; }
  KT_STATUS PublishGroupOrder(IPublisher*, std::vector<std::string>&) override { return 107; }
  KT_STATUS PublishSetNames(IPublisher*,
                            const std::vector<std::pair<unsigned int, std::string>>&) override {
    return 108;
  }
  KT_STATUS PushDataToConsumers(unsigned long, unsigned long, const IReadBuffer*) override {
    return 109;
  }
  KT_STATUS DispatchRemoteMethod(unsigned long, const IReadBuffer*, IWriteBuffer*) override {
    return 110;
  }
  KT_STATUS PublishProbe(IProbePublisher*, const ProbeDesc&, unsigned long*) override {
    return 111;
  }
  KT_STATUS UnpublishProbe(IProbePublisher*, unsigned long) override { return 112; }
  void NotifyState(unsigned int event, unsigned long a, unsigned long b) override {
    notified = {event, a + b};
  }
  KT_STATUS Log(unsigned int level, const char*, const char* format, ...) override {
    char line[64];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    logged = std::to_string(level) + " " + line;
    return 114;
  }
  std::pair<unsigned int, unsigned long> notified{0, 0};
  std::string logged;
};

TEST(LockSlotTest, SlotsTwoToFourAreLockTryLockUnlock) {
  RecordingLock fake;
  ILock* lock = &fake;

  Slot<Call>(lock, 2)(lock);
  const bool taken = Slot<bool (*)(void*)>(lock, 3)(lock);
  Slot<Call>(lock, 4)(lock);

  EXPECT_TRUE(taken);
  EXPECT_EQ(fake.calls, (std::vector<std::string>{"Lock", "TryLock", "Unlock"}));
  ExpectDestructorSlots<ILock, RecordingLock>(0);
}

TEST(LockSlotTest, MonitorSlotsTakeAndReleaseTheMutex) {
  Monitor monitor;
  ILock* lock = &monitor;
  auto tryLockElsewhere = [lock] {
    bool taken = false;
    std::thread other([&] {
      taken = Slot<bool (*)(void*)>(lock, 3)(lock);
      if (taken) Slot<Call>(lock, 4)(lock);
    });
    other.join();
    return taken;
  };

  Slot<Call>(lock, 2)(lock);
  EXPECT_FALSE(tryLockElsewhere());
  Slot<Call>(lock, 4)(lock);
  EXPECT_TRUE(tryLockElsewhere());
}

TEST(ExtensionSlotTest, SlotZeroIsCastToAndSlotsOneTwoDestroy) {
  NamedExtension fake;
  IExtension* extension = &fake;

  EXPECT_EQ(Slot<CastToCall>(extension, 0)(extension, "IConsumer"), &fake);
  EXPECT_EQ(fake.asked, "IConsumer");
  ExpectDestructorSlots<IExtension, NamedExtension>(1);
}

TEST(ExtensionBaseSlotTest, SlotsThreeToTenAnswerTheRecordedValues) {
  PlainExtension fake;
  RecordingLoader loader;
  IKTExtensionBase* base = &fake;
  auto* manager = reinterpret_cast<IExtensionManager*>(0x1110);
  auto* client = reinterpret_cast<IClientManager*>(0x2220);
  using Getter = void* (*)(void*);
  using WordGetter = unsigned long (*)(void*);

  Slot<LoadCall>(base, 3)(base, manager, client, 0x77, &loader);

  EXPECT_EQ(Slot<CastToCall>(base, 0)(base, "IKTExtensionBase"), base);
  EXPECT_EQ(Slot<Getter>(base, 5)(base), manager);
  EXPECT_EQ(Slot<Getter>(base, 6)(base), client);
  EXPECT_EQ(Slot<WordGetter>(base, 7)(base), 0x77u);
  EXPECT_EQ(Slot<WordGetter>(base, 8)(base), 0x77u);
  EXPECT_EQ(Slot<Getter>(base, 9)(base), &loader);

  Slot<Call>(base, 4)(base);  // Unload
  EXPECT_EQ(Slot<Getter>(base, 9)(base), nullptr);
  EXPECT_EQ(Slot<Getter>(base, 5)(base), manager);

  Slot<LoadCall>(base, 3)(base, manager, client, 0x77, &loader);
  Slot<Call>(base, 10)(base);  // Unregister
  EXPECT_EQ(loader.removed, base);
  ExpectDestructorSlots<IKTExtensionBase, PlainExtension>(1);
}

// A module compiled from the same header inlines the base class; its fields
// must sit where every other module expects them.
TEST(ExtensionBaseSlotTest, FieldsFollowTheVptrInDeclaredOrder) {
  PlainExtension fake;
  RecordingLoader loader;
  auto* manager = reinterpret_cast<IExtensionManager*>(0x1110);
  auto* client = reinterpret_cast<IClientManager*>(0x2220);
  Monitor probe;
  fake.Load(manager, client, 0x77, &loader);
  const auto* bytes = reinterpret_cast<const unsigned char*>(static_cast<IKTExtensionBase*>(&fake));
  auto wordAt = [](const void* at) {
    unsigned long word;
    std::memcpy(&word, at, sizeof(word));
    return word;
  };

  EXPECT_EQ(wordAt(bytes + 8), reinterpret_cast<unsigned long>(manager));
  EXPECT_EQ(wordAt(bytes + 16), reinterpret_cast<unsigned long>(client));
  EXPECT_EQ(wordAt(bytes + 24), 0x77u);
  EXPECT_EQ(wordAt(bytes + 32), reinterpret_cast<unsigned long>(&loader));
  EXPECT_EQ(wordAt(bytes + 40), wordAt(&probe)) << "no monitor at byte 40";
}

// IExtensionHandler's Add and Remove at 3 and 4, then the manager's own.
TEST(ExtensionManagerSlotTest, SlotsThreeToFourteenAnswerInDeclaredOrder) {
  RecordingManager fake;
  IExtensionManager* m = &fake;
  using LogCall = KT_STATUS (*)(void*, unsigned int, const char*, const char*, ...);

  for (std::size_t slot = 3; slot <= 12; ++slot) {
    EXPECT_EQ(static_cast<KT_STATUS>(CallSlot(m, slot)), 100 + slot) << "slot " << slot;
  }
  Slot<void (*)(void*, unsigned int, unsigned long, unsigned long)>(m, 13)(m, 1, 2, 3);
  const KT_STATUS logged = Slot<LogCall>(m, 14)(m, 3, "source", "%s-%d", "line", 7);

  EXPECT_EQ(fake.notified, (std::pair<unsigned int, unsigned long>{1, 5}));
  EXPECT_EQ(logged, 114u);
  EXPECT_EQ(fake.logged, "3 line-7");
  ExpectDestructorSlots<IExtensionHandler, RecordingManager>(1);
}

TEST(ExtensionLoaderSlotTest, SlotsTwoToEightAnswerInDeclaredOrder) {
  RecordingLoader fake;
  IExtensionLoader* loader = &fake;

  for (std::size_t slot = 2; slot <= 8; ++slot) {
    EXPECT_EQ(static_cast<unsigned int>(CallSlot(loader, slot)), 100 + slot) << "slot " << slot;
  }
  ExpectDestructorSlots<IExtensionLoader, RecordingLoader>(0);
}

TEST(LoggerSlotTest, SlotZeroIsCastToSlotOneIsLogThenDestructors) {
  RecordingLogger fake;
  ILogger* logger = &fake;

  void* self = Slot<CastToCall>(logger, 0)(logger, "ILogger");
  Slot<void (*)(void*, unsigned int, const char*)>(logger, 1)(logger, 2, "hello");

  EXPECT_EQ(self, logger);
  EXPECT_EQ(fake.lines, std::vector<std::string>{"2:hello"});
  ExpectDestructorSlots<ILogger, RecordingLogger>(2);
}

// The manager loads every extension through its virtual base, whose own table
// is the one of IKTExtensionBase.
TEST(LoggerSlotTest, VirtualBaseAnswersTheExtensionBaseSlots) {
  RecordingLogger fake;
  ILogger* logger = &fake;
  void* base = Slot<CastToCall>(logger, 0)(logger, "IKTExtensionBase");
  ASSERT_NE(base, nullptr);

  Slot<LoadCall>(base, 3)(base, nullptr, nullptr, 0x99, nullptr);

  EXPECT_EQ(base, static_cast<IKTExtensionBase*>(logger));
  EXPECT_EQ(Slot<unsigned long (*)(void*)>(base, 7)(base), 0x99u);
  EXPECT_EQ(logger->GetHandle(), 0x99u);
}

}  // namespace
