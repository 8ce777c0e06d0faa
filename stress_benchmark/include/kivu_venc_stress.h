#pragma once

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "platform.h"
#include "stress_register.h"

/// Launcher of "kivuVencStress" (contract: StressLauncher).
void runVencStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                   volatile int& stopFlag);

/// One worker: encodes the same 1920 x 1080 frame until stopFlag is nonzero.
/// Life: encoder made, VencInit, VencPrepare -> per cycle: look at the flag, send, fetch, release, pause ->
/// encoder destroyed, context destroyed. The result of VencInit is not examined: after a failed one SendFrame
/// fails, and that ends the worker with the encoder destroyed and the context left. Returns 0 after the
/// tear-down, 10 after a failed encoder call.
std::int32_t VencProcess(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stopFlag);

/// Creates and binds the context and initialises the encoder; `channel` is not used. Stops at the first
/// failure. Returns 0 or 10.
std::int32_t VencInit(Ormis::QetContext& context, int channel, Ormis::QetVenc& encoder);

/// Makes the host test image and describes it in `frame`, which points at it without owning it. Returns 0.
std::int32_t VencPrepare(std::unique_ptr<std::uint8_t[]>& testImage, Ormis::ImageData& frame);
