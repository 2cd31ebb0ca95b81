// SPDX-License-Identifier: Apache-2.0
//
// IConsumer, the extension that receives metric samples, and IConsumer2, which
// also takes batched samples one at a time.
//
// Samples arrive on the pushing thread (usually the publisher's), one push at a
// time per conduit, while the library holds the lock of the conduit's
// subscriptions: a consumer must not subscribe or unsubscribe from inside a
// callback, and must not commit into a buffer that pushes on commit (two
// consumers feeding each other that way deadlock). The data pointers are valid
// only during the call. The slot numbers
// are a binary contract: never insert, remove or reorder.
#ifndef KT_CONSUMER_H_
#define KT_CONSUMER_H_

#include <cstring>

#include "kt/extension.h"
#include "kt/visibility.h"

namespace MetricsFramework {

// The tag a time-based sample arrives with (a metric published with
// Metric::kFlagTimeBased); its call has no sizes.
constexpr unsigned long kTimeBasedSampleTag = 199;

class KT_EXPORT IConsumer : public virtual IKTExtensionBase {
 public:
  // Slot 0: answers "IConsumer" with this object, "IKTExtensionBase" and
  // "IExtension" with its extension base.
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IConsumer") == 0) return static_cast<IConsumer*>(this);
    return IKTExtensionBase::CastTo(name);
  }
  // Slot 1: `count` samples as parallel arrays: metric handles, tags, data and
  // sizes (sizes is null for a time-based sample, whose tag is
  // kTimeBasedSampleTag).
  virtual void OnMetricUpdated(unsigned int count, unsigned long* metricHandles,
                               const unsigned long* tags, const void** data,
                               unsigned long* sizes) = 0;
  ~IConsumer() override {}  // slots 2, 3
};

class KT_EXPORT IConsumer2 : public IConsumer {
 public:
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IConsumer2") == 0) return static_cast<IConsumer2*>(this);
    return IConsumer::CastTo(name);
  }
  // Slot 4: one sample of a batched metric.
  virtual void OnBatchMetricUpdated(unsigned long metricHandle, unsigned long tag,
                                    const void* data) = 0;
};

}  // namespace MetricsFramework

#endif  // KT_CONSUMER_H_
