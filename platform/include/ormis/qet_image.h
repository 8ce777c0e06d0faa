// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// Images: their memory, channels of the media unit, copy and resize.

#include <cstddef>
#include <cstdint>
#include <string>

#include "ormis/export.h"

namespace Ormis {

/// Pixel formats (`ImageData::imageType`). Rows have no padding: a row of a plane has width x bytes per
/// pixel. The numbers are the platform's; 3 to 8 and those from 16 are no formats.
enum QetImageType : std::uint32_t {
  kQetImageRgb888 = 0,     ///< packed, 3 bytes per pixel
  kQetImageBgr888 = 1,     ///< packed, 3 bytes per pixel
  kQetImageYuv420sp = 2,   ///< luma plane, then interleaved chroma at half width and height (NV12)
  kQetImageYvu420sp = 9,   ///< as 2, chroma order swapped (NV21)
  kQetImageYuv422sp = 10,  ///< luma plane, then interleaved chroma at half width (NV16)
  kQetImageYvu422sp = 11,  ///< as 10, chroma order swapped (NV61)
  kQetImageArgb8888 = 12,  ///< packed, 4 bytes per pixel
  kQetImageAbgr8888 = 13,  ///< packed, 4 bytes per pixel
  kQetImageRgba8888 = 14,  ///< packed, 4 bytes per pixel
  kQetImageBgra8888 = 15,  ///< packed, 4 bytes per pixel
};

/// Who owns the memory of an image (`ImageData::bufferMode`).
enum QetBufferMode : std::uint32_t {
  kQetBufferUser = 0,      ///< `data` points at memory of the caller
  kQetBufferPlatform = 1,  ///< `data` comes from QetImageMallocAligned
};

/// How a resize computes a pixel.
enum QetImageInterpolationType : std::uint32_t {
  kQetInterpolationArea = 1,  ///< mean of the source area that the pixel covers; every source pixel counts
};

/// One image buffer. The layout is the platform's and fixed: 80 bytes, little-endian.
/// Value-initialise it, then set width, height, bufferMode, imageType (and data and dataSize for
/// kQetBufferUser).
struct ImageData {
  std::uint64_t offset00 = 0;      ///< the platform's own, names the memory; never set by callers
  std::string offset08;            ///< the platform's own; never set by callers
  std::uint32_t width = 0;         ///< pixels
  std::uint32_t height = 0;        ///< pixels
  std::uint32_t dataSize = 0;      ///< bytes at `data`; 0 before QetImageMallocAligned, which fills it
  std::uint32_t bufferMode = 0;    ///< a QetBufferMode
  std::uint32_t imageType = 0;     ///< a QetImageType
  std::uint32_t offset34 = 0;      ///< padding, named so that `ImageData{}` zeroes it
  std::uint8_t* data = nullptr;    ///< first byte of the pixels
  std::uint64_t offset40[2] = {};  ///< the platform's own; never set by callers
};
static_assert(sizeof(ImageData) == 80, "size of ImageData");
static_assert(offsetof(ImageData, offset00) == 0x00 && offsetof(ImageData, offset08) == 0x08 &&
                  offsetof(ImageData, width) == 0x20 && offsetof(ImageData, height) == 0x24 &&
                  offsetof(ImageData, dataSize) == 0x28 && offsetof(ImageData, bufferMode) == 0x2c &&
                  offsetof(ImageData, imageType) == 0x30 && offsetof(ImageData, data) == 0x38 &&
                  offsetof(ImageData, offset40) == 0x40,
              "layout of ImageData");

/// Creates a media-unit channel. `channel` holds the number that the caller would like. The platform may
/// replace it; the number that it holds afterwards names the channel. The host has the channels 0 to 255 in
/// every process, and replaces a number that is taken or outside them by the lowest free one. Requires: a
/// current context. Threads: any. Returns 0, or a code (kQetBusy when all are taken) and leaves `channel` as
/// it was.
ORMIS_API std::int32_t QetCreateChannel(int& channel);

/// Destroys a channel. An operation that runs on it in another thread still completes. A later
/// QetCreateChannel may return the same number, so a caller that still uses it may reach another caller's
/// channel; the platform cannot detect that. Requires: a current context. Threads: any. Returns 0, or a code.
ORMIS_API std::int32_t QetDestroyChannel(int channel);

/// Allocates media-unit memory for `image` (width, height, bufferMode 1 and imageType set, data null) and
/// fills `data`, `dataSize` and `offset00`. The memory is zeroed, aligned to 4096 bytes, backed by pages of
/// its own, and belongs to the platform: free it with QetImageDestroy. Until then do not change the record:
/// the operations below refuse one that differs from what was allocated. A copy of the record names the same
/// memory. A record whose memory was freed is refused with kQetUnknownBuffer, even when its address is in use
/// again, and so is a record that holds only the address. Limits: 4294967295 bytes; an even width for the
/// semi-planar types, and an even height for those of 4:2:0. The host's images take at most half of the
/// memory of the machine, or of the process's control group, all together (kQetOutOfMemory). Requires: a
/// current context. Threads: any. Returns 0, or a code and leaves `image` as it was.
ORMIS_API std::int32_t QetImageMallocAligned(ImageData& image);

/// Copies the pixels of `source` into the media-unit memory of `destination` (same size and type).
/// `source` comes from QetImageMallocAligned, or has kQetBufferUser and at least the bytes of its size and
/// type. Both may name the same memory: its pixels are then read and written in place and keep their values.
/// Requires: a current context; `destination` from QetImageMallocAligned. Threads: any; no two calls may
/// share a destination. Returns 0, or a code and leaves the destination as it was.
ORMIS_API std::int32_t QetMemcpyToKivu(const ImageData& source, ImageData& destination);

/// Scales `source` to the destination's width and height into `destination`, on `channel`. Returns when the
/// result is complete. Both images come from QetImageMallocAligned, have one type and are not the same image.
/// `timeoutMs` is -1, wait for the result; the host accepts no other value, because it works on the calling
/// thread. The host accepts sides of at most 16777216 pixels; its results are exact, rounded to nearest, a
/// half upwards. Requires: a current context. Threads: any, each with its own context; no two calls may share
/// a destination; calls on one channel run one after the other. Returns 0, or a code and leaves the
/// destination's pixels unspecified.
ORMIS_API std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                                      QetImageInterpolationType interpolation, int timeoutMs);

/// Frees what QetImageMallocAligned allocated and clears `data`, `dataSize` and `offset00`. Looks at `data`
/// and `offset00` alone: other fields may have changed. Requires: a current context. Threads: any. Returns 0,
/// or a code and leaves `image` as it was.
ORMIS_API std::int32_t QetImageDestroy(ImageData& image);

}  // namespace Ormis
