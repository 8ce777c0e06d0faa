// SPDX-License-Identifier: Apache-2.0
#include "area_scaler.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>

namespace Ormis::host {

namespace {

constexpr std::size_t kVectorBytes = 64;
/// Most weights in a table. Larger tables, for extreme ratios, would take longer to make than they save.
constexpr std::uint64_t kMostWeights = std::uint64_t{1} << 20;

/// Flushes the memory behind a position that moves on. A line that the position is in waits, because it will
/// be used again.
class Wake {
 public:
  Wake(portable::FlushLines flush, const std::uint8_t* begin) : flush_(flush), flushed_(begin) {}

  void MoveTo(const std::uint8_t* position) {
    End(position - reinterpret_cast<std::uintptr_t>(position) % kVectorBytes);
  }

  void End(const std::uint8_t* end) {
    if (flush_ == nullptr || end <= flushed_) return;
    flush_(flushed_, static_cast<std::size_t>(end - flushed_));
    flushed_ = end;
  }

 private:
  portable::FlushLines flush_;
  const std::uint8_t* flushed_;
};

/// Writes the rows of the result. Where caches are flushed, it collects some rows and writes them past the
/// caches: to flush a line that was changed takes several times as long.
class ResultWriter {
 public:
  ResultWriter(const portable::CopyRoutine& writer, portable::FlushLines flush, std::uint8_t* destination,
               std::vector<std::uint8_t>& rows, std::size_t rowBytes)
      : writer_(writer), flush_(flush), begin_(destination), at_(destination), rows_(rows) {
    if (flush != nullptr) rows.resize(kRowsBytes + rowBytes);
  }

  void Append(const std::uint8_t* row, std::size_t bytes) {
    if (flush_ == nullptr) {
      std::memcpy(at_, row, bytes);
      at_ += bytes;
      return;
    }
    std::memcpy(rows_.data() + used_, row, bytes);
    used_ += bytes;
    if (used_ >= kRowsBytes) Write(used_ - reinterpret_cast<std::uintptr_t>(at_ + used_) % kVectorBytes);
  }

  void End() {
    if (flush_ == nullptr) return;
    Write(used_);
    // The first and the last line are shared with other memory, so they were written through the caches.
    flush_(begin_, 1);
    flush_(at_ - 1, 1);
  }

 private:
  static constexpr std::size_t kRowsBytes = 16384;

  /// `bytes` ends at the end of a line, except in End.
  void Write(std::size_t bytes) {
    writer_.copy(at_, rows_.data(), bytes, nullptr);
#if !defined(__x86_64__)
    flush_(at_, bytes);  // that the stores pass the caches is only a hint
#endif
    at_ += bytes;
    used_ -= bytes;
    std::memmove(rows_.data(), rows_.data() + bytes, used_);
  }

  const portable::CopyRoutine& writer_;
  portable::FlushLines flush_;
  std::uint8_t* begin_;
  std::uint8_t* at_;
  std::vector<std::uint8_t>& rows_;
  std::size_t used_ = 0;
};

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

/// The reference: plain loops, for all sizes.
struct AreaScaler::PlainRows {
  const Job& job;
  const std::vector<Span>& spans;
  std::uint32_t* sums;

  void Set(const std::uint8_t* row, std::uint32_t weight, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) sums[i] = weight * row[i];
  }

  void Add(const std::uint8_t* row, std::uint32_t weight, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) sums[i] += weight * row[i];
  }

  void Finish(std::uint8_t* result) {
    const std::size_t channels = job.to.channels;
    const auto half = static_cast<std::int64_t>(job.area / 2);
    const double scale = 1.0 / static_cast<double>(job.area);
    for (std::uint32_t x = 0; x < job.to.width; ++x) {
      const Span column = spans[x];
      for (std::size_t c = 0; c < channels; ++c) {
        const std::uint32_t* const first = sums + column.first * channels + c;
        const std::uint32_t* const last = sums + column.last * channels + c;
        std::int64_t inner = 0;
        for (const std::uint32_t* at = first + channels; at < last; at += channels) inner += *at;
        const std::int64_t total = std::int64_t{column.firstWeight} * *first +
                                   job.columns.sourceUnits * inner + std::int64_t{column.lastWeight} * *last;
        // The 0.5 keeps the quotient half a step away from each integer: rounding errors cannot move it
        // across one.
        *result++ = static_cast<std::uint8_t>((static_cast<double>(total + half) + 0.5) * scale);
      }
    }
  }
};

struct AreaScaler::KernelRows {
  const AreaKernel& kernel;
  const AreaColumns& columns;
  std::uint16_t* sums;
  const std::uint8_t* sourceEnd;

  void Set(const std::uint8_t* row, std::uint32_t weight, std::size_t length) {
    kernel.setRow(row, static_cast<std::uint16_t>(weight), length, sourceEnd, sums);
  }
  void Add(const std::uint8_t* row, std::uint32_t weight, std::size_t length) {
    kernel.addRow(row, static_cast<std::uint16_t>(weight), length, sourceEnd, sums);
  }
  void Finish(std::uint8_t* result) { kernel.finishRow(columns, sums, result); }
};

template <typename Rows>
void AreaScaler::ScaleRows(const Job& job, Rows rows) {
  const std::size_t length = std::size_t{job.from.width} * job.from.channels;
  const std::size_t resultLength = std::size_t{job.to.width} * job.to.channels;
  result_.resize(resultLength + kResultBeyond);
  Wake behindSource(job.flush, job.source);
  ResultWriter writer(*writer_, job.flush, job.destination, rows_, resultLength);
  Span span = SpanAt(job.rows, 0);
  bool repeated = false;
  for (std::uint32_t y = 0; y < job.to.height; ++y) {
    if (!repeated) {
      const std::uint8_t* row = job.source + span.first * length;
      rows.Set(row, span.firstWeight, length);
      for (std::uint32_t at = span.first + 1; at <= span.last; ++at) {
        row += length;
        rows.Add(row, at == span.last ? span.lastWeight : job.rows.sourceUnits, length);
      }
      rows.Finish(result_.data());
    }
    writer.Append(result_.data(), resultLength);
    const Span below = SpanAt(job.rows, y + 1);
    // Both rows lie within one source row, so they are equal. To compute each of them would take minutes
    // where a long source row is enlarged to a high image.
    repeated = span.first == span.last && below.first == below.last && span.first == below.first;
    span = below;
    behindSource.MoveTo(job.source + span.first * length);
  }
  behindSource.End(job.source + job.from.height * length);
  writer.End();
}

/// The weight of the source pixel `index` in a pixel of the result.
std::int16_t AreaScaler::WeightAt(const Span& span, std::uint32_t index, const Ratio& ratio) {
  if (index > span.last) return 0;
  if (index == span.first) return static_cast<std::int16_t>(span.firstWeight);
  return static_cast<std::int16_t>(index == span.last ? span.lastWeight : ratio.sourceUnits);
}

/// Fills columns_. Returns false for a job whose numbers the kernels cannot hold.
bool AreaScaler::PrepareKernel(const Job& job) {
  // 255 x 257 is the largest number of 16 bits. A weighted sum and the half of an area have 31 bits.
  constexpr std::uint64_t kMostArea = 8'400'000;
  if (kernel_ == nullptr || job.rows.resultUnits > 257 || job.area > kMostArea ||
      job.columns.sourceUnits > INT16_MAX) {
    return false;
  }
  const std::uint32_t width = job.to.width;
  const std::uint32_t channels = job.to.channels;
  const std::array<std::uint32_t, 4> sizes = {job.from.width, width, channels, job.rows.resultUnits};
  if (sizes == columnsSizes_) return true;
  columnsSizes_ = {};
  columns_.width = width;
  columns_.channels = channels;
  // What a pixel of the result covers if it begins one unit before the end of a source pixel.
  const std::uint32_t most =
      (job.columns.resultUnits + 2 * job.columns.sourceUnits - 2) / job.columns.sourceUnits;
  columns_.pairs = (most + 1) / 2;
  columns_.period = std::min(2 * job.columns.sourceUnits, width + width % 2);
  columns_.periodSamples = 2 * job.columns.resultUnits * channels;
  const std::uint64_t weights = std::uint64_t{columns_.period} * columns_.pairs * 8;
  if (weights > kMostWeights) return false;
  columns_.offset = static_cast<std::uint32_t>(job.area / 2) + kSumBias * job.columns.resultUnits;
  columns_.inverse = 1.0 / static_cast<double>(job.area);
  columns_.floatIsExact = job.area <= 8192;
  columns_.quarters = job.columns.resultUnits == 2 && job.area == 4;
  columns_.first.assign(columns_.period, 0);
  columns_.weights.assign(weights, 0);
  for (std::uint32_t x = 0; x < std::min(columns_.period, width); ++x) {
    const Span span = SpanAt(job.columns, x);
    columns_.first[x] = span.first * channels;
    for (std::uint32_t pair = 0; pair < columns_.pairs; ++pair) {
      std::int16_t* const at = columns_.weights.data() + (std::size_t{x} / 2 * columns_.pairs + pair) * 16 +
                               std::size_t{x} % 2 * 8;
      for (std::uint32_t i = 0; i < 8; ++i)
        at[i] = WeightAt(span, span.first + 2 * pair + i % 2, job.columns);
    }
  }
  columnsSizes_ = sizes;
  return true;
}

void AreaScaler::Scale(const PlaneShape& from, const std::uint8_t* source, const PlaneShape& to,
                       std::uint8_t* destination, portable::FlushLines flush) {
  const Ratio rows = ReducedRatio(from.height, to.height);
  const Ratio columns = ReducedRatio(from.width, to.width);
  const Job job{from,  source, to,      destination,
                flush, rows,   columns, std::uint64_t{rows.resultUnits} * columns.resultUnits};
  const std::size_t length = std::size_t{from.width} * from.channels;
  if (PrepareKernel(job)) {
    const std::size_t count = length + AreaSumsBeyond(columns_) + kVectorBytes / sizeof(std::uint16_t);
    narrowSums_.resize(count);
    // To the beginning of a cache line: stores across two lines are slower.
    const std::size_t past = reinterpret_cast<std::uintptr_t>(narrowSums_.data()) % kVectorBytes;
    std::uint16_t* const sums =
        narrowSums_.data() + (kVectorBytes - past) % kVectorBytes / sizeof(std::uint16_t);
    return ScaleRows(job, KernelRows{*kernel_, columns_, sums, source + from.height * length});
  }
  spans_.resize(to.width);
  for (std::uint32_t x = 0; x < to.width; ++x) spans_[x] = SpanAt(job.columns, x);
  wideSums_.resize(length);
  ScaleRows(job, PlainRows{job, spans_, wideSums_.data()});
}

}  // namespace Ormis::host
