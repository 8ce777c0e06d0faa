// The process that libormis.so tries a model file in. Its only argument is the file; standard output takes
// the result.
#include <sys/resource.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <memory>

#include "diagnostics.h"
#include "model_trial.h"

namespace Ormis::host {

// The engine's part of the library asks for it. What there is to say comes back as the result.
ara::log::Logger& Log() {
  return ara::log::CreateLogger("QET", "", ara::log::LogLevel::kOff);
}

namespace {

void Limit(decltype(RLIMIT_CPU) resource, rlim_t limit) {
  const rlimit value{limit, limit};
  // A limit that is stricter already stays.
  (void)setrlimit(resource, &value);
}

void LimitResources() {
  Limit(RLIMIT_CORE, 0);
  Limit(RLIMIT_CPU, kTrialProcessorS);
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)
  // Sanitizers reserve address space without end.
  const auto pages = static_cast<rlim_t>(sysconf(_SC_PHYS_PAGES));
  Limit(RLIMIT_AS, pages / 2 * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)));
#endif
}

void Say(const char* step, const Outcome& outcome) {
  std::cout << step << ' ' << outcome.code;
  if (!outcome.Ok()) std::cout << ' ' << outcome.reason;
  std::cout << std::endl;
}

Outcome Run(OnnxModel& model) {
  // Buffers that cannot be made fail in the caller's process as well, and are told there.
  if (!model.CreateInputs().Ok() || !model.CreateOutputs().Ok()) return {};
  return model.Run();
}

void Try(const char* path) {
  std::unique_ptr<OnnxModel> model;
  const Outcome loaded = OnnxModel::Load(path, model);
  Say(kTrialLoaded, loaded);
  if (loaded.Ok()) Say(kTrialRan, Run(*model));
}

}  // namespace

}  // namespace Ormis::host

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  Ormis::host::LimitResources();
  try {
    Ormis::host::Try(argv[1]);
  } catch (const std::exception&) {
    return 3;  // memory is out: the caller sees how far it came
  }
  // Not through the engine's own ending, which is not what was asked.
  std::_Exit(0);
}
