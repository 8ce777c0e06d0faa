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
/// Life: VpcInit, VpcPerpare -> per cycle: look at the flag, resize, pause -> destination, source, channel,
/// context destroyed. The results of the set-up are not examined: after a failed one the first resize fails,
/// and that ends the worker without tear-down. Returns 0 after a whole tear-down, 10 after a failed resize or
/// tear-down step.
std::int32_t VPCResize(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stopFlag);

/// Creates and binds the context, creates the channel (`channel`: in the wish, out the number) and makes the
/// host test image. Stops at the first failure. Returns 0 or 10.
std::int32_t VpcInit(Ormis::QetContext& context, int& channel, std::unique_ptr<std::uint8_t[]>& testImage);

/// Allocates both images and copies the source into media-unit memory, onto itself; the host test image is
/// not used. Stops at the first failure. Returns 0 or 10.
std::int32_t VpcPerpare(std::unique_ptr<std::uint8_t[]>& testImage, Ormis::ImageData& source,
                        Ormis::ImageData& destination);
