#include "host/default_extension_manager.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "state/consumer_state.h"
#include "state/publisher_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;
using Journal = std::vector<std::string>;

// One object playing every role in `Roles`, answering all their names, that
// journals Load, Unload, OnLoad and OnUnload.
template <typename... Roles>
class Journaled : public Roles... {
 public:
  void* CastTo(const char* name) override {
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
  void OnLoad() { Note("OnLoad"); }
  void OnUnload() { Note("OnUnload"); }
  void Note(const char* what) {
    if (journal != nullptr) journal->push_back(what);
  }
  Journal* journal = nullptr;
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

class ExtensionManagerTest : public ::testing::Test {
 protected:
  ExtensionManagerTest() {
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

  ExtensionBinaryDesc desc{};
  StubLoader loader;
  Events events;
  Journal journal;
  DefaultExtensionManager manager;
};

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

}  // namespace
}  // namespace MetricsFramework
