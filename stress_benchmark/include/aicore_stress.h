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

/// One worker: AICoreInit, then AICoreInfe and always AICoreRelease. Returns 0, or 10 when the set-up or an
/// inference failed.
int AICoreStressNode(std::unique_ptr<vorn::StressRegister>& reg, unsigned int index, volatile int& stop);

/// Creates and binds the context, loads the model `file`, creates its inputs and outputs. A failure from the
/// model on releases model and context; one before that releases nothing. Returns 0 or 10.
int AICoreInit(Ormis::QetContext& ctx, Ormis::QetDNNHandle& handle, const std::string& file);

/// Runs inferences until `stop` is nonzero: looked at before the first one and after each pause. Returns 0
/// when stopped, 10 as soon as an inference fails (the caller logs that).
int AICoreInfe(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stop,
               const Ormis::QetDNNHandle& handle);

/// Releases the model and destroys the context, the second whatever the first gave. Returns 0.
int AICoreRelease(Ormis::QetContext& ctx, Ormis::QetDNNHandle& handle);
