#pragma once

#include "ara/log/logging.h"

namespace Ormis {

/// The process-wide logger. Created on first use with context "TPW" at the most verbose level, so that a log
/// statement works before logging is started. The start-up then replaces it by the application's logger.
/// Threads: any may make the first use. The main thread replaces the logger before any other thread exists.
/// A read of `logger` takes no lock; a call of GetInstance that meets the first use waits for its end.
class OrmisLogger {
 public:
  static OrmisLogger& GetInstance() {
    static OrmisLogger instance;
    return instance;
  }

  ara::log::Logger* logger;  ///< never null; not owned

 private:
  OrmisLogger() : logger(&ara::log::CreateLogger("TPW", "TPW", ara::log::LogLevel::kVerbose)) {}
};
static_assert(sizeof(OrmisLogger) == sizeof(void*), "one pointer and nothing else");

}  // namespace Ormis
