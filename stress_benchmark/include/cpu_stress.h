// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "stress_register.h"

/// Bytes of one copy. Each is read once and written once.
constexpr std::size_t kCopyBytes = 8294400;  // a 1920 x 1080 frame at 4 bytes per pixel

/// Launcher of "cpuStress" (contract: StressLauncher).
void runCpuStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                  const volatile int& stopFlag);

/// One worker: copies its source buffer into its destination buffer until stopFlag is nonzero.
/// Life: allocate and zero both buffers -> per cycle: read the flag, copy, pause -> free both buffers. A
/// cycle that has begun always completes, its pause included.
void MemoryCopy(std::unique_ptr<vorn::StressRegister>& reg, int index, const volatile int& stopFlag);
