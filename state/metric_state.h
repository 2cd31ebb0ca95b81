// MetricState: the payload of a metric's node under its publisher's node.
//
// It holds a full copy of the metric's description, keeps the availability
// (0x1) and bound (0x2) bits of its flags, and links the nodes of the conduits
// the metric is bound to under its child "bindings". Availability changes are
// told to every consumer that offers IMetricStateListener and to the
// registry's state listeners.
//
// Threads: the description is written by the publisher's calls and read by
// clients; its flags change while clients copy it (a binding, availability),
// so they are read and written under a small lock of their own; the tree's node locks guard "bindings" and the walks over
// "consumers". Listener calls are made under the read lock of "consumers".
#ifndef KT_STATE_METRIC_STATE_H_
#define KT_STATE_METRIC_STATE_H_

#include "kt/metric.h"
#include "foundation/leaf_mutex.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

// The state word of a MetricState while it is being destroyed.
constexpr unsigned long kMetricStateDying = 0xEEEEEEEE;

// State events sent to the registry's listeners.
enum : unsigned int {
  kEventExtensionAdded = 1,  // also: probe type published or unpublished
  kEventExtensionRemoved = 2,
  kEventMetricAvailable = 3,
  kEventMetricUnavailable = 4,
  kEventMetricPublished = 6,
  kEventMetricUnpublished = 7,
};

class MetricState : public PathData {
 public:
  // An empty, available metric. Nothing in the library makes one; it is there
  // for other users of the registry.
  explicit MetricState(Path* path);
  // A copy of `desc`, made available; resource type 8 for a probe metric,
  // else 4. The publisher tells the listeners once it has set the owner.
  MetricState(const Metric::Description& desc, Path* path);
  // Unbinds the metric from every conduit it is bound to.
  ~MetricState() override;

  // A copy of the description with the flags as they stand.
  operator Metric::Description() const;
  // The flags as they stand; sets (on) or clears (off) `bits` of them.
  unsigned int Flags() const;
  void SetFlags(unsigned int bits, bool on);

  // Sets or clears the availability bit and tells the consumers that listen
  // and the registry's listeners (event 3 or 4).
  void UpdateAvailablity(bool available);

  // Marks the metric bound and links `conduitPath` under "bindings". Always
  // succeeds.
  KT_STATUS Bind(Path* conduitPath);
  // Removes the link to `conduitPath` and clears the bound bit when it was the
  // last. KT_STATUS_INVALID_OBJECT when the metric has no "bindings".
  KT_STATUS Unbind(Path* conduitPath);

  // True when the node holds a metric (resource type 4 or 8).
  static bool IsMetric(const PathData* data) {
    return data != nullptr && (data->m_type & (RESOURCE_TYPE_METRIC | RESOURCE_TYPE_PROBE_METRIC));
  }

  Metric::Description m_description;
  // Guards m_description.flags once the state is filed.
  mutable LeafMutex m_flagsLock;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_METRIC_STATE_H_
