// ProbeTypeState: the payload of a probe type's node,
// <publisher>/"probe_types"/<name>. It ties the type to its probe metrics
// (each metric links the type's node) and makes probe instances, filed under
// the type's child "instances" with a ProbeState each.
#ifndef KT_STATE_PROBE_TYPE_STATE_H_
#define KT_STATE_PROBE_TYPE_STATE_H_

#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"
#include "registry/registry.h"

namespace MetricsFramework {

class ProbeTypeState : public PathData {
 public:
  // The owner is the publisher's node `publisherPath`.
  ProbeTypeState(Path* publisherPath, Path* path);

  // Links the type to `count` probe metrics of the publisher. All handles are
  // checked first: KT_STATUS_INVALID_OBJECT (and nothing linked) for a handle
  // that is not a child of the publisher or not a probe metric.
  KT_STATUS AttachMetrics(const unsigned long* metrics, unsigned long count);
  // Removes the type's links from the publisher's probe metrics.
  void DetachMetrics();
  // Asks the publisher for a probe of this type and files it; stores the
  // probe's address (the value clients use) in *out.
  // KT_STATUS_INVALID_OBJECT when the publisher makes no probes,
  // KT_STATUS_INVALID_ARGUMENT when it made none this time.
  KT_STATUS CreateProbe(Registry& registry, void* args, unsigned long* out);
};

}  // namespace MetricsFramework

#endif  // KT_STATE_PROBE_TYPE_STATE_H_
