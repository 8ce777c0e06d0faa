// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// Start and end of the platform, and the contexts in which its operations run.

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "ormis/export.h"

namespace Ormis {

/// Names a device context. Callers value-initialise it, pass it to the operations below and destroy it, and
/// use none of its members. A copy of the record names the same context.
struct QetContext {
  std::uint64_t id = 0;        ///< set by the platform; 0: no context
  std::string name;            ///< the platform's own; callers leave it empty
  std::uint32_t deviceId = 0;  ///< callers leave 0, the default device
  std::uint32_t offset24 = 0;  ///< padding, named so that `QetContext{}` zeroes it
};
static_assert(sizeof(QetContext) == 40 && offsetof(QetContext, name) == 8 &&
                  offsetof(QetContext, deviceId) == 32,
              "layout of QetContext");

/// Start-up parameters of the process context; an empty string and 0 choose the platform's defaults.
struct QetContextParameters {
  std::string configuration;   ///< defined by the platform; the host's is a file of settings
  std::uint32_t deviceId = 0;  ///< 0: the default device
  std::uint32_t offset1C = 0;  ///< padding, named so that `QetContextParameters{}` zeroes it
};
static_assert(sizeof(QetContextParameters) == 32 && offsetof(QetContextParameters, deviceId) == 24,
              "layout of QetContextParameters");

/// Starts the platform for this process and fills `context`.
/// Requires: not initialised. Threads: the main thread, before any worker exists.
/// Returns 0, or a code; after a failure nothing needs releasing.
ORMIS_API std::int32_t QetInitialize(QetContext& context, const QetContextParameters& parameters);

/// Ends the platform: frees every context, channel, image, encoder and model that still exists, and logs at
/// info level what those were. Requires: `context` is the one that QetInitialize filled; it is emptied.
/// Threads: the main thread, when no other thread is inside the platform. Returns 0, or a code and changes
/// nothing.
ORMIS_API std::int32_t QetRelease(QetContext& context);

/// Creates a context and names it in `context` (value-initialised, owned by the caller). Binds it to no
/// thread. Requires: QetInitialize succeeded. Threads: any. Returns 0, or a code and leaves `context` as it
/// was.
ORMIS_API std::int32_t QetCreateContext(QetContext& context);

/// Binds `context` to the calling thread: later channel, image, encoder and model operations of this thread
/// run in it. Replaces an earlier binding. Threads: any. Returns 0, or a code and leaves the binding as it
/// was.
ORMIS_API std::int32_t QetSetCurrentContext(QetContext& context);

/// Destroys the context that `context` names, and empties the record. Threads that are bound to it have no
/// context then. What was created in it and not released stays until QetRelease. Threads: any. Returns 0, or
/// a code and changes nothing.
ORMIS_API std::int32_t QetDestroyContext(QetContext& context);

}  // namespace Ormis
