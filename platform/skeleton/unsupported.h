// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "ara/log/logging.h"
#include "ormis/qet_error.h"

namespace Ormis::skeleton {

/// Logs at error level that `operation` is not supported. Returns the status for the operation to return.
inline std::int32_t Unsupported(const char* operation) {
  static const ara::log::Logger& logger =
      ara::log::CreateLogger("QET", "accelerator platform, skeleton", ara::log::LogLevel::kVerbose);
  logger.LogError({__FILE__, operation, __LINE__}) << operation << ": not supported";
  return kQetUnsupported;
}

}  // namespace Ormis::skeleton
