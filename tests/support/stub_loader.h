// A loader whose every entry does nothing and succeeds: test loaders derive
// from it and override what their test looks at.
#ifndef KT_TESTS_SUPPORT_STUB_LOADER_H_
#define KT_TESTS_SUPPORT_STUB_LOADER_H_

#include "kt/extension.h"

namespace MetricsFramework {
namespace testing_fakes {

class StubLoader : public IExtensionLoader {
 public:
  KT_STATUS LoadModule(const char*) override { return 0; }
  KT_STATUS UnloadModule(const char*) override { return 0; }
  unsigned int GetModuleCount() override { return 0; }
  const ExtensionBinaryDesc* GetModule(unsigned int) override { return nullptr; }
  IExtension* FindExtension(const char*) override { return nullptr; }
  KT_STATUS AddExtension(const char*, IKTExtensionBase*, const ExtensionBinaryDesc*) override {
    return 0;
  }
  KT_STATUS RemoveExtension(IKTExtensionBase*) override { return 0; }
};

}  // namespace testing_fakes
}  // namespace MetricsFramework

#endif  // KT_TESTS_SUPPORT_STUB_LOADER_H_
