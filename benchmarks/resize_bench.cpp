/// Times QetImageResize against libswscale's area filter, in turns, in one run: RGB24, both on one thread.
/// usage: resize_bench [rounds]
extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "ormis/ormis.h"

namespace {

struct Case {
  std::uint32_t sourceWidth, sourceHeight, width, height;
};

void Require(bool condition, const char* what) {
  if (condition) return;
  (void)std::fprintf(stderr, "resize_bench: %s failed\n", what);
  std::exit(1);
}

/// Slopes, waves and fine texture.
void Paint(Ormis::ImageData& image) {
  for (std::uint32_t y = 0; y < image.height; ++y) {
    for (std::uint32_t x = 0; x < image.width; ++x) {
      for (std::uint32_t c = 0; c < 3; ++c) {
        const double value = 128.0 + 70.0 * std::sin(x * 0.011 * (c + 1)) * std::cos(y * 0.017) +
                             static_cast<double>((x * 7 + y * 13 + c * 29) % 23) - 11.0;
        image.data[(std::size_t{y} * image.width + x) * 3 + c] =
            static_cast<std::uint8_t>(std::clamp(value, 0.0, 255.0));
      }
    }
  }
}

/// The least disturbed round: on a shared machine the others measure their neighbours.
double Best(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

template <typename Body>
double Milliseconds(Body&& body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

void Measure(int channel, const Case& sizes, int rounds) {
  Ormis::ImageData source;
  source.width = sizes.sourceWidth;
  source.height = sizes.sourceHeight;
  source.bufferMode = Ormis::kQetBufferPlatform;
  source.imageType = Ormis::kQetImageBgr888;
  Ormis::ImageData result = source;
  result.width = sizes.width;
  result.height = sizes.height;
  Require(Ormis::QetImageMallocAligned(source) == 0 && Ormis::QetImageMallocAligned(result) == 0,
          "QetImageMallocAligned");
  Paint(source);

  const int width = static_cast<int>(sizes.width);
  const int height = static_cast<int>(sizes.height);
  SwsContext* const scaler =
      sws_getContext(static_cast<int>(sizes.sourceWidth), static_cast<int>(sizes.sourceHeight),
                     AV_PIX_FMT_RGB24, width, height, AV_PIX_FMT_RGB24, SWS_AREA, nullptr, nullptr, nullptr);
  Require(scaler != nullptr, "sws_getContext");
  // libswscale may write past the end of a row.
  std::vector<std::uint8_t> reference(result.dataSize + 64);
  const std::uint8_t* const sourceRows[4] = {source.data};
  const int sourceStride[4] = {static_cast<int>(sizes.sourceWidth * 3)};
  std::uint8_t* const referenceRows[4] = {reference.data()};
  const int referenceStride[4] = {width * 3};

  std::vector<double> own;
  std::vector<double> sws;
  for (int round = -3; round < rounds; ++round) {  // the first three warm up
    const double ownMs = Milliseconds([&] {
      Require(Ormis::QetImageResize(channel, source, result, Ormis::kQetInterpolationArea, -1) == 0,
              "QetImageResize");
    });
    const double swsMs = Milliseconds([&] {
      Require(sws_scale(scaler, sourceRows, sourceStride, 0, static_cast<int>(sizes.sourceHeight),
                        referenceRows, referenceStride) == height,
              "sws_scale");
    });
    if (round < 0) continue;
    own.push_back(ownMs);
    sws.push_back(swsMs);
  }
  int maxDifference = 0;
  for (std::size_t i = 0; i < result.dataSize; ++i) {
    maxDifference = std::max(maxDifference, std::abs(int{result.data[i]} - int{reference[i]}));
  }
  (void)std::printf("%5u x %-5u -> %4u x %-4u   %9.3f ms   %9.3f ms   %6.2f   %14d\n", sizes.sourceWidth,
                    sizes.sourceHeight, sizes.width, sizes.height, Best(own), Best(sws),
                    Best(sws) / Best(own), maxDifference);
  sws_freeContext(scaler);
  Require(Ormis::QetImageDestroy(result) == 0 && Ormis::QetImageDestroy(source) == 0, "QetImageDestroy");
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 101;
  Require(rounds > 0, "reading the number of rounds");
  Ormis::QetContext process;
  Ormis::QetContext context;
  int channel = 0;
  Require(Ormis::QetInitialize(process, {}) == 0 && Ormis::QetCreateContext(context) == 0 &&
              Ormis::QetSetCurrentContext(context) == 0 && Ormis::QetCreateChannel(channel) == 0,
          "starting the platform");
  (void)std::printf("%-28s   %12s   %12s   %6s   %14s\n", "RGB24, best of rounds", "QetImageResize",
                    "sws area", "ratio", "max difference");
  for (const Case& sizes : {Case{1920, 1080, 416, 234}, Case{1920, 1080, 960, 540},
                            Case{1920, 1080, 417, 235}, Case{416, 234, 1920, 1080}}) {
    Measure(channel, sizes, rounds);
  }
  Require(Ormis::QetDestroyChannel(channel) == 0 && Ormis::QetDestroyContext(context) == 0 &&
              Ormis::QetRelease(process) == 0,
          "stopping the platform");
  return 0;
}
