// Bad input at the entries a host and an extension call: the extension
// manager's Add, Remove and routers, the interface query of every interface,
// and the exported C functions. Each refusal is checked for its status and for
// the argument its message names (docs/bad_input.md).
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kt/logger.h"
#include "kt/platform.h"
#include "state/state_fakes.h"
#include "support/live_manager.h"
#include "transport/local_conduit.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

using Case = RefusalCase;

class RolelessExtension : public IKTExtensionBase {};

class SilentLogger : public ILogger {
 public:
  void Log(unsigned int, const char*) override { ++lines; }
  int lines = 0;
};

class NullMethod : public IRemoteMethod {
 public:
  bool Run(const IReadBuffer*, IWriteBuffer*) override { return true; }
  void GetRemoteMethodDesc(RemoteMethodDesc&) override {}
};

class BatchedConsumer : public IConsumer2 {
 public:
  void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {}
  void OnBatchMetricUpdated(unsigned long, unsigned long, const void*) override {}
};

// A manager with a publisher "pub" (metrics "m" and the probe metric "pm"), a
// consumer "con" and a conduit "cd"; a second manager, the foreign registry,
// with its own publisher and metric.
class ExtensionManagerBadInputTest : public ::testing::Test {
 protected:
  ExtensionManagerBadInputTest() {
    EXPECT_EQ(host.Add("pub", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("con", &consumer), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("cd", &conduit), KT_STATUS_SUCCESS);
    EXPECT_EQ(foreign.Add("pub", &foreignPublisher), KT_STATUS_SUCCESS);
    metric = Publish(host.manager, &publisher, "m", 0);
    probeMetric = Publish(host.manager, &publisher, "pm", Metric::kFlagProbe);
    foreignMetric = Publish(foreign.manager, &foreignPublisher, "m", 0);
    // A publisher object whose handle is the consumer's node.
    strayPublisher.Load(&host.manager, nullptr, consumer.GetHandle(), nullptr);
  }

  static unsigned long Publish(DefaultExtensionManager& manager, IPublisher* owner,
                               const char* uri, unsigned int flags) {
    Metric::Description desc;
    desc.uri = uri;
    desc.flags = flags;
    unsigned long handle = 0;
    EXPECT_EQ(manager.PublishMetric(owner, desc, &handle), KT_STATUS_SUCCESS);
    return handle;
  }
  static ProbeDesc Probe(const unsigned long* metrics, unsigned long count) {
    ProbeDesc desc{};
    std::strcpy(desc.m_name, "type");
    desc.m_metrics = metrics;
    desc.m_metricCount = count;
    return desc;
  }

  FakePublisher publisher, foreignPublisher, strayPublisher, unfiledPublisher;
  RecordingConsumer consumer;
  FakeConduit conduit;
  LiveManager host, foreign;
  unsigned long metric = 0, probeMetric = 0, foreignMetric = 0;
};

TEST_F(ExtensionManagerBadInputTest, AddAndRemoveRefuseWhatTheyCannotFile) {
  const ExtensionBinaryDesc desc{};
  RolelessExtension roleless;
  FakePublisher twin;
  RecordingConsumer stranger;
  ExpectRefusals({
      {"Add null extension", [&] { return host.manager.Add(desc, "x", nullptr, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "extension"},
      {"Add null name", [&] { return host.manager.Add(desc, nullptr, &twin, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "instance_name"},
      {"Add no role", [&] { return host.manager.Add(desc, "r", &roleless, nullptr); },
       KT_STATUS_UNSUPPORTED_EXTENSION, "(none)"},
      {"Add name taken", [&] { return host.manager.Add(desc, "pub", &twin, nullptr); },
       KT_STATUS_ALREADY_EXISTS, "(none)"},
      {"Remove null extension", [&] { return host.manager.Remove(desc, "pub", nullptr, nullptr); },
       KT_STATUS_SUCCESS, "(none)"},
      {"Remove null name", [&] { return host.manager.Remove(desc, nullptr, &stranger, nullptr); },
       KT_STATUS_SUCCESS, "(none)"},
      {"Remove never added", [&] { return host.manager.Remove(desc, "zz", &roleless, nullptr); },
       KT_STATUS_SUCCESS, "(none)"},
  });
  // Nothing the refusals met was filed or removed.
  EXPECT_FALSE(host.manager.ExtensionAlreadyExists("publishers", "r"));
  EXPECT_TRUE(host.manager.ExtensionAlreadyExists("publishers", "pub"));
}

TEST_F(ExtensionManagerBadInputTest, PublishingRoutersRefuseUnknownWrongAndForeignObjects) {
  IExtensionManager& m = host.manager;
  Metric::Description desc;
  desc.uri = "new";
  unsigned long out = 0;
  std::vector<std::string> order{"g"};
  const std::vector<std::pair<unsigned int, std::string>> names{{1, "s"}};
  const unsigned long unknown = host.UnknownHandle();
  const unsigned long consumerHandle = consumer.GetHandle();
  ExpectRefusals({
      {"PublishMetric null owner", [&] { return m.PublishMetric(nullptr, desc, &out); },
       KT_STATUS_INVALID_ARGUMENT, "owner"},
      {"PublishMetric null out", [&] { return m.PublishMetric(&publisher, desc, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "out_metricHandle"},
      {"PublishMetric never added",
       [&] { return m.PublishMetric(&unfiledPublisher, desc, &out); }, KT_STATUS_INVALID_OBJECT,
       "publisherPath"},
      {"PublishMetric consumer's handle",
       [&] { return m.PublishMetric(&strayPublisher, desc, &out); }, KT_STATUS_INVALID_OBJECT,
       "publisherPath"},
      {"PublishMetric foreign", [&] { return m.PublishMetric(&foreignPublisher, desc, &out); },
       KT_STATUS_INVALID_OBJECT, "publisherPath"},
      {"UnpublishMetric null owner", [&] { return m.UnpublishMetric(nullptr, metric); },
       KT_STATUS_INVALID_ARGUMENT, "owner"},
      {"UnpublishMetric zero", [&] { return m.UnpublishMetric(&publisher, 0); },
       KT_STATUS_INVALID_ARGUMENT, "metricHandle"},
      {"UnpublishMetric unknown", [&] { return m.UnpublishMetric(&publisher, unknown); },
       KT_STATUS_INVALID_OBJECT, "metricHandle"},
      {"UnpublishMetric consumer",
       [&] { return m.UnpublishMetric(&publisher, consumerHandle); }, KT_STATUS_INVALID_OBJECT,
       "metricHandle"},
      {"UnpublishMetric foreign metric",
       [&] { return m.UnpublishMetric(&publisher, foreignMetric); }, KT_STATUS_INVALID_OBJECT,
       "metricHandle"},
      {"UnpublishMetric foreign owner",
       [&] { return m.UnpublishMetric(&foreignPublisher, metric); }, KT_STATUS_INVALID_OBJECT,
       "publisherPath"},
      {"PublishGroupOrder null", [&] { return m.PublishGroupOrder(nullptr, order); },
       KT_STATUS_INVALID_OBJECT, "publisherPath"},
      {"PublishGroupOrder stray", [&] { return m.PublishGroupOrder(&strayPublisher, order); },
       KT_STATUS_INVALID_OBJECT, "publisherPath"},
      {"PublishSetNames null", [&] { return m.PublishSetNames(nullptr, names); },
       KT_STATUS_INVALID_OBJECT, "publisherPath"},
      {"PublishSetNames foreign", [&] { return m.PublishSetNames(&foreignPublisher, names); },
       KT_STATUS_INVALID_OBJECT, "publisherPath"},
  });
  // The owner's metric survived every refused unpublish.
  EXPECT_EQ(m.UnpublishMetric(&publisher, metric), KT_STATUS_SUCCESS);
}

TEST_F(ExtensionManagerBadInputTest, ProbeRoutersRefuseBadDescriptionsAndQueries) {
  IExtensionManager& m = host.manager;
  unsigned long out = 0;
  const unsigned long unknown[] = {host.UnknownHandle()};
  const unsigned long wrongKind[] = {consumer.GetHandle()};
  const unsigned long foreignOne[] = {foreignMetric};
  const unsigned long ordinary[] = {metric};
  ProbeDesc unterminated = Probe(nullptr, 0);
  std::memset(unterminated.m_name, 'n', sizeof unterminated.m_name);
  ExpectRefusals({
      {"PublishProbe null publisher", [&] { return m.PublishProbe(nullptr, Probe(nullptr, 0), &out); },
       KT_STATUS_INVALID_ARGUMENT, "publisher"},
      {"PublishProbe null out", [&] { return m.PublishProbe(&publisher, Probe(nullptr, 0), nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "out_query"},
      {"PublishProbe never added",
       [&] { return m.PublishProbe(&unfiledPublisher, Probe(nullptr, 0), &out); },
       KT_STATUS_INVALID_OBJECT, "publisherPath"},
      {"PublishProbe null metrics with a count",
       [&] { return m.PublishProbe(&publisher, Probe(nullptr, 3), &out); },
       KT_STATUS_INVALID_ARGUMENT, "metrics"},
      {"PublishProbe unknown metric", [&] { return m.PublishProbe(&publisher, Probe(unknown, 1), &out); },
       KT_STATUS_INVALID_OBJECT, "metrics[i]"},
      {"PublishProbe consumer as metric",
       [&] { return m.PublishProbe(&publisher, Probe(wrongKind, 1), &out); },
       KT_STATUS_INVALID_OBJECT, "metrics[i]"},
      {"PublishProbe foreign metric",
       [&] { return m.PublishProbe(&publisher, Probe(foreignOne, 1), &out); },
       KT_STATUS_INVALID_OBJECT, "metrics[i]"},
      {"PublishProbe ordinary metric",
       [&] { return m.PublishProbe(&publisher, Probe(ordinary, 1), &out); },
       KT_STATUS_INVALID_OBJECT, "(none)"},
      {"PublishProbe name filling its array", [&] { return m.PublishProbe(&publisher, unterminated, &out); },
       KT_STATUS_SUCCESS, "(none)"},
      {"UnpublishProbe null publisher", [&] { return m.UnpublishProbe(nullptr, out); },
       KT_STATUS_INVALID_ARGUMENT, "publisher"},
      {"UnpublishProbe zero", [&] { return m.UnpublishProbe(&publisher, 0); },
       KT_STATUS_INVALID_OBJECT, "query"},
      {"UnpublishProbe metric as query", [&] { return m.UnpublishProbe(&publisher, probeMetric); },
       KT_STATUS_INVALID_OBJECT, "query"},
      {"UnpublishProbe foreign publisher",
       [&] { return m.UnpublishProbe(&foreignPublisher, out); }, KT_STATUS_INVALID_OBJECT,
       "publisherPath"},
  });
  // The name is taken as its 256 bytes and nothing past them.
  unsigned long type = 0;
  ASSERT_EQ(host.client->GetPath(0, ("publishers/pub/probe_types/" + std::string(256, 'n')).c_str(),
                                 &type),
            KT_STATUS_SUCCESS);
  EXPECT_EQ(type, out);
}

TEST_F(ExtensionManagerBadInputTest, DataAndMethodRoutersRefuseBadHandlesAndNullBuffers) {
  IExtensionManager& m = host.manager;
  QueueBuffer args(0, nullptr, 0, 0, 0), returns(0, nullptr, 0, 0, 0);
  const unsigned long cd = conduit.GetHandle(), con = consumer.GetHandle();
  const unsigned long unknown = host.UnknownHandle();
  ExpectRefusals({
      {"Push null data", [&] { return m.PushDataToConsumers(cd, metric, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "data"},
      {"Push zero conduit", [&] { return m.PushDataToConsumers(0, metric, &args); },
       KT_STATUS_INVALID_OBJECT, "data"},
      {"Push unknown conduit", [&] { return m.PushDataToConsumers(unknown, metric, &args); },
       KT_STATUS_INVALID_OBJECT, "data"},
      {"Push consumer as conduit", [&] { return m.PushDataToConsumers(con, metric, &args); },
       KT_STATUS_INVALID_OBJECT, "data"},
      {"Push foreign conduit", [&] { return m.PushDataToConsumers(foreignMetric, metric, &args); },
       KT_STATUS_INVALID_OBJECT, "data"},
      {"Push unknown binding", [&] { return m.PushDataToConsumers(cd, unknown, &args); },
       KT_STATUS_INVALID_ARGUMENT, "(none)"},
      {"Dispatch null args", [&] { return m.DispatchRemoteMethod(unknown, nullptr, &returns); },
       KT_STATUS_INVALID_ARGUMENT, "args"},
      {"Dispatch null returns", [&] { return m.DispatchRemoteMethod(unknown, &args, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "returns"},
      {"Dispatch zero", [&] { return m.DispatchRemoteMethod(0, &args, &returns); },
       KT_STATUS_INVALID_ARGUMENT, "handle"},
      {"Dispatch unknown", [&] { return m.DispatchRemoteMethod(unknown, &args, &returns); },
       KT_STATUS_INVALID_OBJECT, "remotePath"},
      {"Dispatch consumer", [&] { return m.DispatchRemoteMethod(con, &args, &returns); },
       KT_STATUS_INVALID_OBJECT, "remotePath"},
      {"Dispatch foreign", [&] { return m.DispatchRemoteMethod(foreignMetric, &args, &returns); },
       KT_STATUS_INVALID_OBJECT, "remotePath"},
  });
}

TEST_F(ExtensionManagerBadInputTest, LogWithoutLoggersFormatOrSourceDeliversNothing) {
  EXPECT_EQ(host.manager.Log(1, nullptr, nullptr), KT_STATUS_INVALID_OPERATION);
  SilentLogger logger;
  ASSERT_EQ(host.Add("log", &logger), KT_STATUS_SUCCESS);
  EXPECT_EQ(host.manager.Log(1, nullptr, nullptr), KT_STATUS_SUCCESS);
  EXPECT_EQ(logger.lines, 0);
  EXPECT_EQ(host.manager.Log(1, nullptr, "%s", std::string(5000, 'x').c_str()), KT_STATUS_SUCCESS);
  EXPECT_EQ(logger.lines, 1);
  host.manager.Remove(ExtensionBinaryDesc{}, "log", &logger, nullptr);
}

TEST(InterfaceQueryBadInputTest, NullNameAnswersNullOnEveryInterface) {
  FakePublisher publisher;
  PlainPublisher plain;
  RecordingConsumer consumer;
  BatchedConsumer batched;
  SilentLogger logger;
  NullMethod method;
  FakeConduit conduit;
  LocalConduit local;
  LiveManager live;
  IExtension* objects[] = {&publisher, &plain, &consumer, &batched, &logger, &method,
                           &conduit, &local, &live.command, &live.manager, live.client.get()};
  for (IExtension* object : objects) EXPECT_EQ(object->CastTo(nullptr), nullptr);
}

TEST(PlatformBadInputTest, ScanWithoutTextOrFormatIsEofAndWritesNothing) {
  unsigned int value = 7;
  EXPECT_EQ(sdl_sscanf(nullptr, "%x", &value), EOF);
  EXPECT_EQ(sdl_sscanf("ff", nullptr, &value), EOF);
  EXPECT_EQ(value, 7u);
  EXPECT_FALSE(KTSetCurrentThreadPriority(INT_MAX));
}

}  // namespace
}  // namespace MetricsFramework
