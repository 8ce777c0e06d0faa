// SPDX-License-Identifier: Apache-2.0
#include "area_kernels.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Ormis::host {

namespace {

/// Source bytes ahead of those that are weighed. The hardware's prefetcher stops at the end of each page.
/// Memory behind the source stays out of the caches: it may be another image's.
constexpr std::size_t kPrefetchBytes = 2048;

/// Weighs kBytes at once. The compiler makes the instructions of the function that it is inlined into.
template <std::size_t kBytes, bool kAdd>
[[gnu::always_inline]] inline void WeighWithVectors(const std::uint8_t* row, std::uint16_t weight,
                                                    std::size_t length, const std::uint8_t* sourceEnd,
                                                    std::uint16_t* sums) {
  using Bytes = std::uint8_t __attribute__((vector_size(kBytes)));
  using Words = std::uint16_t __attribute__((vector_size(2 * kBytes)));
  constexpr auto kStart = static_cast<std::uint16_t>(-kSumBias);
  const auto left = static_cast<std::size_t>(sourceEnd - row) - 1;
  std::size_t i = 0;
  for (; i + kBytes <= length; i += kBytes) {
    __builtin_prefetch(row + i + std::min(kPrefetchBytes, left - i));
    Bytes bytes;
    Words words;
    std::memcpy(&bytes, row + i, sizeof bytes);
    if (kAdd) {
      std::memcpy(&words, sums + i, sizeof words);
    } else {
      words = Words{} + kStart;
    }
    words += __builtin_convertvector(bytes, Words) * weight;
    std::memcpy(sums + i, &words, sizeof words);
  }
  for (; i < length; ++i) {
    const auto before = static_cast<std::uint32_t>(kAdd ? sums[i] : kStart);
    sums[i] = static_cast<std::uint16_t>(before + std::uint32_t{weight} * row[i]);
  }
}

// --- What every processor can run ---

using Shorts4 = std::int16_t __attribute__((vector_size(8)));
using Ints4 = std::int32_t __attribute__((vector_size(16)));
using Uints4 = std::uint32_t __attribute__((vector_size(16)));
using Floats4 = float __attribute__((vector_size(16)));
using Doubles4 = double __attribute__((vector_size(32)));
using Bytes4 = std::uint8_t __attribute__((vector_size(4)));

void SetRowPlain(const std::uint8_t* row, std::uint16_t weight, std::size_t length,
                 const std::uint8_t* sourceEnd, std::uint16_t* sums) {
  WeighWithVectors<16, false>(row, weight, length, sourceEnd, sums);
}

void AddRowPlain(const std::uint8_t* row, std::uint16_t weight, std::size_t length,
                 const std::uint8_t* sourceEnd, std::uint16_t* sums) {
  WeighWithVectors<16, true>(row, weight, length, sourceEnd, sums);
}

Uints4 Weighted(const std::uint16_t* sums, std::int16_t weight) {
  Shorts4 samples;
  std::memcpy(&samples, sums, sizeof samples);
  const Shorts4 weights = Shorts4{} + weight;
  return __builtin_convertvector(
      __builtin_convertvector(samples, Ints4) * __builtin_convertvector(weights, Ints4), Uints4);
}

/// A result pixel at a time, a channel in each of four lanes.
void FinishRowPlain(const AreaColumns& columns, const std::uint16_t* sums, std::uint8_t* result) {
  const std::size_t channels = columns.channels;
  const Floats4 inverse = Floats4{} + static_cast<float>(columns.inverse);
  std::uint32_t at = 0;
  for (std::uint32_t x = 0; x < columns.width; ++x) {
    const std::uint16_t* samples = sums + columns.first[at];
    const std::int16_t* weights =
        columns.weights.data() + (std::size_t{at} / 2 * columns.pairs * 2 + at % 2) * 8;
    Uints4 total = Uints4{} + columns.offset;
    for (std::uint32_t pair = 0; pair < columns.pairs; ++pair) {
      total += Weighted(samples, weights[0]) + Weighted(samples + channels, weights[1]);
      samples += 2 * channels;
      weights += 16;
    }
    const Ints4 sum = __builtin_convertvector(total, Ints4);
    Ints4 quotient;
    if (columns.floatIsExact) {
      quotient = __builtin_convertvector((__builtin_convertvector(sum, Floats4) + 0.5F) * inverse, Ints4);
    } else {
      quotient =
          __builtin_convertvector((__builtin_convertvector(sum, Doubles4) + 0.5) * columns.inverse, Ints4);
    }
    const Bytes4 pixel = __builtin_convertvector(quotient, Bytes4);
    std::memcpy(result + x * channels, &pixel, sizeof pixel);
    if (++at == columns.period) {
      at = 0;
      sums += columns.periodSamples;
    }
  }
}

#if defined(__x86_64__)

[[gnu::target("avx2")]] void SetRowAvx2(const std::uint8_t* row, std::uint16_t weight, std::size_t length,
                                        const std::uint8_t* sourceEnd, std::uint16_t* sums) {
  WeighWithVectors<32, false>(row, weight, length, sourceEnd, sums);
}

[[gnu::target("avx2")]] void AddRowAvx2(const std::uint8_t* row, std::uint16_t weight, std::size_t length,
                                        const std::uint8_t* sourceEnd, std::uint16_t* sums) {
  WeighWithVectors<32, true>(row, weight, length, sourceEnd, sums);
}

[[gnu::target("avx512bw")]] void SetRowAvx512(const std::uint8_t* row, std::uint16_t weight,
                                              std::size_t length, const std::uint8_t* sourceEnd,
                                              std::uint16_t* sums) {
  WeighWithVectors<64, false>(row, weight, length, sourceEnd, sums);
}

[[gnu::target("avx512bw")]] void AddRowAvx512(const std::uint8_t* row, std::uint16_t weight,
                                              std::size_t length, const std::uint8_t* sourceEnd,
                                              std::uint16_t* sums) {
  WeighWithVectors<64, true>(row, weight, length, sourceEnd, sums);
}

/// Orders of bytes for pixels of 1 to 4 channels. Where a pixel has fewer, the bytes behind it do not matter.
struct ByteOrders {
  constexpr ByteOrders() {
    for (std::size_t channels = 1; channels <= 4; ++channels) {
      for (std::size_t byte = 0; byte < 16; ++byte) {
        const std::size_t inPair = byte % 4;
        pairOfPixels[channels][byte] =
            static_cast<std::uint8_t>(byte / 4 * 2 + inPair / 2 * 2 * channels + inPair % 2);
        firstOfTwo[channels][byte] = static_cast<std::uint8_t>(byte + byte / channels * channels);
      }
    }
  }
  /// Brings the samples of one channel of two neighbouring pixels together.
  alignas(16) std::uint8_t pairOfPixels[5][16]{};
  /// Where the first pixel of each two is among 16 samples.
  alignas(16) std::uint8_t firstOfTwo[5][16]{};
};
constexpr ByteOrders kByteOrders;

/// Divides 8 sums by the area and brings the 4 bytes of each half together.
[[gnu::target("avx2"), gnu::always_inline]] inline __m256i DividedByArea(__m256i sums, bool floatIsExact,
                                                                         double inverse) {
  __m256i quotients;
  if (floatIsExact) {
    const __m256 shifted = _mm256_add_ps(_mm256_cvtepi32_ps(sums), _mm256_set1_ps(0.5F));
    quotients = _mm256_cvttps_epi32(_mm256_mul_ps(shifted, _mm256_set1_ps(static_cast<float>(inverse))));
  } else {
    const __m256d half = _mm256_set1_pd(0.5);
    const __m256d scale = _mm256_set1_pd(inverse);
    const __m256d low = _mm256_add_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(sums)), half);
    const __m256d high = _mm256_add_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(sums, 1)), half);
    quotients = _mm256_set_m128i(_mm256_cvttpd_epi32(_mm256_mul_pd(high, scale)),
                                 _mm256_cvttpd_epi32(_mm256_mul_pd(low, scale)));
  }
  return _mm256_shuffle_epi8(quotients, _mm256_set1_epi32(0x0c080400));
}

/// Two result pixels at a time, a channel in each of four lanes. kPairs: columns.pairs, or 0 for any number.
template <std::uint32_t kPairs, bool kFloatIsExact>
[[gnu::target("avx2")]] void FinishPixels(const AreaColumns& columns, const std::uint16_t* sums,
                                          std::uint8_t* result) {
  const std::size_t channels = columns.channels;
  const std::uint32_t pairs = kPairs == 0 ? columns.pairs : kPairs;
  const __m256i together = _mm256_broadcastsi128_si256(
      _mm_load_si128(reinterpret_cast<const __m128i*>(kByteOrders.pairOfPixels[channels])));
  const __m256i offset = _mm256_set1_epi32(static_cast<int>(columns.offset));
  const double inverse = columns.inverse;
  const std::int16_t* weights = columns.weights.data();
  std::uint32_t at = 0;
  for (std::uint32_t x = 0; x < columns.width; x += 2) {
    const std::uint16_t* left = sums + columns.first[at];
    const std::uint16_t* right = sums + columns.first[at + 1];
    __m256i total = offset;
    for (std::uint32_t pair = 0; pair < pairs; ++pair) {
      const __m128i ofLeft = _mm_loadu_si128(reinterpret_cast<const __m128i*>(left));
      const __m128i ofRight = _mm_loadu_si128(reinterpret_cast<const __m128i*>(right));
      const __m256i samples = _mm256_shuffle_epi8(_mm256_set_m128i(ofRight, ofLeft), together);
      const __m256i weight = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(weights));
      total = _mm256_add_epi32(total, _mm256_madd_epi16(samples, weight));
      left += 2 * channels;
      right += 2 * channels;
      weights += 16;
    }
    const __m256i pixels = DividedByArea(total, kFloatIsExact, inverse);
    const int leftPixel = _mm_cvtsi128_si32(_mm256_castsi256_si128(pixels));
    const int rightPixel = _mm_cvtsi128_si32(_mm256_extracti128_si256(pixels, 1));
    // Four bytes each: the next pixel overwrites what is too much.
    std::memcpy(result, &leftPixel, sizeof leftPixel);
    std::memcpy(result + channels, &rightPixel, sizeof rightPixel);
    result += 2 * channels;
    at += 2;
    if (at == columns.period) {
      at = 0;
      sums += columns.periodSamples;
      weights = columns.weights.data();
    }
  }
}

template <bool kFloatIsExact>
void FinishWithPairs(const AreaColumns& columns, const std::uint16_t* sums, std::uint8_t* result) {
  switch (columns.pairs) {
    case 1:
      return FinishPixels<1, kFloatIsExact>(columns, sums, result);
    case 2:
      return FinishPixels<2, kFloatIsExact>(columns, sums, result);
    case 3:
      return FinishPixels<3, kFloatIsExact>(columns, sums, result);
    default:
      return FinishPixels<0, kFloatIsExact>(columns, sums, result);
  }
}

/// Result pixels of 2 x 2 source pixels. The biases of two sums make 2^16, so 16 bits hold what is left.
[[gnu::target("avx2")]] void FinishQuarters(const AreaColumns& columns, const std::uint16_t* sums,
                                            std::uint8_t* result) {
  const std::size_t channels = columns.channels;
  const std::size_t atOnce = channels == 3 ? 9 : 8;
  const std::size_t length = columns.width * channels;
  const __m128i firstOfTwo =
      _mm_load_si128(reinterpret_cast<const __m128i*>(kByteOrders.firstOfTwo[channels]));
  for (std::size_t i = 0; i < length; i += atOnce) {
    const __m256i here = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + 2 * i));
    const __m256i next = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + 2 * i + channels));
    const __m256i totals = _mm256_add_epi16(_mm256_add_epi16(here, next), _mm256_set1_epi16(2));
    const __m256i means = _mm256_srli_epi16(totals, 2);
    const __m128i bytes = _mm_packus_epi16(_mm256_castsi256_si128(means), _mm256_extracti128_si256(means, 1));
    // More than there is to write: the next pixels overwrite it.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(result + i), _mm_shuffle_epi8(bytes, firstOfTwo));
  }
}

void FinishRowAvx2(const AreaColumns& columns, const std::uint16_t* sums, std::uint8_t* result) {
  if (columns.quarters) return FinishQuarters(columns, sums, result);
  if (columns.floatIsExact) return FinishWithPairs<true>(columns, sums, result);
  FinishWithPairs<false>(columns, sums, result);
}

#endif

portable::RoutineList<AreaKernel> FindAreaKernels() {
  portable::RoutineList<AreaKernel> kernels;
  kernels.Add({"plain", SetRowPlain, AddRowPlain, FinishRowPlain});
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2")) {
    kernels.Add({"avx2", SetRowAvx2, AddRowAvx2, FinishRowAvx2});
    if (__builtin_cpu_supports("avx512bw"))
      kernels.Add({"avx512", SetRowAvx512, AddRowAvx512, FinishRowAvx2});
  }
#endif
  return kernels;
}

}  // namespace

const portable::RoutineList<AreaKernel>& AreaKernels() {
  static const portable::RoutineList<AreaKernel> kernels = FindAreaKernels();
  return kernels;
}

}  // namespace Ormis::host
