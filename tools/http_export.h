// kt-host --http ADDRESS: the exporter module (exporter/) beside whatever
// command runs. OpenExporter opens the module and sets its address before the
// modules are added; once they are, ServeHttp says where the exporter listens
// and subscribes it to every available metric, this process's and those of
// the mounted peers. Both run on the host's main thread and return kt-host's
// exit status (0 when all went well).
#ifndef KT_TOOLS_HTTP_EXPORT_H_
#define KT_TOOLS_HTTP_EXPORT_H_

#include <string>

#include "host_loader.h"

namespace kt_host {

int OpenExporter(HostLoader& host, const std::string& modulePath, const std::string& address);
int ServeHttp(HostLoader& host, const std::string& modulePath);

}  // namespace kt_host

#endif  // KT_TOOLS_HTTP_EXPORT_H_
