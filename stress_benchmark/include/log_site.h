// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform.h"

/// The log statement of this program. `pieces` is a chain of insertions. In VencInit the statement
///   STBM_LOG_ERROR("venc init fail, ret = " << ret);
/// writes "VencInit() | venc init fail, ret = 7".
/// When the level is not enabled, the statement opens a record at that level all the same and inserts an
/// empty text; this is deliberate. `pieces` is not evaluated then. Each step gets the singleton again.
/// Threads: any, and signal handlers once the singleton exists.
#define STBM_LOG_AT(location, level, open, pieces)                                                \
  do {                                                                                            \
    const ::ara::log::SourceLocation stbmLocation = (location);                                   \
    if (::Ormis::OrmisLogger::GetInstance().logger->IsEnabled(::ara::log::LogLevel::level)) {     \
      ::Ormis::OrmisLogger::GetInstance().logger->open(stbmLocation)                              \
          << ::ara::core::internal::StringView<char>(stbmLocation.function) << "() | " << pieces; \
    } else {                                                                                      \
      ::Ormis::OrmisLogger::GetInstance().logger->open(stbmLocation) << "";                       \
    }                                                                                             \
  } while (false)

/// The source location of a statement: file, enclosing function, line.
#define STBM_HERE STBM_HERE_AS(__func__)
/// The same with another function name.
#define STBM_HERE_AS(functionName)   \
  ::ara::log::SourceLocation {       \
    __FILE__, functionName, __LINE__ \
  }

#define STBM_LOG_ERROR(pieces) STBM_LOG_AT(STBM_HERE, kError, LogError, pieces)
#define STBM_LOG_WARN(pieces) STBM_LOG_AT(STBM_HERE, kWarn, LogWarn, pieces)
#define STBM_LOG_INFO(pieces) STBM_LOG_AT(STBM_HERE, kInfo, LogInfo, pieces)
#define STBM_LOG_DEBUG(pieces) STBM_LOG_AT(STBM_HERE, kDebug, LogDebug, pieces)
