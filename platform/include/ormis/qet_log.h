// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// Log level and log mode as numbers of a configuration file.

#include <cstdint>

#include "ara/log/logging.h"
#include "ormis/export.h"

namespace Ormis {

/// Configured log level, with the numbers of ara::log::LogLevel. A number from a file may be none of these.
enum QetLogLevelType : std::uint32_t {
  kQetLogOff = 0,      ///< LogLevel::kOff
  kQetLogFatal = 1,    ///< LogLevel::kFatal
  kQetLogError = 2,    ///< LogLevel::kError
  kQetLogWarn = 3,     ///< LogLevel::kWarn
  kQetLogInfo = 4,     ///< LogLevel::kInfo
  kQetLogDebug = 5,    ///< LogLevel::kDebug
  kQetLogVerbose = 6,  ///< LogLevel::kVerbose
};

/// Configured log mode: any combination of these bits.
enum QetLogModeType : std::uint32_t {
  kQetLogRemote = 1,   ///< LogMode::kRemote
  kQetLogFile = 2,     ///< LogMode::kFile
  kQetLogConsole = 4,  ///< LogMode::kConsole
};

/// The level of the same number; a number above 6 is kVerbose.
ORMIS_API ara::log::LogLevel ParseLogLevel(QetLogLevelType level);

/// The mode of the same bits; other bits are ignored.
ORMIS_API ara::log::LogMode ParseLogMode(QetLogModeType mode);

}  // namespace Ormis
