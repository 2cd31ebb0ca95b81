#include "foundation/diagnostics.h"

#include <cstdlib>

namespace MetricsFramework {

namespace {
thread_local const char* t_lastFailureArgument = nullptr;
}  // namespace

void RecordFailureArgument(const char* argument) { t_lastFailureArgument = argument; }

const char* TakeLastFailureArgument() {
  const char* argument = t_lastFailureArgument;
  t_lastFailureArgument = nullptr;
  return argument;
}

bool ConsoleTraceRequested() {
  const char* value = std::getenv("KT_LOG_ONLOAD_CALLS_TO_CONSOLE");
  return value != nullptr && value[0] == '1';
}

}  // namespace MetricsFramework
