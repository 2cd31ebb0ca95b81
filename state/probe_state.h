// ProbeState: the payload of one probe instance's node, filed under its type's
// "instances" by the probe's address. It does not own the probe: the publisher
// that made it does.
#ifndef KT_STATE_PROBE_STATE_H_
#define KT_STATE_PROBE_STATE_H_

#include "kt/probe.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class ProbeState : public PathData {
 public:
  ProbeState(Path* publisherPath, unsigned long probeTypeHandle, Metrics::IProbe* probe,
             Path* path);

  // Asks the publisher of the node `publisherPath` (through IProbePublisher)
  // for a probe of the type `probeTypeHandle`; null when it makes none.
  static Metrics::IProbe* CreateProbe(Path* publisherPath, void* args,
                                      unsigned long probeTypeHandle);

  unsigned long GetProbeTypeHandle() const { return probeTypeHandle; }
  Metrics::IProbe* GetProbe() const { return probe; }

 private:
  unsigned long probeTypeHandle;
  Metrics::IProbe* probe;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_PROBE_STATE_H_
