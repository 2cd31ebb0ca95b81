// IClientManager called through raw virtual-table indexes, as a separately
// built client calls it: each of slots 3 to 20 must reach its operation.
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "abi/slot_support.h"
#include "kt/client_manager.h"

namespace {

using namespace MetricsFramework;
using namespace slot_support;

// Answers every operation with 100 plus its slot.
class Recording : public IClientManager {
 public:
  KT_STATUS GetPath(unsigned long, const char*, unsigned long*) const override { return 103; }
  KT_STATUS GetChildCount(unsigned long, unsigned int*) const override { return 104; }
  KT_STATUS GetChildren(unsigned long, unsigned long*, unsigned int) const override { return 105; }
  KT_STATUS GetMetrics(unsigned long, std::vector<std::pair<unsigned long, Metric::Description>>&,
                       std::vector<std::string>*,
                       std::map<unsigned int, std::string>*) const override {
    return 106;
  }
  KT_STATUS GetResourceInfo(unsigned long, ResourceInfo*) const override { return 107; }
  KT_STATUS GetMetricDescriptor(unsigned long, Metric::Description*) const override { return 108; }
  KT_STATUS SubscribeMetric(unsigned long, unsigned long) override { return 109; }
  KT_STATUS UnsubscribeMetric(unsigned long, unsigned long) override { return 110; }
  KT_STATUS SubscribeMetrics(unsigned long, const unsigned long*, unsigned int,
                             IClientManagerErrorListener*) override {
    return 111;
  }
  KT_STATUS UnsubscribeMetrics(unsigned long, const unsigned long*, unsigned int,
                               IClientManagerErrorListener*) override {
    return 112;
  }
  KT_STATUS FlushMetrics(unsigned long) override { return 113; }
  KT_STATUS CallRemoteMethodSync(unsigned long, const IReadBuffer*, IWriteBuffer*) override {
    return 114;
  }
  KT_STATUS CreateProbe(unsigned long, void*, unsigned long*) override { return 115; }
  KT_STATUS DestroyProbe(unsigned long) override { return 116; }
  KT_STATUS BeginProbe(unsigned long, unsigned long, unsigned long, Metrics::EventType,
                       void*) const override {
    return 117;
  }
  KT_STATUS EndProbe(unsigned long, unsigned long, Metrics::EventType, void*) const override {
    return 118;
  }
  KT_STATUS HandleProbe(unsigned long) const override { return 119; }
  KT_STATUS OnChangeStateCommandList(unsigned long, void*, void*,
                                     Metrics::CommandListState) const override {
    return 120;
  }
};

TEST(ClientManagerSlotTest, SlotsThreeToTwentyAnswerInDeclaredOrder) {
  Recording recording;
  IClientManager* client = &recording;

  for (std::size_t slot = 3; slot <= 20; ++slot) {
    EXPECT_EQ(static_cast<KT_STATUS>(CallSlot(client, slot)), 100 + slot) << "slot " << slot;
  }
  EXPECT_EQ(Slot<CastToCall>(client, 0)(client, "IClientManager"), client);
  EXPECT_EQ(client->CastTo("IKTExtensionBase"), nullptr);
}

}  // namespace
