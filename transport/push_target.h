// IPushTarget: what a queue buffer delivers its samples to when it is bound
// through a conduit's node, and PushRoute, the shared way from the buffer to
// it.
//
// The transport knows nothing of the layers above it: the payload of a
// conduit's node implements IPushTarget, and the buffers of that conduit
// reach it through this face alone, either through an attached route or by
// casting the payload of the conduit's node.
//
// Threads: a target is called from the producers' threads and from whoever
// flushes; it synchronises itself.
#ifndef KT_TRANSPORT_PUSH_TARGET_H_
#define KT_TRANSPORT_PUSH_TARGET_H_

#include <atomic>

#include "kt/buffer.h"
#include "kt/status.h"

namespace MetricsFramework {

class IPushTarget {
 public:
  // Delivers the oldest sample of `buffer`, a buffer of the metric
  // `metricHandle`, to the consumers, and releases it.
  virtual KT_STATUS PushData(unsigned long metricHandle, const IReadBuffer* buffer) = 0;
  // Hands a sample that was never queued straight to the consumers.
  virtual KT_STATUS PushDataForTimeBasedMetric(unsigned long metricHandle, void* data) = 0;

 protected:
  ~IPushTarget() = default;  // never deleted through this face
};

// PushRoute: the way from a buffer to the target it is bound through, shared
// by that target and its buffers so that either may go first. The target
// makes it, closes it when it is destroyed (Target() is null from then on)
// and lets go; each buffer holds it while attached; the last holder frees it.
// Threads: any; Target() may be read while the target closes it, but pushes
// that use the target must have ended before the target is destroyed, as they
// must for a push routed by the manager.
class PushRoute {
 public:
  // The maker holds the new route.
  explicit PushRoute(IPushTarget* target) : target(target), holders(1) {}
  PushRoute(const PushRoute&) = delete;
  PushRoute& operator=(const PushRoute&) = delete;

  IPushTarget* Target() const { return target.load(std::memory_order_acquire); }
  void Close() { target.store(nullptr, std::memory_order_release); }
  void Hold() { holders.fetch_add(1, std::memory_order_relaxed); }
  // Lets go; the last holder frees the route.
  void Release() {
    if (holders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  ~PushRoute() = default;

  std::atomic<IPushTarget*> target;
  std::atomic<int> holders;
};

}  // namespace MetricsFramework

#endif  // KT_TRANSPORT_PUSH_TARGET_H_
