#pragma once

#include <string>

#include "onnx_model.h"

namespace Ormis::host {

/// How a model fared in a process of its own. Where `load` failed, there is no `run`.
struct TrialResult {
  Outcome load;
  Outcome run;
};

// What the process says on standard output, a line each: kTrialLoaded when the model is loaded, then
// kTrialRan; either is followed by a blank and a QetError, and, where that is not 0, by a blank and the
// reason.
constexpr char kTrialLoaded[] = "loaded";
constexpr char kTrialRan[] = "ran";
constexpr unsigned int kTrialProcessorS = 20;  ///< processor time that the process may take

/// Loads the model file and runs it once over zeros, in a process that may die of it: the engine trusts its
/// models, and one that is hostile or damaged reads memory that is not there, divides by zero, asks for more
/// memory than there is or never ends. `load` fails when the process died, or took more than 20 s of
/// processor time or half of the machine's memory to load the model; `run` when the inference did. A file
/// that passed is not tried again until it changes. Where the process cannot be started, all is said to be
/// well, and a warning says so once. Threads: any; one trial at a time, as each takes the memory of a model.
TrialResult TryModel(const std::string& path);

}  // namespace Ormis::host
