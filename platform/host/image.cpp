// SPDX-License-Identifier: Apache-2.0
#include "image.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "cache_flush.h"
#include "diagnostics.h"
#include "memory_limit.h"
#include "state.h"

namespace Ormis {
namespace host {

namespace {

constexpr std::size_t kAlignment = 4096;

// By id. Addresses are soon used again: by address, a stale record would name another caller's image.
Table<std::uint64_t, Image> images;

std::atomic<std::uint64_t> allBytes{0};  // of all images

/// Adds the image to the sum of all. Refuses it where they would then take more than half of the memory that
/// this process may use. Linux promises more memory than there is, and ends the process when it is written.
std::int32_t Count(const char* operation, Image& image) {
  const std::uint64_t most = portable::MemoryLimit() / 2;
  std::uint64_t others = allBytes;
  do {
    if (others + image.shape.bytes > most) {
      return QET_FAIL(
          operation, kQetOutOfMemory,
          "no memory for an image of "
              << image.shape.bytes << " bytes beside " << std::to_string(others)
              << " of other images, expected at most " << std::to_string(most)
              << " in all: half of the memory of the machine, or of this process's control group");
    }
  } while (!allBytes.compare_exchange_weak(others, others + image.shape.bytes));
  image.countedBytes = image.shape.bytes;
  return kQetOk;
}

/// Returns null unless the record names a live image and still holds its address.
std::shared_ptr<Image> FindImage(const ImageData& record) {
  std::shared_ptr<Image> image = images.Find(record.offset00);
  return image != nullptr && image->pixels.get() == record.data ? image : nullptr;
}

std::string SizeText(std::uint32_t width, std::uint32_t height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

/// Finds the pixels of a source, in the platform's or in the caller's memory. `image` keeps the platform's
/// alive.
std::int32_t RequireSource(const char* operation, const ImageData& record, std::shared_ptr<Image>& image,
                           const std::uint8_t*& pixels) {
  if (record.bufferMode == kQetBufferUser) {
    ImageShape shape;
    if (const std::int32_t status = DescribeImage(operation, record, shape); status != kQetOk) return status;
    if (record.data == nullptr) {
      return QET_FAIL(operation, kQetInvalidArgument, "source without data, expected the caller's pixels");
    }
    if (record.dataSize < shape.bytes) {
      return QET_FAIL(operation, kQetInvalidSize,
                      "source of " << record.dataSize << " bytes, expected " << shape.bytes << " for "
                                   << SizeText(record.width, record.height) << " of type "
                                   << record.imageType);
    }
    pixels = record.data;
    return kQetOk;
  }
  if (const std::int32_t status = RequireImage(operation, "source", record, image); status != kQetOk) {
    return status;
  }
  pixels = image->pixels.get();
  return kQetOk;
}

/// Reads and writes every word in place. Volatile, because compiler and C library leave out a copy of memory
/// onto itself, and the caller asked for its memory traffic.
void CopyInPlace(std::uint8_t* pixels, std::uint32_t bytes) {
  std::uint32_t at = 0;
  for (; bytes - at >= sizeof(std::uint64_t); at += sizeof(std::uint64_t)) {
    auto* const word = reinterpret_cast<volatile std::uint64_t*>(pixels + at);
    const std::uint64_t value = *word;
    *word = value;
  }
  for (; at < bytes; ++at) {
    auto* const byte = static_cast<volatile std::uint8_t*>(pixels + at);
    const std::uint8_t value = *byte;
    *byte = value;
  }
}

}  // namespace

Image::~Image() {
  allBytes -= countedBytes;
}

std::int32_t DescribeImage(const char* operation, const ImageData& record, ImageShape& shape) {
  const std::uint32_t width = record.width;
  const std::uint32_t height = record.height;
  std::uint32_t widthStep = 1;
  std::uint32_t heightStep = 1;
  ImageShape planes;
  switch (record.imageType) {
    case kQetImageRgb888:
    case kQetImageBgr888:
      planes = {1, {{width, height, 3}}};
      break;
    case kQetImageYuv420sp:
    case kQetImageYvu420sp:
      planes = {2, {{width, height, 1}, {width / 2, height / 2, 2}}};
      widthStep = 2;
      heightStep = 2;
      break;
    case kQetImageYuv422sp:
    case kQetImageYvu422sp:
      planes = {2, {{width, height, 1}, {width / 2, height, 2}}};
      widthStep = 2;
      break;
    case kQetImageArgb8888:
    case kQetImageAbgr8888:
    case kQetImageRgba8888:
    case kQetImageBgra8888:
      planes = {1, {{width, height, 4}}};
      break;
    default:
      return QET_FAIL(operation, kQetUnsupported,
                      "unknown image type " << record.imageType << ", expected 0 to 2 or 9 to 15");
  }
  if (width == 0 || height == 0) {
    return QET_FAIL(operation, kQetInvalidSize,
                    "image of " << SizeText(width, height) << ", expected sides of at least 1");
  }
  if (width % widthStep != 0 || height % heightStep != 0) {
    return QET_FAIL(operation, kQetInvalidSize,
                    "image of " << SizeText(width, height) << " and type " << record.imageType
                                << ", expected an even width" << (heightStep == 2 ? " and height" : ""));
  }
  // Tested before the bytes of a pixel come in, so that no product exceeds 64 bits.
  std::uint64_t bytes = std::uint64_t{width} * height;
  if (bytes <= std::numeric_limits<std::uint32_t>::max()) {
    bytes = 0;
    for (const PlaneShape& plane : planes.planes) bytes += plane.Bytes();
  }
  if (bytes > std::numeric_limits<std::uint32_t>::max()) {
    return QET_FAIL(operation, kQetInvalidSize,
                    "image of " << SizeText(width, height) << " and type " << record.imageType
                                << ", expected at most 4294967295 bytes");
  }
  planes.bytes = static_cast<std::uint32_t>(bytes);
  shape = planes;
  return kQetOk;
}

std::int32_t RequireImage(const char* operation, const char* role, const ImageData& record,
                          std::shared_ptr<Image>& image) {
  if (record.bufferMode != kQetBufferPlatform) {
    return QET_FAIL(
        operation, kQetInvalidArgument,
        role << " with buffer mode " << record.bufferMode << ", expected 1, the platform's memory");
  }
  std::shared_ptr<Image> found = FindImage(record);
  if (found == nullptr) {
    return QET_FAIL(
        operation, kQetUnknownBuffer,
        role << " without memory of the platform, expected a live one from QetImageMallocAligned");
  }
  if (record.imageType != found->type) {
    return QET_FAIL(
        operation, kQetInvalidArgument,
        role << " of type " << record.imageType << ", expected " << found->type << " as it was allocated");
  }
  if (record.width != found->width || record.height != found->height ||
      record.dataSize != found->shape.bytes) {
    return QET_FAIL(operation, kQetInvalidSize,
                    role << " of " << SizeText(record.width, record.height) << " and " << record.dataSize
                         << " bytes, expected " << SizeText(found->width, found->height) << " and "
                         << found->shape.bytes << " bytes as it was allocated");
  }
  image = std::move(found);
  return kQetOk;
}

Leftover ReclaimImages() noexcept {
  Leftover left;
  for (const auto& [id, image] : images.TakeAll()) {
    ++left.count;
    left.bytes += image->shape.bytes;
  }
  return left;
}

}  // namespace host

std::int32_t QetImageMallocAligned(ImageData& image) {
  constexpr const char* kOperation = "QetImageMallocAligned";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireContext(kOperation); status != kQetOk) return status;
    if (image.bufferMode != kQetBufferPlatform) {
      return QET_FAIL(kOperation, kQetInvalidArgument,
                      "buffer mode " << image.bufferMode << ", expected 1, the platform's memory");
    }
    if (image.data != nullptr) {
      return QET_FAIL(kOperation, kQetInvalidArgument, "the record has data already, expected none");
    }
    auto made = std::make_shared<host::Image>();
    if (const std::int32_t status = host::DescribeImage(kOperation, image, made->shape); status != kQetOk) {
      return status;
    }
    if (const std::int32_t status = host::Count(kOperation, *made); status != kQetOk) return status;
    made->width = image.width;
    made->height = image.height;
    made->type = image.imageType;
    void* memory = nullptr;
    if (::posix_memalign(&memory, host::kAlignment, made->shape.bytes) != 0) {
      return QET_FAIL(kOperation, kQetOutOfMemory,
                      "no memory for an image of " << host::SizeText(image.width, image.height) << ", "
                                                   << made->shape.bytes << " bytes");
    }
    made->pixels.reset(static_cast<std::uint8_t*>(memory));
    // Zeroed by writing. Memory that comes zeroed from the kernel is one shared page until it is written, and
    // reads of that page stay in the cache.
    std::memset(memory, 0, made->shape.bytes);

    const std::uint32_t bytes = made->shape.bytes;
    std::uint8_t* const data = made->pixels.get();
    const std::uint64_t id = host::NextId();
    host::images.Add(id, std::move(made));
    image.offset00 = id;
    image.data = data;
    image.dataSize = bytes;
    return kQetOk;
  });
}

std::int32_t QetMemcpyToKivu(const ImageData& source, ImageData& destination) {
  constexpr const char* kOperation = "QetMemcpyToKivu";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireContext(kOperation); status != kQetOk) return status;
    std::shared_ptr<host::Image> to;
    if (const std::int32_t status = host::RequireImage(kOperation, "destination", destination, to);
        status != kQetOk) {
      return status;
    }
    std::shared_ptr<host::Image> from;
    const std::uint8_t* pixels = nullptr;
    if (const std::int32_t status = host::RequireSource(kOperation, source, from, pixels); status != kQetOk) {
      return status;
    }
    if (source.imageType != to->type) {
      return QET_FAIL(kOperation, kQetInvalidArgument,
                      "source of type " << source.imageType << ", expected the destination's " << to->type);
    }
    if (source.width != to->width || source.height != to->height) {
      return QET_FAIL(kOperation, kQetInvalidSize,
                      "source of " << host::SizeText(source.width, source.height)
                                   << ", expected the destination's "
                                   << host::SizeText(to->width, to->height));
    }
    if (pixels == to->pixels.get()) {
      host::CopyInPlace(to->pixels.get(), to->shape.bytes);
    } else {
      // memmove: a caller's record may name a part of the destination's memory.
      std::memmove(to->pixels.get(), pixels, to->shape.bytes);
      portable::FlushFromCaches(pixels, to->shape.bytes);
    }
    portable::FlushFromCaches(to->pixels.get(), to->shape.bytes);
    return kQetOk;
  });
}

std::int32_t QetImageDestroy(ImageData& image) {
  constexpr const char* kOperation = "QetImageDestroy";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireContext(kOperation); status != kQetOk) return status;
    if (host::FindImage(image) == nullptr || host::images.Take(image.offset00) == nullptr) {
      return QET_FAIL(kOperation, kQetUnknownBuffer,
                      "image without memory of the platform, expected a live one from QetImageMallocAligned");
    }
    image.offset00 = 0;
    image.data = nullptr;
    image.dataSize = 0;
    return kQetOk;
  });
}

}  // namespace Ormis
