// SPDX-License-Identifier: Apache-2.0
#include "stress_utils.h"

#include <cstddef>
#include <cstring>

#include "log_site.h"

void RandomCvImg(std::uint32_t width, std::int32_t height, std::uint32_t imageType,
                 std::unique_ptr<std::uint8_t[]>& buffer) {
  // Unsigned, because signed overflow is undefined. The conversion back gives the wrapped signed product.
  const std::uint32_t pixels = width * static_cast<std::uint32_t>(height);
  const bool oddWidth = width % 2 != 0;
  const bool oddHeight = height % 2 != 0;

  std::int32_t size = 0;
  const char* fault = nullptr;
  if (imageType <= 1) {
    size = static_cast<std::int32_t>(pixels * 3);
  } else if (imageType >= 12 && imageType <= 15) {
    size = static_cast<std::int32_t>(pixels * 4);
  } else if (imageType == 9 || imageType == 2) {
    if (oddWidth || oddHeight) fault = "For yuv420sp image, width and height should be even number";
    size = static_cast<std::int32_t>(pixels * 3) / 2;
  } else if (imageType == 10 || imageType == 11) {
    if (oddWidth) fault = "For yuv422sp or yvu422sp image, width should be even number";
    size = static_cast<std::int32_t>(pixels * 3);  // 1.5 times what the layout needs; this is deliberate
  } else {
    fault = "Unsported image type";
  }
  if (fault != nullptr) {
    STBM_LOG_ERROR(fault);
    buffer.reset();
    return;
  }

  // Sign-extended: a negative size becomes a huge one, and the allocation throws.
  const auto bytes = static_cast<std::size_t>(std::ptrdiff_t{size});
  std::unique_ptr<std::uint8_t[]> fresh(new std::uint8_t[bytes]);
  std::memset(fresh.get(), 0, bytes);
  buffer = std::move(fresh);
}
