#include "state/logger_state.h"

namespace MetricsFramework {

LoggerState::LoggerState(ILogger* logger, Path* path) : PathData(path), m_logger(logger) {}

}  // namespace MetricsFramework
