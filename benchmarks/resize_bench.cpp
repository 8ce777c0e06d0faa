// SPDX-License-Identifier: Apache-2.0
extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#ifdef HAVE_LIBYUV
#include <libyuv/scale_rgb.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "cache_flush.h"
#include "measure.h"
#include "ormis/ormis.h"
#include "program.h"
#ifdef HAVE_OPENCV
#include "opencv_area.h"
#endif

namespace {

using measure::Require;

struct Case {
  int sourceWidth, sourceHeight, width, height;
};

struct Scaler {
  std::string name;
  std::uint8_t* result;
  std::function<void()> scale;
  std::vector<double> ms;
};

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

struct Share {
  int index;
  double weight;
};

/// Divides a line of `from` samples into `to` equal parts: the samples that each part covers, and their
/// weights, which add up to 1.
std::vector<std::vector<Share>> Shares(int from, int to) {
  std::vector<std::vector<Share>> shares(static_cast<std::size_t>(to));
  const double scale = static_cast<double>(from) / to;
  for (int part = 0; part < to; ++part) {
    const double begin = part * scale;
    const double end = begin + scale;
    for (int i = static_cast<int>(begin); i < from && i < end; ++i) {
      const double covered = std::min(end, i + 1.0) - std::max(begin, static_cast<double>(i));
      if (covered > 0.0) shares[static_cast<std::size_t>(part)].push_back({i, covered / scale});
    }
  }
  return shares;
}

std::vector<double> ExactAreaAverage(const std::uint8_t* source, const Case& sizes) {
  const auto columns = Shares(sizes.sourceWidth, sizes.width);
  const auto rows = Shares(sizes.sourceHeight, sizes.height);
  std::vector<double> exact;
  exact.reserve(rows.size() * columns.size() * 3);
  for (const std::vector<Share>& row : rows) {
    for (const std::vector<Share>& column : columns) {
      double sum[3] = {};
      for (const Share& y : row) {
        for (const Share& x : column) {
          const std::uint8_t* const pixel =
              source + (static_cast<std::size_t>(y.index) * static_cast<std::size_t>(sizes.sourceWidth) +
                        static_cast<std::size_t>(x.index)) *
                           3;
          for (std::size_t c = 0; c < 3; ++c) sum[c] += y.weight * x.weight * pixel[c];
        }
      }
      exact.insert(exact.end(), sum, sum + 3);
    }
  }
  return exact;
}

struct Distance {
  double psnrDb;
  double largest;  ///< grey levels
};

Distance From(const std::vector<double>& exact, const std::uint8_t* result) {
  double squares = 0.0;
  double largest = 0.0;
  for (std::size_t i = 0; i < exact.size(); ++i) {
    const double difference = std::abs(exact[i] - result[i]);
    squares += difference * difference;
    largest = std::max(largest, difference);
  }
  return {10.0 * std::log10(255.0 * 255.0 * static_cast<double>(exact.size()) / squares), largest};
}

/// How many rows of the source influence the result.
int RowsThatCount(std::uint8_t* source, const Case& sizes, Scaler& scaler) {
  const std::size_t rowBytes = static_cast<std::size_t>(sizes.sourceWidth) * 3;
  const std::size_t resultBytes = static_cast<std::size_t>(sizes.width * sizes.height) * 3;
  scaler.scale();
  const std::vector<std::uint8_t> before(scaler.result, scaler.result + resultBytes);
  std::vector<std::uint8_t> row(rowBytes);
  int count = 0;
  for (int y = 0; y < sizes.sourceHeight; ++y) {
    std::uint8_t* const pixels = source + static_cast<std::size_t>(y) * rowBytes;
    std::copy_n(pixels, rowBytes, row.data());
    std::transform(row.begin(), row.end(), pixels,
                   [](std::uint8_t value) { return value < 128 ? std::uint8_t{255} : std::uint8_t{0}; });
    scaler.scale();
    if (std::memcmp(before.data(), scaler.result, resultBytes) != 0) ++count;
    std::copy_n(row.data(), rowBytes, pixels);
  }
  return count;
}

/// libswscale with one of its filters. Lives as long as the program.
std::function<void()> Swscale(const std::uint8_t* source, const Case& sizes, std::uint8_t* result,
                              int filter) {
  SwsContext* const context =
      sws_getContext(sizes.sourceWidth, sizes.sourceHeight, AV_PIX_FMT_RGB24, sizes.width, sizes.height,
                     AV_PIX_FMT_RGB24, filter, nullptr, nullptr, nullptr);
  Require(context != nullptr, "sws_getContext");
  return [=] {
    const std::uint8_t* const sourceRows[4] = {source};
    const int sourceStride[4] = {sizes.sourceWidth * 3};
    std::uint8_t* const rows[4] = {result};
    const int stride[4] = {sizes.width * 3};
    Require(sws_scale(context, sourceRows, sourceStride, 0, sizes.sourceHeight, rows, stride) == sizes.height,
            "sws_scale");
  };
}

/// Reads each line of the memory, and removes it from the caches behind itself, a page at a time.
void ReadAndFlush(const std::uint8_t* memory, std::size_t bytes) {
  constexpr std::size_t kPage = 4096;
  using Line = std::uint64_t __attribute__((vector_size(64), aligned(8)));
  const Ormis::portable::FlushLines flush = Ormis::portable::FlushRoutines().back().flush;
  Line sum{};
  for (std::size_t at = 0; at < bytes; at += sizeof(Line)) {
    if (at % kPage == 0 && at >= 2 * kPage) flush(memory + at - 2 * kPage, kPage);
    sum += *reinterpret_cast<const Line*>(memory + std::min(at, bytes - sizeof(Line)));
  }
  const std::size_t rest = bytes / kPage < 2 ? 0 : (bytes / kPage - 2) * kPage;
  flush(memory + rest, bytes - rest);
  Ormis::portable::EndFlush();
  [[maybe_unused]] static volatile std::uint64_t used;
  used = sum[0] ^ sum[1] ^ sum[2] ^ sum[3] ^ sum[4] ^ sum[5] ^ sum[6] ^ sum[7];
}

void Measure(int channel, const Case& sizes, int rounds, bool countRows) {
  Ormis::ImageData source;
  source.width = static_cast<std::uint32_t>(sizes.sourceWidth);
  source.height = static_cast<std::uint32_t>(sizes.sourceHeight);
  source.bufferMode = Ormis::kQetBufferPlatform;
  source.imageType = Ormis::kQetImageBgr888;
  Ormis::ImageData own = source;
  own.width = static_cast<std::uint32_t>(sizes.width);
  own.height = static_cast<std::uint32_t>(sizes.height);
  Require(Ormis::QetImageMallocAligned(source) == 0 && Ormis::QetImageMallocAligned(own) == 0,
          "QetImageMallocAligned");
  Paint(source);

  const std::size_t resultBytes = own.dataSize;
  // libswscale may write past the end of a row.
  std::vector<std::vector<std::uint8_t>> results(4, std::vector<std::uint8_t>(resultBytes + 64));
  std::vector<Scaler> scalers;
  scalers.push_back({"QetImageResize",
                     own.data,
                     [&] {
                       Require(
                           Ormis::QetImageResize(channel, source, own, Ormis::kQetInterpolationArea, -1) == 0,
                           "QetImageResize");
                     },
                     {}});
  scalers.push_back(
      {"libswscale, area", results[0].data(), Swscale(source.data, sizes, results[0].data(), SWS_AREA), {}});
  scalers.push_back({"libswscale, bilinear",
                     results[1].data(),
                     Swscale(source.data, sizes, results[1].data(), SWS_BILINEAR),
                     {}});
#ifdef HAVE_LIBYUV
  scalers.push_back({"libyuv, box",
                     results[2].data(),
                     [&] {
                       Require(libyuv::RGBScale(source.data, sizes.sourceWidth * 3, sizes.sourceWidth,
                                                sizes.sourceHeight, results[2].data(), sizes.width * 3,
                                                sizes.width, sizes.height, libyuv::kFilterBox) == 0,
                               "RGBScale");
                     },
                     {}});
#endif
#ifdef HAVE_OPENCV
  scalers.push_back({"OpenCV, area",
                     results[3].data(),
                     [&] {
                       Require(OpenCvArea(source.data, sizes.sourceWidth, sizes.sourceHeight,
                                          results[3].data(), sizes.width, sizes.height) == 0,
                               "OpenCvArea");
                     },
                     {}});
#endif

  const Ormis::portable::FlushLines flush = Ormis::portable::FlushRoutines().back().flush;
  std::vector<double> readingMs;
  for (int round = -3; round < rounds; ++round) {  // the first three warm up
    for (Scaler& scaler : scalers) {
      flush(source.data, source.dataSize);
      flush(scaler.result, resultBytes);
      Ormis::portable::EndFlush();
      const double ms = measure::Milliseconds(scaler.scale);
      if (round >= 0) scaler.ms.push_back(ms);
    }
    const double ms = measure::Milliseconds([&] { ReadAndFlush(source.data, source.dataSize); });
    if (round >= 0) readingMs.push_back(ms);
  }
  (void)std::printf("| %d x %d to %d x %d | reading and removing the source | %.3f | %.2f | | | | | |\n",
                    sizes.sourceWidth, sizes.sourceHeight, sizes.width, sizes.height,
                    measure::Best(readingMs), measure::MedianRatio(readingMs, scalers[0].ms));
  const std::vector<double> exact = ExactAreaAverage(source.data, sizes);
  std::vector<Distance> distances;
  for (const Scaler& scaler : scalers) distances.push_back(From(exact, scaler.result));
  for (std::size_t i = 0; i < scalers.size(); ++i) {
    Scaler& scaler = scalers[i];
    (void)std::printf("| %d x %d to %d x %d | %s | %.3f | %.2f | %.1f | %.1f |", sizes.sourceWidth,
                      sizes.sourceHeight, sizes.width, sizes.height, scaler.name.c_str(),
                      measure::Best(scaler.ms), measure::MedianRatio(scaler.ms, scalers[0].ms),
                      distances[i].psnrDb, distances[i].largest);
    if (countRows) {
      const int rows = RowsThatCount(source.data, sizes, scaler);
      const double bytes = 3.0 * (static_cast<double>(rows) * sizes.sourceWidth +
                                  static_cast<double>(sizes.width) * sizes.height);
      (void)std::printf(" %d | %.2f | %.2f |\n", rows, bytes / 1e6, bytes / 1e6 / measure::Best(scaler.ms));
    } else {
      (void)std::printf(" | | |\n");
    }
    (void)std::fflush(stdout);
  }
  Require(Ormis::QetImageDestroy(own) == 0 && Ormis::QetImageDestroy(source) == 0, "QetImageDestroy");
}

const char* const kUsage = R"(usage: resize_bench [ROUNDS]
Compares QetImageResize with other libraries' scalers, in turns within one run: the same RGB24 picture, each on
one thread.

Before each call source and result are removed from the caches, so that every scaler reads from the memory.
QetImageResize also removes them itself afterwards; the others do not. "Reading" is what no scaler can avoid: it
reads each line of the source once, and removes it from the caches.

Quality is measured against the exact area average in double precision. Rounding alone keeps an 8-bit picture at
about 58.9 dB from it. The program also measures which rows of the source a scaler uses: it changes a row and
checks whether the result changes.
)";

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "resize_bench", kUsage);
  const int rounds = measure::CountArgument(argc, argv, 1, "ROUNDS", 101);
  Ormis::QetContext process;
  Ormis::QetContext context;
  int channel = 0;
  Require(Ormis::QetInitialize(process, {}) == 0 && Ormis::QetCreateContext(context) == 0 &&
              Ormis::QetSetCurrentContext(context) == 0 && Ormis::QetCreateChannel(channel) == 0,
          "starting the platform");
  (void)std::printf(
      "| RGB24 | scaler | ms | time / QetImageResize's | PSNR, dB | largest difference | source rows read "
      "| MB moved | GB/s |\n"
      "|---|---|---|---|---|---|---|---|---|\n");
  bool first = true;
  for (const Case& sizes : {Case{1920, 1080, 416, 234}, Case{1920, 1080, 960, 540},
                            Case{1920, 1080, 417, 235}, Case{416, 234, 1920, 1080}}) {
    Measure(channel, sizes, rounds, first);
    first = false;
  }
  Require(Ormis::QetDestroyChannel(channel) == 0 && Ormis::QetDestroyContext(context) == 0 &&
              Ormis::QetRelease(process) == 0,
          "stopping the platform");
  return 0;
}
