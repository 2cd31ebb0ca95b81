// ConduitState: the payload of a conduit's node under "conduits".
//
// It binds metrics to the conduit: for each bound metric, the child
// "bindings"/<metric handle> holds a MetricBindingState that links the metric to
// the buffer the conduit made for it and to the publisher's bound metric. The
// consumers subscribed to the conduit are linked under "subscriptions" (and,
// when they take batched samples, "batch_subscriptions"); samples reach them
// through the push operations.
//
// Threads: the tree's node locks guard "bindings" and "subscriptions"; the
// conduit's own IConduit is asked for buffers under them. The state does not
// own the conduit extension.
#ifndef KT_STATE_CONDUIT_STATE_H_
#define KT_STATE_CONDUIT_STATE_H_

#include "kt/conduit.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class ConduitState : public PathData {
 public:
  ConduitState(IConduit* conduit, Path* path);
  // Unbinds every metric still bound to the conduit.
  ~ConduitState() override;

  // Binds the metric `metricPath` (handle `metricHandle`) to this conduit: a
  // buffer from the conduit, a bound metric from the publisher. Fails with
  // KT_STATUS_ALREADY_EXISTS when already bound here, or with the status of
  // the conduit or the publisher; nothing stays behind on failure.
  KT_STATUS Bind(Path* metricPath, unsigned long metricHandle);
  // Undoes Bind and gives the buffer back to the conduit.
  // KT_STATUS_DOES_NOT_EXIST without any binding, KT_STATUS_INVALID_OBJECT for
  // a metric not bound here or no longer registered.
  KT_STATUS Unbind(unsigned long metricHandle);
  // Asks every bound publisher to flush; KT_STATUS_INVALID_OBJECT when the
  // conduit never had a binding.
  KT_STATUS FlushMetrics();
  // Hands a time-based sample to every subscribed consumer at once, with the
  // tag 199 and no sizes. Always succeeds.
  KT_STATUS PushDataForTimeBasedMetric(unsigned long metricHandle, void* data);

  IConduit* m_conduit;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_CONDUIT_STATE_H_
