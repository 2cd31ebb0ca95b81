// PublisherState: the payload of a publisher's node under "publishers".
//
// It files the publisher's metrics as children of its node (each a
// MetricState), keeps the publisher's group order, set names and time-based
// metrics, recomputes availability by the set rule, carries bindings through
// to the publisher extension, and files probe types under "probe_types".
//
// Set rule: a metric with set ids is available exactly when one of its sets is
// listed by every bound sibling that lists any set; with no bound siblings its
// first set qualifies. Metrics without set ids never change by this rule.
//
// Threads: calls arrive on the threads of the extension manager's callers; the
// state takes only the read lock of its own node (during availability updates,
// re-entered by the rule). The stored lists are plain members.
#ifndef KT_STATE_PUBLISHER_STATE_H_
#define KT_STATE_PUBLISHER_STATE_H_

#include <string>
#include <utility>
#include <vector>

#include "kt/metric.h"
#include "kt/probe.h"
#include "kt/publisher.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class PublisherState : public PathData {
 public:
  PublisherState(IPublisher* publisher, Path* path);

  // Files a metric named desc.uri (one whole name) under the publisher and
  // stores its handle in *out_metricHandle. KT_STATUS_INVALID_ARGUMENT for a
  // null out pointer, KT_STATUS_NON_UNIQUE when the name already holds a state.
  // Sends events 3 (available) and 6 (published).
  KT_STATUS PublishMetric(const Metric::Description& desc, unsigned long* out_metricHandle);
  // Removes the metric; KT_STATUS_INVALID_OBJECT when the publisher has no
  // child of that handle. Sends event 7. Siblings are recomputed at the next
  // bind or unbind, not here.
  KT_STATUS UnpublishMetric(unsigned long metricHandle);

  // Replace the stored group order and set names; always succeed.
  KT_STATUS PublishGroupOrder(const std::vector<std::string>& order);
  KT_STATUS PublishSetNames(const std::vector<std::pair<unsigned int, std::string>>& names);
  const std::vector<std::string>& GetGroupOrder() const { return m_groupOrder; }
  const std::vector<std::pair<unsigned int, std::string>>& GetSetNames() const {
    return m_setNames;
  }
  // The handles of the time-based metrics, in publish order.
  const std::vector<unsigned long>& GetTimeBasedMetrics() const { return m_timeBasedMetrics; }

  // Runs the set rule for every child.
  void UpdateMetricAvailability();

  // Has the publisher bind the metric to `buffer` of the conduit node
  // `conduitPath` and marks it bound. KT_STATUS_OUT_OF_RESOURCES when the
  // publisher cannot bind it or the metric is gone (the publisher's side is
  // undone then, and *out is null).
  KT_STATUS Bind(unsigned long metricHandle, Path* conduitPath, IReadWriteBuffer* buffer,
                 IBoundMetric** out);
  // Detaches the buffer, unmarks the binding and gives the bound metric back
  // to the publisher. KT_STATUS_INVALID_OBJECT for an unknown metric.
  KT_STATUS Unbind(unsigned long metricHandle, Path* conduitPath, IBoundMetric* bound);

  // Files a probe type named desc->m_name under "probe_types" over the probe
  // metrics listed in `desc`; stores its handle in *out_handle. Sends event 1.
  KT_STATUS PublishProbe(const ProbeDesc* desc, unsigned long* out_handle);
  // Removes the probe type `probeTypeHandle`; sends event 1.
  KT_STATUS UnpublishProbe(unsigned long probeTypeHandle);

  // The publisher's probe face, by a run-time cast or CastTo; null when it has
  // none.
  IProbePublisher* GetProbePublisher() const;

  IPublisher* m_publisher;

 private:
  void UpdateAvailability(Path* metric);
  void Notify(unsigned int event, unsigned long handle);

  std::vector<unsigned long> m_timeBasedMetrics;
  std::vector<std::string> m_groupOrder;
  std::vector<std::pair<unsigned int, std::string>> m_setNames;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_PUBLISHER_STATE_H_
