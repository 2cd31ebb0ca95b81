#include "host/default_logger.h"

namespace MetricsFramework {

ILogger* DefaultLogger::Create() { return nullptr; }

void DefaultLogger::Log(unsigned int, const char*) {}

}  // namespace MetricsFramework
