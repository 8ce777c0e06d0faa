// SPDX-License-Identifier: Apache-2.0
#include <mutex>

#include "cache_flush.h"
#include "channel.h"
#include "diagnostics.h"
#include "image.h"
#include "ormis/qet_image.h"
#include "state.h"

namespace Ormis {

namespace {

constexpr int kWaitForResult = -1;

bool HoldsSides(const host::Image& image) {
  return image.width <= host::AreaScaler::kMaxSide && image.height <= host::AreaScaler::kMaxSide;
}

void ScaleAllPlanes(host::AreaScaler& scaler, const host::Image& from, const host::Image& to) {
  const portable::FlushLines flush = portable::CurrentFlush();
  const std::uint8_t* sourcePlane = from.pixels.get();
  std::uint8_t* destinationPlane = to.pixels.get();
  for (std::uint32_t i = 0; i < from.shape.planeCount; ++i) {
    const host::PlaneShape& sourceShape = from.shape.planes[i];
    const host::PlaneShape& destinationShape = to.shape.planes[i];
    scaler.Scale(sourceShape, sourcePlane, destinationShape, destinationPlane, flush);
    sourcePlane += sourceShape.Bytes();
    destinationPlane += destinationShape.Bytes();
  }
  if (flush != nullptr) portable::EndFlush();
}

}  // namespace

std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  constexpr const char* kOperation = "QetImageResize";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireContext(kOperation); status != kQetOk) return status;
    const std::shared_ptr<host::Channel> unit = host::FindChannel(channel);
    if (unit == nullptr) {
      return QET_FAIL(kOperation, kQetUnknownChannel,
                      "no channel " << channel << ", expected a live one from QetCreateChannel");
    }
    if (interpolation != kQetInterpolationArea) {
      return QET_FAIL(
          kOperation, kQetUnsupported,
          "interpolation " << static_cast<unsigned int>(interpolation) << ", expected 1, area average");
    }
    if (timeoutMs != kWaitForResult) {
      return QET_FAIL(kOperation, kQetUnsupported,
                      "time limit of " << timeoutMs << " ms, expected -1, wait for the result");
    }
    std::shared_ptr<host::Image> from;
    if (const std::int32_t status = host::RequireImage(kOperation, "source", source, from);
        status != kQetOk) {
      return status;
    }
    std::shared_ptr<host::Image> to;
    if (const std::int32_t status = host::RequireImage(kOperation, "destination", destination, to);
        status != kQetOk) {
      return status;
    }
    if (from == to) {
      return QET_FAIL(kOperation, kQetInvalidArgument,
                      "source and destination share one memory, expected two images");
    }
    if (from->type != to->type) {
      return QET_FAIL(kOperation, kQetInvalidArgument,
                      "destination of type " << to->type << ", expected the source's " << from->type);
    }
    if (!HoldsSides(*from) || !HoldsSides(*to)) {
      return QET_FAIL(kOperation, kQetUnsupported,
                      "a side above " << host::AreaScaler::kMaxSide << " pixels, expected at most that");
    }

    const std::lock_guard<std::mutex> lock(unit->mutex);
    ScaleAllPlanes(unit->scaler, *from, *to);
    return kQetOk;
  });
}

}  // namespace Ormis
