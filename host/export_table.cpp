// The library's export table. The row bytes are described in
// docs/export_table.md.
#include "kt/export_table.h"

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"

namespace MetricsFramework {
namespace {

// The factories behind the rows, each answering its product as an extension.
// The client command method arrives with remote access; until then its row is
// final and its factory answers null.
IExtension* CreateExtensionManager() { return DefaultExtensionManager::Create(); }
IExtension* CreateClientManager() { return DefaultExtensionManager::CreateClientManager(); }
IExtension* CreateClientCommandMethod() { return nullptr; }

}  // namespace
}  // namespace MetricsFramework

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
