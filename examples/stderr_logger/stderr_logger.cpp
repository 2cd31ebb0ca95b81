// SPDX-License-Identifier: Apache-2.0
//
// StderrLogger: writes every line the extension manager's Log hands it to
// standard error, after a local time stamp with milliseconds and the level.
// Log may run on several threads at once: each line is composed first and
// written with one call, so lines do not interleave.
#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "kt/export_table.h"
#include "kt/logger.h"
#include "kt/visibility.h"

namespace {

using namespace MetricsFramework;

class StderrLogger : public ILogger {
 public:
  void Log(unsigned int level, const char* line) override {
    if (line == nullptr) return;
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    size_t length = std::strlen(line);
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) --length;
    std::fprintf(stderr, "%s.%03ld [%u] %.*s\n", stamp, static_cast<long>(now.tv_usec / 1000),
                 level, static_cast<int>(length), line);
  }
};

IExtension* CreateStderrLogger() { return static_cast<ILogger*>(new StderrLogger); }

}  // namespace

extern "C" KT_EXPORT const ExtensionExportRow
    __extension_export_table__[2] = {
        {"StderrLogger", kExportKindExtension, kExportRowMagic, 0, &CreateStderrLogger},
        {"", 0, 0, 0, nullptr},
};
