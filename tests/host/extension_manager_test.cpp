#include "host/default_extension_manager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state/logger_state.h"
#include "state/method_state.h"
#include "state/publisher_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;
using Journal = std::vector<std::string>;

// Taken while the process has made no manager yet.
IExtensionManager* const g_managerAtStart = GetExtensionManager();
DefaultClientManager* const g_clientManagerAtStart = DefaultExtensionManager::CreateClientManager();

// Writes straight to standard output, past the stream's buffer.
void WriteUnbuffered(const char* text) { (void)!::write(STDOUT_FILENO, text, std::strlen(text)); }

// One object playing every role in `Roles`, answering all their names, that
// journals Load, Unload, OnLoad and OnUnload. With `printOnLoad`, OnLoad
// writes one piece past the output buffer and one into it.
template <typename... Roles>
class Journaled : public Roles... {
 public:
  void* CastTo(const char* name) override {
    if (claimsClientManager && name != nullptr && std::strcmp(name, "IClientManager") == 0) {
      return this;
    }
    if (clientCommand && name != nullptr && std::strcmp(name, "ClientCommandMethod") == 0) {
      return this;
    }
    void* face = nullptr;
    ((face = face != nullptr ? face : Roles::CastTo(name)), ...);
    return face;
  }
  void Load(IExtensionManager* m, IClientManager* c, unsigned long h, IExtensionLoader* l) override {
    Note("Load");
    IKTExtensionBase::Load(m, c, h, l);
  }
  void Unload() override {
    Note("Unload");
    IKTExtensionBase::Unload();
  }
  void OnLoad() {
    Note("OnLoad");
    if (!printOnLoad) return;
    WriteUnbuffered("[raw]");
    std::printf("[OnLoad]");
  }
  void OnUnload() { Note("OnUnload"); }
  void Note(const char* what) {
    if (journal != nullptr) journal->push_back(what);
  }
  Journal* journal = nullptr;
  bool printOnLoad = false, claimsClientManager = false, clientCommand = false;
};

using Publisher = Journaled<CountingPublisher>;
using Consumer = Journaled<RecordingConsumer>;
using Logger = Journaled<RecordingLogger>;
using Method = Journaled<RecordingMethod>;
using EveryRole = Journaled<CountingPublisher, RecordingLogger, FakeConduit, RecordingConsumer,
                            RecordingMethod>;

// A payload that runs `onDestroy` when the node it hangs under goes, after
// that node's own state is gone.
class Witness : public PathData {
 public:
  Witness(Path* node, std::function<void()> onDestroy)
      : PathData(node->GetChild("witness", kPathCreate | kPathUnlisted | kPathNoHandleEntry)),
        onDestroy(std::move(onDestroy)) {}
  ~Witness() override { onDestroy(); }
  std::function<void()> onDestroy;
};

const char* const kBranches[] = {"publishers", "loggers", "conduits", "consumers", "methods"};
constexpr unsigned long kDescriptor = 0x0123456789ABCDEFul;

class ExtensionManagerTest : public ::testing::Test {
 protected:
  ExtensionManagerTest() {
    desc.m_descriptor = kDescriptor;
    manager.GetRegistry().AddStateListener(&ExtensionManagerTest::Hear, this);
  }
  static void Hear(void* context, unsigned int event, unsigned long a, unsigned long) {
    auto* test = static_cast<ExtensionManagerTest*>(context);
    test->events.emplace_back(event, a);
    test->journal.push_back("event " + std::to_string(event));
  }
  KT_STATUS Add(const char* name, IExtension* e) { return manager.Add(desc, name, e, &loader); }
  KT_STATUS Remove(const char* name, IExtension* e) {
    return manager.Remove(desc, name, e, &loader);
  }
  Path* Node(const char* branch, const char* name = nullptr) {
    Path* parent = manager.GetRegistry().GetChild(branch, 0);
    return parent == nullptr || name == nullptr ? parent : parent->GetChildNamed(name, 0);
  }
  template <typename State>
  State* StateOf(const char* branch, const char* name) {
    Path* node = Node(branch, name);
    return node != nullptr ? dynamic_cast<State*>(node->GetPayload()) : nullptr;
  }
  unsigned long HandleOf(const char* branch, const char* name) {
    Path* node = Node(branch, name);
    return node != nullptr ? node->GetHandle() : 0;
  }
  // The console output of adding a publisher with the switch set to `value`
  // (unset for null) when the manager is built.
  std::string TraceOfAdd(const char* value) {
    value != nullptr ? setenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE", value, 1)
                     : unsetenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE");
    DefaultExtensionManager traced;
    unsetenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE");
    Publisher publisher;
    publisher.printOnLoad = true;
    ::testing::internal::CaptureStdout();
    traced.Add(desc, "pub", &publisher, &loader);
    WriteUnbuffered("|");
    return ::testing::internal::GetCapturedStdout();
  }
  // Whether another thread can take `node`'s write lock now.
  static bool Writable(Path* node) {
    bool writable = false;
    std::thread([&] {
      ILock* write = node->GetLock().GetWriteLock();
      writable = write->TryLock();
      if (writable) write->Unlock();
    }).join();
    return writable;
  }

  ExtensionBinaryDesc desc{};
  StubLoader loader;
  Events events;
  Journal journal;
  DefaultExtensionManager manager;
};

TEST_F(ExtensionManagerTest, AddFilesAPublisherLoadsItAnnouncesItThenCallsOnLoad) {
  Publisher publisher;
  publisher.journal = &journal;
  ASSERT_EQ(Add("pub", &publisher), KT_STATUS_SUCCESS);
  Path* node = Node("publishers", "pub");
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "pub")->m_publisher, &publisher);
  EXPECT_TRUE(node->IsListed());
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(node->GetHandle()), node);
  EXPECT_EQ(publisher.GetExtensionManager(), &manager);
  EXPECT_EQ(publisher.GetHandle(), node->GetHandle());
  EXPECT_EQ(publisher.GetLoader(), &loader);
  EXPECT_EQ(journal, (Journal{"Load", "event 1", "OnLoad"}));
  EXPECT_EQ(manager.CastTo("IExtensionHandler"), static_cast<IExtensionHandler*>(&manager));
  EXPECT_EQ(manager.CastTo("IExtensionManager"), nullptr);
}

TEST_F(ExtensionManagerTest, AddFilesEveryRoleWithItsStateAndTheDescriptorWord) {
  EveryRole every;
  ASSERT_EQ(Add("every", &every), KT_STATUS_SUCCESS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "every")->m_publisher, &every);
  EXPECT_EQ(StateOf<LoggerState>("loggers", "every")->GetLogger(), &every);
  EXPECT_EQ(StateOf<ConduitState>("conduits", "every")->m_conduit, &every);
  EXPECT_EQ(StateOf<ConsumerState>("consumers", "every")->GetConsumer(), &every);
  EXPECT_EQ(StateOf<MethodState>("methods", "every")->GetMethod(), &every);
  for (const char* branch : kBranches) {
    EXPECT_EQ(Node(branch, "every")->GetPayload()->m_data, kDescriptor) << branch;
  }
  // Only the publisher role is announced: the logger and conduit roles
  // silence the later ones.
  EXPECT_EQ(events, (Events{{1, HandleOf("publishers", "every")}}));
  EXPECT_EQ(every.GetHandle(), HandleOf("publishers", "every"));
  Remove("every", &every);
}

TEST_F(ExtensionManagerTest, ConsumerRoleIsAnnouncedUnlessAConduitOrLoggerRoleCameFirst) {
  Journaled<FakeConduit, RecordingConsumer> conduit;
  Journaled<RecordingLogger, RecordingConsumer> logger;
  Journaled<CountingPublisher, RecordingConsumer> both;
  ASSERT_EQ(Add("pipe", &conduit), KT_STATUS_SUCCESS);
  ASSERT_EQ(Add("log", &logger), KT_STATUS_SUCCESS);
  // The conduit's consumer node, and the branch made for it, are unlisted.
  EXPECT_FALSE(Node("consumers", "pipe")->IsListed());
  EXPECT_FALSE(Node("consumers")->IsListed());
  EXPECT_TRUE(Node("consumers", "log")->IsListed());
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(conduit.GetHandle(), HandleOf("conduits", "pipe"));

  ASSERT_EQ(Add("both", &both), KT_STATUS_SUCCESS);
  EXPECT_TRUE(Node("consumers", "both")->IsListed());
  EXPECT_EQ(events,
            (Events{{1, HandleOf("publishers", "both")}, {1, HandleOf("consumers", "both")}}));
  EXPECT_EQ(both.GetHandle(), HandleOf("publishers", "both"));
}

TEST_F(ExtensionManagerTest, DuplicateNameReturnsAlreadyExistsAndChangesNothing) {
  Publisher first, second;
  second.journal = &journal;
  ASSERT_EQ(Add("pub", &first), KT_STATUS_SUCCESS);
  events.clear();
  journal.clear();
  EXPECT_EQ(Add("pub", &second), KT_STATUS_ALREADY_EXISTS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "pub")->m_publisher, &first);
  EXPECT_EQ(second.GetHandle(), 0u);
  EXPECT_TRUE(journal.empty());

  // A clash in a later role leaves the earlier roles filed.
  Consumer consumer;
  Journaled<CountingPublisher, RecordingConsumer> both;
  ASSERT_EQ(Add("late", &consumer), KT_STATUS_SUCCESS);
  events.clear();
  EXPECT_EQ(Add("late", &both), KT_STATUS_ALREADY_EXISTS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "late")->m_publisher, &both);
  EXPECT_EQ(StateOf<ConsumerState>("consumers", "late")->GetConsumer(), &consumer);
  EXPECT_EQ(events, (Events{{1, HandleOf("publishers", "late")}}));
}

TEST_F(ExtensionManagerTest, ClientManagerIsAcceptedAndFiledNowhere) {
  DefaultClientManager client(manager.GetRegistry());
  Publisher claimant;  // found through CastTo, before its publisher role
  claimant.claimsClientManager = true;
  claimant.journal = &journal;
  EXPECT_EQ(Add("DefaultClientManager", &client), KT_STATUS_SUCCESS);
  EXPECT_EQ(Add("claimant", &claimant), KT_STATUS_SUCCESS);
  for (const char* branch : kBranches) EXPECT_EQ(Node(branch), nullptr) << branch;
  EXPECT_TRUE(journal.empty());
  EXPECT_TRUE(events.empty());
}

TEST_F(ExtensionManagerTest, RoleFoundOnlyThroughCastToIsFiledAndRemoved) {
  struct Asked : IExtension {
    void* CastTo(const char* name) override {
      if (std::strcmp(name, "IPublisher") == 0) return static_cast<IPublisher*>(&inner);
      if (std::strcmp(name, "IKTExtensionBase") == 0) return static_cast<IKTExtensionBase*>(&inner);
      return nullptr;
    }
    Publisher inner;
  } asked;
  asked.inner.journal = &journal;
  ASSERT_EQ(Add("asked", &asked), KT_STATUS_SUCCESS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "asked")->m_publisher, &asked.inner);
  Remove("asked", &asked);
  EXPECT_EQ(Node("publishers", "asked"), nullptr);
  EXPECT_EQ(journal, (Journal{"Load", "event 1", "OnLoad", "OnUnload", "event 2", "Unload"}));
}

TEST_F(ExtensionManagerTest, MethodsAreDescribedAndOnlyTheCommandMethodTakesTheWellKnownHandle) {
  Method other, command;
  other.inputs = 2;
  other.outputs = 3;
  command.clientCommand = true;
  HostBuffer args, returns;
  ASSERT_EQ(Add("other", &other), KT_STATUS_SUCCESS);
  const RemoteMethodDesc& described = StateOf<MethodState>("methods", "other")->GetDesc();
  EXPECT_STREQ(described.m_name, "echo");
  EXPECT_EQ(described.m_inputCount, 2u);
  EXPECT_EQ(described.m_outputCount, 3u);
  EXPECT_EQ(events, (Events{{1, other.GetHandle()}}));
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(kClientCommandHandle), nullptr);

  ASSERT_EQ(Add("ClientCommandMethod", &command), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(kClientCommandHandle),
            Node("methods", "ClientCommandMethod"));
  EXPECT_EQ(manager.DispatchRemoteMethod(kClientCommandHandle, &args, &returns), 0u);
  EXPECT_EQ(command.runs, 1);
  command.result = false;
  EXPECT_EQ(manager.DispatchRemoteMethod(command.GetHandle(), &args, &returns),
            KT_STATUS_INVALID_OPERATION);
  Remove("ClientCommandMethod", &command);
  EXPECT_EQ(manager.DispatchRemoteMethod(kClientCommandHandle, &args, &returns),
            KT_STATUS_INVALID_OBJECT);
}

TEST_F(ExtensionManagerTest, AddBuildsTheStateWhileTheBranchIsWriteLocked) {
  struct Probing : RecordingConsumer {
    void* CastTo(const char* name) override {
      if (name != nullptr && std::strcmp(name, "IConsumer2") == 0 && branch == nullptr) {
        branch = registry->GetChild("consumers", 0);
        walkable = Writable(branch);
      }
      return RecordingConsumer::CastTo(name);
    }
    Registry* registry = nullptr;
    Path* branch = nullptr;
    bool walkable = true;
  } consumer;
  consumer.registry = &manager.GetRegistry();
  ASSERT_EQ(Add("probe", &consumer), KT_STATUS_SUCCESS);
  ASSERT_NE(consumer.branch, nullptr);
  EXPECT_FALSE(consumer.walkable);
}

TEST_F(ExtensionManagerTest, RemoveOfANameNeverAddedOnlyUnloads) {
  Journaled<FakeConduit, RecordingConsumer, RecordingMethod, RecordingLogger> ghost;
  ghost.journal = &journal;
  EXPECT_EQ(Remove("ghost", &ghost), KT_STATUS_SUCCESS);
  EXPECT_EQ(journal, (Journal{"Unload"}));
  for (const char* branch : {"conduits", "consumers", "methods", "loggers"}) {
    ASSERT_NE(Node(branch), nullptr) << branch;
    EXPECT_FALSE(Node(branch)->HasChildren()) << branch;
  }
  EXPECT_EQ(Node("publishers"), nullptr);
}

TEST_F(ExtensionManagerTest, RemoveGoesConduitConsumerMethodLoggerThenPublisherAfterOnUnload) {
  EveryRole every;
  ASSERT_EQ(Add("every", &every), KT_STATUS_SUCCESS);
  for (const char* branch : kBranches) {
    new Witness(Node(branch, "every"), [this, branch] { journal.push_back(branch); });
  }
  journal.clear();
  every.journal = &journal;
  EXPECT_EQ(Remove("every", &every), KT_STATUS_SUCCESS);
  EXPECT_EQ(journal, (Journal{"conduits", "consumers", "methods", "loggers", "OnUnload",
                              "publishers", "Unload"}));
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(every.GetHandle()), nullptr);
}

TEST_F(ExtensionManagerTest, RemoveAnnouncesUnlessAConduitOrLoggerRoleWentFirst) {
  Consumer consumer;
  Method method;
  Publisher publisher;
  Journaled<CountingPublisher, RecordingLogger> publisherLogger;
  Journaled<FakeConduit, RecordingConsumer> conduitConsumer;
  Logger logger;
  const std::vector<std::pair<const char*, IExtension*>> all = {
      {"c", &consumer},         {"m", &method},           {"p", &publisher},
      {"pl", &publisherLogger}, {"cc", &conduitConsumer}, {"l", &logger}};
  for (auto& [name, extension] : all) ASSERT_EQ(Add(name, extension), KT_STATUS_SUCCESS) << name;
  const Events expected = {{2, HandleOf("consumers", "c")},
                           {2, HandleOf("methods", "m")},
                           {2, HandleOf("publishers", "p")}};
  events.clear();
  for (auto& [name, extension] : all) Remove(name, extension);
  EXPECT_EQ(events, expected);
}

TEST_F(ExtensionManagerTest, RemovedLoggerLeavesItsBranchBeforeItsStateIsDestroyed) {
  Logger kept, removed;
  ASSERT_EQ(Add("kept", &kept), KT_STATUS_SUCCESS);
  ASSERT_EQ(Add("removed", &removed), KT_STATUS_SUCCESS);
  bool stillInBranch = true;
  new Witness(Node("loggers", "removed"), [&] {
    stillInBranch = Node("loggers", "removed") != nullptr;
    manager.Log(1, "", "during");
  });
  Remove("removed", &removed);
  EXPECT_FALSE(stillInBranch);
  EXPECT_EQ(kept.lines, (Journal{"1:during\n"}));
  EXPECT_TRUE(removed.lines.empty());
}

TEST_F(ExtensionManagerTest, LogRunsWhileAnotherThreadAddsAndRemovesALogger) {
  Logger steady, coming;
  ASSERT_EQ(Add("steady", &steady), KT_STATUS_SUCCESS);
  constexpr int kRounds = 300;
  std::thread logging([&] {
    for (int i = 0; i < kRounds; ++i) manager.Log(1, "", "%d", i);
  });
  for (int i = 0; i < kRounds; ++i) {
    Add("coming", &coming);
    Remove("coming", &coming);
  }
  logging.join();
  ASSERT_EQ(steady.Lines().size(), static_cast<size_t>(kRounds));
  EXPECT_EQ(steady.Lines().back(), "1:" + std::to_string(kRounds - 1) + "\n");
}

TEST_F(ExtensionManagerTest, LogEndsShortLinesWithOneLineFeedAndDeliversCutLinesAsTheyAre) {
  EXPECT_EQ(manager.Log(1, "src", "%s", "x"), KT_STATUS_INVALID_OPERATION);
  Logger first, second;
  ASSERT_EQ(Add("first", &first), KT_STATUS_SUCCESS);
  ASSERT_EQ(Add("second", &second), KT_STATUS_SUCCESS);
  const std::string y1022(1022, 'y'), z1023(1023, 'z'), x1500(1500, 'x');
  EXPECT_EQ(manager.Log(7, nullptr, "%s%d", "abc", 1), KT_STATUS_SUCCESS);
  manager.Log(3, "src", "abc\n");
  manager.Log(3, "src", "");
  manager.Log(3, "src", "%s", y1022.c_str());
  manager.Log(3, "src", "%s", z1023.c_str());
  manager.Log(3, "src", "%s", x1500.c_str());
  EXPECT_EQ(manager.Log(3, "src", nullptr), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.Log(3, "src", "%ls", L"\u20ac"), KT_STATUS_SUCCESS);  // fails to format
  const Journal expected = {"7:abc1\n",         "3:abc\n", "3:",
                            "3:" + y1022 + "\n", "3:" + z1023, "3:" + x1500.substr(0, 1023)};
  EXPECT_EQ(first.lines, expected);
  EXPECT_EQ(second.lines, expected);
}

TEST_F(ExtensionManagerTest, LogReleasesTheLoggersLockWhenALoggerThrows) {
  struct Thrower : Logger {
    void Log(unsigned int, const char*) override { throw std::runtime_error("logger failed"); }
  } thrower;
  ASSERT_EQ(Add("thrower", &thrower), KT_STATUS_SUCCESS);
  EXPECT_THROW(manager.Log(1, "", "x"), std::runtime_error);
  EXPECT_TRUE(Writable(Node("loggers")));
}

TEST_F(ExtensionManagerTest, PublishingRoutersReachThePublisherStateOfTheLoadedHandle) {
  Publisher publisher;
  ASSERT_EQ(Add("pub", &publisher), KT_STATUS_SUCCESS);
  const unsigned long pub = publisher.GetHandle();
  auto* state = StateOf<PublisherState>("publishers", "pub");
  unsigned long metric = 0;
  ASSERT_EQ(manager.PublishMetric(&publisher, Describe("cpu/load"), &metric), KT_STATUS_SUCCESS);
  EXPECT_EQ(Node("publishers", "pub")->GetChildNamed("cpu/load", 0)->GetHandle(), metric);
  std::vector<std::string> order{"b", "a"};
  EXPECT_EQ(manager.PublishGroupOrder(&publisher, order), KT_STATUS_SUCCESS);
  EXPECT_EQ(state->GetGroupOrder(), order);
  EXPECT_EQ(manager.PublishSetNames(&publisher, {{3, "x"}}), KT_STATUS_SUCCESS);
  EXPECT_EQ(state->GetSetNames(), (std::vector<std::pair<unsigned int, std::string>>{{3, "x"}}));
  ProbeDesc probe{};
  std::strcpy(probe.m_name, "trace");
  unsigned long type = 0;
  ASSERT_EQ(manager.PublishProbe(&publisher, probe, &type), KT_STATUS_SUCCESS);
  Path* types = Node("publishers", "pub")->GetChild("probe_types", 0);
  ASSERT_NE(types, nullptr);
  EXPECT_EQ(types->GetChild(type, 0), types->GetChild("trace", 0));
  EXPECT_EQ(manager.UnpublishProbe(&publisher, type), KT_STATUS_SUCCESS);
  EXPECT_EQ(types->GetChild("trace", 0), nullptr);
  EXPECT_EQ(manager.UnpublishMetric(&publisher, metric), KT_STATUS_SUCCESS);
  Remove("pub", &publisher);
  EXPECT_EQ(events, (Events{{1, pub}, {3, metric}, {6, metric}, {1, type}, {1, type}, {7, metric},
                            {2, pub}}));
  // Removed, the publisher keeps a handle that no longer resolves.
  EXPECT_EQ(manager.PublishMetric(&publisher, Describe("x"), &metric), KT_STATUS_INVALID_OBJECT);
}

TEST_F(ExtensionManagerTest, PushOfAnUnknownBindingReleasesTheSample) {
  FakeConduit conduit;
  HostBuffer buffer("sample");
  ASSERT_EQ(Add("pipe", &conduit), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.PushDataToConsumers(conduit.GetHandle(), 77, &buffer),
            KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(buffer.releases, 1);
}

TEST_F(ExtensionManagerTest, NotifyStateCallsEveryListenerInAddressOrder) {
  static Journal heard;
  heard.clear();
  auto a = [](void*, unsigned int e, unsigned long x, unsigned long y) {
    heard.push_back("A " + std::to_string(e) + " " + std::to_string(x + y));
  };
  auto b = [](void*, unsigned int e, unsigned long, unsigned long) {
    heard.push_back("B " + std::to_string(e));
  };
  Registry::StateListener listenerA = a, listenerB = b;
  manager.GetRegistry().AddStateListener(listenerB, nullptr);
  manager.GetRegistry().AddStateListener(listenerA, nullptr);
  manager.NotifyState(9, 1, 2);
  const bool aFirst = std::less<Registry::StateListener>()(listenerA, listenerB);
  EXPECT_EQ(heard, aFirst ? (Journal{"A 9 3", "B 9"}) : (Journal{"B 9", "A 9 3"}));
}

TEST_F(ExtensionManagerTest, DestroyingTheManagerTellsNobodyAndDestroysEachStateOnce) {
  auto* dying = new DefaultExtensionManager();
  dying->GetRegistry().AddStateListener(&ExtensionManagerTest::Hear, this);
  EveryRole every;
  every.journal = &journal;
  ASSERT_EQ(dying->Add(desc, "every", &every, &loader), KT_STATUS_SUCCESS);
  int destroyed = 0;
  new Witness(dying->GetRegistry().GetChild("publishers/every", 0), [&] {
    ++destroyed;
    dying->NotifyState(5, 0, 0);  // notifications are off by now
  });
  journal.clear();
  delete dying;
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(journal.empty());  // no OnUnload, no Unload, no event
}

TEST_F(ExtensionManagerTest, ConsoleTraceFramesOnLoadWhenTheSwitchStartsWithOne) {
  // Output is flushed before and after OnLoad, framed or not.
  const std::string framed =
      "    DefaultExtensionManager::Add: calling OnLoad on pub...[raw][OnLoad]...DONE\n|";
  EXPECT_EQ(TraceOfAdd("1yes"), framed);
  for (const char* off : {"0", "", "true", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(TraceOfAdd(off), "[raw][OnLoad]|") << (off != nullptr ? off : "(unset)");
  }
}

TEST(ExtensionManagerFactoryTest, CreateReplacesTheProcessWideManagerAndCreateClientManagerUsesIt) {
  EXPECT_EQ(g_managerAtStart, nullptr);
  EXPECT_EQ(g_clientManagerAtStart, nullptr);
  DefaultExtensionManager* first = DefaultExtensionManager::Create();
  // Stays the process-wide manager, and alive, for the rest of the run.
  DefaultExtensionManager* second = DefaultExtensionManager::Create();
  EXPECT_EQ(GetExtensionManager(), second);
  DefaultClientManager* client = DefaultExtensionManager::CreateClientManager();
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(&client->GetRegistry(), &second->GetRegistry());
  EXPECT_EQ(first->GetClientManager(), nullptr);
  delete first;

  // The first loader Add is given goes to the client manager too, for good.
  StubLoader firstLoader, laterLoader;
  RecordingConsumer consumer, another;
  ExtensionBinaryDesc desc{};
  ASSERT_EQ(second->Add(desc, "consumer", &consumer, &firstLoader), KT_STATUS_SUCCESS);
  ASSERT_EQ(second->Add(desc, "another", &another, &laterLoader), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->m_loader, &firstLoader);
  EXPECT_EQ(consumer.GetClientManager(), static_cast<IClientManager*>(client));
  second->Remove(desc, "consumer", &consumer, &firstLoader);
  second->Remove(desc, "another", &another, &laterLoader);
  client->m_loader = nullptr;  // the loader is about to go
}

}  // namespace
}  // namespace MetricsFramework
