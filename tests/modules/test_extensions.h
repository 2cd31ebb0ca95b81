// The faces through which the host scenario test drives the modules here, each
// answered by CastTo under its own name; like any module, include/ only.
#ifndef KT_TESTS_MODULES_TEST_EXTENSIONS_H_
#define KT_TESTS_MODULES_TEST_EXTENSIONS_H_

#include <string>
#include <vector>

namespace kt_test {

// "ITestPublisher": publishes, on OnLoad, "cpu" (tag 11, ungrouped) and "user"
// (tag 21) and "system" (tag 22) in group 1.
struct ITestPublisher {
  // Commits one sample of the metric `uri`; false when it is not bound.
  virtual bool Write(const char* uri, const std::string& bytes) = 0;
};

// "ITestConsumer": every call of OnMetricUpdated as "handle tag bytes;" a sample.
struct ITestConsumer {
  std::vector<std::string> calls;
};

}  // namespace kt_test

#endif  // KT_TESTS_MODULES_TEST_EXTENSIONS_H_
