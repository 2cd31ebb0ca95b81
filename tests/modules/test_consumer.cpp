// A consumer module built against include/ only, with its own export table.
#include <cstring>
#include <string>
#include <vector>

#include "kt/consumer.h"
#include "kt/export_table.h"
#include "test_extensions.h"

namespace {

using namespace MetricsFramework;

class TestConsumer : public IConsumer, public kt_test::ITestConsumer {
 public:
  void* CastTo(const char* name) override {
    if (std::strcmp(name, "ITestConsumer") == 0) return static_cast<ITestConsumer*>(this);
    return IConsumer::CastTo(name);
  }
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long* tags,
                       const void** data, unsigned long* sizes) override {
    calls.emplace_back();
    for (unsigned int i = 0; i < count; ++i) {
      const char* bytes = static_cast<const char*>(data[i]);
      calls.back().push_back({handles[i], tags[i],
                              sizes != nullptr ? std::string(bytes, sizes[i]) : std::string()});
    }
  }
  std::vector<std::vector<kt_test::TestSample>> Calls() override { return calls; }

 private:
  std::vector<std::vector<kt_test::TestSample>> calls;
};

IExtension* CreateTestConsumer() { return static_cast<IConsumer*>(new TestConsumer); }

}  // namespace

extern "C" __attribute__((visibility("default"))) const ExtensionExportRow
    __extension_export_table__[2] = {
        {"TestConsumer", kExportKindExtension, kExportRowMagic, 0, &CreateTestConsumer},
        {"", 0, 0, 0, nullptr},
};
