// SPDX-License-Identifier: Apache-2.0
//
// The C functions of the exporter module (libkt_exporter.so), which a host
// finds with dlsym after dlopen, before it adds the module's extension:
//
//   void* module = dlopen("libkt_exporter.so", RTLD_NOW | RTLD_LOCAL);
//   auto configure = (KTExporterConfigureFunction)dlsym(module, "KTExporterConfigure");
//   configure("address", "127.0.0.1:0");  // then add the "Exporter" extension
//
// The settings are the module's: they apply to each exporter that starts
// after them (an exporter starts serving when the manager files it, and stops
// when it is removed). Both functions may be called from any thread.
#ifndef KT_EXPORTER_EXPORTER_CONFIG_H_
#define KT_EXPORTER_EXPORTER_CONFIG_H_

#include "kt/status.h"

extern "C" {

// Sets `key` to `value`. Keys:
//   address  where to listen: "HOST:PORT" with an IPv4 address or
//            "localhost" (127.0.0.1), or ":PORT" for 127.0.0.1; port 0 lets
//            the system choose. Default 127.0.0.1:9464.
//   threads  HTTP worker threads, 4 to 1024; default 64. Each request in
//            progress, and each open live stream, holds one.
//   streams  live streams served at once, 1 to threads - 2; default half the
//            threads. Further ones are answered 503.
//   process  the process label of this process's metrics; default the
//            program's name.
// KT_STATUS_INVALID_ARGUMENT, with nothing changed, for a null or unknown key
// or a value out of its range.
MetricsFramework::KT_STATUS KTExporterConfigure(const char* key, const char* value);

// Writes where the running exporter listens ("127.0.0.1:43121", the chosen
// port for port 0) into `out` (`size` bytes, NUL included). When none is
// listening returns KT_STATUS_NOT_AVAILABLE and writes why (the address that
// could not be listened on and the reason, or that none has started).
// KT_STATUS_INVALID_ARGUMENT for a null `out`; KT_STATUS_INVALID_SIZE when
// the text does not fit (nothing written).
MetricsFramework::KT_STATUS KTExporterGetAddress(char* out, unsigned int size);

typedef MetricsFramework::KT_STATUS (*KTExporterConfigureFunction)(const char*, const char*);
typedef MetricsFramework::KT_STATUS (*KTExporterGetAddressFunction)(char*, unsigned int);

}  // extern "C"

#endif  // KT_EXPORTER_EXPORTER_CONFIG_H_
