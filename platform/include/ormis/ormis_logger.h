// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The application's logger.

#include "ara/log/logging.h"

namespace Ormis {

/// The application's logger, one in a process. Until the application puts its own logger into `logger`, that
/// is a logger of context "TPW" at the most verbose level, so that a log statement always has one.
/// Threads: GetInstance may be called by any thread at any time; the first call creates the object and takes
/// a lock. Signal handlers may call it once it exists: later calls take no lock. `logger` is a plain pointer:
/// replace it before a thread exists that logs through it. A signal handler may interrupt the replacement and
/// sees the old logger or the new one.
class OrmisLogger {
 public:
  /// The one object. It lives until the process ends.
  static OrmisLogger& GetInstance() {
    static OrmisLogger instance;
    return instance;
  }

  /// What log statements write to: never null, not owned.
  ara::log::Logger* logger;

 private:
  OrmisLogger() : logger(&ara::log::CreateLogger("TPW", "TPW", ara::log::LogLevel::kVerbose)) {}
};
static_assert(sizeof(OrmisLogger) == sizeof(void*), "one pointer and nothing else");

}  // namespace Ormis
