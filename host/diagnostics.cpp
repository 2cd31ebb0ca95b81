#include "host/diagnostics.h"

#include <cstdlib>

namespace MetricsFramework {

bool ConsoleTraceRequested() {
  const char* value = std::getenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE");
  return value != nullptr && value[0] == '1';
}

}  // namespace MetricsFramework
