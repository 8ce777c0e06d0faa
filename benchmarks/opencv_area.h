// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

/// OpenCV's area filter on packed RGB24, on the calling thread alone. Sizes in pixels. Returns 0, or -1.
/// A C interface, because OpenCV is built against another C++ standard library.
extern "C" __attribute__((visibility("default"))) int OpenCvArea(const std::uint8_t* source, int sourceWidth,
                                                                 int sourceHeight, std::uint8_t* result,
                                                                 int width, int height);
