// Bad input at every slot of the client manager: null out-pointers, zero,
// unknown, wrong-kind and foreign handles, oversize counts. Each refusal is
// checked for its status and for the argument its message names
// (docs/bad_input.md).
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "state/probe_type_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// A publisher "pub" with the metric "m", a consumer "con", and a foreign
// registry with a metric of its own.
class ClientManagerBadInputTest : public ::testing::Test {
 protected:
  ClientManagerBadInputTest() : c(*host.client) {
    EXPECT_EQ(host.Add("pub", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("con", &consumer), KT_STATUS_SUCCESS);
    EXPECT_EQ(foreign.Add("pub", &foreignPublisher), KT_STATUS_SUCCESS);
    metric = host.Publish(&publisher, Describe("m"));
    foreignMetric = foreign.Publish(&foreignPublisher, Describe("m"));
    con = consumer.GetHandle();
    unknown = host.UnknownHandle();
  }

  CountingPublisher publisher, foreignPublisher;
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
      REFUSAL(c.GetPath(0, "root", nullptr), kArgument, "out_handle"),
      REFUSAL(c.GetPath(0, nullptr, &out), kArgument, "pathname"),
      REFUSAL(c.GetPath(unknown, "m", &out), kObject, "root"),
      REFUSAL(c.GetPath(foreignMetric, "m", &out), kObject, "root"),
      REFUSAL(c.GetPath(metric, "m", &out), KT_STATUS_DOES_NOT_EXIST, "root"),
      REFUSAL(c.GetPath(0, longPath.c_str(), &out), KT_STATUS_DOES_NOT_EXIST, "root"),
      REFUSAL(c.GetPath(0, "publishers/pub/missing", &out), KT_STATUS_DOES_NOT_EXIST, "root"),
      REFUSAL(c.GetChildCount(0, nullptr), kArgument, "out_count"),
      REFUSAL(c.GetChildCount(unknown, &count), kObject, "parent"),
      REFUSAL(c.GetChildCount(foreignMetric, &count), kObject, "parent"),
      REFUSAL(c.GetChildren(0, nullptr, 1), kArgument, "out_children"),
      REFUSAL(c.GetChildren(0, nullptr, 0), KT_STATUS_SUCCESS, kNone),
      REFUSAL(c.GetChildren(unknown, children, 1), kObject, "parent"),
      REFUSAL(c.GetChildren(foreignMetric, children, 1), kObject, "parent"),
      REFUSAL(c.GetChildren(metric, children, 1), KT_STATUS_INVALID_SIZE, "count"),
      REFUSAL(c.GetChildren(0, children, UINT_MAX), KT_STATUS_INVALID_SIZE, "count"),
      REFUSAL(c.GetMetrics(unknown, metrics, nullptr, nullptr), kObject, "parent"),
      REFUSAL(c.GetMetrics(foreignMetric, metrics, nullptr, nullptr), kObject, "parent"),
      REFUSAL(c.GetResourceInfo(0, nullptr), kArgument, "out_resource"),
      REFUSAL(c.GetResourceInfo(unknown, &info), kObject, "handle"),
      REFUSAL(c.GetResourceInfo(foreignMetric, &info), kObject, "handle"),
      REFUSAL(c.GetMetricDescriptor(metric, nullptr), kArgument, "out_desc"),
      REFUSAL(c.GetMetricDescriptor(0, &desc), kObject, "metric"),
      REFUSAL(c.GetMetricDescriptor(con, &desc), kObject, "metric"),
      REFUSAL(c.GetMetricDescriptor(foreignMetric, &desc), kObject, "metric"),
  });
  EXPECT_TRUE(metrics.empty());
  EXPECT_EQ(children[0], 0u);  // an oversize count wrote nothing
}

TEST_F(ClientManagerBadInputTest, SubscriptionsRefuseBadConsumersAndMetrics) {
  const unsigned long batch[] = {metric, unknown, foreignMetric};
  const unsigned long pub = publisher.GetHandle();
  RecordingErrorListener listener;
  ExpectRefusals({
      REFUSAL(c.SubscribeMetric(con, 0), kArgument, "metric"),
      REFUSAL(c.SubscribeMetric(unknown, metric), kObject, "conduit"),
      REFUSAL(c.SubscribeMetric(metric, metric), kObject, "conduit"),
      REFUSAL(c.SubscribeMetric(0, metric), kArgument, "consumer"),
      REFUSAL(c.SubscribeMetric(con, unknown), kObject, "metric"),
      REFUSAL(c.SubscribeMetric(con, con), kObject, "metric"),
      REFUSAL(c.SubscribeMetric(con, foreignMetric), kObject, "conduit"),
      REFUSAL(c.UnsubscribeMetric(con, 0), kArgument, "metric"),
      REFUSAL(c.UnsubscribeMetric(0, metric), kArgument, "consumer"),
      REFUSAL(c.UnsubscribeMetric(unknown, metric), kObject, "conduit"),
      REFUSAL(c.UnsubscribeMetric(con, unknown), KT_STATUS_DOES_NOT_EXIST, "metric"),
      REFUSAL(c.UnsubscribeMetric(con, foreignMetric), kObject, "conduit"),
      REFUSAL(c.SubscribeMetrics(con, nullptr, 3, nullptr), kArgument, "metric"),
      REFUSAL(c.SubscribeMetrics(con, batch, 3, nullptr), KT_STATUS_PARTIAL_FAILURE, "conduit"),
      REFUSAL(c.UnsubscribeMetrics(con, nullptr, 0, &listener), kArgument, "metric"),
      REFUSAL(c.UnsubscribeMetrics(con, batch, 3, &listener), KT_STATUS_PARTIAL_FAILURE, "conduit"),
      REFUSAL(c.FlushMetrics(0), kArgument, "consumer"),
      REFUSAL(c.FlushMetrics(unknown), kObject, "consumer"),
      REFUSAL(c.FlushMetrics(metric), kObject, "consumer"),
      REFUSAL(c.FlushMetrics(foreignMetric), kObject, "consumer"),
  });
  EXPECT_EQ(listener.errors.size(), 2u);  // the unknown and the foreign metric
  // No conduit leads to a foreign metric, from an unknown consumer or from a publisher.
  for (auto [who, m] : {std::pair{con, foreignMetric}, {unknown, metric}, {pub, metric}}) {
    EXPECT_EQ(c.GetConduitHandle(who, m), 0u) << who;
  }
}

// The private twins (consumer, conduit, metric, full) check their arguments in
// this order.
TEST_F(ClientManagerBadInputTest, SubscriptionTwinsRefuseInCheckOrder) {
  const unsigned long conduit = c.GetConduitHandle(con, metric);
  const unsigned long pub = publisher.GetHandle();
  ExpectRefusals({
      REFUSAL(c.__SubscribeMetric(0, 0, 0, true), kArgument, "metric"),
      REFUSAL(c.__SubscribeMetric(0, unknown, metric, true), kObject, "conduit"),
      REFUSAL(c.__SubscribeMetric(con, con, metric, true), kObject, "conduit"),
      REFUSAL(c.__SubscribeMetric(0, conduit, metric, false), kArgument, "consumer"),
      REFUSAL(c.__SubscribeMetric(pub, conduit, metric, true), kObject, "0"),
      REFUSAL(c.__SubscribeMetric(con, conduit, unknown, true), kObject, "metric"),
      REFUSAL(c.__UnsubscribeMetric(0, 0, 0, true), kArgument, "metric"),
      REFUSAL(c.__UnsubscribeMetric(0, unknown, metric, true), kObject, "conduit"),
      REFUSAL(c.__UnsubscribeMetric(0, conduit, metric, true), kArgument, "consumer"),
      REFUSAL(c.__UnsubscribeMetric(unknown, conduit, metric, true), kObject, "consumer"),
      REFUSAL(c.__UnsubscribeMetric(0, conduit, metric, false), KT_STATUS_DOES_NOT_EXIST, "metric"),
      REFUSAL(c.__FlushMetrics(0), kArgument, "conduit"),
      REFUSAL(c.__FlushMetrics(con), kObject, "conduit"),
      REFUSAL(c.__FlushMetrics(conduit), kObject, "path"),
  });
}

TEST_F(ClientManagerBadInputTest, RemoteCallsAndProbesRefuseBadHandlesAndNullBuffers) {
  HostBuffer args, returns;
  Path* orphan = host.registry().GetChild("orphan", kPathCreate);
  new ProbeTypeState(nullptr, orphan);
  const unsigned long plain = host.registry().GetChild("plain", kPathCreate)->GetHandle();
  const unsigned long pub = publisher.GetHandle();
  ExpectRefusals({
      REFUSAL(c.CallRemoteMethodSync(unknown, nullptr, &returns), kArgument, "args"),
      REFUSAL(c.CallRemoteMethodSync(unknown, &args, nullptr), kArgument, "returns"),
      REFUSAL(c.CallRemoteMethodSync(0, &args, &returns), kArgument, "handle"),
      REFUSAL(c.CallRemoteMethodSync(unknown, &args, &returns), kObject, "remotePath"),
      REFUSAL(c.CallRemoteMethodSync(con, &args, &returns), kObject, "remotePath"),
      REFUSAL(c.CallRemoteMethodSync(foreignMetric, &args, &returns), kObject, "remotePath"),
      REFUSAL(c.CallRemoteMethodSync(unknown, metric, &args, &returns), kArgument, "conduit"),
      REFUSAL(c.CallRemoteMethodSync(unknown, metric, nullptr, &returns), kArgument, "args"),
      REFUSAL(c.CallRemoteMethodSync(pub, metric, &args, &returns), kArgument, "conduit"),
      REFUSAL(c.__CallRemoteMethodSync(0, metric, &args, &returns, true), kArgument, "conduit"),
      REFUSAL(c.CreateProbe(metric, nullptr, nullptr), kArgument, "out_site"),
      REFUSAL(c.CreateProbe(unknown, nullptr, &out), kArgument, "query"),
      REFUSAL(c.CreateProbe(metric, nullptr, &out), kObject, "qpub"),
      REFUSAL(c.CreateProbe(foreignMetric, nullptr, &out), kArgument, "query"),
      REFUSAL(c.CreateProbe(orphan->GetHandle(), nullptr, &out), kObject, "qpub"),
      REFUSAL(c.CreateProbe(plain, nullptr, &out), kObject, "qpub"),
      REFUSAL(c.DestroyProbe(0), kArgument, "sitePath"),
      REFUSAL(c.DestroyProbe(host.manager.GetRegistry().GetHandle()), kArgument, "sitePath"),
      REFUSAL(c.DestroyProbe(metric), kArgument, "sitePath"),
      REFUSAL(c.DestroyProbe(foreignMetric), kArgument, "sitePath"),
      REFUSAL(c.BeginProbe(0, 1, 2, Metrics::EventType{}, nullptr), KT_STATUS_SUCCESS, kNone),
      REFUSAL(c.EndProbe(0, 1, Metrics::EventType{}, nullptr), KT_STATUS_SUCCESS, kNone),
      REFUSAL(c.HandleProbe(0), KT_STATUS_SUCCESS, kNone),
      REFUSAL(c.OnChangeStateCommandList(0, nullptr, nullptr, Metrics::CommandListState{}),
              KT_STATUS_SUCCESS, kNone),
  });
  EXPECT_EQ(out, 0u);
  // The metric a refused DestroyProbe met is still there.
  EXPECT_EQ(c.GetMetricDescriptor(metric, &desc), KT_STATUS_SUCCESS);
}

}  // namespace
}  // namespace MetricsFramework
