// LoggerState: the payload of a logger extension's node under "loggers".
//
// It only remembers the logger (owned by the host, not by the state); the
// extension manager's Log walks "loggers" and hands each line to it. Its
// resource type is that of a plain node. The field is written once, when the
// node is filed, and only read afterwards, from any thread.
#ifndef KT_STATE_LOGGER_STATE_H_
#define KT_STATE_LOGGER_STATE_H_

#include "kt/logger.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class LoggerState : public PathData {
 public:
  // Becomes `path`'s payload, holding `logger`.
  LoggerState(ILogger* logger, Path* path);

  // The logger extension; null when the state was filed without one. (Within
  // this class the name hides the global Logger's accessor.)
  ILogger* GetLogger() const { return m_logger; }

 private:
  ILogger* m_logger;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_LOGGER_STATE_H_
