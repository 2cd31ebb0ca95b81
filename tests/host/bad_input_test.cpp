// Bad input at the entries a host and an extension call: the extension
// manager's Add, Remove and routers, the interface query and the exported C
// functions; each refusal with the argument its message names (docs/bad_input.md).
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kt/platform.h"
#include "support/harness.h"
#include "transport/local_conduit.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

ProbeDesc Probe(const unsigned long* metrics, unsigned long n) { return {"type", metrics, n}; }

// A manager with a publisher "pub" (metrics "m" and the probe metric "pm"), a
// consumer "con" and a conduit "cd"; a second manager, the foreign registry,
// with its own publisher and metric.
class ExtensionManagerBadInputTest : public ::testing::Test {
 protected:
  ExtensionManagerBadInputTest() {
    EXPECT_EQ(host.Add("pub", &publisher) | host.Add("con", &consumer) | host.Add("cd", &conduit) |
                  foreign.Add("pub", &foreignPublisher),
              KT_STATUS_SUCCESS);
    metric = host.Publish(&publisher, Describe("m"));
    probeMetric = host.Publish(&publisher, Describe("pm", 1, 0xFFFFFFFF, Metric::kFlagProbe));
    foreignMetric = foreign.Publish(&foreignPublisher, Describe("m"));
    // A publisher object whose handle is the consumer's node.
    strayPublisher.Load(&host.manager, nullptr, consumer.GetHandle(), nullptr);
  }

  CountingPublisher publisher, foreignPublisher, strayPublisher, unfiledPublisher;
  RecordingConsumer consumer;
  FakeConduit conduit;
  LiveManager host, foreign;
  unsigned long metric = 0, probeMetric = 0, foreignMetric = 0;
};

TEST_F(ExtensionManagerBadInputTest, AddAndRemoveRefuseWhatTheyCannotFile) {
  const ExtensionBinaryDesc desc{};
  struct : IKTExtensionBase {} roleless;
  CountingPublisher twin;
  RecordingConsumer stranger;
  ExpectRefusals({
      REFUSAL(host.manager.Add(desc, "x", nullptr, nullptr), kArgument, "extension"),
      REFUSAL(host.manager.Add(desc, nullptr, &twin, nullptr), kArgument, "instance_name"),
      REFUSAL(host.manager.Add(desc, "r", &roleless, nullptr),
              KT_STATUS_UNSUPPORTED_EXTENSION, kNone),
      REFUSAL(host.manager.Add(desc, "pub", &twin, nullptr), KT_STATUS_ALREADY_EXISTS, kNone),
      REFUSAL(host.manager.Remove(desc, "pub", nullptr, nullptr), KT_STATUS_SUCCESS, kNone),
      REFUSAL(host.manager.Remove(desc, nullptr, &stranger, nullptr), KT_STATUS_SUCCESS, kNone),
      REFUSAL(host.manager.Remove(desc, "zz", &roleless, nullptr), KT_STATUS_SUCCESS, kNone),
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
      REFUSAL(m.PublishMetric(nullptr, desc, &out), kArgument, "owner"),
      REFUSAL(m.PublishMetric(&publisher, Describe("m"), &out), KT_STATUS_NON_UNIQUE,
              "descriptor.uri.c_str()"),
      REFUSAL(m.PublishMetric(&publisher, desc, nullptr), kArgument, "out_metricHandle"),
      REFUSAL(m.PublishMetric(&unfiledPublisher, desc, &out), kObject, "publisherPath"),
      REFUSAL(m.PublishMetric(&strayPublisher, desc, &out), kObject, "publisherPath"),
      REFUSAL(m.PublishMetric(&foreignPublisher, desc, &out), kObject, "publisherPath"),
      REFUSAL(m.UnpublishMetric(nullptr, metric), kArgument, "owner"),
      REFUSAL(m.UnpublishMetric(&publisher, 0), kArgument, "metricHandle"),
      REFUSAL(m.UnpublishMetric(&publisher, unknown), kObject, "metricHandle"),
      REFUSAL(m.UnpublishMetric(&publisher, consumerHandle), kObject, "metricHandle"),
      REFUSAL(m.UnpublishMetric(&publisher, foreignMetric), kObject, "metricHandle"),
      REFUSAL(m.UnpublishMetric(&foreignPublisher, metric), kObject, "publisherPath"),
      REFUSAL(m.PublishGroupOrder(nullptr, order), kObject, "publisherPath"),
      REFUSAL(m.PublishGroupOrder(&strayPublisher, order), kObject, "publisherPath"),
      REFUSAL(m.PublishSetNames(nullptr, names), kObject, "publisherPath"),
      REFUSAL(m.PublishSetNames(&foreignPublisher, names), kObject, "publisherPath"),
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
  ProbeDesc unterminated{"", nullptr, 0};
  std::memset(unterminated.m_name, 'n', sizeof unterminated.m_name);
  ExpectRefusals({
      REFUSAL(m.PublishProbe(nullptr, Probe(nullptr, 0), &out), kArgument, "publisher"),
      REFUSAL(m.PublishProbe(&publisher, Probe(nullptr, 0), nullptr), kArgument, "out_query"),
      REFUSAL(m.PublishProbe(&unfiledPublisher, Probe(nullptr, 0), &out), kObject, "publisherPath"),
      REFUSAL(m.PublishProbe(&publisher, Probe(nullptr, 3), &out), kArgument, "metrics"),
      REFUSAL(m.PublishProbe(&publisher, Probe(unknown, 1), &out), kObject, "metrics[i]"),
      REFUSAL(m.PublishProbe(&publisher, Probe(wrongKind, 1), &out), kObject, "metrics[i]"),
      REFUSAL(m.PublishProbe(&publisher, Probe(foreignOne, 1), &out), kObject, "metrics[i]"),
      REFUSAL(m.PublishProbe(&publisher, Probe(ordinary, 1), &out), kObject, kNone),
      REFUSAL(m.PublishProbe(&publisher, unterminated, &out), KT_STATUS_SUCCESS, kNone),
      REFUSAL(m.UnpublishProbe(nullptr, out), kArgument, "publisher"),
      REFUSAL(m.UnpublishProbe(&unfiledPublisher, 0), kObject, "publisherPath"),
      REFUSAL(m.UnpublishProbe(&publisher, 0), kObject, "query"),
      REFUSAL(m.UnpublishProbe(&publisher, probeMetric), kObject, "query"),
      REFUSAL(m.UnpublishProbe(&foreignPublisher, out), kObject, "publisherPath"),
  });
  // The name is taken as its 256 bytes and nothing past them.
  const std::string path = "publishers/pub/probe_types/" + std::string(256, 'n');
  EXPECT_EQ(host.registry().GetChild(path.c_str(), 0)->GetHandle(), out);
}

TEST_F(ExtensionManagerBadInputTest, DataAndMethodRoutersRefuseBadHandlesAndNullBuffers) {
  IExtensionManager& m = host.manager;
  HostBuffer args, returns;
  const unsigned long cd = conduit.GetHandle(), con = consumer.GetHandle();
  const unsigned long unknown = host.UnknownHandle();
  ExpectRefusals({
      REFUSAL(m.PushDataToConsumers(cd, metric, nullptr), kArgument, "data"),
      REFUSAL(m.PushDataToConsumers(unknown, metric, nullptr), kArgument, "data"),
      REFUSAL(m.PushDataToConsumers(0, metric, &args), kObject, "data"),
      REFUSAL(m.PushDataToConsumers(unknown, metric, &args), kObject, "data"),
      REFUSAL(m.PushDataToConsumers(con, metric, &args), kObject, "data"),
      REFUSAL(m.PushDataToConsumers(foreignMetric, metric, &args), kObject, "data"),
      REFUSAL(m.PushDataToConsumers(cd, unknown, &args), kArgument, kNone),
      REFUSAL(m.DispatchRemoteMethod(unknown, nullptr, &returns), kArgument, "args"),
      REFUSAL(m.DispatchRemoteMethod(unknown, &args, nullptr), kArgument, "returns"),
      REFUSAL(m.DispatchRemoteMethod(0, &args, &returns), kArgument, "handle"),
      REFUSAL(m.DispatchRemoteMethod(unknown, &args, &returns), kObject, "remotePath"),
      REFUSAL(m.DispatchRemoteMethod(con, &args, &returns), kObject, "remotePath"),
      REFUSAL(m.DispatchRemoteMethod(foreignMetric, &args, &returns), kObject, "remotePath"),
  });
}

// The interface query and the C scanner refuse null names and texts.
TEST(InterfaceQueryBadInputTest, NullNameOrTextAnswersNullEverywhere) {
  BatchedConsumer batched;  // and through it IConsumer's
  RecordingLogger logger;
  RecordingMethod method;
  LocalConduit local;
  LiveManager live;
  IExtension* objects[] = {&batched,      &logger,        &method,          &local,
                           &live.command, &live.manager, live.client.get()};
  for (IExtension* object : objects) EXPECT_EQ(object->CastTo(nullptr), nullptr);
  unsigned int value = 7;
  EXPECT_EQ(sdl_sscanf(nullptr, "%x", &value), EOF);
  EXPECT_EQ(sdl_sscanf("ff", nullptr, &value), EOF);
  EXPECT_EQ(value, 7u);
  EXPECT_FALSE(KTSetCurrentThreadPriority(INT_MAX));
}

// Each number names its status and those between none; numbers never change.
TEST(StatusTest, EveryValueHasItsFixedNumberAndName) {
  const char* const names[] = {
      "SUCCESS",        "",      "INVALID_OBJECT",   "",           "INVALID_OPERATION",
      "DOES_NOT_EXIST", "ALREADY_EXISTS", "INVALID_ARGUMENT", "NON_UNIQUE", "LOOKUP_FAILED",
      "INVALID_SIZE",   "OUT_OF_RESOURCES", "", "", "UNSUPPORTED_EXTENSION", "", "", "",
      "NOT_AVAILABLE",  "",      "PARTIAL_FAILURE",  ""};
  for (KT_STATUS n = 0; n < sizeof names / sizeof *names; ++n) {
    const char* name = StatusName(n);
    EXPECT_EQ(name != nullptr ? name : "", *names[n] ? "KT_STATUS_" + std::string(names[n]) : "");
  }
}

}  // namespace
}  // namespace MetricsFramework
