#pragma once

#include <cstdint>

#include "ara/log/logging.h"
#include "ormis/export.h"

namespace Ormis {

/// Configured log level, with the numbers of ara::log::LogLevel. A number from a file may be none of these.
enum QetLogLevelType : std::uint32_t {
  kQetLogOff = 0,
  kQetLogFatal = 1,
  kQetLogError = 2,
  kQetLogWarn = 3,
  kQetLogInfo = 4,
  kQetLogDebug = 5,
  kQetLogVerbose = 6,
};

/// Configured log mode: any combination of these bits.
enum QetLogModeType : std::uint32_t {
  kQetLogRemote = 1,
  kQetLogFile = 2,
  kQetLogConsole = 4,
};

/// The level of the same number; a number above 6 is kVerbose.
ORMIS_API ara::log::LogLevel ParseLogLevel(QetLogLevelType level);

/// The mode of the same bits; other bits are ignored.
ORMIS_API ara::log::LogMode ParseLogMode(QetLogModeType mode);

}  // namespace Ormis
