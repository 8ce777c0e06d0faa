// SPDX-License-Identifier: Apache-2.0
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
/// Life: encoder created, VencInit, VencPrepare -> per cycle: read the flag, send, fetch, release, pause ->
/// encoder destroyed, context destroyed. The result of VencInit is ignored: when it failed, the first
/// SendFrame fails as well. A failed encoder call ends the worker: the encoder is destroyed, the context is
/// not. Returns 0 after the tear-down, even when destroying the context failed, and 10 after a failed encoder
/// call.
std::int32_t VencProcess(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stopFlag);

/// Creates and binds the context and initialises the encoder; `channel` is not used. Stops at the first
/// failure. Returns 0, or 10 after a failure, which is logged.
std::int32_t VencInit(Ormis::QetContext& context, int channel, Ormis::QetVenc& encoder);

/// Creates the test image in host memory and describes it in `frame`, which points at it without owning it.
/// Returns 0.
std::int32_t VencPrepare(std::unique_ptr<std::uint8_t[]>& testImage, Ormis::ImageData& frame);
