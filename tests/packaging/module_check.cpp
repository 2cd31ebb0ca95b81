// Checks an extension module built out of tree against an installed library:
// loads it with dlopen, finds its export table and verifies the first row
// (name, kind, magic, factory) and the end row, then creates the extension
// through the factory. It links the installed library itself, so calling one of
// the library's C functions proves that the installed link interface works.
//
// Usage: module_check MODULE EXPECTED_NAME. Exits 0 when every check passes.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "kt/export_table.h"
#include "kt/extension.h"
#include "kt/platform.h"

namespace {

using namespace MetricsFramework;

int Fail(const char* module, const char* what) {
  std::fprintf(stderr, "module_check: %s: %s\n", module, what);
  return 1;
}

int CheckTable(const char* module, const ExtensionExportRow* rows, const char* name) {
  if (std::strcmp(rows[0].name, name) != 0) return Fail(module, "first row has the wrong name");
  if (rows[0].magic != kExportRowMagic) return Fail(module, "first row has the wrong magic");
  if (rows[0].kind != kExportKindExtension) return Fail(module, "first row is not an extension");
  if (rows[0].factory == nullptr) return Fail(module, "first row has no factory");
  if (rows[1].name[0] != '\0' || rows[1].factory != nullptr)
    return Fail(module, "the table does not end after its one row");
  IExtension* extension = rows[0].factory();
  if (extension == nullptr) return Fail(module, "the factory made nothing");
  const bool answers = extension->CastTo("IExtension") == extension;
  delete extension;
  if (!answers) return Fail(module, "the extension does not answer \"IExtension\"");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return Fail("module_check", "usage: module_check MODULE EXPECTED_NAME");
  if (KTGetCurrentProcessId() != static_cast<int>(getpid()))
    return Fail(argv[1], "the linked library answers a wrong process id");
  void* handle = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return Fail("module_check", dlerror());
  const auto* rows =
      static_cast<const ExtensionExportRow*>(dlsym(handle, "__extension_export_table__"));
  const int result = rows != nullptr ? CheckTable(argv[1], rows, argv[2])
                                     : Fail(argv[1], "no __extension_export_table__");
  dlclose(handle);
  if (result == 0) std::printf("module_check: %s: %s loads and answers\n", argv[1], argv[2]);
  return result;
}
