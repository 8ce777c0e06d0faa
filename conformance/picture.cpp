// SPDX-License-Identifier: Apache-2.0
#include "picture.h"

#include <algorithm>
#include <bitset>
#include <cmath>
#include <string>

namespace conformance {

namespace {

constexpr std::size_t kChannels = 3;
constexpr std::uint32_t kBlocks = 8;  // along each side
constexpr std::uint8_t kDark = 25;    // not 0 or 255, which would cut off an overshoot
constexpr std::uint8_t kBright = 230;

/// The part of the source that one pixel of the result covers along one side: [begin, end) in source pixels.
struct Span {
  double begin;
  double end;
};

Span SpanOf(std::uint32_t index, std::uint32_t from, std::uint32_t to) {
  const double ratio = static_cast<double>(from) / to;
  return {index * ratio, (index + 1) * ratio};
}

/// The source pixels that a span touches, with `margin` more at each end.
struct Range {
  std::int64_t first;
  std::int64_t last;
};

Range RangeOf(const Span& span, std::int64_t margin) {
  return {static_cast<std::int64_t>(std::floor(span.begin)) - margin,
          static_cast<std::int64_t>(std::ceil(span.end)) - 1 + margin};
}

/// The values that a pixel of the result may have.
struct Allowed {
  double low = 255;
  double high = 0;
  std::bitset<256> values;  ///< of the source pixels that count
  bool onlyValues = false;  ///< only `values` are allowed, and no other value between them

  bool Holds(std::uint8_t value) const {
    return value >= low && value <= high && (!onlyValues || values.test(value));
  }

  void Add(int value) {
    low = std::min(low, static_cast<double>(value));
    high = std::max(high, static_cast<double>(value));
    values.set(static_cast<std::size_t>(value));
  }
};

template <typename Visit>
void ForEachPixel(const Range& columns, const Range& rows, Visit&& visit) {
  for (std::int64_t y = rows.first; y <= rows.last; ++y) {
    for (std::int64_t x = columns.first; x <= columns.last; ++x) visit(x, y);
  }
}

double Overlap(const Span& span, std::int64_t pixel) {
  const auto begin = static_cast<double>(pixel);
  return std::max(0.0, std::min(span.end, begin + 1) - std::max(span.begin, begin));
}

// The values that each interpolation may compute for one pixel of the result. `at(x, y)` is the value of a
// source pixel.

template <typename At>
Allowed AllowedByAny(const Span& columns, const Span& rows, At&& at) {
  // A filter reaches beyond the pixel's own area, and a sharp one overshoots at an edge.
  const auto margin = static_cast<std::int64_t>(
      std::ceil(std::max({columns.end - columns.begin, rows.end - rows.begin, 2.0})));
  Allowed allowed;
  ForEachPixel(RangeOf(columns, margin), RangeOf(rows, margin),
               [&](std::int64_t column, std::int64_t row) { allowed.Add(at(column, row)); });
  const double tolerance = 1 + 0.2 * (allowed.high - allowed.low);
  allowed.low -= tolerance;
  allowed.high += tolerance;
  return allowed;
}

template <typename At>
Allowed AllowedByNearest(const Span& columns, const Span& rows, At&& at) {
  Allowed allowed;
  ForEachPixel(RangeOf(columns, 1), RangeOf(rows, 1),
               [&](std::int64_t column, std::int64_t row) { allowed.Add(at(column, row)); });
  allowed.onlyValues = true;
  return allowed;
}

template <typename At>
Allowed AllowedByBilinear(const Span& columns, const Span& rows, At&& at) {
  const double column = (columns.begin + columns.end) / 2 - 0.5;
  const double row = (rows.begin + rows.end) / 2 - 0.5;
  const auto left = static_cast<std::int64_t>(std::floor(column));
  const auto top = static_cast<std::int64_t>(std::floor(row));
  const double right = column - static_cast<double>(left);
  const double down = row - static_cast<double>(top);
  const double value = (1 - down) * ((1 - right) * at(left, top) + right * at(left + 1, top)) +
                       down * ((1 - right) * at(left, top + 1) + right * at(left + 1, top + 1));
  Allowed allowed;
  allowed.low = value - 2;
  allowed.high = value + 2;
  return allowed;
}

template <typename At>
Allowed AllowedByArea(const Span& columns, const Span& rows, At&& at) {
  double sum = 0;
  double weights = 0;
  ForEachPixel(RangeOf(columns, 0), RangeOf(rows, 0), [&](std::int64_t column, std::int64_t row) {
    const double weight = Overlap(columns, column) * Overlap(rows, row);
    sum += weight * at(column, row);
    weights += weight;
  });
  Allowed allowed;
  allowed.low = sum / weights - 1;
  allowed.high = sum / weights + 1;
  return allowed;
}

template <typename At>
Allowed AllowedBy(Interpolation interpolation, const Span& columns, const Span& rows, At&& at) {
  switch (interpolation) {
    case Interpolation::kAny:
      break;
    case Interpolation::kNearest:
      return AllowedByNearest(columns, rows, at);
    case Interpolation::kBilinear:
      return AllowedByBilinear(columns, rows, at);
    case Interpolation::kArea:
      return AllowedByArea(columns, rows, at);
  }
  return AllowedByAny(columns, rows, at);
}

}  // namespace

std::size_t RowBytes(std::uint32_t width, const Settings& settings) {
  const std::size_t bytes = width * kChannels;
  return (bytes + settings.rowAlignment - 1) / settings.rowAlignment * settings.rowAlignment;
}

Picture::Picture(std::uint32_t width, std::uint32_t height)
    : width_(width), height_(height), pixels_(std::size_t{width} * kChannels * height) {
  std::uint8_t* pixel = pixels_.data();
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      *pixel++ = static_cast<std::uint8_t>(255 * x / (width - 1));
      *pixel++ = static_cast<std::uint8_t>(255 * y / (height - 1));
      *pixel++ = (x * kBlocks / width + y * kBlocks / height) % 2 == 0 ? kDark : kBright;
    }
  }
}

Picture Picture::Inverted() const {
  Picture inverted = *this;
  for (std::uint8_t& value : inverted.pixels_) value = static_cast<std::uint8_t>(255 - value);
  return inverted;
}

void Picture::PutInto(Ormis::ImageData& image, const Settings& settings) const {
  const std::size_t rowBytes = RowBytes(width_, settings);
  for (std::uint32_t y = 0; y < height_; ++y) {
    std::copy_n(pixels_.data() + std::size_t{y} * width_ * kChannels, width_ * kChannels,
                image.data + y * rowBytes);
  }
  // The status is ignored: the checks of the copy are about it.
  (void)Ormis::QetMemcpyToKivu(image, image);
}

int Picture::At(std::int64_t x, std::int64_t y, std::size_t channel) const {
  const auto column = static_cast<std::size_t>(std::clamp<std::int64_t>(x, 0, width_ - 1));
  const auto row = static_cast<std::size_t>(std::clamp<std::int64_t>(y, 0, height_ - 1));
  return pixels_[(row * width_ + column) * kChannels + channel];
}

void Picture::RequireScaled(const Ormis::ImageData& image, const Settings& settings) const {
  const std::size_t rowBytes = RowBytes(image.width, settings);
  const auto check = [&](std::uint32_t x, std::uint32_t y, std::size_t channel) {
    const Allowed allowed =
        AllowedBy(settings.interpolation, SpanOf(x, width_, image.width), SpanOf(y, height_, image.height),
                  [&](std::int64_t column, std::int64_t row) { return At(column, row, channel); });
    const std::uint8_t found = image.data[y * rowBytes + x * kChannels + channel];
    if (allowed.Holds(found)) return;
    throw Failure("pixel " + std::to_string(x) + "," + std::to_string(y) + " of " +
                  std::to_string(image.width) + "x" + std::to_string(image.height) + ", channel " +
                  std::to_string(channel) + ", is " + std::to_string(found) + ", expected " +
                  std::to_string(allowed.low) + " to " + std::to_string(allowed.high));
  };
  for (std::uint32_t y = 0; y < image.height; ++y) {
    for (std::uint32_t x = 0; x < image.width; ++x) {
      for (std::size_t channel = 0; channel < kChannels; ++channel) check(x, y, channel);
    }
  }
}

}  // namespace conformance
