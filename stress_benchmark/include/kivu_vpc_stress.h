// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "platform.h"
#include "stress_register.h"

/// Launcher of "kivuVpcStress" (contract: StressLauncher).
void runVpcStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                  volatile int& stopFlag);

/// One worker: resizes its 1920 x 1080 image to 416 x 234 until stopFlag is nonzero.
/// Life: VpcInit, VpcPerpare -> per cycle: read the flag, resize, pause -> destination, source, channel and
/// context destroyed. The results of VpcInit and VpcPerpare are ignored: when one failed, the first resize
/// fails as well. A failed resize ends the worker without tear-down; a failed step of the tear-down leaves
/// out the later ones. Returns 0 after a complete tear-down, 10 after a failed resize or a failed step of the
/// tear-down.
std::int32_t VPCResize(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stopFlag);

/// Creates and binds the context, creates the channel, then the test image in host memory. `channel` holds
/// the wanted number before the call and the channel's number after it. Stops at the first failure. Returns
/// 0, or 10 after a failure, which is logged.
std::int32_t VpcInit(Ormis::QetContext& context, int& channel, std::unique_ptr<std::uint8_t[]>& testImage);

/// Allocates both images and copies the source image onto itself. `testImage` is not used. Stops at the first
/// failure. Returns 0, or 10 after a failure, which is logged.
std::int32_t VpcPerpare(std::unique_ptr<std::uint8_t[]>& testImage, Ormis::ImageData& source,
                        Ormis::ImageData& destination);
