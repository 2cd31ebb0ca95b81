#include "foundation/logger.h"

#include <new>

#include "kt/visibility.h"

Logger::Logger()
    : std::ostream(nullptr),
      m_reserved0(0),
      m_flag0(false),
      m_flag1(false),
      m_reserved1(0),
      m_reserved2(0),
      m_reserved3(0) {}

void Logger::RegisterLogTag(MetricsFramework::KTString, LogLevel) {}
Logger& Logger::LogError(MetricsFramework::KTString) { return *this; }
Logger& Logger::LogWarning(MetricsFramework::KTString) { return *this; }
Logger& Logger::LogInfo(MetricsFramework::KTString) { return *this; }
MetricsFramework::KTString Logger::GetLastMessage() { return MetricsFramework::KTString(); }
bool Logger::StreamOutputSupressed() { return true; }
bool Logger::StreamOutputDisabled() { return true; }
void Logger::DisableStreamOutput(bool) {}
void Logger::SetLoader(MetricsFramework::IExtensionLoader*) {}

Logger& operator<<(Logger& logger, const MetricsFramework::KTString&) { return logger; }
Logger& operator<<(Logger& logger, const LogLevel&) { return logger; }
Logger& operator<<(Logger& logger, const char*) { return logger; }
Logger& operator<<(Logger& logger, const OpCode&) { return logger; }
Logger& operator<<(Logger& logger, const std::string&) { return logger; }
Logger& operator<<(Logger& logger, unsigned long) { return logger; }

KT_EXPORT Logger& GetLogger() {
  // Built in static storage and never destroyed: objects destroyed at unload
  // may still write their failure messages.
  alignas(Logger) static unsigned char storage[sizeof(Logger)];
  static Logger* const logger = new (storage) Logger();
  return *logger;
}

namespace {
// The logger exists as soon as the library is loaded.
const bool g_loggerBuilt = (GetLogger(), true);
}  // namespace
