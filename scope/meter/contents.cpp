// SPDX-License-Identifier: Apache-2.0
#include "contents.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace scope {
namespace {

// For all copies together. The benchmark's own take 20 MB: one for each kind of source, and the results.
constexpr std::size_t kMostBytes = std::size_t{256} << 20;
constexpr std::size_t kAtOnce = std::size_t{64} << 10;
constexpr std::uint64_t kSeed = 0x243f6a8885a308d3U;

std::atomic<bool> contentsTaken{false};
Content contents[kMostContents];
std::size_t contentCount = 0;
std::size_t copiedBytes = 0;

const std::uint8_t* CopyOf(const Spans& spans) {
  if (spans.total > kMostBytes - copiedBytes) return nullptr;
  void* const memory = mmap(nullptr, spans.total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  copiedBytes += spans.total;
  auto* const copy = static_cast<std::uint8_t*>(memory);
  spans.Each(0, spans.total, [copy](Span part, std::size_t at) {
    std::memcpy(copy + at, part.data, part.bytes);
    return true;
  });
  return copy;
}

}  // namespace

std::uint64_t HashFromMemory(const Spans& spans) {
  std::uint64_t hash = kSeed;
  spans.Each(0, spans.total, [&hash](Span part, std::size_t /*at*/) {
    FlushLines(part);
    hash = HashOf(part, hash);
    return true;
  });
  return hash;
}

bool SameInMemory(const std::uint8_t* expected, const Spans& found, std::size_t from, std::size_t bytes,
                  Difference& difference) {
  bool same = true;
  found.Each(from, bytes, [&](Span part, std::size_t at) {
    FlushLines(part);
    same = Same(expected + at, part, at, difference) && same;
    return true;
  });
  return same;
}

bool CanRead(const Spans& spans) {
  const int error = errno;
  const int file = memfd_create("scope_probe", MFD_CLOEXEC);
  const bool readable = file >= 0 && spans.Each(0, spans.total, [file](Span part, std::size_t /*at*/) {
    for (std::size_t at = 0; at < part.bytes; at += kAtOnce) {
      const std::size_t bytes = std::min(kAtOnce, part.bytes - at);
      if (pwrite(file, part.data + at, bytes, 0) != static_cast<ssize_t>(bytes)) return false;
    }
    return true;
  });
  if (file >= 0) (void)close(file);
  errno = error;
  return readable;
}

const Content* KeepContent(const Spans& spans) {
  const std::uint64_t hash = HashFromMemory(spans);
  const ShortLock lock(contentsTaken);
  for (std::size_t i = 0; i < contentCount; ++i) {
    if (contents[i].hash == hash && contents[i].bytes == spans.total) return &contents[i];
  }
  if (contentCount == kMostContents) return nullptr;
  Content& content = contents[contentCount++];
  content = {hash, spans.total, CopyOf(spans)};
  return &content;
}

}  // namespace scope
