#include "host/default_extension_manager.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;
using Journal = std::vector<std::string>;

// One object playing every role in `Roles`, answering all their names, that
// journals Load, Unload, OnLoad and OnUnload and throws from the one `throwing` names.
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
  void Unload() override { Note("Unload"), IKTExtensionBase::Unload(); }
  void OnLoad() { Note("OnLoad"); }
  void OnUnload() { Note("OnUnload"); }
  void Note(const char* what) {
    if (throwing == what) throw std::runtime_error(what);
    if (journal != nullptr) journal->push_back(what);
  }
  Journal* journal = nullptr;
  std::string throwing;
};

using Logger = Journaled<RecordingLogger>;
using EveryRole = Journaled<CountingPublisher, RecordingLogger, FakeConduit, RecordingConsumer,
                            RecordingMethod>;

// A payload that runs `onDestroy` when the node it hangs under goes, after
// that node's own state is gone.
struct Witness : PathData {
  Witness(Path* node, std::function<void()> onDestroy)
      : PathData(node->GetChild("witness", kPathCreate | kPathUnlisted | kPathNoHandleEntry)),
        onDestroy(std::move(onDestroy)) {}
  ~Witness() override { onDestroy(); }
  std::function<void()> onDestroy;
};

class ExtensionManagerTest : public ::testing::Test {
 protected:
  ExtensionManagerTest() { manager.GetRegistry().AddStateListener(&Hear, this); }
  static void Hear(void* context, unsigned int event, unsigned long a, unsigned long) {
    auto* test = static_cast<ExtensionManagerTest*>(context);
    test->events.emplace_back(event, a);
    test->journal.push_back("event " + std::to_string(event));
  }
  KT_STATUS Add(const char* name, IExtension* e) { return manager.Add({}, name, e, &loader); }
  KT_STATUS Remove(const char* name, IExtension* e) { return manager.Remove({}, name, e, &loader); }
  Path* Node(const std::string& path) { return manager.GetRegistry().GetChild(path.c_str(), 0); }

  StubLoader loader;
  Events events;
  Journal journal;
  DefaultExtensionManager manager;
};

// A clash in a later role leaves the earlier roles filed and announced.
TEST_F(ExtensionManagerTest, DuplicateNameReturnsAlreadyExistsAndKeepsTheFirstOwner) {
  Journaled<RecordingConsumer> consumer;
  Journaled<CountingPublisher, RecordingConsumer> both;
  ASSERT_EQ(Add("late", &consumer), KT_STATUS_SUCCESS);
  events.clear();
  EXPECT_EQ(Add("late", &both), KT_STATUS_ALREADY_EXISTS);
  EXPECT_EQ(Node("publishers/late")->GetHandle(), both.GetHandle());
  EXPECT_EQ(Node("consumers/late")->GetHandle(), consumer.GetHandle());
  EXPECT_EQ(events, (Events{{1, both.GetHandle()}}));
}

TEST_F(ExtensionManagerTest, RemoveGoesConduitConsumerMethodLoggerThenPublisherAfterOnUnload) {
  EveryRole every;
  ASSERT_EQ(Add("every", &every), KT_STATUS_SUCCESS);
  for (const char* branch : {"publishers", "loggers", "conduits", "consumers", "methods"}) {
    new Witness(Node(std::string(branch) + "/every"), [this, branch] { journal.push_back(branch); });
  }
  journal.clear();
  every.journal = &journal;
  EXPECT_EQ(Remove("every", &every), KT_STATUS_SUCCESS);
  EXPECT_EQ(journal, (Journal{"conduits", "consumers", "methods", "loggers", "OnUnload",
                              "publishers", "Unload"}));
  EXPECT_EQ(manager.GetRegistry().ResolveHandle(every.GetHandle()), nullptr);
}

TEST_F(ExtensionManagerTest, LogRunsWhileAnotherThreadAddsAndRemovesALogger) {
  Logger steady, coming;
  ASSERT_EQ(Add("steady", &steady), KT_STATUS_SUCCESS);
  std::thread logging([&] { for (int i = 0; i < 300; ++i) manager.Log(1, "", "%d", i); });
  for (int i = 0; i < 300; ++i) Add("coming", &coming), Remove("coming", &coming);
  logging.join();
  ASSERT_EQ(steady.Lines().size(), 300u);
  EXPECT_EQ(steady.Lines().back(), "1:299\n");
}

// A removed logger leaves its branch before its state goes, so that a line
// logged meanwhile reaches only the loggers that stay.
TEST_F(ExtensionManagerTest, LogEndsShortLinesWithOneLineFeedCutsLongOnesAndSkipsARemovedLogger) {
  EXPECT_EQ(manager.Log(1, "src", "%s", "x"), KT_STATUS_INVALID_OPERATION);
  Logger first, second;
  ASSERT_EQ(Add("first", &first) | Add("second", &second), KT_STATUS_SUCCESS);
  const std::string y1022(1022, 'y'), z1023(1023, 'z'), x1500(1500, 'x');
  EXPECT_EQ(manager.Log(7, nullptr, "%s%d", "abc", 1), KT_STATUS_SUCCESS);
  manager.Log(3, "src", "abc\n");
  manager.Log(3, "src", "");
  manager.Log(3, "src", "%s", y1022.c_str());
  manager.Log(3, "src", "%s", z1023.c_str());
  manager.Log(3, "src", "%s", x1500.c_str());
  EXPECT_EQ(manager.Log(3, "src", nullptr), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.Log(3, "src", "%ls", L"\u20ac"), KT_STATUS_SUCCESS);  // fails to format
  Journal expected = {"7:abc1\n",          "3:abc\n",    "3:",
                      "3:" + y1022 + "\n", "3:" + z1023, "3:" + x1500.substr(0, 1023)};
  EXPECT_EQ(second.lines, expected);
  bool stillInBranch = true;
  new Witness(Node("loggers/second"), [&] {
    stillInBranch = Node("loggers/second") != nullptr;
    manager.Log(1, "", "during");
  });
  Remove("second", &second);
  EXPECT_FALSE(stillInBranch);
  expected.push_back("1:during\n");
  EXPECT_EQ(first.lines, expected);
  EXPECT_EQ(second.lines.size(), expected.size() - 1);
}

TEST_F(ExtensionManagerTest, PublishingRoutersReachThePublisherStateOfTheLoadedHandle) {
  Journaled<CountingPublisher> publisher;
  ASSERT_EQ(Add("pub", &publisher), KT_STATUS_SUCCESS);
  const unsigned long pub = publisher.GetHandle();
  unsigned long metric = 0, type = 0;
  ASSERT_EQ(manager.PublishMetric(&publisher, Describe("cpu/load"), &metric), KT_STATUS_SUCCESS);
  ASSERT_EQ(manager.PublishProbe(&publisher, ProbeDesc{"trace", nullptr, 0}, &type),
            KT_STATUS_SUCCESS);
  EXPECT_EQ(manager.UnpublishProbe(&publisher, type), KT_STATUS_SUCCESS);
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
  ASSERT_EQ(dying->Add({}, "every", &every, &loader), KT_STATUS_SUCCESS);
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

// A publisher of the metric "m" and the probe type "p", a consumer, a remote
// method and its own probe in one, that throws from the call named `throwing`.
class Thrower : public Journaled<CountingPublisher, RecordingConsumer, RecordingMethod>,
                public Metrics::IProbe {
 public:
  void* CastTo(const char* name) override { return Note("CastTo"), Journaled::CastTo(name); }
  void OnLoad() override {
    Note("OnLoad");
    unsigned long handle = 0;
    GetExtensionManager()->PublishMetric(this, Describe("m"), &handle);
    GetExtensionManager()->PublishProbe(this, ProbeDesc{"p", nullptr, 0}, &handle);
  }
  IBoundMetric* BindMetric(unsigned long m, Path* p, IReadWriteBuffer* b, IBoundMetric** o) override {
    return Note("BindMetric"), CountingPublisher::BindMetric(m, p, b, o);
  }
  void UnbindMetric(unsigned long conduit, IBoundMetric* metric) override {
    Note("UnbindMetric"), CountingPublisher::UnbindMetric(conduit, metric);
  }
  Metrics::IProbe* CreateProbe(void*, unsigned long) override { return Note("CreateProbe"), this; }
  bool Run(const IReadBuffer* args, IWriteBuffer* returns) override {
    return Note("Run"), RecordingMethod::Run(args, returns);
  }
  KT_STATUS Begin(unsigned long, unsigned long, Metrics::EventType, void*) override {
    return Note("Begin"), KT_STATUS_SUCCESS;
  }
  KT_STATUS End(unsigned long, Metrics::EventType, void*) override { return KT_STATUS_SUCCESS; }
  KT_STATUS Handle() override { return KT_STATUS_SUCCESS; }
};

// An extension that throws from a call the library makes into it fails that
// call with a status; the library's locks are released and the host goes on.
TEST(ExtensionThrowTest, AThrowFailsTheCallAndTheHostGoesOn) {
  Thrower extension;
  LiveManager live;
  unsigned long probe = 0;
  HostBuffer buffer;
  auto handle = [&](const char* path) { return live.registry().GetChild(path, 0)->GetHandle(); };
  const auto add = [&] { return live.Add("x", &extension); };
  const auto remove = [&] { return live.Remove("x", &extension); };
  const auto subscribe = [&](bool on) {
    const unsigned long k = handle("consumers/x"), m = handle("publishers/x/m");
    return on ? live.client->SubscribeMetric(k, m) : live.client->UnsubscribeMetric(k, m);
  };
  const auto create = [&] {
    return live.client->CreateProbe(handle("publishers/x/probe_types/p"), nullptr, &probe);
  };
  const auto none = [] { return KT_STATUS_SUCCESS; };
  const auto subscribed = [&] { const KT_STATUS s = add(); return s | subscribe(true); };
  const auto created = [&] { const KT_STATUS s = add(); return s | create(); };
  auto begin = [&] { return live.client->BeginProbe(probe, 0, 0, Metrics::kEventNone, nullptr); };
  // The call that throws, what runs before it throws, and the call failed.
  const std::tuple<const char*, std::function<KT_STATUS()>, std::function<KT_STATUS()>> rows[] = {
      {"CastTo", none, add},
      {"Load", none, add},
      {"OnLoad", none, add},
      {"OnUnload", add, remove},
      {"Unload", add, remove},
      {"BindMetric", add, [&] { return subscribe(true); }},
      {"UnbindMetric", subscribed, [&] { return subscribe(false); }},
      {"CreateProbe", add, create},
      {"Run", add,
       [&] { return live.manager.DispatchRemoteMethod(handle("methods/x"), &buffer, &buffer); }},
      {"Begin", created, begin},
  };
  for (const auto& [call, prepare, act] : rows) {
    extension.throwing = "";
    ASSERT_EQ(prepare(), KT_STATUS_SUCCESS) << call;
    extension.throwing = call;

    EXPECT_EQ(act(), KT_STATUS_INVALID_OPERATION) << call;

    // From another thread: a lock the throw left held would stop it there.
    extension.throwing = "";
    Thrower other;
    std::thread later([&] {
      EXPECT_EQ(remove(), KT_STATUS_SUCCESS) << call;
      EXPECT_EQ(live.Add("y", &other) | live.Remove("y", &other), KT_STATUS_SUCCESS) << call;
    });
    later.join();
  }
}

}  // namespace
}  // namespace MetricsFramework
