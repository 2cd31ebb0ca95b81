// Logger: the process-wide stream that every operation writes its composed
// failure messages to, and the small vocabulary those messages are made of.
//
// The Logger is deliberately a silent sink: it accepts every call and discards
// it, so diagnostics cost almost nothing and can never fail or change a
// result. A team that wants visible diagnostics adds a logger extension
// (ILogger), which receives the extension manager's Log lines instead.
//
// There is exactly one Logger, built when the library is loaded and never
// destroyed, so that it stays callable from any thread at any time, also while
// other objects are being destroyed at unload. It keeps no state.
#ifndef KT_FOUNDATION_LOGGER_H_
#define KT_FOUNDATION_LOGGER_H_

#include <ostream>
#include <sstream>
#include <string>

#include "foundation/kt_string.h"

namespace MetricsFramework {
class IExtensionLoader;
}  // namespace MetricsFramework

// The level a log tag is registered with; the system registers its tags with 1.
enum LogLevel : unsigned int {
  LOG_LEVEL_NONE = 0,
  LOG_LEVEL_ERROR = 1,
  LOG_LEVEL_WARNING = 2,
  LOG_LEVEL_INFO = 3,
};

// Written to the logger to end a message; the system writes 0.
enum OpCode : unsigned int {
  OPCODE_END_OF_MESSAGE = 0,
};

// A string stream buffer opened for input and output. It exists as a type and
// is never attached to the Logger.
class LogBuffer : public std::stringbuf {
 public:
  LogBuffer() : std::stringbuf(std::ios_base::in | std::ios_base::out) {}
};

class Logger : public std::ostream {
 public:
  Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  void RegisterLogTag(MetricsFramework::KTString tag, LogLevel level);
  // Each opens a message under `tag` and returns this logger.
  Logger& LogError(MetricsFramework::KTString tag);
  Logger& LogWarning(MetricsFramework::KTString tag);
  Logger& LogInfo(MetricsFramework::KTString tag);
  // Always empty: no message is kept.
  MetricsFramework::KTString GetLastMessage();
  // Both answer true: nothing reaches any output.
  bool StreamOutputSupressed();
  bool StreamOutputDisabled();
  void DisableStreamOutput(bool disable);
  void SetLoader(MetricsFramework::IExtensionLoader* loader);

 private:
  unsigned long m_reserved0;
  bool m_flag0;
  bool m_flag1;
  unsigned long m_reserved1;
  unsigned long m_reserved2;
  unsigned long m_reserved3;
};

// The message pieces. Each returns the logger so that one expression carries a
// whole message; none of them writes anything.
Logger& operator<<(Logger& logger, const MetricsFramework::KTString& text);
Logger& operator<<(Logger& logger, const LogLevel& level);
Logger& operator<<(Logger& logger, const char* text);
Logger& operator<<(Logger& logger, const OpCode& code);
// Values of failure messages: names, paths and handles.
Logger& operator<<(Logger& logger, const std::string& text);
Logger& operator<<(Logger& logger, unsigned long value);

// The one global Logger.
Logger& GetLogger();

#endif  // KT_FOUNDATION_LOGGER_H_
