// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "ormis/qet_log.h"

namespace Ormis {

ara::log::LogLevel ParseLogLevel(QetLogLevelType level) {
  const auto number = std::min<std::uint32_t>(level, kQetLogVerbose);
  return static_cast<ara::log::LogLevel>(number);
}

ara::log::LogMode ParseLogMode(QetLogModeType mode) {
  constexpr std::uint32_t kKnownBits = kQetLogRemote | kQetLogFile | kQetLogConsole;
  return static_cast<ara::log::LogMode>(mode & kKnownBits);
}

}  // namespace Ormis
