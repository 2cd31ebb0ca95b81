// The faces through which the host scenario test drives the extensions of
// tests/modules: each module's extension answers CastTo with one of them.
// Compiled against include/ only, like any module.
#ifndef KT_TESTS_MODULES_TEST_EXTENSIONS_H_
#define KT_TESTS_MODULES_TEST_EXTENSIONS_H_

#include <string>
#include <vector>

namespace kt_test {

// The publisher publishes, on OnLoad, "cpu" (tag 11, ungrouped) and "user"
// (tag 21) and "system" (tag 22) in group 1.
class ITestPublisher {
 public:
  // Reserves, fills and commits one sample of the metric named `uri` into its
  // attached buffer; false when the metric is not bound.
  virtual bool Write(const char* uri, const std::string& bytes) = 0;
  // How many bound metrics the publisher holds.
  virtual int BoundCount() = 0;
  // Whether OnUnload has been called.
  virtual bool Unloaded() = 0;

 protected:
  ~ITestPublisher() = default;
};

struct TestSample {
  unsigned long handle;
  unsigned long tag;
  std::string bytes;
};

class ITestConsumer {
 public:
  // Every call of OnMetricUpdated, with its samples.
  virtual std::vector<std::vector<TestSample>> Calls() = 0;

 protected:
  ~ITestConsumer() = default;
};

}  // namespace kt_test

#endif  // KT_TESTS_MODULES_TEST_EXTENSIONS_H_
