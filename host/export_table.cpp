// The library's export table. The row bytes are described in
// docs/export_table.md.
#include "kt/export_table.h"
#include "kt/visibility.h"

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "remote/client_command_method.h"

namespace MetricsFramework {
namespace {

// The factories behind the rows, each answering its product as an extension.
IExtension* CreateExtensionManager() { return DefaultExtensionManager::Create(); }
IExtension* CreateClientManager() { return DefaultExtensionManager::CreateClientManager(); }
IExtension* CreateClientCommandMethod() { return ClientCommandMethod::Create(); }

}  // namespace
}  // namespace MetricsFramework

extern "C" {

KT_EXPORT extern const MetricsFramework::ExtensionExportRow
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
