// Bad input at every slot of the client manager: null out-pointers, zero,
// unknown, wrong-kind and foreign handles, oversize counts. Each refusal is
// checked for its status and for the argument its message names
// (docs/bad_input.md).
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "state/state_fakes.h"
#include "support/live_manager.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

using Case = RefusalCase;

class CountingListener : public IClientManagerErrorListener {
 public:
  void OnError(unsigned long, unsigned int) override { ++errors; }
  int errors = 0;
};

// A publisher "pub" with the metric "m", a consumer "con", and a foreign
// registry with a metric of its own.
class ClientManagerBadInputTest : public ::testing::Test {
 protected:
  ClientManagerBadInputTest() : c(*host.client) {
    EXPECT_EQ(host.Add("pub", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("con", &consumer), KT_STATUS_SUCCESS);
    EXPECT_EQ(foreign.Add("pub", &foreignPublisher), KT_STATUS_SUCCESS);
    metric = Publish(host.manager, &publisher);
    foreignMetric = Publish(foreign.manager, &foreignPublisher);
    con = consumer.GetHandle();
    unknown = host.UnknownHandle();
  }
  static unsigned long Publish(DefaultExtensionManager& manager, IPublisher* owner) {
    Metric::Description desc;
    desc.uri = "m";
    unsigned long handle = 0;
    EXPECT_EQ(manager.PublishMetric(owner, desc, &handle), KT_STATUS_SUCCESS);
    return handle;
  }

  FakePublisher publisher, foreignPublisher;
  RecordingConsumer consumer;
  LiveManager host, foreign;
  DefaultClientManager& c;
  unsigned long metric = 0, foreignMetric = 0, con = 0, unknown = 0;
  unsigned long out = 0;
  unsigned int count = 0;
  unsigned long children[4] = {};
  ResourceInfo info;
  Metric::Description desc;
  std::vector<std::pair<unsigned long, Metric::Description>> metrics;
};

TEST_F(ClientManagerBadInputTest, NamespaceQueriesRefuseNullOutputsAndBadHandles) {
  const std::string longPath(5000, 'x');
  ExpectRefusals({
      {"GetPath null out", [&] { return c.GetPath(0, "root", nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "out_handle"},
      {"GetPath null path", [&] { return c.GetPath(0, nullptr, &out); },
       KT_STATUS_INVALID_ARGUMENT, "pathname"},
      {"GetPath unknown root", [&] { return c.GetPath(unknown, "m", &out); },
       KT_STATUS_INVALID_OBJECT, "root"},
      {"GetPath foreign root", [&] { return c.GetPath(foreignMetric, "m", &out); },
       KT_STATUS_INVALID_OBJECT, "root"},
      {"GetPath below a metric", [&] { return c.GetPath(metric, "m", &out); },
       KT_STATUS_DOES_NOT_EXIST, "root"},
      {"GetPath oversize path", [&] { return c.GetPath(0, longPath.c_str(), &out); },
       KT_STATUS_DOES_NOT_EXIST, "root"},
      {"GetChildCount null out", [&] { return c.GetChildCount(0, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "out_count"},
      {"GetChildCount unknown", [&] { return c.GetChildCount(unknown, &count); },
       KT_STATUS_INVALID_OBJECT, "parent"},
      {"GetChildCount foreign", [&] { return c.GetChildCount(foreignMetric, &count); },
       KT_STATUS_INVALID_OBJECT, "parent"},
      {"GetChildren null out", [&] { return c.GetChildren(0, nullptr, 1); },
       KT_STATUS_INVALID_ARGUMENT, "out_children"},
      {"GetChildren none into null", [&] { return c.GetChildren(0, nullptr, 0); },
       KT_STATUS_SUCCESS, "(none)"},
      {"GetChildren unknown", [&] { return c.GetChildren(unknown, children, 1); },
       KT_STATUS_INVALID_OBJECT, "parent"},
      {"GetChildren foreign", [&] { return c.GetChildren(foreignMetric, children, 1); },
       KT_STATUS_INVALID_OBJECT, "parent"},
      {"GetChildren of a leaf", [&] { return c.GetChildren(metric, children, 1); },
       KT_STATUS_INVALID_SIZE, "count"},
      {"GetChildren oversize count", [&] { return c.GetChildren(0, children, UINT_MAX); },
       KT_STATUS_INVALID_SIZE, "count"},
      {"GetMetrics unknown", [&] { return c.GetMetrics(unknown, metrics, nullptr, nullptr); },
       KT_STATUS_INVALID_OBJECT, "parent"},
      {"GetMetrics foreign",
       [&] { return c.GetMetrics(foreignMetric, metrics, nullptr, nullptr); },
       KT_STATUS_INVALID_OBJECT, "parent"},
      {"GetResourceInfo null out", [&] { return c.GetResourceInfo(0, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "out_resource"},
      {"GetResourceInfo unknown", [&] { return c.GetResourceInfo(unknown, &info); },
       KT_STATUS_INVALID_OBJECT, "handle"},
      {"GetResourceInfo foreign", [&] { return c.GetResourceInfo(foreignMetric, &info); },
       KT_STATUS_INVALID_OBJECT, "handle"},
      {"GetMetricDescriptor null out", [&] { return c.GetMetricDescriptor(metric, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "out_desc"},
      {"GetMetricDescriptor zero", [&] { return c.GetMetricDescriptor(0, &desc); },
       KT_STATUS_INVALID_OBJECT, "metric"},
      {"GetMetricDescriptor consumer", [&] { return c.GetMetricDescriptor(con, &desc); },
       KT_STATUS_INVALID_OBJECT, "metric"},
      {"GetMetricDescriptor foreign", [&] { return c.GetMetricDescriptor(foreignMetric, &desc); },
       KT_STATUS_INVALID_OBJECT, "metric"},
  });
  EXPECT_TRUE(metrics.empty());
  EXPECT_EQ(children[0], 0u);  // an oversize count wrote nothing
}

TEST_F(ClientManagerBadInputTest, SubscriptionsRefuseBadConsumersAndMetrics) {
  const unsigned long batch[] = {metric, unknown, foreignMetric};
  CountingListener listener;
  ExpectRefusals({
      {"Subscribe zero metric", [&] { return c.SubscribeMetric(con, 0); },
       KT_STATUS_INVALID_ARGUMENT, "metric"},
      {"Subscribe unknown consumer", [&] { return c.SubscribeMetric(unknown, metric); },
       KT_STATUS_INVALID_OBJECT, "conduit"},
      {"Subscribe metric as consumer", [&] { return c.SubscribeMetric(metric, metric); },
       KT_STATUS_INVALID_OBJECT, "conduit"},
      {"Subscribe zero consumer", [&] { return c.SubscribeMetric(0, metric); },
       KT_STATUS_INVALID_ARGUMENT, "consumer"},
      {"Subscribe unknown metric", [&] { return c.SubscribeMetric(con, unknown); },
       KT_STATUS_INVALID_OBJECT, "metric"},
      {"Subscribe consumer as metric", [&] { return c.SubscribeMetric(con, con); },
       KT_STATUS_INVALID_OBJECT, "metric"},
      {"Subscribe foreign metric", [&] { return c.SubscribeMetric(con, foreignMetric); },
       KT_STATUS_INVALID_OBJECT, "conduit"},
      {"Unsubscribe zero metric", [&] { return c.UnsubscribeMetric(con, 0); },
       KT_STATUS_INVALID_ARGUMENT, "metric"},
      {"Unsubscribe zero consumer", [&] { return c.UnsubscribeMetric(0, metric); },
       KT_STATUS_INVALID_ARGUMENT, "consumer"},
      {"Unsubscribe unknown consumer", [&] { return c.UnsubscribeMetric(unknown, metric); },
       KT_STATUS_INVALID_OBJECT, "conduit"},
      {"Unsubscribe never bound", [&] { return c.UnsubscribeMetric(con, unknown); },
       KT_STATUS_DOES_NOT_EXIST, "metric"},
      {"Unsubscribe foreign metric", [&] { return c.UnsubscribeMetric(con, foreignMetric); },
       KT_STATUS_INVALID_OBJECT, "conduit"},
      {"SubscribeMetrics null array", [&] { return c.SubscribeMetrics(con, nullptr, 3, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "metric"},
      {"SubscribeMetrics null listener", [&] { return c.SubscribeMetrics(con, batch, 3, nullptr); },
       KT_STATUS_PARTIAL_FAILURE, "conduit"},
      {"UnsubscribeMetrics null array",
       [&] { return c.UnsubscribeMetrics(con, nullptr, 0, &listener); },
       KT_STATUS_INVALID_ARGUMENT, "metric"},
      {"UnsubscribeMetrics with listener",
       [&] { return c.UnsubscribeMetrics(con, batch, 3, &listener); },
       KT_STATUS_PARTIAL_FAILURE, "conduit"},
      {"FlushMetrics zero", [&] { return c.FlushMetrics(0); },
       KT_STATUS_INVALID_ARGUMENT, "consumer"},
      {"FlushMetrics unknown", [&] { return c.FlushMetrics(unknown); },
       KT_STATUS_INVALID_OBJECT, "consumer"},
      {"FlushMetrics metric", [&] { return c.FlushMetrics(metric); },
       KT_STATUS_INVALID_OBJECT, "consumer"},
      {"FlushMetrics foreign", [&] { return c.FlushMetrics(foreignMetric); },
       KT_STATUS_INVALID_OBJECT, "consumer"},
  });
  EXPECT_EQ(listener.errors, 2);  // the unknown and the foreign metric
}

TEST_F(ClientManagerBadInputTest, RemoteCallsAndProbesRefuseBadHandlesAndNullBuffers) {
  QueueBuffer args(0, nullptr, 0, 0, 0), returns(0, nullptr, 0, 0, 0);
  ExpectRefusals({
      {"Call null args", [&] { return c.CallRemoteMethodSync(unknown, nullptr, &returns); },
       KT_STATUS_INVALID_ARGUMENT, "args"},
      {"Call null returns", [&] { return c.CallRemoteMethodSync(unknown, &args, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "returns"},
      {"Call zero", [&] { return c.CallRemoteMethodSync(0, &args, &returns); },
       KT_STATUS_INVALID_ARGUMENT, "handle"},
      {"Call unknown", [&] { return c.CallRemoteMethodSync(unknown, &args, &returns); },
       KT_STATUS_INVALID_OBJECT, "remotePath"},
      {"Call consumer", [&] { return c.CallRemoteMethodSync(con, &args, &returns); },
       KT_STATUS_INVALID_OBJECT, "remotePath"},
      {"Call foreign", [&] { return c.CallRemoteMethodSync(foreignMetric, &args, &returns); },
       KT_STATUS_INVALID_OBJECT, "remotePath"},
      {"Call through unknown conduit",
       [&] { return c.CallRemoteMethodSync(unknown, metric, &args, &returns); },
       KT_STATUS_INVALID_ARGUMENT, "conduit"},
      {"CreateProbe null out", [&] { return c.CreateProbe(metric, nullptr, nullptr); },
       KT_STATUS_INVALID_ARGUMENT, "out_site"},
      {"CreateProbe unknown type", [&] { return c.CreateProbe(unknown, nullptr, &out); },
       KT_STATUS_INVALID_ARGUMENT, "query"},
      {"CreateProbe metric as type", [&] { return c.CreateProbe(metric, nullptr, &out); },
       KT_STATUS_INVALID_OBJECT, "qpub"},
      {"CreateProbe foreign type", [&] { return c.CreateProbe(foreignMetric, nullptr, &out); },
       KT_STATUS_INVALID_ARGUMENT, "query"},
      {"DestroyProbe zero", [&] { return c.DestroyProbe(0); },
       KT_STATUS_INVALID_ARGUMENT, "sitePath"},
      {"DestroyProbe root", [&] { return c.DestroyProbe(host.manager.GetRegistry().GetHandle()); },
       KT_STATUS_INVALID_ARGUMENT, "sitePath"},
      {"DestroyProbe metric", [&] { return c.DestroyProbe(metric); },
       KT_STATUS_INVALID_ARGUMENT, "sitePath"},
      {"DestroyProbe foreign", [&] { return c.DestroyProbe(foreignMetric); },
       KT_STATUS_INVALID_ARGUMENT, "sitePath"},
      {"BeginProbe zero", [&] { return c.BeginProbe(0, 1, 2, Metrics::EventType{}, nullptr); },
       KT_STATUS_SUCCESS, "(none)"},
      {"EndProbe zero", [&] { return c.EndProbe(0, 1, Metrics::EventType{}, nullptr); },
       KT_STATUS_SUCCESS, "(none)"},
      {"HandleProbe zero", [&] { return c.HandleProbe(0); }, KT_STATUS_SUCCESS, "(none)"},
      {"OnChangeStateCommandList zero",
       [&] { return c.OnChangeStateCommandList(0, nullptr, nullptr, Metrics::CommandListState{}); },
       KT_STATUS_SUCCESS, "(none)"},
  });
  EXPECT_EQ(out, 0u);
  // The metric a refused DestroyProbe met is still there.
  EXPECT_EQ(c.GetMetricDescriptor(metric, &desc), KT_STATUS_SUCCESS);
}

}  // namespace
}  // namespace MetricsFramework
