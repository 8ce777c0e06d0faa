// SPDX-License-Identifier: Apache-2.0
#include "area_scaler.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace Ormis::host {

namespace {

enum class RowUse : std::uint8_t { kSet, kAdd };

/// Sets sums[i] to weight * row[i], or adds it. The compiler makes vector instructions of the loop, which
/// make the scaler fast.
template <RowUse use, typename Sum>
void WeighRow(const std::uint8_t* __restrict row, Sum weight, std::size_t length, Sum* __restrict sums) {
  for (std::size_t i = 0; i < length; ++i) {
    const auto product = static_cast<Sum>(weight * row[i]);
    sums[i] = use == RowUse::kSet ? product : static_cast<Sum>(sums[i] + product);
  }
}

}  // namespace

AreaScaler::Ratio AreaScaler::ReducedRatio(std::uint32_t from, std::uint32_t to) {
  const std::uint32_t divisor = std::gcd(from, to);
  return {to / divisor, from / divisor};
}

AreaScaler::Span AreaScaler::SpanAt(const Ratio& ratio, std::uint32_t index) {
  const std::uint64_t begin = std::uint64_t{index} * ratio.resultUnits;
  const std::uint64_t end = begin + ratio.resultUnits;
  const std::uint64_t first = begin / ratio.sourceUnits;
  const std::uint64_t last = (end - 1) / ratio.sourceUnits;
  const std::uint64_t firstEnd = std::min(end, (first + 1) * ratio.sourceUnits);
  return {static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(last),
          static_cast<std::uint32_t>(firstEnd - begin),
          static_cast<std::uint32_t>(last == first ? 0 : end - last * ratio.sourceUnits)};
}

void AreaScaler::PrepareColumns(const Ratio& ratio, std::uint32_t count) {
  if (ratio.sourceUnits == columnRatio_.sourceUnits && ratio.resultUnits == columnRatio_.resultUnits &&
      columns_.size() >= count) {
    return;
  }
  columns_.resize(count);
  for (std::uint32_t column = 0; column < count; ++column) columns_[column] = SpanAt(ratio, column);
  columnRatio_ = ratio;
}

template <typename Sum, typename Total, typename Real>
void AreaScaler::ScaleWith(const PlaneShape& from, const std::uint8_t* source, const PlaneShape& to,
                           std::uint8_t* destination, const Ratio& rows, std::vector<Sum>& rowSums) {
  const std::size_t length = std::size_t{from.width} * from.channels;
  const std::size_t channels = from.channels;
  if (rowSums.size() < length) rowSums.resize(length);
  Sum* const sums = rowSums.data();

  const auto columnUnits = static_cast<Total>(columnRatio_.sourceUnits);
  const auto area = static_cast<std::uint64_t>(rows.resultUnits) * columnRatio_.resultUnits;
  const auto half = static_cast<Total>(area / 2);
  const Real scale = Real{1} / static_cast<Real>(area);

  const std::size_t resultLength = std::size_t{to.width} * channels;
  Span above{};
  for (std::uint32_t y = 0; y < to.height; ++y) {
    const Span span = SpanAt(rows, y);
    // This row and the row above lie within one source row, so they are equal. To compute each of them would
    // take minutes where a long source row is enlarged to a high image.
    const bool repeated =
        y > 0 && span.first == span.last && above.first == above.last && span.first == above.first;
    above = span;
    if (repeated) {
      std::memcpy(destination, destination - resultLength, resultLength);
      destination += resultLength;
      continue;
    }
    const std::uint8_t* row = source + span.first * length;
    WeighRow<RowUse::kSet>(row, static_cast<Sum>(span.firstWeight), length, sums);
    for (std::uint32_t at = span.first + 1; at <= span.last; ++at) {
      row += length;
      const std::uint32_t weight = at == span.last ? span.lastWeight : rows.sourceUnits;
      WeighRow<RowUse::kAdd>(row, static_cast<Sum>(weight), length, sums);
    }
    for (std::uint32_t x = 0; x < to.width; ++x) {
      const Span column = columns_[x];
      for (std::size_t c = 0; c < channels; ++c) {
        const Sum* const first = sums + column.first * channels + c;
        const Sum* const last = sums + column.last * channels + c;
        Total inner = 0;
        for (const Sum* at = first + channels; at < last; at += channels) inner += *at;
        const Total total = static_cast<Total>(column.firstWeight) * *first + columnUnits * inner +
                            static_cast<Total>(column.lastWeight) * *last;
        // The 0.5 keeps the quotient half a step away from each integer: rounding errors of Real cannot move
        // it across one.
        *destination++ = static_cast<std::uint8_t>((static_cast<Real>(total + half) + Real{0.5}) * scale);
      }
    }
  }
}

void AreaScaler::Scale(const PlaneShape& from, const std::uint8_t* source, const PlaneShape& to,
                       std::uint8_t* destination) {
  const Ratio rows = ReducedRatio(from.height, to.height);
  PrepareColumns(ReducedRatio(from.width, to.width), to.width);
  const std::uint64_t area = std::uint64_t{rows.resultUnits} * columnRatio_.resultUnits;
  // 255 x 257 is the largest 16-bit number. A float holds 255 x 8192 and has enough bits left for fractions.
  if (rows.resultUnits <= 257 && area <= 8192) {
    ScaleWith<std::uint16_t, std::int32_t, float>(from, source, to, destination, rows, narrowSums_);
  } else {
    ScaleWith<std::uint32_t, std::int64_t, double>(from, source, to, destination, rows, wideSums_);
  }
}

}  // namespace Ormis::host
