// The library's export table and its process-wide accessor of the extension
// manager. The row bytes are described in docs/export_table.md.
#include "kt/export_table.h"

#include "kt/extension_manager.h"

namespace MetricsFramework {
namespace {

// The factories behind the three rows. The managers and the client command
// method are built by the subsystems that are still to come; until they land,
// the rows are already final and their factories answer null.
IExtension* CreateExtensionManager() { return nullptr; }
IExtension* CreateClientManager() { return nullptr; }
IExtension* CreateClientCommandMethod() { return nullptr; }

}  // namespace

// The process-wide extension manager; set by the first row's factory and never
// cleared by the library.
IExtensionManager* g_processExtensionManager = nullptr;

}  // namespace MetricsFramework

MetricsFramework::IExtensionManager* GetExtensionManager() {
  return MetricsFramework::g_processExtensionManager;
}

extern "C" {

__attribute__((visibility("default"))) extern const MetricsFramework::ExtensionExportRow
    __extension_export_table__[4];

const MetricsFramework::ExtensionExportRow __extension_export_table__[4] = {
    {"DefaultExtensionManager", MetricsFramework::kExportKindManager,
     MetricsFramework::kExportRowMagic, 0, &MetricsFramework::CreateExtensionManager},
    {"DefaultClientManager", MetricsFramework::kExportKindManager,
     MetricsFramework::kExportRowMagic, 0, &MetricsFramework::CreateClientManager},
    {"ClientCommandMethod", MetricsFramework::kExportKindExtension,
     MetricsFramework::kExportRowMagic, 0, &MetricsFramework::CreateClientCommandMethod},
    {"", 0, 0, 0, nullptr},
};

}  // extern "C"
