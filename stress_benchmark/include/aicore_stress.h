// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform.h"
#include "stress_register.h"

/// Launcher of "aicStress" (contract: StressLauncher).
void runAicStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                  volatile int& stop);

/// One worker: AICoreInit, then AICoreInfe, then AICoreRelease even when AICoreInfe failed. When AICoreInit
/// fails, the worker ends at once. Returns 0, or 10 when AICoreInit or AICoreInfe failed.
int AICoreStressNode(std::unique_ptr<vorn::StressRegister>& reg, unsigned int index, volatile int& stop);

/// Creates and binds the context, loads the model `file`, creates its inputs and outputs. When the model or
/// its inputs or outputs fail, model and context are released; when the context fails, nothing is. Returns 0,
/// or 10 after a failure, which is logged.
int AICoreInit(Ormis::QetContext& ctx, Ormis::QetDNNHandle& handle, const std::string& file);

/// Runs inferences until `stop` is nonzero. `stop` is read before the first inference and after each pause.
/// Returns 0 when stopped, 10 as soon as an inference fails; the caller logs that.
int AICoreInfe(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stop,
               const Ormis::QetDNNHandle& handle);

/// Releases the model and destroys the context. Both steps are always made; their failures are logged.
/// Returns 0.
int AICoreRelease(Ormis::QetContext& ctx, Ormis::QetDNNHandle& handle);
