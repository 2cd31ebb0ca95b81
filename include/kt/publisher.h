// SPDX-License-Identifier: Apache-2.0
//
// IPublisher, the extension that publishes metrics, and IBoundMetric, the
// object through which a publisher writes one metric's samples into the buffer
// of one conduit.
//
// Binding: when a consumer subscribes to a metric, the library asks the
// publisher to BindMetric it to a conduit's buffer. The publisher makes an
// IBoundMetric (it owns it) and is handed the buffer's write side through
// AttachBuffer; from then on it may Reserve and Commit samples there, from its
// own thread. DetachBuffer ends that: the publisher must stop writing into the
// buffer before it returns. UnbindMetric gives the bound metric back.
//
// Unloading: when the host removes a publisher, the library calls OnUnload
// before it destroys the publisher's node. The publisher must then detach and
// release its bound metrics and stop writing into any buffer: buffers go back
// to their conduits' pools and are reused.
//
// The slot numbers in the comments are a binary contract: never insert,
// remove or reorder.
#ifndef KT_PUBLISHER_H_
#define KT_PUBLISHER_H_

#include <cstring>

#include "kt/buffer.h"
#include "kt/extension.h"
#include "kt/visibility.h"

namespace MetricsFramework {

class Path;

class KT_EXPORT IBoundMetric {
 public:
  virtual ~IBoundMetric() {}  // slots 0, 1
  // Slot 2: the write side of the binding's buffer for the conduit
  // `conduitHandle` (null when the binding has no buffer).
  virtual void AttachBuffer(unsigned long conduitHandle, IWriteBuffer* buffer) = 0;
  // Slot 3: stop writing into the buffer of `conduitHandle`.
  virtual void DetachBuffer(unsigned long conduitHandle) = 0;
  // Slot 4: the handle of the metric this object writes. The library never
  // calls it.
  virtual unsigned long GetMetricHandle() = 0;
  // Slot 5: whether a buffer of `conduitHandle` is attached. The library never
  // calls it.
  virtual bool IsAttached(unsigned long conduitHandle) = 0;
  // Slot 6: write out what is held for `conduitHandle`.
  virtual void Flush(unsigned long conduitHandle) = 0;
};

class KT_EXPORT IPublisher : public virtual IKTExtensionBase {
 public:
  // Slot 0: answers "IPublisher" with this object, "IKTExtensionBase" and
  // "IExtension" with its extension base.
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IPublisher") == 0) return static_cast<IPublisher*>(this);
    return IKTExtensionBase::CastTo(name);
  }
  // Slot 1: makes the object through which the metric `metricHandle` is written
  // into `buffer` of the conduit node `conduitPath`; null when it cannot.
  virtual IBoundMetric* BindMetric(unsigned long metricHandle, Path* conduitPath,
                                   IReadWriteBuffer* buffer, IBoundMetric** out) = 0;
  // Slot 2: releases a bound metric made by BindMetric.
  virtual void UnbindMetric(unsigned long metricHandle, IBoundMetric* bound) = 0;
  ~IPublisher() override {}  // slots 3, 4
  // Slot 5: called once the publisher is filed, on the host's loading thread.
  virtual void OnLoad() = 0;
  // Slot 6: the publisher is being removed: detach and release every bound
  // metric and stop writing.
  virtual void OnUnload() = 0;
};

}  // namespace MetricsFramework

#endif  // KT_PUBLISHER_H_
