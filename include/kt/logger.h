// SPDX-License-Identifier: Apache-2.0
//
// ILogger: the extension interface through which the extension manager's Log
// delivers formatted lines.
//
// A logger extension is filed under "loggers" when the host adds it. Log may be
// called from any thread, and from several at once: implementations must be
// reentrant. The line is NUL-terminated and at most 1023 characters long.
#ifndef KT_LOGGER_H_
#define KT_LOGGER_H_

#include <cstring>

#include "kt/extension.h"
#include "kt/visibility.h"

namespace MetricsFramework {

class KT_EXPORT ILogger : public virtual IKTExtensionBase {
 public:
  // Slot 0: answers "ILogger" with this object and "IKTExtensionBase" and
  // "IExtension" with its extension base.
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "ILogger") == 0) return static_cast<ILogger*>(this);
    return IKTExtensionBase::CastTo(name);
  }

  // Slot 1: takes one line; `level` is the caller's, passed on unchanged.
  virtual void Log(unsigned int level, const char* line) = 0;

  ~ILogger() override {}  // slots 2, 3
};

}  // namespace MetricsFramework

#endif  // KT_LOGGER_H_
