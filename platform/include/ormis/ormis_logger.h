#pragma once

#include "ara/log/logging.h"

namespace Ormis {

/// The process-wide logger. Created on first use with context "TPW" at the most verbose level, so that a log
/// statement works before logging is started; the start-up then puts the application's logger in its place.
/// Threads: the first use may come from several threads at once; the replacement belongs to the main thread
/// before any other thread exists. Reads take no lock.
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
