// SPDX-License-Identifier: Apache-2.0
//
// IExtensionHandler, which accepts extensions, and IExtensionManager, through
// which extensions publish metrics and probe types, push samples, dispatch
// remote calls and log.
//
// Ownership: the host makes the manager through the first row of the
// library's export table and owns it; it must remove every extension, then
// destroy the client manager, then the manager. The manager never owns an
// extension: the host keeps each alive from Add until its Remove has returned.
// Everything the manager files for an extension (its node, its metrics, its
// probe types) goes with Remove.
//
// Threads: the host adds every extension with Add and removes it with Remove,
// both from its loading thread. The publishing and routing operations may be
// called from the extensions' own threads at the same time; each returns a
// KT_STATUS (0 on success) and writes its out-parameters only on success. An
// extension that throws from a call the manager makes into it while it files,
// removes or runs it (Load, OnLoad, OnUnload, Unload, a method's Run) fails
// that call with KT_STATUS_INVALID_OPERATION and one log line. A logger that
// throws from Log throws to Log's caller. The slot numbers in the comments are a binary contract: never
// insert, remove or reorder.
#ifndef KT_EXTENSION_MANAGER_H_
#define KT_EXTENSION_MANAGER_H_

#include <string>
#include <utility>
#include <vector>

#include "kt/extension.h"
#include "kt/status.h"
#include "kt/visibility.h"

namespace MetricsFramework {

namespace Metric {
struct Description;
}  // namespace Metric

class IPublisher;
class IProbePublisher;
class IReadBuffer;
class IWriteBuffer;
struct ProbeDesc;

class KT_EXPORT IExtensionHandler : public IExtension {
 public:
  // Slot 0: CastTo (IExtension); slots 1, 2: destructors.
  ~IExtensionHandler() override {}

  // Slot 3: files `extension`, named `name`, under every role it plays.
  // KT_STATUS_INVALID_ARGUMENT for a null `extension` or `name`;
  // KT_STATUS_ALREADY_EXISTS when a role's branch already holds `name`;
  // KT_STATUS_UNSUPPORTED_EXTENSION when it plays no known role.
  virtual KT_STATUS Add(const ExtensionBinaryDesc& desc, const char* name, IExtension* extension,
                        IExtensionLoader* loader) = 0;
  // Slot 4: removes what Add filed for `extension` under `name`. Never fails:
  // a null or unknown extension, or a null name, removes nothing.
  virtual KT_STATUS Remove(const ExtensionBinaryDesc& desc, const char* name,
                           IExtension* extension, IExtensionLoader* loader) = 0;
};

class KT_EXPORT IExtensionManager : public IExtensionHandler {
 public:
  ~IExtensionManager() override {}

  // Slot 5: files a metric under `owner`; stores its handle in
  // *out_metricHandle. KT_STATUS_INVALID_ARGUMENT for a null `owner` or
  // `out_metricHandle`; KT_STATUS_INVALID_OBJECT when `owner` is not a
  // publisher filed by this manager (never added, another registry's, or
  // holding the handle of another kind of node); KT_STATUS_NON_UNIQUE when it
  // has a metric of that uri already.
  virtual KT_STATUS PublishMetric(IPublisher* owner, const Metric::Description& desc,
                                  unsigned long* out_metricHandle) = 0;
  // Slot 6: removes the metric `metricHandle` of `owner`.
  // KT_STATUS_INVALID_ARGUMENT for a null `owner` or a handle of 0;
  // KT_STATUS_INVALID_OBJECT when `owner` is not filed here or has no child
  // `metricHandle` (another publisher's or registry's metric included).
  virtual KT_STATUS UnpublishMetric(IPublisher* owner, unsigned long metricHandle) = 0;
  // Slot 7: replaces the publisher's group order. KT_STATUS_INVALID_OBJECT
  // when `publisher` is null or not filed here; so for slot 8.
  virtual KT_STATUS PublishGroupOrder(IPublisher* publisher, std::vector<std::string>& order) = 0;
  // Slot 8: replaces the publisher's set names.
  virtual KT_STATUS PublishSetNames(
      IPublisher* publisher, const std::vector<std::pair<unsigned int, std::string>>& names) = 0;
  // Slot 9: delivers the oldest committed sample of `data` to the consumers of
  // the conduit `conduitHandle`. KT_STATUS_INVALID_ARGUMENT for a null `data`
  // or a binding the conduit was never told about; KT_STATUS_INVALID_OBJECT
  // when `conduitHandle` names no conduit of this registry.
  virtual KT_STATUS PushDataToConsumers(unsigned long conduitHandle, unsigned long bindingHandle,
                                        const IReadBuffer* data) = 0;
  // Slot 10: runs the remote method filed under `handle`.
  // KT_STATUS_INVALID_ARGUMENT for null buffers or a handle of 0;
  // KT_STATUS_INVALID_OBJECT when `handle` names no remote method of this
  // registry; KT_STATUS_INVALID_OPERATION when the method's Run fails.
  virtual KT_STATUS DispatchRemoteMethod(unsigned long handle, const IReadBuffer* args,
                                         IWriteBuffer* returns) = 0;
  // Slot 11: files a probe type of `publisher`; stores its handle in
  // *out_query. KT_STATUS_INVALID_ARGUMENT for a null `publisher` or
  // `out_query`, or a null desc.m_metrics with a count above 0 (the count must
  // not exceed the array); KT_STATUS_INVALID_OBJECT when `publisher` is not
  // filed here or a listed handle is not a probe metric of it. The name is
  // read up to its NUL or its 256th byte.
  virtual KT_STATUS PublishProbe(IProbePublisher* publisher, const ProbeDesc& desc,
                                 unsigned long* out_query) = 0;
  // Slot 12: removes the probe type `query` of `publisher`.
  // KT_STATUS_INVALID_ARGUMENT for a null `publisher`; KT_STATUS_INVALID_OBJECT
  // when it is not filed here or has no probe type `query`.
  virtual KT_STATUS UnpublishProbe(IProbePublisher* publisher, unsigned long query) = 0;
  // Slot 13: sends `event` with (a, b) to every registered state listener.
  virtual void NotifyState(unsigned int event, unsigned long a, unsigned long b) = 0;
  // Slot 14: formats a line printf-style and hands it to every logger
  // extension. `source` is ignored and may be null. KT_STATUS_INVALID_OPERATION
  // before any logger was added; a null `format` delivers nothing and
  // succeeds.
  virtual KT_STATUS Log(unsigned int level, const char* source, const char* format, ...) = 0;
};

}  // namespace MetricsFramework

// The process-wide extension manager: null until the host has called the
// factory of the export table's first row.
KT_EXPORT MetricsFramework::IExtensionManager* GetExtensionManager();

#endif  // KT_EXTENSION_MANAGER_H_
