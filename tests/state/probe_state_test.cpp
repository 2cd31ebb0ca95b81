#include "state/probe_state.h"

#include <gtest/gtest.h>

#include <cstring>

#include "state/probe_type_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// A publisher that offers no probe face at all.
class PlainPublisher : public IPublisher {
 public:
  IBoundMetric* BindMetric(unsigned long, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    return nullptr;
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override {}
  void OnLoad() override {}
  void OnUnload() override {}
};

class ProbeStateTest : public ::testing::Test {
 protected:
  ProbeStateTest() {
    node = registry.GetChild("publishers/p", kPathCreate);
    state = new PublisherState(&publisher, node);
    events.Listen(registry);
  }
  KT_STATUS PublishType(const char* name, std::vector<unsigned long> metrics, unsigned long* out) {
    ProbeDesc desc{};
    std::strncpy(desc.m_name, name, sizeof(desc.m_name) - 1);
    desc.m_metrics = metrics.data();
    desc.m_metricCount = metrics.size();
    events.events.clear();
    return state->PublishProbe(&desc, out);
  }
  ProbeTypeState* Type(unsigned long handle) {
    return dynamic_cast<ProbeTypeState*>(node->GetChild("probe_types", 0)->GetChild(handle, 0)->GetPayload());
  }

  Registry registry;
  CountingPublisher publisher;
  Path* node;
  PublisherState* state;
  EventLog events;
};

TEST_F(ProbeStateTest, TypeOverProbeMetricsIsLinkedFromThemUntilUnpublished) {
  const unsigned long m = Published(state, "pm", Metric::kFlagProbe);
  unsigned long type = 0;

  ASSERT_EQ(PublishType("t", {m}, &type), KT_STATUS_SUCCESS);
  Path* metric = node->GetChild(m, 0);
  EXPECT_NE(metric->GetChild(type, 0), nullptr);
  EXPECT_EQ(events.events, (Events{{1, type}}));

  events.events.clear();
  ASSERT_EQ(state->UnpublishProbe(type), KT_STATUS_SUCCESS);
  EXPECT_EQ(metric->GetChild(type, 0), nullptr);
  EXPECT_EQ(events.events, (Events{{1, type}}));
  EXPECT_EQ(state->UnpublishProbe(type), KT_STATUS_INVALID_OBJECT);
}

TEST_F(ProbeStateTest, TypeOverAnOrdinaryMetricFailsLinksNothingAndStillTells) {
  const unsigned long probe = Published(state, "pm", Metric::kFlagProbe);
  const unsigned long ordinary = Published(state, "om", 0);
  unsigned long out = 0xABCD;

  EXPECT_EQ(PublishType("t", {probe, ordinary}, &out), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(PublishType("u", {0x42}, &out), KT_STATUS_INVALID_OBJECT);

  EXPECT_EQ(out, 0xABCDu);
  EXPECT_FALSE(node->GetChild(probe, 0)->HasChildren());
  EXPECT_EQ(events.events, (Events{{1, 0xABCD}}));
  EXPECT_NE(node->GetChild("probe_types/t", 0), nullptr);
}

TEST_F(ProbeStateTest, EmptyTypePublishesAndMakesProbesUnderInstancesByAddress) {
  unsigned long type = 0;
  ASSERT_EQ(PublishType("t", {}, &type), KT_STATUS_SUCCESS);
  RecordingProbe probe;
  publisher.probeToMake = &probe;
  unsigned long site = 0;

  ASSERT_EQ(Type(type)->CreateProbe(registry, nullptr, &site), KT_STATUS_SUCCESS);

  EXPECT_EQ(site, reinterpret_cast<unsigned long>(&probe));
  EXPECT_EQ(publisher.lastProbeType, type);
  Path* instance = registry.ResolveHandle(site);
  ASSERT_NE(instance, nullptr);
  auto* filed = dynamic_cast<ProbeState*>(instance->GetPayload());
  ASSERT_NE(filed, nullptr);
  EXPECT_EQ(filed->GetProbe(), &probe);
  EXPECT_EQ(filed->GetProbeTypeHandle(), type);
  publisher.probeToMake = nullptr;
  EXPECT_EQ(Type(type)->CreateProbe(registry, nullptr, &site), KT_STATUS_INVALID_ARGUMENT);
}

TEST_F(ProbeStateTest, PublisherWithoutProbeFaceCannotPublishTypesOrMakeProbes) {
  PlainPublisher plain;
  Path* plainNode = registry.GetChild("publishers/q", kPathCreate);
  auto* plainState = new PublisherState(&plain, plainNode);
  auto* type = new ProbeTypeState(plainNode, plainNode->GetChild("probe_types/t", kPathCreate));
  ProbeDesc desc{};
  unsigned long out = 0;

  EXPECT_EQ(plainState->PublishProbe(&desc, &out), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(type->CreateProbe(registry, nullptr, &out), KT_STATUS_INVALID_OBJECT);
  EXPECT_FALSE(type->m_path->HasChildren());
}

}  // namespace
}  // namespace MetricsFramework
