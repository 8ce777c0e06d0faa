// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "onnx_model.h"

namespace Ormis::host {

/// Results of loading and running a model in a process of its own. `run` counts only where `load` is kQetOk.
struct TrialResult {
  Outcome load;
  Outcome run;
};

// The process gets three arguments: the file, the seconds of processor time that it may take, and the per
// cent of portable::MemoryLimit that it may take. It writes two lines to standard output: kTrialLoaded after
// loading, kTrialRan after the last inference. Each word is followed by a blank and a QetError. Where that is
// not 0, a blank and the reason follow.
constexpr char kTrialLoaded[] = "loaded";
constexpr char kTrialRan[] = "ran";

/// Loads the model file and runs it, in a process of its own that may crash. The engine trusts its models: a
/// hostile or damaged one may read invalid memory, divide by zero, ask for more memory than there is or never
/// end. `load` fails when the process crashes while it loads the model, or takes more time or memory than the
/// settings allow; `run` fails when an inference does so, or fails. The result is remembered until the model
/// file, its file of inputs, one of its files of weights or a limit changes. A trial is logged at info level
/// when it begins. Where the process cannot be started, both are kQetOk, and a warning is logged once.
/// Threads: any; one trial at a time, because each takes the memory of a model.
TrialResult TryModel(const std::string& path);

}  // namespace Ormis::host
