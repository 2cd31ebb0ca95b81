// SPDX-License-Identifier: Apache-2.0
//
// IConduit: the extension that supplies the buffers through which metric data
// travels and carries remote-method transactions.
//
// Ownership: the host owns the conduit; the library files it under
// "conduits" when the host adds it, and also makes its own in-process
// conduits. A conduit owns every buffer it makes; CreateBuffer lends one to a
// metric binding and DestroyBuffer takes it back.
//
// Threads: the library calls OnSubscribed, OnUnsubscribed, CreateBuffer and
// DestroyBuffer on the thread of the client that subscribes or unsubscribes,
// and Transact on the thread of the client that calls a remote method; calls
// from several clients may overlap, so a conduit guards its own state. Transact
// runs synchronously. The slot numbers are a binary contract: never insert,
// remove or reorder.
#ifndef KT_CONDUIT_H_
#define KT_CONDUIT_H_

#include <cstring>

#include "kt/buffer.h"
#include "kt/extension.h"
#include "kt/status.h"
#include "kt/visibility.h"

namespace MetricsFramework {

class KT_EXPORT IConduit : public virtual IKTExtensionBase {
 public:
  // Slot 0: answers "IConduit" with this object, "IKTExtensionBase" and
  // "IExtension" with its extension base.
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IConduit") == 0) return static_cast<IConduit*>(this);
    return IKTExtensionBase::CastTo(name);
  }
  // Slot 1: a subscription through this conduit started.
  virtual void OnSubscribed(unsigned long handle) = 0;
  // Slot 2: a subscription through this conduit ended.
  virtual void OnUnsubscribed(unsigned long handle) = 0;
  // Slot 3: lends a buffer to the binding `bindingHandle`; stores it in
  // *outBuffer and returns KT_STATUS_SUCCESS. The library's conduit answers
  // KT_STATUS_INVALID_ARGUMENT for a null `outBuffer`.
  virtual KT_STATUS CreateBuffer(unsigned long bindingHandle, IReadWriteBuffer** outBuffer) = 0;
  // Slot 4: takes back a buffer made by CreateBuffer. The library's conduit
  // ignores null and buffers it did not make.
  virtual void DestroyBuffer(IReadWriteBuffer* buffer) = 0;
  // Slot 5: runs the remote method `methodHandle` with `request`; its results
  // are in `reply` when this returns.
  virtual KT_STATUS Transact(unsigned long methodHandle, const IReadBuffer* request,
                             IWriteBuffer* reply) = 0;
  // Slot 6: the handle under which the far side knows this conduit.
  virtual unsigned long GetRemoteHandle() = 0;
  ~IConduit() override {}  // slots 7, 8
};

}  // namespace MetricsFramework

#endif  // KT_CONDUIT_H_
