// Calls every public interface through raw virtual-table indexes, as a module
// compiled from other sources does, and checks that the expected operation
// answers. Also pins the layout of the records that cross a module boundary.
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kt/export_table.h"
#include "kt/extension.h"
#include "kt/extension_manager.h"
#include "kt/lock.h"
#include "kt/logger.h"

namespace {

using MetricsFramework::ExtensionBinaryDesc;
using MetricsFramework::ExtensionExportRow;
using MetricsFramework::IClientManager;
using MetricsFramework::IExtension;
using MetricsFramework::IExtensionHandler;
using MetricsFramework::IExtensionLoader;
using MetricsFramework::IExtensionManager;
using MetricsFramework::IKTExtensionBase;
using MetricsFramework::ILock;
using MetricsFramework::ILogger;
using MetricsFramework::IProbePublisher;
using MetricsFramework::IPublisher;
using MetricsFramework::IReadBuffer;
using MetricsFramework::IWriteBuffer;
using MetricsFramework::KT_STATUS;
using MetricsFramework::Monitor;
using MetricsFramework::ProbeDesc;
namespace Metric = MetricsFramework::Metric;

static_assert(sizeof(ExtensionExportRow) == 32, "an export row is 32 bytes");
static_assert(offsetof(ExtensionExportRow, name) == 0 && offsetof(ExtensionExportRow, kind) == 8 &&
                  offsetof(ExtensionExportRow, magic) == 12 &&
                  offsetof(ExtensionExportRow, reserved) == 16 &&
                  offsetof(ExtensionExportRow, factory) == 24,
              "export row fields at 0, 8, 12, 16, 24");
static_assert(offsetof(ExtensionBinaryDesc, m_descriptor) == 256, "descriptor word at byte 256");
static_assert(sizeof(Monitor) == 16, "a monitor is its vptr and its mutex pointer");
static_assert(sizeof(IKTExtensionBase) == 56, "vptr, four words and a monitor");

// The entry `index` of the virtual table of `object`, found by position alone
// as a separately built module finds it.
template <typename Fn>
Fn Slot(const void* object, std::size_t index) {
  void* const* table = *static_cast<void* const* const*>(object);
  return reinterpret_cast<Fn>(table[index]);
}

using Call = void (*)(void*);
using CastToCall = void* (*)(void*, const char*);

// Counts destructor runs and class-level deletes of the fakes, so that the two
// destructor slots can be told apart.
struct LifetimeCounts {
  int destroyed = 0;
  int deleted = 0;
};
LifetimeCounts g_lifetime;

struct CountsLifetime {
  ~CountsLifetime() { ++g_lifetime.destroyed; }
  static void* operator new(std::size_t size) { return ::operator new(size); }
  static void* operator new(std::size_t, void* where) { return where; }
  static void operator delete(void* p) {
    ++g_lifetime.deleted;
    ::operator delete(p);
  }
};

// The first destructor slot destroys in place; the second also frees.
template <typename Interface, typename Fake>
void ExpectDestructorSlots(std::size_t first) {
  alignas(Fake) unsigned char storage[sizeof(Fake)];
  Interface* inPlace = new (storage) Fake();
  g_lifetime = {};
  Slot<Call>(inPlace, first)(inPlace);
  EXPECT_EQ(g_lifetime.destroyed, 1) << "slot " << first;
  EXPECT_EQ(g_lifetime.deleted, 0) << "slot " << first;

  Interface* onHeap = new Fake();
  g_lifetime = {};
  Slot<Call>(onHeap, first + 1)(onHeap);
  EXPECT_EQ(g_lifetime.destroyed, 1) << "slot " << first + 1;
  EXPECT_EQ(g_lifetime.deleted, 1) << "slot " << first + 1;
}

class RecordingLock : public ILock, public CountsLifetime {
 public:
  void Lock() override { calls.push_back("Lock"); }
  bool TryLock() override {
    calls.push_back("TryLock");
    return true;
  }
  void Unlock() override { calls.push_back("Unlock"); }
  std::vector<std::string> calls;
};

class NamedExtension : public IExtension, public CountsLifetime {
 public:
  void* CastTo(const char* name) override {
    asked = name;
    return this;
  }
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

// Answers each operation with 100 plus its slot and records its name.
class RecordingLoader : public IExtensionLoader, public CountsLifetime {
 public:
  KT_STATUS LoadModule(const char*) override { return Record("LoadModule", 102); }
  KT_STATUS UnloadModule(const char*) override { return Record("UnloadModule", 103); }
  unsigned int GetModuleCount() override { return Record("GetModuleCount", 104); }
  const ExtensionBinaryDesc* GetModule(unsigned int) override {
    Record("GetModule", 105);
    return nullptr;
  }
  IExtension* FindExtension(const char*) override {
    Record("FindExtension", 106);
    return nullptr;
  }
  KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                         const ExtensionBinaryDesc*) override {
    added = extension;
    return Record(std::string("AddExtension ") + name, 107);
  }
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    removed = extension;
    return Record("RemoveExtension", 108);
  }

  std::vector<std::string> calls;
  IKTExtensionBase* added = nullptr;
  IKTExtensionBase* removed = nullptr;

 private:
  KT_STATUS Record(const std::string& call, KT_STATUS status) {
    calls.push_back(call);
    return status;
  }
};

// Answers each operation with 100 plus its slot and records its name.
class RecordingManager : public IExtensionManager, public CountsLifetime {
 public:
  void* CastTo(const char*) override { return nullptr; }
  KT_STATUS Add(const ExtensionBinaryDesc&, const char*, IExtension*, IExtensionLoader*) override {
    return Record("Add", 103);
  }
  KT_STATUS Remove(const ExtensionBinaryDesc&, const char*, IExtension*,
                   IExtensionLoader*) override {
    return Record("Remove", 104);
  }
  KT_STATUS PublishMetric(IPublisher*, const Metric::Description&, unsigned long*) override {
    return Record("PublishMetric", 105);
  }
  KT_STATUS UnpublishMetric(IPublisher*, unsigned long) override {
    return Record("UnpublishMetric", 106);
  }
  KT_STATUS PublishGroupOrder(IPublisher*, std::vector<std::string>&) override {
    return Record("PublishGroupOrder", 107);
  }
  KT_STATUS PublishSetNames(IPublisher*,
                            const std::vector<std::pair<unsigned int, std::string>>&) override {
    return Record("PublishSetNames", 108);
  }
  KT_STATUS PushDataToConsumers(unsigned long, unsigned long, const IReadBuffer*) override {
    return Record("PushDataToConsumers", 109);
  }
  KT_STATUS DispatchRemoteMethod(unsigned long, const IReadBuffer*, IWriteBuffer*) override {
    return Record("DispatchRemoteMethod", 110);
  }
  KT_STATUS PublishProbe(IProbePublisher*, const ProbeDesc&, unsigned long*) override {
    return Record("PublishProbe", 111);
  }
  KT_STATUS UnpublishProbe(IProbePublisher*, unsigned long) override {
    return Record("UnpublishProbe", 112);
  }
  void NotifyState(unsigned int, unsigned long, unsigned long) override { Record("NotifyState", 113); }
  KT_STATUS Log(unsigned int level, const char*, const char* format, ...) override {
    char line[64];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    return Record("Log " + std::to_string(level) + " " + line, 114);
  }

  std::vector<std::string> calls;

 private:
  KT_STATUS Record(const std::string& call, KT_STATUS status) {
    calls.push_back(call);
    return status;
  }
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
  const bool takenWhileHeld = tryLockElsewhere();
  Slot<Call>(lock, 4)(lock);
  const bool takenAfterRelease = tryLockElsewhere();

  EXPECT_FALSE(takenWhileHeld);
  EXPECT_TRUE(takenAfterRelease);
}

TEST(ExtensionSlotTest, SlotZeroIsCastToAndSlotsOneTwoDestroy) {
  NamedExtension fake;
  IExtension* extension = &fake;

  void* answer = Slot<CastToCall>(extension, 0)(extension, "IConsumer");

  EXPECT_EQ(answer, &fake);
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

  Slot<void (*)(void*, void*, void*, unsigned long, void*)>(base, 3)(base, manager, client, 0x77,
                                                                     &loader);

  EXPECT_EQ(Slot<CastToCall>(base, 0)(base, "IKTExtensionBase"), base);
  EXPECT_EQ(Slot<Getter>(base, 5)(base), manager);
  EXPECT_EQ(Slot<Getter>(base, 6)(base), client);
  EXPECT_EQ(Slot<WordGetter>(base, 7)(base), 0x77u);
  EXPECT_EQ(Slot<WordGetter>(base, 8)(base), 0x77u);
  EXPECT_EQ(Slot<Getter>(base, 9)(base), &loader);

  Slot<Call>(base, 4)(base);  // Unload
  EXPECT_EQ(Slot<Getter>(base, 9)(base), nullptr);
  EXPECT_EQ(Slot<Getter>(base, 5)(base), manager);

  Slot<void (*)(void*, void*, void*, unsigned long, void*)>(base, 3)(base, manager, client, 0x77,
                                                                     &loader);
  Slot<Call>(base, 10)(base);  // Unregister
  EXPECT_EQ(loader.calls, std::vector<std::string>{"RemoveExtension"});
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
  auto wordAt = [bytes](std::size_t offset) {
    unsigned long word;
    std::memcpy(&word, bytes + offset, sizeof(word));
    return word;
  };

  EXPECT_EQ(wordAt(8), reinterpret_cast<unsigned long>(manager));
  EXPECT_EQ(wordAt(16), reinterpret_cast<unsigned long>(client));
  EXPECT_EQ(wordAt(24), 0x77u);
  EXPECT_EQ(wordAt(32), reinterpret_cast<unsigned long>(&loader));
  unsigned long monitorVptr;
  std::memcpy(&monitorVptr, static_cast<const void*>(&probe), sizeof(monitorVptr));
  EXPECT_EQ(wordAt(40), monitorVptr) << "no monitor at byte 40";
}

TEST(ExtensionHandlerSlotTest, SlotsThreeAndFourAreAddAndRemove) {
  RecordingManager fake;
  IExtensionHandler* handler = &fake;
  ExtensionBinaryDesc desc{};
  using AddOrRemove = KT_STATUS (*)(void*, const void*, const char*, void*, void*);

  const KT_STATUS added = Slot<AddOrRemove>(handler, 3)(handler, &desc, "x", nullptr, nullptr);
  const KT_STATUS removed = Slot<AddOrRemove>(handler, 4)(handler, &desc, "x", nullptr, nullptr);

  EXPECT_EQ(added, 103u);
  EXPECT_EQ(removed, 104u);
  EXPECT_EQ(fake.calls, (std::vector<std::string>{"Add", "Remove"}));
  ExpectDestructorSlots<IExtensionHandler, RecordingManager>(1);
}

TEST(ExtensionManagerSlotTest, SlotsFiveToFourteenAnswerInDeclaredOrder) {
  RecordingManager fake;
  IExtensionManager* m = &fake;
  unsigned long out = 0;
  std::vector<std::string> order;
  std::vector<std::pair<unsigned int, std::string>> names;
  const char opaque[8] = {};  // stands for records only the implementation reads
  using PublishCall = KT_STATUS (*)(void*, const void*, const void*, unsigned long*);
  using UnpublishCall = KT_STATUS (*)(void*, const void*, unsigned long);
  using ListCall = KT_STATUS (*)(void*, const void*, const void*);
  using RouteCall = KT_STATUS (*)(void*, unsigned long, const void*, const void*);
  using LogCall = KT_STATUS (*)(void*, unsigned int, const char*, const char*, ...);

  const KT_STATUS statuses[] = {
      Slot<PublishCall>(m, 5)(m, nullptr, opaque, &out),
      Slot<UnpublishCall>(m, 6)(m, nullptr, 1),
      Slot<ListCall>(m, 7)(m, nullptr, &order),
      Slot<ListCall>(m, 8)(m, nullptr, &names),
      Slot<KT_STATUS (*)(void*, unsigned long, unsigned long, const void*)>(m, 9)(m, 1, 2, opaque),
      Slot<RouteCall>(m, 10)(m, 1, opaque, nullptr),
      Slot<PublishCall>(m, 11)(m, nullptr, opaque, &out),
      Slot<UnpublishCall>(m, 12)(m, nullptr, 1),
  };
  Slot<void (*)(void*, unsigned int, unsigned long, unsigned long)>(m, 13)(m, 1, 2, 3);
  const KT_STATUS logged = Slot<LogCall>(m, 14)(m, 3, "source", "%s-%d", "line", 7);

  for (std::size_t i = 0; i < sizeof(statuses) / sizeof(statuses[0]); ++i) {
    EXPECT_EQ(statuses[i], 105u + i) << "slot " << 5 + i;
  }
  EXPECT_EQ(logged, 114u);
  EXPECT_EQ(fake.calls, (std::vector<std::string>{
                            "PublishMetric", "UnpublishMetric", "PublishGroupOrder",
                            "PublishSetNames", "PushDataToConsumers", "DispatchRemoteMethod",
                            "PublishProbe", "UnpublishProbe", "NotifyState", "Log 3 line-7"}));
}

TEST(ExtensionLoaderSlotTest, EighthAndNinthEntriesAddAndRemoveExtensions) {
  RecordingLoader fake;
  PlainExtension extension;
  IExtensionLoader* loader = &fake;
  IKTExtensionBase* base = &extension;

  const KT_STATUS added = Slot<KT_STATUS (*)(void*, const char*, void*, const void*)>(loader, 7)(
      loader, "private", base, nullptr);
  const KT_STATUS removed = Slot<KT_STATUS (*)(void*, void*)>(loader, 8)(loader, base);

  EXPECT_EQ(added, 107u);
  EXPECT_EQ(removed, 108u);
  EXPECT_EQ(fake.calls, (std::vector<std::string>{"AddExtension private", "RemoveExtension"}));
  EXPECT_EQ(fake.added, base);
  EXPECT_EQ(fake.removed, base);
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

  Slot<void (*)(void*, void*, void*, unsigned long, void*)>(base, 3)(base, nullptr, nullptr, 0x99,
                                                                     nullptr);

  EXPECT_EQ(base, static_cast<IKTExtensionBase*>(logger));
  EXPECT_EQ(Slot<unsigned long (*)(void*)>(base, 7)(base), 0x99u);
  EXPECT_EQ(logger->GetHandle(), 0x99u);
}

}  // namespace
