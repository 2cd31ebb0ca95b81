// The module's binary interface: its export table, with one extension, and
// the C functions through which a host configures it (include/kt/net_transport.h).
#include "kt/export_table.h"
#include "kt/net_transport.h"
#include "kt/visibility.h"
#include "net_transport/net_transport.h"

namespace {

MetricsFramework::IExtension* CreateNetTransport() {
  return static_cast<MetricsFramework::IPublisher*>(new kt_net::NetTransport);
}

}  // namespace

extern "C" KT_EXPORT const MetricsFramework::ExtensionExportRow __extension_export_table__[2] = {
    {"NetTransport", MetricsFramework::kExportKindExtension, MetricsFramework::kExportRowMagic, 0,
     &CreateNetTransport},
    {"", 0, 0, 0, nullptr},
};

extern "C" KT_EXPORT MetricsFramework::KT_STATUS KTNetTransportConfigure(const char* key,
                                                                        const char* value) {
  return kt_net::NetTransport::Configure(key, value);
}

extern "C" KT_EXPORT MetricsFramework::KT_STATUS KTNetTransportGetEndpoint(unsigned int index,
                                                                          char* out,
                                                                          unsigned int size) {
  return kt_net::NetTransport::GetEndpoint(index, out, size);
}

extern "C" KT_EXPORT MetricsFramework::KT_STATUS KTNetTransportGetCounter(const char* name,
                                                                         unsigned long* out) {
  return kt_net::NetTransport::GetCounter(name, out);
}
