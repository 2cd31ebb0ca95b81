// SPDX-License-Identifier: Apache-2.0
//
// IConsoleConsumer: the face through which a host reads what the console
// consumer (examples/console_consumer) has received and says how its samples
// are printed. The host reaches it with CastTo("IConsoleConsumer") on the
// consumer extension. Shared by the module and the host, and compiled against
// include/ only.
//
// The consumer is called on the publishers' threads; every operation here may
// be called from any other thread at the same time. The slot numbers are a
// contract between the module and the host: add at the end only.
#ifndef KT_EXAMPLES_CONSOLE_CONSUMER_CONSOLE_CONSUMER_H_
#define KT_EXAMPLES_CONSOLE_CONSUMER_CONSOLE_CONSUMER_H_

#include <cstdio>
#include <string>
#include <vector>

namespace kt_examples {

// The latest sample of one metric.
struct LatestSample {
  unsigned long handle = 0;
  unsigned long tag = 0;
  double value = 0;            // NaN when the value convention cannot read the sample
  unsigned long received = 0;  // how many samples of the metric arrived
};

// How each sample is printed: one line of text, one JSON object per line, or
// one CSV row (the host prints the header). Every form carries the time the
// sample arrived (UTC, ISO 8601 with milliseconds), the metric, its tag, the
// value and the unit.
enum class SampleFormat : int { kLines = 0, kJson = 1, kCsv = 2 };

class IConsoleConsumer {
 public:
  // Slot 0: where each sample is printed, or null to print nothing (the
  // host's live table). Standard output until set.
  virtual void SetOutput(std::FILE* out) = 0;
  // Slot 1: the name printed with the samples of `handle` (the handle alone
  // until one is set).
  virtual void SetName(unsigned long handle, const std::string& name) = 0;
  // Slot 2: the latest sample of every metric received so far, in the order
  // in which each metric's first sample arrived.
  virtual std::vector<LatestSample> Latest() = 0;
  // Slot 3: how many OnMetricUpdated calls arrived.
  virtual unsigned long Updates() = 0;
  // Slot 4: the unit printed with the samples of `handle` ("" for none).
  virtual void SetUnit(unsigned long handle, const std::string& unit) = 0;
  // Slot 5: how samples are printed from now on; kLines until set.
  virtual void SetFormat(SampleFormat format) = 0;
  // Slot 6: how the samples of `handle` are read (the description's byte1,
  // include/kt/value_convention.h); a double until set. Integers are printed
  // without decimals.
  virtual void SetEncoding(unsigned long handle, unsigned char encoding) = 0;

 protected:
  ~IConsoleConsumer() = default;  // the module owns the object
};

}  // namespace kt_examples

#endif  // KT_EXAMPLES_CONSOLE_CONSUMER_CONSOLE_CONSUMER_H_
