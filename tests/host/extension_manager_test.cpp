#include "host/default_extension_manager.h"

#include <gtest/gtest.h>
#include "support/data_push_inspector.h"
#include "support/stub_loader.h"
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

#include "client/default_client_manager.h"
#include "foundation/diagnostics.h"
#include "kt/conduit.h"
#include "kt/consumer.h"
#include "kt/logger.h"
#include "kt/metric.h"
#include "kt/probe.h"
#include "kt/remote_method.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state/logger_state.h"
#include "state/method_state.h"
#include "state/publisher_state.h"

namespace MetricsFramework {
namespace {

using Journal = std::vector<std::string>;
using Events = std::vector<std::pair<unsigned int, unsigned long>>;
using Refusal = std::pair<KT_STATUS, std::string>;
constexpr KT_STATUS kArgument = KT_STATUS_INVALID_ARGUMENT;
constexpr KT_STATUS kObject = KT_STATUS_INVALID_OBJECT;

// Taken while the process has made no manager yet (static initialisation
// runs before any test).
IExtensionManager* const g_managerAtStart = GetExtensionManager();
DefaultClientManager* const g_clientManagerAtStart = DefaultExtensionManager::CreateClientManager();

// Writes straight to standard output, past the stream's buffer.
void WriteUnbuffered(const char* text) {
  const ssize_t written = ::write(STDOUT_FILENO, text, std::strlen(text));
  (void)written;
}

// The extension base of every fake: journals Load and Unload.
class JournaledBase : public virtual IKTExtensionBase {
 public:
  void Load(IExtensionManager* manager, IClientManager* client, unsigned long handle,
            IExtensionLoader* loader) override {
    Note("Load");
    IKTExtensionBase::Load(manager, client, handle, loader);
  }
  void Unload() override {
    Note("Unload");
    IKTExtensionBase::Unload();
  }
  void Note(const std::string& what) {
    if (journal != nullptr) journal->push_back(what);
  }
  Journal* journal = nullptr;
};

class FakePublisher : public IProbePublisher, public virtual JournaledBase {
 public:
  IBoundMetric* BindMetric(unsigned long, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    return nullptr;
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override {}
  // With `printOnLoad`, OnLoad writes one piece past the output buffer and
  // one into it, so that only flushed output comes out in order.
  void OnLoad() override {
    Note("OnLoad");
    if (!printOnLoad) return;
    WriteUnbuffered("[raw]");
    std::printf("[OnLoad]");
  }
  void OnUnload() override { Note("OnUnload"); }
  Metrics::IProbe* CreateProbe(void*, unsigned long) override { return nullptr; }
  bool printOnLoad = false;
};

class FakeConsumer : public IConsumer, public virtual JournaledBase {
 public:
  void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {}
};

class FakeConduit : public IConduit, public virtual JournaledBase {
 public:
  void OnSubscribed(unsigned long) override {}
  void OnUnsubscribed(unsigned long) override {}
  KT_STATUS CreateBuffer(unsigned long, IReadWriteBuffer**) override {
    return KT_STATUS_OUT_OF_RESOURCES;
  }
  void DestroyBuffer(IReadWriteBuffer*) override {}
  KT_STATUS Transact(unsigned long, const IReadBuffer*, IWriteBuffer*) override { return 0; }
  unsigned long GetRemoteHandle() override { return 0; }
};

class FakeLogger : public ILogger, public virtual JournaledBase {
 public:
  void Log(unsigned int level, const char* line) override {
    if (throws) throw std::runtime_error("logger failed");
    levels.push_back(level);
    lines.push_back(line);
  }
  bool throws = false;
  std::vector<unsigned int> levels;
  Journal lines;
};

// A remote method; with `clientCommand` it names itself "ClientCommandMethod".
class FakeMethod : public IRemoteMethod, public virtual JournaledBase {
 public:
  void* CastTo(const char* name) override {
    if (clientCommand && std::strcmp(name, "ClientCommandMethod") == 0) return this;
    return IRemoteMethod::CastTo(name);
  }
  bool Run(const IReadBuffer* args, IWriteBuffer* returns) override {
    ++runs;
    ran = {args, returns};
    return succeeds;
  }
  void GetRemoteMethodDesc(RemoteMethodDesc& desc) override {
    std::strcpy(desc.m_name, "echo");
    desc.m_inputCount = 2;
    desc.m_outputCount = 3;
  }
  bool clientCommand = false;
  bool succeeds = true;
  int runs = 0;
  std::pair<const IReadBuffer*, IWriteBuffer*> ran{nullptr, nullptr};
};

// One object playing several roles, answering every role's names.
template <typename... Roles>
class Combined : public Roles... {
 public:
  void* CastTo(const char* name) override {
    void* face = nullptr;
    ((face = face != nullptr ? face : Roles::CastTo(name)), ...);
    return face;
  }
};
using PublisherConsumer = Combined<FakePublisher, FakeConsumer>;
using ConduitConsumer = Combined<FakeConduit, FakeConsumer>;
using LoggerConsumer = Combined<FakeLogger, FakeConsumer>;
using PublisherLogger = Combined<FakePublisher, FakeLogger>;
using EveryRole = Combined<FakePublisher, FakeLogger, FakeConduit, FakeConsumer, FakeMethod>;

// Offers its publisher only through CastTo, as a module built apart may.
class AskedPublisher : public IExtension {
 public:
  void* CastTo(const char* name) override {
    if (std::strcmp(name, "IPublisher") == 0) return static_cast<IPublisher*>(&inner);
    if (std::strcmp(name, "IKTExtensionBase") == 0) return static_cast<IKTExtensionBase*>(&inner);
    return nullptr;
  }
  FakePublisher inner;
};

// Says it is a client manager, besides being a publisher.
class ClaimsClientManager : public FakePublisher {
 public:
  void* CastTo(const char* name) override {
    if (std::strcmp(name, "IClientManager") == 0) return this;
    return FakePublisher::CastTo(name);
  }
};

// An extension without extension base.
class BareExtension : public IExtension {
 public:
  void* CastTo(const char*) override { return nullptr; }
};

// Asked for its batched face while its state is built, it finds out whether
// another thread could walk "consumers" at that moment.
class ProbingConsumer : public FakeConsumer {
 public:
  void* CastTo(const char* name) override {
    if (std::strcmp(name, "IConsumer2") == 0 && registry != nullptr) {
      probed = true;
      Path* branch = registry->GetChild("consumers", 0);
      std::thread([&] {
        ILock* read = branch->GetLock().GetReadLock();
        walkable = read->TryLock();
        if (walkable) read->Unlock();
      }).join();
    }
    return FakeConsumer::CastTo(name);
  }
  Registry* registry = nullptr;
  bool probed = false;
  bool walkable = true;
};

using FakeLoader = testing_fakes::StubLoader;

// A sample queue of one block; records what it is given back.
class FakeBuffer : public IReadWriteBuffer {
 public:
  void GetData(const void** data, unsigned long* size) const override {
    *data = &sample;
    if (size != nullptr) *size = sizeof(sample);
  }
  void MakeAvailable(const void* data) const override { released.push_back(data); }
  void Flush() override {}
  void* Reserve(unsigned long) override { return nullptr; }
  void Commit(void*) override {}
  void CommitTimeBasedMetric(void*) override {}
  int sample = 42;
  mutable std::vector<const void*> released;
};

// A payload that runs `onDestroy` when its node goes. Hung under an
// extension's node, it sees the tree as it is while that node is destroyed,
// after the node's own state is gone.
class Witness : public PathData {
 public:
  Witness(Path* path, std::function<void()> onDestroy)
      : PathData(path), onDestroy(std::move(onDestroy)) {}
  ~Witness() override { onDestroy(); }
  std::function<void()> onDestroy;
};

void Hang(Path* node, std::function<void()> onDestroy) {
  new Witness(node->GetChild("witness", kPathCreate | kPathUnlisted | kPathNoHandleEntry),
              std::move(onDestroy));
}

void HearA(void* context, unsigned int event, unsigned long a, unsigned long b) {
  static_cast<Journal*>(context)->push_back("A " + std::to_string(event) + " " + std::to_string(a) +
                                            " " + std::to_string(b));
}
void HearB(void* context, unsigned int event, unsigned long, unsigned long) {
  static_cast<Journal*>(context)->push_back("B " + std::to_string(event));
}

constexpr unsigned long kDescriptor = 0x0123456789ABCDEFul;

class ExtensionManagerTest : public ::testing::Test {
 protected:
  ExtensionManagerTest() {
    std::memset(desc.m_path, 'x', sizeof(desc.m_path));
    desc.m_descriptor = kDescriptor;
    desc.m_module = &desc;
    manager.GetRegistry().AddStateListener(&ExtensionManagerTest::Hear, this);
  }

  static void Hear(void* context, unsigned int event, unsigned long a, unsigned long) {
    auto* test = static_cast<ExtensionManagerTest*>(context);
    test->events.emplace_back(event, a);
    test->journal.push_back("event " + std::to_string(event));
  }

  KT_STATUS Add(const char* name, IExtension* extension) {
    return manager.Add(desc, name, extension, &loader);
  }
  KT_STATUS Remove(const char* name, IExtension* extension) {
    return manager.Remove(desc, name, extension, &loader);
  }
  Path* Branch(const char* branch) { return manager.GetRegistry().GetChild(branch, 0); }
  Path* Node(const char* branch, const char* name) {
    Path* parent = Branch(branch);
    return parent != nullptr ? parent->GetChildNamed(name, 0) : nullptr;
  }
  template <typename State>
  State* StateOf(const char* branch, const char* name) {
    Path* node = Node(branch, name);
    return node != nullptr ? dynamic_cast<State*>(node->GetPayload()) : nullptr;
  }
  // A status with the argument its failure message named ("" for none).
  static Refusal Refused(KT_STATUS status) {
    const char* argument = TakeLastFailureArgument();
    return {status, argument != nullptr ? argument : ""};
  }
  unsigned long HandleOf(const char* branch, const char* name) {
    Path* node = Node(branch, name);
    return node != nullptr ? node->GetHandle() : 0;
  }
  // The console lines of adding a publisher with the switch set to `value`
  // (unset for null) when the manager is built.
  std::string TraceOfAdd(const char* value) {
    if (value != nullptr) {
      setenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE", value, 1);
    } else {
      unsetenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE");
    }
    DefaultExtensionManager traced;
    unsetenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE");
    FakePublisher publisher;
    publisher.printOnLoad = true;
    ::testing::internal::CaptureStdout();
    traced.Add(desc, "pub", &publisher, &loader);
    WriteUnbuffered("|");
    return ::testing::internal::GetCapturedStdout();
  }

  ExtensionBinaryDesc desc{};
  FakeLoader loader;
  Events events;
  Journal journal;
  DefaultExtensionManager manager;
};

TEST_F(ExtensionManagerTest, CastToAnswersTheHandlerNamesOnly) {
  EXPECT_EQ(manager.CastTo("IExtensionHandler"), static_cast<IExtensionHandler*>(&manager));
  EXPECT_EQ(manager.CastTo("IExtension"), static_cast<IExtension*>(&manager));
  for (const char* name : {"IExtensionManager", "IKTExtensionBase", "IRegistryManager",
                           "iextension", "IExtensionHandler "}) {
    EXPECT_EQ(manager.CastTo(name), nullptr) << name;
  }
}

TEST_F(ExtensionManagerTest, GetRegistryAnswersInTheSlotAfterLog) {
  IRegistryManager* face = &manager;
  using Slot = Registry& (*)(IRegistryManager*);
  void** table = *reinterpret_cast<void***>(face);
  EXPECT_EQ(&reinterpret_cast<Slot>(table[15])(face), &manager.GetRegistry());
}

TEST_F(ExtensionManagerTest, AddFilesAPublisherLoadsItAnnouncesItThenCallsOnLoad) {
  FakePublisher publisher;
  publisher.journal = &journal;
  ASSERT_EQ(Add("pub", &publisher), KT_STATUS_SUCCESS);
  Path* node = Node("publishers", "pub");
  ASSERT_NE(node, nullptr);
  auto* state = dynamic_cast<PublisherState*>(node->GetPayload());
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->m_publisher, &publisher);
  EXPECT_TRUE(node->IsListed());
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(node->GetHandle()), node);
  EXPECT_EQ(publisher.GetExtensionManager(), &manager);
  EXPECT_EQ(publisher.GetClientManager(), nullptr);
  EXPECT_EQ(publisher.GetHandle(), node->GetHandle());
  EXPECT_EQ(publisher.GetLoader(), &loader);
  EXPECT_EQ(journal, (Journal{"Load", "event 1", "OnLoad"}));
}

TEST_F(ExtensionManagerTest, AddFilesEveryRoleWithItsStateAndTheDescriptorWord) {
  EveryRole every;
  ASSERT_EQ(Add("every", &every), KT_STATUS_SUCCESS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "every")->m_publisher, &every);
  EXPECT_EQ(StateOf<LoggerState>("loggers", "every")->GetLogger(), &every);
  EXPECT_EQ(StateOf<ConduitState>("conduits", "every")->m_conduit, &every);
  EXPECT_EQ(StateOf<ConsumerState>("consumers", "every")->GetConsumer(), &every);
  EXPECT_EQ(StateOf<MethodState>("methods", "every")->GetMethod(), &every);
  for (const char* branch : {"publishers", "loggers", "conduits", "consumers", "methods"}) {
    EXPECT_EQ(Node(branch, "every")->GetPayload()->m_data, kDescriptor) << branch;
  }
  // Only the publisher role is announced: the logger and conduit roles
  // silence the later ones.
  EXPECT_EQ(events, (Events{{1, HandleOf("publishers", "every")}}));
  EXPECT_EQ(every.GetHandle(), HandleOf("publishers", "every"));
  Remove("every", &every);
}

// A publisher and consumer is filed twice, announced twice and keeps the
// publisher's handle; a conduit or logger role silences the consumer role.
TEST_F(ExtensionManagerTest, ConsumerRoleIsAnnouncedUnlessAConduitOrLoggerRoleCameFirst) {
  ConduitConsumer conduit;
  LoggerConsumer logger;
  PublisherConsumer both;
  ASSERT_EQ(Add("pipe", &conduit), KT_STATUS_SUCCESS);
  ASSERT_EQ(Add("log", &logger), KT_STATUS_SUCCESS);
  // The conduit's consumer node, and the branch made for it, are unlisted.
  EXPECT_FALSE(Node("conduits", "pipe")->IsListed());
  EXPECT_FALSE(Node("consumers", "pipe")->IsListed());
  EXPECT_FALSE(Branch("consumers")->IsListed());
  EXPECT_TRUE(Node("consumers", "log")->IsListed());
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(conduit.GetHandle(), HandleOf("conduits", "pipe"));

  ASSERT_EQ(Add("both", &both), KT_STATUS_SUCCESS);
  ASSERT_NE(Node("consumers", "both"), nullptr);
  EXPECT_TRUE(Node("consumers", "both")->IsListed());
  EXPECT_EQ(events,
            (Events{{1, HandleOf("publishers", "both")}, {1, HandleOf("consumers", "both")}}));
  EXPECT_EQ(both.GetHandle(), HandleOf("publishers", "both"));
}

TEST_F(ExtensionManagerTest, DuplicateNameReturnsAlreadyExistsAndChangesNothing) {
  FakePublisher first;
  FakePublisher second;
  second.journal = &journal;
  ASSERT_EQ(Add("pub", &first), KT_STATUS_SUCCESS);
  events.clear();
  journal.clear();
  EXPECT_EQ(Add("pub", &second), KT_STATUS_ALREADY_EXISTS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "pub")->m_publisher, &first);
  EXPECT_EQ(second.GetHandle(), 0u);
  EXPECT_TRUE(journal.empty());  // not loaded, not announced, not told OnLoad

  // A clash in a later role leaves the earlier roles filed.
  FakeConsumer consumer;
  PublisherConsumer both;
  ASSERT_EQ(Add("late", &consumer), KT_STATUS_SUCCESS);
  events.clear();
  EXPECT_EQ(Add("late", &both), KT_STATUS_ALREADY_EXISTS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "late")->m_publisher, &both);
  EXPECT_EQ(StateOf<ConsumerState>("consumers", "late")->GetConsumer(), &consumer);
  EXPECT_EQ(events, (Events{{1, HandleOf("publishers", "late")}}));
}

// An extension without a role is refused; a client manager is accepted.
TEST_F(ExtensionManagerTest, ExtensionWithoutRoleOrAClientManagerIsFiledNowhere) {
  JournaledBase none;
  none.journal = &journal;
  DefaultClientManager client(manager.GetRegistry());
  ClaimsClientManager claimant;  // found through CastTo, before its publisher role
  EXPECT_EQ(Add("none", &none), KT_STATUS_UNSUPPORTED_EXTENSION);
  EXPECT_EQ(Add("DefaultClientManager", &client), KT_STATUS_SUCCESS);
  EXPECT_EQ(Add("claimant", &claimant), KT_STATUS_SUCCESS);
  for (const char* branch : {"publishers", "loggers", "conduits", "consumers", "methods"}) {
    EXPECT_EQ(Branch(branch), nullptr) << branch;
  }
  EXPECT_TRUE(journal.empty());
  EXPECT_EQ(claimant.GetHandle(), 0u);
  EXPECT_TRUE(events.empty());
}

TEST_F(ExtensionManagerTest, RoleFoundOnlyThroughCastToIsFiledAndRemoved) {
  AskedPublisher asked;
  asked.inner.journal = &journal;
  ASSERT_EQ(Add("asked", &asked), KT_STATUS_SUCCESS);
  EXPECT_EQ(StateOf<PublisherState>("publishers", "asked")->m_publisher, &asked.inner);
  EXPECT_EQ(asked.inner.GetHandle(), HandleOf("publishers", "asked"));
  Remove("asked", &asked);
  EXPECT_EQ(Node("publishers", "asked"), nullptr);
  EXPECT_EQ(journal, (Journal{"Load", "event 1", "OnLoad", "OnUnload", "event 2", "Unload"}));
}

TEST_F(ExtensionManagerTest, AddedMethodCarriesItsDescription) {
  FakeMethod method;
  ASSERT_EQ(Add("echo", &method), KT_STATUS_SUCCESS);
  const RemoteMethodDesc& described = StateOf<MethodState>("methods", "echo")->GetDesc();
  EXPECT_STREQ(described.m_name, "echo");
  EXPECT_EQ(described.m_inputCount, 2u);
  EXPECT_EQ(described.m_outputCount, 3u);
  EXPECT_EQ(events, (Events{{1, method.GetHandle()}}));
}

// Only the client command method is linked under the well-known handle.
TEST_F(ExtensionManagerTest, ClientCommandMethodAnswersUnderTheWellKnownHandleUntilRemoved) {
  FakeMethod other, method;
  method.clientCommand = true;
  FakeBuffer args, returns;
  ASSERT_EQ(Add("other", &other), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(kClientCommandHandle), nullptr);
  ASSERT_EQ(Add("ClientCommandMethod", &method), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(kClientCommandHandle),
            Node("methods", "ClientCommandMethod"));
  EXPECT_EQ(manager.DispatchRemoteMethod(kClientCommandHandle, &args, &returns), 0u);
  EXPECT_EQ(method.runs, 1);

  Remove("ClientCommandMethod", &method);
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(kClientCommandHandle), nullptr);
  EXPECT_EQ(manager.DispatchRemoteMethod(kClientCommandHandle, &args, &returns),
            KT_STATUS_INVALID_OBJECT);
}

TEST_F(ExtensionManagerTest, AddBuildsTheStateWhileTheBranchIsWriteLocked) {
  ProbingConsumer consumer;
  consumer.registry = &manager.GetRegistry();
  ASSERT_EQ(Add("probe", &consumer), KT_STATUS_SUCCESS);
  ASSERT_TRUE(consumer.probed);
  EXPECT_FALSE(consumer.walkable);
}

TEST_F(ExtensionManagerTest, RemoveOfANameNeverAddedOnlyUnloadsAndLeavesEmptyBranches) {
  // Every role but the publisher's, which would be told OnUnload.
  Combined<FakeConduit, FakeConsumer, FakeMethod, FakeLogger> ghost;
  ghost.journal = &journal;
  EXPECT_EQ(Remove("ghost", &ghost), KT_STATUS_SUCCESS);
  EXPECT_EQ(journal, (Journal{"Unload"}));
  for (const char* branch : {"conduits", "consumers", "methods", "loggers"}) {
    ASSERT_NE(Branch(branch), nullptr) << branch;
    EXPECT_FALSE(Branch(branch)->HasChildren()) << branch;
  }
  EXPECT_EQ(Branch("publishers"), nullptr);

  // Without an extension base there is nothing to do at all.
  BareExtension bare;
  EXPECT_EQ(Remove("bare", &bare), KT_STATUS_SUCCESS);
  EXPECT_EQ(Branch("publishers"), nullptr);
}

TEST_F(ExtensionManagerTest, RemoveGoesConduitConsumerMethodLoggerThenPublisherAfterOnUnload) {
  EveryRole every;
  ASSERT_EQ(Add("every", &every), KT_STATUS_SUCCESS);
  for (const char* branch : {"publishers", "loggers", "conduits", "consumers", "methods"}) {
    Hang(Node(branch, "every"),
         [this, branch] { journal.push_back(std::string("gone ") + branch); });
  }
  journal.clear();
  every.journal = &journal;
  EXPECT_EQ(Remove("every", &every), KT_STATUS_SUCCESS);
  EXPECT_EQ(journal, (Journal{"gone conduits", "gone consumers", "gone methods", "gone loggers",
                              "OnUnload", "gone publishers", "Unload"}));
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(every.GetHandle()), nullptr);
}

TEST_F(ExtensionManagerTest, RemoveAnnouncesUnlessAConduitOrLoggerRoleWentFirst) {
  FakeConsumer consumer;
  FakeMethod method;
  FakePublisher publisher;
  PublisherLogger publisherLogger;
  ConduitConsumer conduitConsumer;
  FakeLogger logger;
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

TEST_F(ExtensionManagerTest, RemovedNodeLeavesItsBranchBeforeItsStateIsDestroyed) {
  FakeLogger kept, removed;
  ASSERT_EQ(Add("kept", &kept), KT_STATUS_SUCCESS);
  ASSERT_EQ(Add("removed", &removed), KT_STATUS_SUCCESS);
  Path* loggers = Branch("loggers");
  bool stillInBranch = true;
  Hang(Node("loggers", "removed"), [&] {
    stillInBranch = loggers->GetChildNamed("removed", 0) != nullptr;
    manager.Log(1, "", "during");
  });
  Remove("removed", &removed);
  EXPECT_FALSE(stillInBranch);
  EXPECT_EQ(kept.lines, (Journal{"during\n"}));
  EXPECT_TRUE(removed.lines.empty());
}

TEST_F(ExtensionManagerTest, LogRunsWhileAnotherThreadAddsAndRemovesALogger) {
  FakeLogger steady, coming;
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
  ASSERT_EQ(steady.lines.size(), static_cast<size_t>(kRounds));
  EXPECT_EQ(steady.lines.back(), std::to_string(kRounds - 1) + "\n");
}

// Log needs the loggers branch, but no logger in it.
TEST_F(ExtensionManagerTest, LogEndsShortLinesWithOneLineFeedAndDeliversCutLinesAsTheyAre) {
  EXPECT_EQ(manager.Log(1, "src", "%s", "x"), KT_STATUS_INVALID_OPERATION);
  FakeLogger never;
  Remove("never", &never);  // leaves "loggers" behind, empty
  ASSERT_NE(Branch("loggers"), nullptr);
  EXPECT_EQ(manager.Log(1, "src", "x"), KT_STATUS_SUCCESS);

  FakeLogger first, second;
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
  const Journal expected = {"abc1\n", "abc\n", "", y1022 + "\n", z1023, x1500.substr(0, 1023)};
  EXPECT_EQ(first.lines, expected);
  EXPECT_EQ(second.lines, expected);
  EXPECT_EQ(first.levels, (std::vector<unsigned int>{7, 3, 3, 3, 3, 3}));
}

TEST_F(ExtensionManagerTest, LogReleasesTheLoggersLockWhenALoggerThrows) {
  FakeLogger thrower;
  thrower.throws = true;
  ASSERT_EQ(Add("thrower", &thrower), KT_STATUS_SUCCESS);
  EXPECT_THROW(manager.Log(1, "", "x"), std::runtime_error);
  bool writable = false;
  std::thread([&] {
    ILock* write = Branch("loggers")->GetLock().GetWriteLock();
    writable = write->TryLock();
    if (writable) write->Unlock();
  }).join();
  EXPECT_TRUE(writable);
}

TEST_F(ExtensionManagerTest, PublisherMetricEventsArriveInOrder) {
  FakePublisher publisher;
  ASSERT_EQ(Add("pub", &publisher), KT_STATUS_SUCCESS);
  const unsigned long pub = publisher.GetHandle();
  Metric::Description description;
  description.uri = "cpu/load";
  unsigned long metric = 0;
  ASSERT_EQ(manager.PublishMetric(&publisher, description, &metric), KT_STATUS_SUCCESS);
  Path* node = Node("publishers", "pub")->GetChildNamed("cpu/load", 0);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->GetHandle(), metric);
  EXPECT_EQ(manager.UnpublishMetric(&publisher, metric), KT_STATUS_SUCCESS);
  Remove("pub", &publisher);
  EXPECT_EQ(events, (Events{{1, pub}, {3, metric}, {6, metric}, {7, metric}, {2, pub}}));
}

TEST_F(ExtensionManagerTest, PublishingRoutersCheckArgumentsBeforeLookingUpThePublisher) {
  FakePublisher stranger;  // never added: handle 0
  Metric::Description description;
  std::vector<std::string> order{"a"};
  ProbeDesc probe{};
  unsigned long out = 0;
  EXPECT_EQ(Refused(manager.PublishMetric(nullptr, description, nullptr)),
            Refusal(kArgument, "owner"));
  EXPECT_EQ(Refused(manager.PublishMetric(&stranger, description, nullptr)),
            Refusal(kArgument, "out_metricHandle"));
  EXPECT_EQ(Refused(manager.PublishMetric(&stranger, description, &out)),
            Refusal(kObject, "publisherPath"));
  EXPECT_EQ(Refused(manager.UnpublishMetric(nullptr, 0)), Refusal(kArgument, "owner"));
  EXPECT_EQ(Refused(manager.UnpublishMetric(&stranger, 0)), Refusal(kArgument, "metricHandle"));
  EXPECT_EQ(Refused(manager.UnpublishMetric(&stranger, 5)), Refusal(kObject, "publisherPath"));
  EXPECT_EQ(Refused(manager.PublishGroupOrder(&stranger, order)),
            Refusal(kObject, "publisherPath"));
  EXPECT_EQ(Refused(manager.PublishSetNames(&stranger, {{1, "s"}})),
            Refusal(kObject, "publisherPath"));
  EXPECT_EQ(Refused(manager.PublishProbe(nullptr, probe, nullptr)),
            Refusal(kArgument, "publisher"));
  EXPECT_EQ(Refused(manager.PublishProbe(&stranger, probe, nullptr)),
            Refusal(kArgument, "out_query"));
  EXPECT_EQ(Refused(manager.PublishProbe(&stranger, probe, &out)),
            Refusal(kObject, "publisherPath"));
  EXPECT_EQ(Refused(manager.UnpublishProbe(nullptr, 0)), Refusal(kArgument, "publisher"));
  EXPECT_EQ(Refused(manager.UnpublishProbe(&stranger, 0)), Refusal(kObject, "publisherPath"));
  EXPECT_EQ(out, 0u);

  // Removed, the publisher keeps a handle that no longer resolves.
  FakePublisher gone;
  ASSERT_EQ(Add("gone", &gone), KT_STATUS_SUCCESS);
  Remove("gone", &gone);
  ASSERT_NE(gone.GetHandle(), 0u);
  EXPECT_EQ(manager.PublishMetric(&gone, description, &out), KT_STATUS_INVALID_OBJECT);
}

TEST_F(ExtensionManagerTest, PublishingRoutersReachThePublisherStateOfTheLoadedHandle) {
  FakePublisher publisher;
  ASSERT_EQ(Add("pub", &publisher), KT_STATUS_SUCCESS);
  auto* state = StateOf<PublisherState>("publishers", "pub");
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
  // The state's own failures pass through.
  EXPECT_EQ(manager.UnpublishMetric(&publisher, 12345), KT_STATUS_INVALID_OBJECT);
}

TEST_F(ExtensionManagerTest, PushChecksTheBufferFirstThenHandsItToTheConduitState) {
  FakeConduit conduit;
  FakePublisher publisher;
  FakeBuffer buffer;
  ASSERT_EQ(Add("pipe", &conduit), KT_STATUS_SUCCESS);
  ASSERT_EQ(Add("pub", &publisher), KT_STATUS_SUCCESS);
  const unsigned long pipe = conduit.GetHandle();
  EXPECT_EQ(Refused(manager.PushDataToConsumers(12345, 1, nullptr)), Refusal(kArgument, "data"));
  EXPECT_EQ(Refused(manager.PushDataToConsumers(pipe, 1, nullptr)), Refusal(kArgument, "data"));
  EXPECT_EQ(Refused(manager.PushDataToConsumers(12345, 1, &buffer)), Refusal(kObject, "data"));
  EXPECT_EQ(Refused(manager.PushDataToConsumers(publisher.GetHandle(), 1, &buffer)),
            Refusal(kObject, "data"));  // not a conduit
  EXPECT_TRUE(buffer.released.empty());

  // Unknown to the conduit state, the sample is released; known but without
  // a tag, it is refused differently: the binding handle reached the state.
  EXPECT_EQ(manager.PushDataToConsumers(pipe, 77, &buffer), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(buffer.released, (std::vector<const void*>{&buffer.sample}));
  DataPushInspector(StateOf<ConduitState>("conduits", "pipe")).SetGroup(77, {0, kUngrouped});
  EXPECT_EQ(manager.PushDataToConsumers(pipe, 77, &buffer), KT_STATUS_DOES_NOT_EXIST);
}

TEST_F(ExtensionManagerTest, DispatchChecksArgumentsThenRunsTheMethodOfTheHandle) {
  FakeBuffer args, returns;
  EXPECT_EQ(Refused(manager.DispatchRemoteMethod(0, nullptr, nullptr)), Refusal(kArgument, "args"));
  EXPECT_EQ(Refused(manager.DispatchRemoteMethod(0, &args, nullptr)),
            Refusal(kArgument, "returns"));
  EXPECT_EQ(Refused(manager.DispatchRemoteMethod(0, &args, &returns)),
            Refusal(kArgument, "handle"));
  EXPECT_EQ(Refused(manager.DispatchRemoteMethod(12345, &args, &returns)),
            Refusal(kObject, "remotePath"));

  FakeMethod method;
  ASSERT_EQ(Add("echo", &method), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.DispatchRemoteMethod(method.GetHandle(), &args, &returns), KT_STATUS_SUCCESS);
  EXPECT_EQ(method.ran, (std::pair<const IReadBuffer*, IWriteBuffer*>{&args, &returns}));
  method.succeeds = false;
  EXPECT_EQ(manager.DispatchRemoteMethod(method.GetHandle(), &args, &returns),
            KT_STATUS_INVALID_OPERATION);
  EXPECT_EQ(method.runs, 2);
}

TEST_F(ExtensionManagerTest, NotifyStateCallsEveryListenerInAddressOrder) {
  Journal heard;
  manager.GetRegistry().AddStateListener(&HearB, &heard);
  manager.GetRegistry().AddStateListener(&HearA, &heard);
  manager.NotifyState(9, 1, 2);
  const bool aFirst = std::less<Registry::StateListener>()(&HearA, &HearB);
  EXPECT_EQ(heard, aFirst ? (Journal{"A 9 1 2", "B 9"}) : (Journal{"B 9", "A 9 1 2"}));
}

TEST_F(ExtensionManagerTest, DestroyingTheManagerTellsNobodyAndDestroysEachStateOnce) {
  auto* dying = new DefaultExtensionManager();
  dying->GetRegistry().AddStateListener(&ExtensionManagerTest::Hear, this);
  EveryRole every;
  every.journal = &journal;
  ASSERT_EQ(dying->Add(desc, "every", &every, &loader), KT_STATUS_SUCCESS);
  int destroyed = 0;
  Hang(dying->GetRegistry().GetChild("publishers/every", 0), [&] {
    ++destroyed;
    dying->NotifyState(5, 0, 0);  // notifications are off by now
  });
  journal.clear();
  delete dying;
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(journal.empty());  // no OnUnload, no Unload, no event
  EXPECT_EQ(every.GetLoader(), &loader);
}

TEST_F(ExtensionManagerTest, ConsoleTraceFramesOnLoadWhenTheSwitchStartsWithOne) {
  // Output is flushed before and after OnLoad, framed or not.
  const std::string framed =
      "    DefaultExtensionManager::Add: calling OnLoad on pub...[raw][OnLoad]...DONE\n|";
  EXPECT_EQ(TraceOfAdd("1yes"), framed);
  EXPECT_EQ(TraceOfAdd("1"), framed);
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
  EXPECT_EQ(second->GetClientManager(), client);
  EXPECT_EQ(first->GetClientManager(), nullptr);
  delete first;  // left alive by the second Create

  // The first loader Add is given goes to the client manager too, for good.
  FakeLoader firstLoader, laterLoader;
  FakeConsumer consumer, another;
  ExtensionBinaryDesc desc{};
  ASSERT_EQ(second->Add(desc, "consumer", &consumer, &firstLoader), KT_STATUS_SUCCESS);
  ASSERT_EQ(second->Add(desc, "another", &another, &laterLoader), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->m_loader, &firstLoader);
  EXPECT_EQ(consumer.GetClientManager(), static_cast<IClientManager*>(client));
  EXPECT_EQ(another.GetLoader(), &laterLoader);
  second->Remove(desc, "consumer", &consumer, &firstLoader);
  second->Remove(desc, "another", &another, &laterLoader);
  client->m_loader = nullptr;  // the loader is about to go
}

}  // namespace
}  // namespace MetricsFramework
