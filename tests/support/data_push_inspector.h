// Reads and sets the private tables of a conduit's push, for tests that
// arrange a push's state directly or check what a client operation left in
// it. Not synchronised: use it while nothing pushes.
#ifndef KT_TESTS_SUPPORT_DATA_PUSH_INSPECTOR_H_
#define KT_TESTS_SUPPORT_DATA_PUSH_INSPECTOR_H_

#include <unordered_map>
#include <vector>

#include "state/conduit_state.h"
#include "state/data_push.h"

namespace MetricsFramework {

class DataPushInspector {
 public:
  using GroupKey = DataPush::GroupKey;

  explicit DataPushInspector(ConduitState* conduit) : push(conduit->GetDataPush()) {}

  void SetTag(unsigned long metric, unsigned long tag) {
    push.m_metrics[metric].tag = tag;
    push.m_metrics[metric].tagged = true;
    Changed(metric);
  }
  void EraseTag(unsigned long metric) {
    push.m_metrics[metric].tagged = false;
    Changed(metric);
  }
  void SetGroup(unsigned long metric, GroupKey group) {
    push.m_metrics[metric].group = group;
    push.m_metrics[metric].member = true;
    Changed(metric);
  }
  bool Tagged(unsigned long metric) const { return Has(metric, &DataPush::MetricEntry::tagged); }
  bool Member(unsigned long metric) const { return Has(metric, &DataPush::MetricEntry::member); }
  unsigned long TagOf(unsigned long metric) const { return push.m_metrics.at(metric).tag; }
  GroupKey GroupOf(unsigned long metric) const { return push.m_metrics.at(metric).group; }
  size_t TagCount() const { return Count(&DataPush::MetricEntry::tagged); }
  size_t MemberCount() const { return Count(&DataPush::MetricEntry::member); }
  size_t BatchCount() const { return Count(&DataPush::MetricEntry::batched); }

  MemberSet& Template(unsigned long key, unsigned int id) {
    return push.m_groupTemplate[key][id];
  }
  MemberSet& Expected(unsigned long key, unsigned int id) {
    return push.m_groupExpected[key][id];
  }
  std::vector<unsigned long>& CollectedHandles(unsigned long key, unsigned int id) {
    return push.m_collectedHandles[key][id];
  }
  std::vector<const IReadBuffer*>& CollectedBuffers(unsigned long key, unsigned int id) {
    return push.m_collectedBuffers[key][id];
  }
  std::unordered_map<unsigned long, const IReadBuffer*>& Pending() { return push.m_pending; }
  ILock* TablesWriteLock() { return push.m_tablesLock.GetWriteLock(); }

 private:
  // The push's fast copy follows every change, as it does for the push's own.
  void Changed(unsigned long metric) { push.WriteFast(metric, &push.m_metrics[metric]); }
  bool Has(unsigned long metric, bool DataPush::MetricEntry::*flag) const {
    auto it = push.m_metrics.find(metric);
    return it != push.m_metrics.end() && it->second.*flag;
  }
  size_t Count(bool DataPush::MetricEntry::*flag) const {
    size_t count = 0;
    for (const auto& entry : push.m_metrics) count += entry.second.*flag ? 1 : 0;
    return count;
  }

  DataPush& push;
};

}  // namespace MetricsFramework

#endif  // KT_TESTS_SUPPORT_DATA_PUSH_INSPECTOR_H_
