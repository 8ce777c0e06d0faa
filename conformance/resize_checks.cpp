// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "check.h"
#include "picture.h"
#include "worker.h"

namespace conformance {

namespace {

constexpr std::uint8_t kStale = 0xA5;  // the content of a destination before the resize

std::int32_t Resize(const Channel& channel, const Image& source, const Image& destination) {
  return Ormis::QetImageResize(channel.Number(), source.record, destination.record,
                               Ormis::kQetInterpolationArea, -1);
}

std::size_t Bytes(const Image& image, const Settings& settings) {
  return RowBytes(image.record.width, settings) * image.record.height;
}

std::vector<std::uint8_t> Content(const Image& image, const Settings& settings) {
  return {image.record.data, image.record.data + Bytes(image, settings)};
}

void MakeStale(const Image& image, const Settings& settings) {
  std::memset(image.record.data, kStale, Bytes(image, settings));
}

void Scales(Session& session) {
  struct Sizes {
    std::uint32_t width, height, toWidth, toHeight;
  };
  const Device device;
  const Channel channel(0);
  for (const Sizes& sizes : {Sizes{1920, 1080, 416, 234}, Sizes{640, 480, 256, 320}}) {
    const Picture picture(sizes.width, sizes.height);
    Image source(sizes.width, sizes.height);
    const Image destination(sizes.toWidth, sizes.toHeight);
    picture.PutInto(source.record, session.settings);
    MakeStale(destination, session.settings);
    RequireOk(Resize(channel, source, destination), "QetImageResize");
    picture.RequireScaled(destination.record, session.settings);
  }
}

void InPlaceAtReturn(Session& session) {
  const Device device;
  const Channel channel(0);
  Image source(640, 360);
  const Image destination(320, 180);
  Picture(640, 360).PutInto(source.record, session.settings);
  MakeStale(destination, session.settings);
  RequireOk(Resize(channel, source, destination), "QetImageResize");
  const std::vector<std::uint8_t> atReturn = Content(destination, session.settings);
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  Require(Content(destination, session.settings) == atReturn,
          "the destination changed after QetImageResize had returned");
}

void AgainAndAgain(Session& session) {
  constexpr int kTimes = 50;
  const Device device;
  const Channel channel(0);
  Image source(640, 360);
  const Image destination(320, 180);
  Picture(640, 360).PutInto(source.record, session.settings);
  const std::vector<std::uint8_t> before = Content(source, session.settings);
  std::vector<std::uint8_t> first;
  for (int time = 0; time < kTimes; ++time) {
    MakeStale(destination, session.settings);
    RequireOk(Resize(channel, source, destination), "QetImageResize");
    if (time == 0) first = Content(destination, session.settings);
    const std::string which = "resize " + std::to_string(time + 1);
    Require(Content(destination, session.settings) == first, which + " gave another picture than the first");
    Require(Content(source, session.settings) == before, which + " changed the source");
  }
}

// A device that keeps the source, or its result, from one call to the next shows the picture before.
void RewrittenSource(Session& session) {
  constexpr int kTimes = 4;
  const Device device;
  const Channel channel(0);
  const Picture picture(640, 360);
  const Picture inverted = picture.Inverted();
  Image source(640, 360);
  const Image destination(320, 180);
  for (int time = 0; time < kTimes; ++time) {
    const Picture& next = time % 2 == 0 ? picture : inverted;
    next.PutInto(source.record, session.settings);
    RequireOk(Resize(channel, source, destination), "QetImageResize");
    try {
      next.RequireScaled(destination.record, session.settings);
    } catch (const Failure& failure) {
      throw Failure("picture " + std::to_string(time + 1) + " in one source: " + failure.what());
    }
  }
}

// A worker without a context goes on. Its first resize must fail, so that the worker ends.
void FailsWithoutImages(Session&) {
  const Platform platform;
  RunThreads(1, [](unsigned int, Barrier&) {
    Ormis::ImageData source = EmptyImage(1920, 1080);
    Ormis::ImageData destination = EmptyImage(416, 234);
    const std::int32_t status =
        Ormis::QetImageResize(0, source, destination, Ormis::kQetInterpolationArea, -1);
    RequireFailure(status, "QetImageResize", "for images without memory, on a thread without a context");
    // Any status is right. The call must return.
    if (Ormis::QetImageMallocAligned(source) == 0) (void)Ormis::QetImageDestroy(source);
  });
  const BoundContext context;
  const Channel channel(0);
  const Image whole(416, 234);
  RequireFailure(Ormis::QetImageResize(channel.Number(), EmptyImage(1920, 1080), whole.record,
                                       Ormis::kQetInterpolationArea, -1),
                 "QetImageResize", "for a source without memory");
  RequireFailure(Ormis::QetImageResize(channel.Number(), whole.record, EmptyImage(416, 234),
                                       Ormis::kQetInterpolationArea, -1),
                 "QetImageResize", "for a destination without memory");
}

}  // namespace

std::vector<Check> ResizeChecks() {
  return {
      {"resize.scales",
       "QetImageResize with interpolation 1 and -1 returns 0 and leaves the whole source picture, scaled to "
       "the destination's size, in the whole destination",
       Scales},
      {"resize.in-place-at-return",
       "QetImageResize returns when the result is in the destination, not before", InPlaceAtReturn},
      {"resize.again-and-again",
       "QetImageResize of the same images gives the same picture every time and leaves the source as it is",
       AgainAndAgain},
      {"resize.rewritten-source",
       "QetImageResize shows the picture that the source holds at the call, also after the source was "
       "rewritten and copied onto itself between two calls",
       RewrittenSource},
      {"resize.fails-without-images",
       "QetImageResize of records without memory returns a status other than 0, with and without a context",
       FailsWithoutImages},
  };
}

}  // namespace conformance
