// ConduitState: the payload of a conduit's node under "conduits".
//
// It binds metrics to the conduit: for each bound metric, the child
// "bindings"/<metric handle> holds a MetricBindingState that links the metric to
// the buffer the conduit made for it and to the publisher's bound metric. The
// consumers subscribed to the conduit are linked under "subscriptions" (and,
// when they take batched samples, also under "batch_subscriptions").
//
// The data push and its tables belong to the DataPush it holds
// (state/data_push.h, which also gives the order of the push's locks); the
// client manager records and forgets metrics there. Buffers of this conduit
// hold the state's route while their bindings last (see PushRoute in
// transport/push_target.h; the state closes it when it goes, and never
// touches a buffer then, since the conduit may have freed its buffers
// first), so that a push needs no lookup by handle.
//
// Threads: pushes on different conduits run in parallel. The state does not
// own the conduit.
#ifndef KT_STATE_CONDUIT_STATE_H_
#define KT_STATE_CONDUIT_STATE_H_

#include "kt/buffer.h"
#include "kt/conduit.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"
#include "state/data_push.h"
#include "transport/push_target.h"

namespace MetricsFramework {

class ConduitState : public PathData, public IPushTarget {
 public:
  ConduitState(IConduit* conduit, Path* path);
  // Unbinds every metric (each publisher is detached), then unsubscribes every
  // consumer, then empties the push's tables.
  ~ConduitState() override;

  // Links the consumer `consumerHandle` under "subscriptions" (and
  // "batch_subscriptions" when it takes batches) and tells its state.
  // KT_STATUS_INVALID_ARGUMENT for 0, KT_STATUS_INVALID_OBJECT for a handle that
  // names no consumer, KT_STATUS_ALREADY_EXISTS (silently) when subscribed.
  KT_STATUS Subscribe(unsigned long consumerHandle);
  // Undoes Subscribe and returns the consumer state's status.
  KT_STATUS Unsubscribe(unsigned long consumerHandle);

  // Binds the metric `metricPath` (handle `metricHandle`) to this conduit: a
  // buffer from the conduit (attached to this state when it is a queue
  // buffer of this conduit), a bound metric from the publisher. Fails with
  // KT_STATUS_ALREADY_EXISTS when already bound here, or with the status of
  // the conduit or the publisher; nothing stays behind on failure.
  KT_STATUS Bind(Path* metricPath, unsigned long metricHandle);
  // Undoes Bind, forgets the metric in the push tables, detaches the buffer
  // and gives it back to the conduit. KT_STATUS_DOES_NOT_EXIST without any binding,
  // KT_STATUS_INVALID_OBJECT for a metric not bound here or no longer
  // registered.
  KT_STATUS Unbind(unsigned long metricHandle);
  // Asks every bound publisher to flush; KT_STATUS_INVALID_OBJECT when the
  // conduit never had a binding.
  KT_STATUS FlushMetrics();

  // Delivers the oldest sample of `buffer`, a buffer of the metric
  // `metricHandle`, and releases it. KT_STATUS_INVALID_ARGUMENT for a metric
  // the conduit was not told about, KT_STATUS_DOES_NOT_EXIST for an ungrouped
  // metric without a tag (the sample is released in both cases).
  KT_STATUS PushData(unsigned long metricHandle, const IReadBuffer* buffer) override;
  // Hands a time-based sample to every subscribed consumer at once, with the
  // tag 199 and no sizes. Always succeeds.
  KT_STATUS PushDataForTimeBasedMetric(unsigned long metricHandle, void* data) override;
  // Delivers the metric's samples one at a time to the batched consumers.
  // Always succeeds.
  KT_STATUS AddBatchMetric(unsigned long metricHandle);

  // The push of this conduit, where the client manager records the metrics
  // it subscribes and forgets those it unsubscribes.
  DataPush& GetDataPush() { return m_push; }

  IConduit* m_conduit;

 private:
  // Attaches `buffer` to `route`, or detaches it (null), when it is a queue
  // buffer; other buffers are left alone.
  static void AttachBuffer(IReadWriteBuffer* buffer, PushRoute* route);

  DataPush m_push;
  PushRoute* m_route;  // made here, closed and let go at destruction
};

}  // namespace MetricsFramework

#endif  // KT_STATE_CONDUIT_STATE_H_
