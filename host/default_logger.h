// DefaultLogger: the library's own logger extension, as silent as the Logger.
// The library never makes one and does not offer it in its export table.
#ifndef KT_HOST_DEFAULT_LOGGER_H_
#define KT_HOST_DEFAULT_LOGGER_H_

#include "kt/logger.h"

namespace MetricsFramework {

class DefaultLogger : public ILogger {
 public:
  // Returns null: no DefaultLogger is ever made by the library.
  static ILogger* Create();

  // Does nothing.
  void Log(unsigned int level, const char* line) override;
};

}  // namespace MetricsFramework

#endif  // KT_HOST_DEFAULT_LOGGER_H_
