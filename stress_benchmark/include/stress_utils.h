// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>

/// Stores a new pixel buffer for a width x height image of `imageType` (a QetImageType) in `buffer`, then
/// frees the buffer that it held before. Despite the function's name every byte is 0. Sizes in bytes: 3wh for
/// types 0, 1, 10 and 11, 3wh/2 for 2 and 9, 4wh for 12 to 15, computed in 32-bit signed arithmetic that
/// wraps. An unknown type, or an odd size where the type needs an even one, is logged and sets `buffer` to
/// null. A failed allocation throws std::bad_alloc and leaves `buffer` as it was. Threads: any.
void RandomCvImg(std::uint32_t width, std::int32_t height, std::uint32_t imageType,
                 std::unique_ptr<std::uint8_t[]>& buffer);
