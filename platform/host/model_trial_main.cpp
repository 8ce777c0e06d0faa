// SPDX-License-Identifier: Apache-2.0

// The process in which libormis.so tries a model file. model_trial.h has its arguments and what it writes.
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>

#include "diagnostics.h"
#include "memory_limit.h"
#include "model_trial.h"
#include "prepare_process.h"

namespace Ormis::host {

// onnx_model.cpp needs it. Logs nothing: the result says what there is to say.
ara::log::Logger& Log() {
  return ara::log::CreateLogger("QET", "", ara::log::LogLevel::kOff);
}

namespace {

const char* const kUsage = R"(usage: model_trial FILE SECONDS PERCENT
Loads the model FILE and runs it: once, or twice where it leaves sizes of outputs open. libormis.so starts this
program, because a damaged model may crash it.

  SECONDS    most seconds of processor time
  PERCENT    most memory, in per cent of the machine's or of the control group's limit
  --help     print this help
  --version  print the version
)";

void Limit(int resource, rlim_t limit) {
  rlimit value{};
  (void)getrlimit(resource, &value);
  value.rlim_max = std::min(value.rlim_max, limit);
  value.rlim_cur = value.rlim_max;
  (void)setrlimit(resource, &value);
}

void LimitResources(rlim_t processorS, rlim_t memoryPercent) {
  constexpr bool kLimitsAddressSpace = MODEL_TRIAL_LIMITS_ADDRESS_SPACE;
  Limit(RLIMIT_CORE, 0);
  Limit(RLIMIT_CPU, processorS);
  if (kLimitsAddressSpace) Limit(RLIMIT_AS, portable::MemoryLimit() / 100 * memoryPercent);
}

void Say(const char* step, const Outcome& outcome) {
  std::cout << step << ' ' << outcome.code;
  if (!outcome.Ok()) std::cout << ' ' << outcome.reason;
  std::cout << std::endl;
}

Outcome Run(OnnxModel& model) {
  // Buffers that cannot be made fail in the caller's process as well, which logs the reason. The inference
  // that tells the sizes of outputs must not be repeated there: nothing limits it.
  if (!model.CreateInputs().Ok()) return {};
  if (const Outcome made = model.CreateOutputs(); !made.Ok()) {
    return made.code == kQetInferenceFailure ? made : Outcome{};
  }
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
  stress::PrepareProcess();
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    (void)std::puts("model_trial " STRESS_VERSION);
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    (void)std::fputs(Ormis::host::kUsage, stdout);
    return 0;
  }
  if (argc != 4) {
    (void)std::fputs(Ormis::host::kUsage, stderr);
    return 2;
  }
  // A caller that is killed while it waits takes this process with it.
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  Ormis::host::LimitResources(std::strtoul(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10));
  try {
    Ormis::host::Try(argv[1]);
  } catch (const std::exception&) {
    return 3;  // memory is out: the output shows how far it came
  }
  // Without the engine's clean-up at exit, which is not under test.
  std::_Exit(0);
}
