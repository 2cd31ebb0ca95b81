// SPDX-License-Identifier: Apache-2.0
//
// IClientManager: how a client (a tool that reads metrics) browses the
// registry, subscribes consumers to metrics, drives probes and calls remote
// methods, in this process or, through a proxy, in another.
//
// Handles are the 64-bit registry handles; a parent or root handle of 0 means
// the registry root where an operation says so. Every operation returns a
// KT_STATUS (0 on success) and writes its out-parameters only on success. A
// handle of another registry is unknown unless that registry's process is
// mounted under "peers", whose client manager then answers. Arrays must hold
// the count they are passed with.
//
// Ownership: the host makes the client manager through the second row of the
// library's export table, owns it and destroys it before the extension
// manager. Everything an operation copies out (descriptions, names, vectors)
// is the caller's; the consumers and probes it names stay their owners'.
//
// Threads: the client manager may be called from any thread; its
// synchronisation is the registry's. Operations that reach into extensions
// (subscribing binds the metric at its publisher, probes, remote methods)
// make those calls on the caller's thread; an extension that throws fails the
// operation with KT_STATUS_INVALID_OPERATION. The slot numbers are a binary
// contract: never insert, remove or reorder.
#ifndef KT_CLIENT_MANAGER_H_
#define KT_CLIENT_MANAGER_H_

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kt/buffer.h"
#include "kt/extension.h"
#include "kt/metric.h"
#include "kt/probe.h"
#include "kt/status.h"
#include "kt/visibility.h"

namespace MetricsFramework {

// The description of one registry node.
struct ResourceInfo {
  std::string name;      // the node's own name
  unsigned long data;    // the payload's data word (the module's descriptor word)
  unsigned long kind;    // the payload's resource type: a ResourceKind
  unsigned long parent;  // the parent's handle; 0 at the root
  unsigned long target;  // the handle of the node the payload designates; 0 if none
};
static_assert(sizeof(ResourceInfo) == 64, "a resource description is 64 bytes");

// Values of ResourceInfo::kind. A node without a payload of its own (a
// branch such as "publishers") is a plain node.
enum ResourceKind : unsigned long {
  kResourceConsumer = 1,
  kResourceMetric = 4,        // an ordinary metric
  kResourceProbeMetric = 8,   // a probe metric (Metric::kFlagProbe); GetMetrics lists these
  kResourceNode = 16,         // a plain node
  kResourcePublisher = 32,
  kResourceRemoteMethod = 128,
  kResourceProbe = 256,       // a probe type, and each probe made of it
  kResourceBinding = 512,     // a metric bound to a conduit
  kResourcePeer = ~0ul,       // another process's registry, mounted under "peers"
};

// Told about every element of a batch subscription that failed.
class KT_EXPORT IClientManagerErrorListener {
 public:
  // Slot 0: the metric `metric` failed with `status` (never 0).
  virtual void OnError(unsigned long metric, unsigned int status) = 0;

 protected:
  ~IClientManagerErrorListener() = default;
};

class KT_EXPORT IClientManager : public IExtension {
 public:
  // Slot 0: answers "IClientManager" and "IExtension" with this object.
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IClientManager") == 0) return static_cast<IClientManager*>(this);
    if (std::strcmp(name, "IExtension") == 0) return static_cast<IExtension*>(this);
    return nullptr;
  }
  ~IClientManager() override {}  // slots 1, 2

  // Slot 3: the handle of the node `pathname` names below `root`.
  // KT_STATUS_INVALID_ARGUMENT for a null `out_handle` or `pathname`;
  // KT_STATUS_INVALID_OBJECT for an unknown `root`; KT_STATUS_DOES_NOT_EXIST
  // when no node has that path.
  virtual KT_STATUS GetPath(unsigned long root, const char* pathname,
                            unsigned long* out_handle) const = 0;
  // Slot 4: the number of listed children of `parent`.
  // KT_STATUS_INVALID_ARGUMENT for a null `out_count`; KT_STATUS_INVALID_OBJECT
  // for an unknown `parent`.
  virtual KT_STATUS GetChildCount(unsigned long parent, unsigned int* out_count) const = 0;
  // Slot 5: the handles of the first `count` listed children of `parent`.
  // KT_STATUS_INVALID_SIZE, with nothing written, when it has fewer;
  // KT_STATUS_INVALID_ARGUMENT for a null `out_children` with a count above
  // 0; KT_STATUS_INVALID_OBJECT for an unknown `parent`.
  virtual KT_STATUS GetChildren(unsigned long parent, unsigned long* out_children,
                                unsigned int count) const = 0;
  // Slot 6: appends each node of kind kResourceProbeMetric (8) below `handle`
  // with its description, walking every other node depth first; ordinary
  // metrics (kind 4) are not listed (walk the tree with GetChildren and
  // GetResourceInfo to find those). With `out_groups` and `out_sets`, also
  // the group orders and set names of the publishers met. Never clears
  // `out_metrics`. KT_STATUS_INVALID_OBJECT for an unknown `handle`.
  virtual KT_STATUS GetMetrics(
      unsigned long handle,
      std::vector<std::pair<unsigned long, Metric::Description>>& out_metrics,
      std::vector<std::string>* out_groups, std::map<unsigned int, std::string>* out_sets) const = 0;
  // Slot 7: describes the node `handle`. KT_STATUS_INVALID_ARGUMENT for a
  // null `out`; KT_STATUS_INVALID_OBJECT for an unknown `handle`.
  virtual KT_STATUS GetResourceInfo(unsigned long handle, ResourceInfo* out) const = 0;
  // Slot 8: replaces *out_desc by the description of the metric `metric`.
  // KT_STATUS_INVALID_ARGUMENT for a null `out_desc`; KT_STATUS_INVALID_OBJECT
  // when `metric` (0 included) names no metric.
  virtual KT_STATUS GetMetricDescriptor(unsigned long metric,
                                        Metric::Description* out_desc) const = 0;
  // Slot 9: makes the consumer `consumer` receive the metric `metric`.
  // KT_STATUS_INVALID_ARGUMENT for a metric or consumer of 0;
  // KT_STATUS_INVALID_OBJECT, reported as "conduit", when no conduit leads
  // from the consumer to the metric's process (an unknown consumer, a handle
  // of another kind, a metric of an unmounted registry), and as "metric" when
  // `metric` names no metric; KT_STATUS_NOT_AVAILABLE for an unavailable one.
  virtual KT_STATUS SubscribeMetric(unsigned long consumer, unsigned long metric) = 0;
  // Slot 10: stops it. The same refusals as slot 9; KT_STATUS_DOES_NOT_EXIST
  // or KT_STATUS_INVALID_OBJECT for a metric that was never bound there.
  virtual KT_STATUS UnsubscribeMetric(unsigned long consumer, unsigned long metric) = 0;
  // Slot 11: slot 9 for `count` metrics; KT_STATUS_PARTIAL_FAILURE when any
  // failed, each failure told to `listener` (which may be null).
  // KT_STATUS_INVALID_ARGUMENT for a null `metrics`.
  virtual KT_STATUS SubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                                     unsigned int count,
                                     IClientManagerErrorListener* listener) = 0;
  // Slot 12: slot 10 for `count` metrics, likewise.
  virtual KT_STATUS UnsubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                                       unsigned int count,
                                       IClientManagerErrorListener* listener) = 0;
  // Slot 13: flushes every conduit of the consumer. KT_STATUS_INVALID_ARGUMENT
  // for a consumer of 0; KT_STATUS_INVALID_OBJECT when it names no consumer.
  virtual KT_STATUS FlushMetrics(unsigned long consumer) = 0;
  // Slot 14: runs the remote method `method`; its results are in `returns`
  // when this returns. KT_STATUS_INVALID_ARGUMENT for null buffers or a method
  // of 0; KT_STATUS_INVALID_OBJECT when `method` names no remote method;
  // KT_STATUS_INVALID_OPERATION when the method fails.
  virtual KT_STATUS CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                         IWriteBuffer* returns) = 0;
  // Slot 15: places a probe of the probe type `type`; *out_site identifies it.
  // KT_STATUS_INVALID_ARGUMENT for a null `out_site` or an unknown `type`;
  // KT_STATUS_INVALID_OBJECT when `type` names no probe type.
  virtual KT_STATUS CreateProbe(unsigned long type, void* query, unsigned long* out_site) = 0;
  // Slot 16: removes the probe site `site`. KT_STATUS_INVALID_ARGUMENT, with
  // nothing removed, when `site` names no probe site.
  virtual KT_STATUS DestroyProbe(unsigned long site) = 0;
  // Slots 17 to 20: pass a client's probe events to the probe object whose
  // address is `probe`; they always succeed. A probe of 0 is not called; any
  // other value must be an address CreateProbe handed out.
  virtual KT_STATUS BeginProbe(unsigned long probe, unsigned long a, unsigned long b,
                               Metrics::EventType type, void* context) const = 0;
  virtual KT_STATUS EndProbe(unsigned long probe, unsigned long a, Metrics::EventType type,
                             void* context) const = 0;
  virtual KT_STATUS HandleProbe(unsigned long probe) const = 0;
  virtual KT_STATUS OnChangeStateCommandList(unsigned long probe, void* a, void* b,
                                             Metrics::CommandListState state) const = 0;
};

}  // namespace MetricsFramework

#endif  // KT_CLIENT_MANAGER_H_
