#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "ormis/export.h"

namespace Ormis {

/// A device context. Opaque to its owner: value-initialise it, hand it to the operations below, destroy it.
/// Plain data; copying it does not create a second context.
struct QetContext {
  std::uint64_t id = 0;        ///< the platform's; 0 while no context has been created in it
  std::string name;            ///< the platform's; never set by callers beyond the empty string
  std::uint32_t deviceId = 0;  ///< callers leave 0, the default device
};
static_assert(sizeof(QetContext) == 40 && offsetof(QetContext, name) == 8 &&
                  offsetof(QetContext, deviceId) == 32,
              "layout of QetContext");

/// Start-up parameters of the process context; an empty string and 0 choose the platform's defaults.
struct QetContextParameters {
  std::string configuration;   ///< the platform's; the host implementation knows only the empty string
  std::uint32_t deviceId = 0;  ///< 0: the default device
};
static_assert(sizeof(QetContextParameters) == 32 && offsetof(QetContextParameters, deviceId) == 24,
              "layout of QetContextParameters");

/// Starts the platform for this process and fills `context`.
/// Requires: not initialised. Threads: the main thread, before any worker exists.
/// Returns 0, or a code; after a failure nothing needs releasing.
ORMIS_API std::int32_t QetInitialize(QetContext& context, const QetContextParameters& parameters);

/// Ends the platform: frees every context, channel, image, encoder and model that was left behind, and says
/// at info level what that was. `context` is the one given to QetInitialize and is emptied. Threads: the main
/// thread, when no other thread is inside the platform. Returns 0, or a code and leaves the platform as it
/// was.
ORMIS_API std::int32_t QetRelease(QetContext& context);

/// Creates a context in `context` (value-initialised, owned by the caller). It is not yet bound to a thread.
/// Requires: QetInitialize succeeded. Threads: any. Returns 0, or a code and leaves `context` as it was.
ORMIS_API std::int32_t QetCreateContext(QetContext& context);

/// Binds `context` to the calling thread: every later channel, image, encoder or model operation of this
/// thread runs in it. Replaces an earlier binding. Returns 0, or a code and leaves the binding as it was.
ORMIS_API std::int32_t QetSetCurrentContext(QetContext& context);

/// Destroys `context`, unbinds it from the calling thread where it is bound, and empties it. What was created
/// in it and not released stays until QetRelease. Returns 0, or a code.
ORMIS_API std::int32_t QetDestroyContext(QetContext& context);

}  // namespace Ormis
