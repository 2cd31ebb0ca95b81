// A consumer module built against include/ only, with its own export table.
#include <cstring>

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
    std::string call;
    for (unsigned int i = 0; i < count; ++i)
      call += std::to_string(handles[i]) + ' ' + std::to_string(tags[i]) + ' ' +
              std::string(static_cast<const char*>(data[i]), sizes[i]) + ';';
    calls.push_back(call);
  }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ExtensionExportRow
    __extension_export_table__[2] = {
        {"TestConsumer", kExportKindExtension, kExportRowMagic, 0,
         []() -> IExtension* { return static_cast<IConsumer*>(new TestConsumer); }},
        {"", 0, 0, 0, nullptr},
};
