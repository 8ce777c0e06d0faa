// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>

#include "words.h"

/// What memory held when it was first seen. Equal contents are kept once, so ten threads whose sources are
/// the same cost one copy. Nothing is freed before the program's end. Threads: any.
namespace scope {

/// Several stretches that are read as one, in their order. Stretches beyond the last place are left out.
struct Spans {
  static constexpr std::size_t kMost = 16;

  Spans() = default;
  Spans(const void* data, std::size_t bytes) { Add(data, bytes); }

  void Add(const void* data, std::size_t bytes) {
    if (count == kMost || bytes == 0) return;
    list[count++] = {static_cast<const std::uint8_t*>(data), bytes};
    total += bytes;
  }

  /// Null if there are none.
  const std::uint8_t* Begin() const { return count == 0 ? nullptr : list[0].data; }

  /// Calls `visit` with each part of the `bytes` from `from` on, and its offset, until it returns false.
  template <typename Visit>
  bool Each(std::size_t from, std::size_t bytes, const Visit& visit) const {
    std::size_t begin = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t first = std::max(from, begin);
      const std::size_t end = std::min(from + bytes, begin + list[i].bytes);
      if (first < end && !visit(Span{list[i].data + (first - begin), end - first}, first)) return false;
      begin += list[i].bytes;
    }
    return true;
  }

  Span list[kMost];
  std::size_t count = 0;
  std::size_t total = 0;  ///< bytes
};

/// Reads past the caches.
std::uint64_t HashFromMemory(const Spans& spans);

/// Compares `bytes` from `from` on with the same part of `expected`, past the caches.
bool SameInMemory(const std::uint8_t* expected, const Spans& found, std::size_t from, std::size_t bytes,
                  Difference& difference);

struct Content {
  std::uint64_t hash = 0;
  std::size_t bytes = 0;
  const std::uint8_t* copy = nullptr;  ///< null: there was no room for it
};

/// True if this program may read all of it. Asks the kernel, so that memory of a device that is not mapped
/// does not end the program.
bool CanRead(const Spans& spans);

/// Contents that are told apart.
constexpr std::size_t kMostContents = 128;

/// The content that `spans` have now. Null if it is another one than the kMostContents that are known.
const Content* KeepContent(const Spans& spans);

}  // namespace scope
