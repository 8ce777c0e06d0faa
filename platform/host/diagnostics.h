// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <exception>
#include <new>
#include <string>

#include "ara/log/logging.h"
#include "ormis/qet_error.h"

namespace Ormis::host {

/// The platform's own log context, "QET". Its threshold is the application's.
ara::log::Logger& Log();

/// Runs the body of an operation. An exception that it throws ends here: it is logged and becomes a status.
template <typename Body>
std::int32_t Guarded(const char* operation, Body&& body) {
  const ara::log::SourceLocation here{__FILE__, operation, __LINE__};
  try {
    return body();
  } catch (const std::bad_alloc&) {
    Log().LogError(here) << operation << ": out of memory";
    return kQetOutOfMemory;
  } catch (const std::exception& error) {
    Log().LogError(here) << operation << ": " << error.what();
    return kQetInternal;
  } catch (...) {
    Log().LogError(here) << operation << ": an exception of an unknown kind";
    return kQetInternal;
  }
}

}  // namespace Ormis::host

/// Logs at error level what failed, on which item and what was expected. Its value is the status to return.
#define QET_FAIL(operation, code, pieces)                                                                 \
  ((void)(::Ormis::host::Log().LogError(::ara::log::SourceLocation{__FILE__, operation, __LINE__})        \
          << (operation) << ": " << pieces), /* NOLINT(bugprone-macro-parentheses): an insertion chain */ \
   static_cast<std::int32_t>(code))
