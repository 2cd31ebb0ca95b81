// SPDX-License-Identifier: Apache-2.0
//
// Metric::Description, the record by which a publisher describes a metric and
// by which clients read it back, and IMetricStateListener, which a consumer may
// offer besides IConsumer to hear when metrics come and go.
//
// The record's field order and widths are fixed: it travels between modules
// and, encoded, between processes. Only id, flags, setIds and uri carry
// behaviour in the library; every other field is stored and returned as the
// publisher gave it. The fields a publisher fills, and what clients (kt-host
// among them) read in them, are named beside each field below.
//
// Ownership: a Description is a plain value. PublishMetric copies it;
// GetMetricDescriptor and GetMetrics copy it out, with the library's current
// availability and bound bits in `flags`. It has no synchronisation of its
// own: one copy is used by one thread at a time.
#ifndef KT_METRIC_H_
#define KT_METRIC_H_

#include <cstddef>
#include <string>
#include <vector>

#include "kt/visibility.h"

namespace MetricsFramework {

class Path;

namespace Metric {

// Bits of Description::flags.
enum : unsigned int {
  kFlagAvailable = 0x1,   // kept by the library: the metric can be collected now
  kFlagBound = 0x2,       // kept by the library: bound to at least one conduit
  kFlagProbe = 0x4,       // a probe metric
  kFlagTimeBased = 0x10,  // samples go straight to consumers, unqueued
};

struct Description {
  unsigned int id = 0xFFFFFFFF;          // the publisher's own identifier; 0xFFFFFFFF when not set
  unsigned int flags = 0;                // kFlag* bits; other bits carried unchanged
  std::vector<unsigned int> list1;       // carried unchanged
  unsigned int word1 = 0;                // the tag consumers receive with each sample
  std::vector<unsigned int> setIds;      // the metric sets it can be collected in; a metric
                                         // is available while one of its sets is shared by
                                         // every bound metric of its publisher
  unsigned int word2 = 0;                // carried unchanged
  unsigned char byte1 = 0;               // carried unchanged
  std::string uri;                       // the metric's name: its node under the publisher,
                                         // one whole node name (no '/')
  std::string text1;                     // a one-line description for people
  std::string text2;                     // the unit of the values ("%", "MiB"; "" for none)
  std::string text3;                     // carried unchanged
  std::string text4;                     // carried unchanged
  std::string text5;                     // carried unchanged
  unsigned int word3 = 0;                // carried unchanged
  std::string text6;                     // carried unchanged
  unsigned char byte2 = 0;               // carried unchanged
  unsigned long block[2] = {0, 0};       // copied as one 16-byte block
  unsigned char byte3 = 0;               // carried unchanged
  unsigned int word4 = 0xFFFFFFFF;       // the metric's group within its publisher: the
                                         // samples of one group reach consumers in one call
  unsigned int word5 = 0xFFFFFFFF;       // carried unchanged
};

static_assert(sizeof(Description) == 344, "the description record is 344 bytes");
static_assert(alignof(Description) == 8, "the description record is 8-byte aligned");
static_assert(offsetof(Description, flags) == 4 && offsetof(Description, list1) == 8 &&
                  offsetof(Description, word1) == 32 && offsetof(Description, setIds) == 40 &&
                  offsetof(Description, word2) == 64 && offsetof(Description, byte1) == 68 &&
                  offsetof(Description, uri) == 72 && offsetof(Description, text1) == 104 &&
                  offsetof(Description, text5) == 232 && offsetof(Description, word3) == 264 &&
                  offsetof(Description, text6) == 272 && offsetof(Description, byte2) == 304 &&
                  offsetof(Description, block) == 312 && offsetof(Description, byte3) == 328 &&
                  offsetof(Description, word4) == 332 && offsetof(Description, word5) == 336,
              "description fields at their fixed offsets");

}  // namespace Metric

// Offered by a consumer through a run-time cast or CastTo("IMetricStateListener").
// Called on the thread that changed the metric's availability, while the read
// lock of the registry's "consumers" branch is held: a listener must not add or
// remove consumers from inside the call.
class KT_EXPORT IMetricStateListener {
 public:
  // Slot 0: the framework's interface query; the library never calls it here.
  virtual void* CastTo(const char* name) = 0;
  // Slot 1: the metric `metricHandle` (node `metricPath`) became available.
  virtual void OnMetricAvailable(unsigned long metricHandle, Path* metricPath) = 0;
  // Slot 2: the metric became unavailable.
  virtual void OnMetricUnavailable(unsigned long metricHandle, Path* metricPath) = 0;

 protected:
  ~IMetricStateListener() = default;  // never deleted through this interface
};

}  // namespace MetricsFramework

#endif  // KT_METRIC_H_
