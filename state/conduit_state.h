// ConduitState: the payload of a conduit's node under "conduits".
//
// It binds metrics to the conduit: for each bound metric, the child
// "bindings"/<metric handle> holds a MetricBindingState that links the metric to
// the buffer the conduit made for it and to the publisher's bound metric. The
// consumers subscribed to the conduit are linked under "subscriptions" (and,
// when they take batched samples, also under "batch_subscriptions").
//
// The data push: PushData takes the oldest sample of a metric's buffer and
// hands it to every subscribed consumer, either at once or, for a metric of a
// group, when every member of the group has delivered its sample for the
// cycle, so that consumers see a group's values together in one call. The
// client manager fills the tables that drive it (tags, group membership, group
// template and expected sets). The first push of a group opens the cycle and
// delivers nothing; a member that pushes again before the cycle completes ends
// it early with what was collected and opens the next one.
//
// Threads: pushes on different conduits run in parallel; on one conduit,
// consumers are called one push at a time under the write lock of
// "subscriptions" (or "batch_subscriptions"). Lock order within a push: group
// membership (read, released), grouping, collection, and the tag map (read) per
// entry; consumers are called after the grouping locks are released. Each table
// is changed only under its own write lock. The state does not own the conduit.
//
// The push path looks nothing up by name or handle: the buffers of this
// conduit hold the state's route while their bindings last (see PushRoute in
// transport/queue_buffer.h; the state closes it when it goes, and never
// touches a buffer then, since the conduit may have freed its buffers
// first), and the "subscriptions" and
// "batch_subscriptions" nodes are remembered once found. Both are owned
// children of the conduit's node, which destroys its payload (this state)
// before its children, and nothing else removes them.
#ifndef KT_STATE_CONDUIT_STATE_H_
#define KT_STATE_CONDUIT_STATE_H_

#include <atomic>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "foundation/read_write_lock.h"
#include "foundation/sync_map.h"
#include "kt/buffer.h"
#include "kt/conduit.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {

// The group id of a metric that is not grouped.
constexpr unsigned int kUngrouped = 0xFFFFFFFF;

class ConduitState : public PathData {
 public:
  // Group key (the publisher's handle) -> group id -> the group's metrics.
  template <typename Members>
  using ByGroup = std::unordered_map<unsigned long, std::unordered_map<unsigned int, Members>>;

  ConduitState(IConduit* conduit, Path* path);
  // Unbinds every metric (each publisher is detached), then unsubscribes every
  // consumer, then empties the tables one at a time.
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
  KT_STATUS PushData(unsigned long metricHandle, const IReadBuffer* buffer);
  // Hands a time-based sample to every subscribed consumer at once, with the
  // tag 199 and no sizes. Always succeeds.
  KT_STATUS PushDataForTimeBasedMetric(unsigned long metricHandle, void* data);
  // Delivers the metric's samples one at a time to the batched consumers.
  KT_STATUS AddBatchMetric(unsigned long metricHandle);

  IConduit* m_conduit;
  // The tables of the push, filled by the client manager.
  SyncMap<unsigned long, unsigned long> m_tags;  // metric -> tag
  std::unordered_map<unsigned long, const IReadBuffer*> m_pending;  // metric -> last buffer pushed
  SyncMap<unsigned long, std::pair<unsigned long, unsigned int>> m_groups;  // metric -> (key, id)
  ByGroup<std::unordered_set<unsigned long>> m_groupTemplate;  // every member
  ByGroup<std::unordered_set<unsigned long>> m_groupExpected;  // members awaited this cycle
  ReadWriteLock m_groupingLock;
  ByGroup<std::vector<unsigned long>> m_collectedHandles;  // arrival order
  ByGroup<std::vector<const IReadBuffer*>> m_collectedBuffers;  // parallel to the handles
  ReadWriteLock m_collectionLock;
  std::unordered_set<unsigned long> m_batchMetrics;  // under the grouping lock

 private:
  struct Cycle;
  typedef std::unordered_set<unsigned long>::node_type MemberNode;

  KT_STATUS PushUngrouped(unsigned long metricHandle, const IReadBuffer* buffer);
  bool CollectGrouped(unsigned long metricHandle, const IReadBuffer* buffer,
                      std::pair<unsigned long, unsigned int> group, Cycle* cycle);
  // Makes `expected` a copy of `members`, reusing the set nodes of earlier
  // cycles. Under the grouping lock.
  void RefillExpected(std::unordered_set<unsigned long>& expected,
                      const std::unordered_set<unsigned long>& members);
  void Deliver(Cycle& cycle);
  // Calls every subscribed consumer under the write lock of "subscriptions":
  // consumers of one conduit are called one push at a time.
  void CallConsumers(unsigned int count, unsigned long* handles, const unsigned long* tags,
                     const void** data, unsigned long* sizes);
  void ForgetMetric(unsigned long metricHandle);
  bool LookUpTag(unsigned long metricHandle, unsigned long* tag);
  // The child `name` of the conduit's node, remembered in `cached` once
  // found; null while there is none.
  Path* FixedChild(std::atomic<Path*>& cached, const char* name);
  // Attaches `buffer` to `route`, or detaches it (null), when it is a queue
  // buffer; other buffers are left alone.
  static void AttachBuffer(IReadWriteBuffer* buffer, PushRoute* route);

  PushRoute* m_route;                           // made here, closed and let go at destruction
  std::atomic<Path*> m_subscriptionsNode;       // "subscriptions", once found
  std::atomic<Path*> m_batchSubscriptionsNode;  // "batch_subscriptions", once found
  // A cycle's arrays, kept between grouped pushes so that a cycle allocates
  // nothing once they have grown; a push takes it and gives it back.
  std::atomic<Cycle*> m_spareCycle;
  std::vector<MemberNode> m_spareMembers;  // removed from expected sets; under the grouping lock
};

}  // namespace MetricsFramework

#endif  // KT_STATE_CONDUIT_STATE_H_
