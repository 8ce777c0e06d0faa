// SPDX-License-Identifier: Apache-2.0

// Preloaded into the program, before the platform and the log. Writes the name of each call to the file that
// RECORD_CALLS names, then calls the real function. When RAISE_SIGINT_IN_INITIALIZE is set, it raises SIGINT
// inside the platform's start. When HOLD_RELEASE names a file, the platform's release waits until there is
// one, at most a minute. One write(2) for each call, so it works in signal handlers.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "ara/log/logging.h"
#include "link_names.h"
#include "ormis/qet_context.h"

namespace {

using Initialize = std::int32_t (*)(Ormis::QetContext&, const Ormis::QetContextParameters&);
using Release = std::int32_t (*)(Ormis::QetContext&);
// A member function's object is its first argument.
using LogDebug = ara::log::LogStream (*)(const ara::log::Logger*, const ara::log::SourceLocation&);

struct Recorder {
  int file = -1;
  Initialize initialize = nullptr;
  Release release = nullptr;
  LogDebug logDebug = nullptr;

  void Note(const char* line) const {
    const int error = errno;
    const std::size_t length = std::strlen(line);
    if (write(file, line, length) != static_cast<ssize_t>(length)) std::abort();
    errno = error;
  }
};
Recorder recorder;

template <typename Function>
void Find(const char* linkName, Function& function) {
  function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, linkName));
  if (function == nullptr) std::abort();
}

// Looked up here, because dlsym may not be called in a signal handler.
__attribute__((constructor)) void FindTheReal() {
  Find(LINK_QET_INITIALIZE, recorder.initialize);
  Find(LINK_QET_RELEASE, recorder.release);
  Find(LINK_LOG_DEBUG, recorder.logDebug);
  // Other programs that the program starts, such as a sanitizer's symbolizer, must not load this library.
  if (unsetenv("LD_PRELOAD") != 0) std::abort();
  const char* const path = std::getenv("RECORD_CALLS");
  if (path == nullptr) std::abort();
  recorder.file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (recorder.file < 0) std::abort();
}

}  // namespace

namespace Ormis {

std::int32_t QetInitialize(QetContext& context, const QetContextParameters& parameters) {
  recorder.Note("QetInitialize\n");
  if (std::getenv("RAISE_SIGINT_IN_INITIALIZE") != nullptr && std::raise(SIGINT) != 0) std::abort();
  return recorder.initialize(context, parameters);
}

std::int32_t QetRelease(QetContext& context) {
  recorder.Note("QetRelease\n");
  const char* const file = std::getenv("HOLD_RELEASE");
  for (int i = 0; i < 6000 && file != nullptr && access(file, F_OK) != 0; ++i) (void)usleep(10'000);
  return recorder.release(context);
}

}  // namespace Ormis

namespace ara::log {

// Each run of the signal handler calls this exactly once, at every log level.
LogStream Logger::LogDebug(const SourceLocation& location) const {
  if (std::strcmp(location.function, "SignalHandler") == 0) recorder.Note("SignalHandler\n");
  return recorder.logDebug(this, location);
}

}  // namespace ara::log
