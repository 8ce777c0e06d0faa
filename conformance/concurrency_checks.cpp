// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "check.h"
#include "encoder.h"
#include "picture.h"
#include "worker.h"

namespace conformance {

namespace {

constexpr unsigned int kLevel = 10;
constexpr unsigned int kCycles = 5;

// Small copies of the benchmark's workers: the same calls in the same order. Every status must be 0.

void ResizeWorker(unsigned int index, const Settings& settings, Barrier& barrier) {
  // Each worker has different sizes, so a result in another worker's image is noticed.
  const std::uint32_t width = 320 + 16 * index;
  const Picture picture(width, 180);
  Ormis::QetContext context;
  RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
  RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
  Wait(barrier);
  int channel = static_cast<int>(index);
  RequireOk(Ormis::QetCreateChannel(channel), "QetCreateChannel");
  Ormis::ImageData source = EmptyImage(width, 180);
  RequireOk(Ormis::QetImageMallocAligned(source), "QetImageMallocAligned");
  RequireOk(Ormis::QetMemcpyToKivu(source, source), "QetMemcpyToKivu");
  picture.PutInto(source, settings);
  Ormis::ImageData destination = EmptyImage(width / 2, 90);
  RequireOk(Ormis::QetImageMallocAligned(destination), "QetImageMallocAligned");
  Wait(barrier);
  for (unsigned int cycle = 0; cycle < kCycles; ++cycle) {
    RequireOk(Ormis::QetImageResize(channel, source, destination, Ormis::kQetInterpolationArea, -1),
              "QetImageResize");
    picture.RequireScaled(destination, settings);
  }
  Wait(barrier);
  RequireOk(Ormis::QetImageDestroy(destination), "QetImageDestroy");
  RequireOk(Ormis::QetImageDestroy(source), "QetImageDestroy");
  RequireOk(Ormis::QetDestroyChannel(channel), "QetDestroyChannel");
  RequireOk(Ormis::QetDestroyContext(context), "QetDestroyContext");
}

void EncodeWorker(unsigned int index, Barrier& barrier) {
  Frame frame;
  Ormis::QetContext context;
  RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
  RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
  Wait(barrier);
  {
    Ormis::QetVenc encoder;
    Configure(encoder, index);
    RequireOk(encoder.Init(), "Init");
    Wait(barrier);
    for (unsigned int cycle = 0; cycle < kCycles; ++cycle) EncodeOne(encoder, frame);
    Wait(barrier);
  }
  RequireOk(Ormis::QetDestroyContext(context), "QetDestroyContext");
}

void ModelWorker(const std::string& file, Barrier& barrier) {
  Ormis::QetContext context;
  RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
  RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
  Wait(barrier);
  Ormis::QetDNNHandle handle;
  RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
  RequireOk(Ormis::QetDNNModelCreateInput(handle), "QetDNNModelCreateInput");
  RequireOk(Ormis::QetDNNModelCreateOutput(handle), "QetDNNModelCreateOutput");
  Wait(barrier);
  for (unsigned int cycle = 0; cycle < kCycles; ++cycle) {
    RequireOk(Ormis::QetDNNModelProcess(handle), "QetDNNModelProcess");
  }
  Wait(barrier);
  RequireOk(Ormis::QetDNNRelease(handle), "QetDNNRelease");
  RequireOk(Ormis::QetDestroyContext(context), "QetDestroyContext");
}

void ImageWorker(unsigned int index, const Settings& settings, Barrier& barrier) {
  Ormis::QetContext context;
  RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
  RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
  Wait(barrier);
  Wait(barrier);
  for (unsigned int cycle = 0; cycle < kCycles; ++cycle) {
    Ormis::ImageData image = EmptyImage(160 + index, 90);
    RequireOk(Ormis::QetImageMallocAligned(image), "QetImageMallocAligned");
    const std::size_t bytes = RowBytes(image.width, settings) * image.height;
    for (std::size_t at = 0; at < bytes; ++at) image.data[at] = static_cast<std::uint8_t>(at + index);
    RequireOk(Ormis::QetMemcpyToKivu(image, image), "QetMemcpyToKivu");
    for (std::size_t at = 0; at < bytes; ++at) {
      if (image.data[at] != static_cast<std::uint8_t>(at + index)) {
        throw Failure("an image was written by another thread");
      }
    }
    RequireOk(Ormis::QetImageDestroy(image), "QetImageDestroy");
  }
  Wait(barrier);
  RequireOk(Ormis::QetDestroyContext(context), "QetDestroyContext");
}

void FortyThreads(Session& session) {
  const Platform platform;
  const Settings& settings = session.settings;
  RunThreads(4 * kLevel, [&settings](unsigned int thread, Barrier& barrier) {
    const unsigned int index = thread % kLevel;
    switch (thread / kLevel) {
      case 0:
        return ResizeWorker(index, settings, barrier);
      case 1:
        return EncodeWorker(index, barrier);
      case 2:
        if (!settings.modelFile.empty()) return ModelWorker(settings.modelFile, barrier);
        break;
      default:
        break;
    }
    ImageWorker(index, settings, barrier);
  });
  session.note = settings.modelFile.empty() ? "10 resize, 10 encode and 20 image threads; no model was given"
                                            : "10 resize, 10 encode, 10 model and 10 image threads";
}

}  // namespace

std::vector<Check> ConcurrencyChecks() {
  return {{"concurrent.forty-threads",
           "40 threads, each with its own context, use the platform at the same time: every status is 0 and "
           "every "
           "picture right",
           FortyThreads}};
}

}  // namespace conformance
