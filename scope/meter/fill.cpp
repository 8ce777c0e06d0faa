// SPDX-License-Identifier: Apache-2.0
#include "fill.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "patterns.h"
#include "words.h"

namespace scope {
namespace {

// The pattern repeats after this. Longer than what a memory controller reorders, and quickly made.
constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
constexpr std::size_t kWordBytes = sizeof(std::uint64_t);
constexpr std::size_t kMostBuffers = 512;

struct Buffer {
  std::uintptr_t begin;
  std::uintptr_t end;
};

struct Source {
  Buffer buffer;
  bool isFilled;
  std::uint32_t engines;  // a bit for each one that reads it
};
static_assert(kEngineCount <= 32, "a bit each");

struct Counts {
  bool hasSources;
  std::uint32_t buffers;
  std::uint32_t refused;
  std::uint64_t bytes;
};

Fill pattern = Fill::kZeros;
int blockFile = -1;
const std::uint8_t* block = nullptr;  // the pattern
std::atomic<bool> listTaken{false};   // for all that follows
Source sources[kMostBuffers];
std::size_t sourceCount = 0;
Buffer destinations[kMostBuffers];
std::size_t destinationCount = 0;
Counts counts[kEngineCount];

// The last ones of this thread: a worker that repeats one operation looks nowhere else.
struct LastSource {
  Buffer buffer;
  Engine engine;
};
__attribute__((tls_model("initial-exec"))) thread_local LastSource lastSource;
__attribute__((tls_model("initial-exec"))) thread_local Buffer lastDestination;

std::uint64_t PatternWord(std::size_t word, std::uint64_t& random) {
  switch (pattern) {
    case Fill::kZeros:
      return 0;
    case Fill::kOnes:
      return kAllBits;
    case Fill::kRandom:
      random ^= random << 13;
      random ^= random >> 7;
      random ^= random << 17;
      return random;
    case Fill::kChecker:
      return CheckerWord(word);
    case Fill::kWalking:
      return WalkingWord(word);
    case Fill::kWorst:
      return WorstWord(word);
  }
  return 0;
}

// The kernel writes the pattern, from a file in memory: it refuses memory that is not writable, where this
// program would be killed.
bool MakeBlock() {
  blockFile = memfd_create("scope_fill", MFD_CLOEXEC);
  if (blockFile < 0 || ftruncate(blockFile, kBlockBytes) != 0) return false;
  void* const memory = mmap(nullptr, kBlockBytes, PROT_READ | PROT_WRITE, MAP_SHARED, blockFile, 0);
  if (memory == MAP_FAILED) return false;
  auto* const words = static_cast<std::uint64_t*>(memory);
  std::uint64_t random = 0x9e3779b97f4a7c15U;
  for (std::size_t i = 0; i < kBlockBytes / kWordBytes; ++i) words[i] = PatternWord(i, random);
  (void)mprotect(memory, kBlockBytes, PROT_READ);
  block = static_cast<const std::uint8_t*>(memory);
  return true;
}

bool Write(std::uintptr_t begin, std::size_t bytes) {
  for (std::size_t at = 0; at < bytes;) {
    const std::size_t inBlock = at % kBlockBytes;
    const std::size_t left = bytes - at < kBlockBytes - inBlock ? bytes - at : kBlockBytes - inBlock;
    const ssize_t written =
        pread(blockFile, reinterpret_cast<void*>(begin + at), left, static_cast<off_t>(inBlock));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    at += static_cast<std::size_t>(written);
  }
  return true;
}

bool Overlaps(const Buffer* list, std::size_t count, const Buffer& buffer) {
  for (std::size_t i = 0; i < count; ++i) {
    if (list[i].begin < buffer.end && buffer.begin < list[i].end) return true;
  }
  return false;
}

bool IsIn(const Buffer* list, std::size_t count, const Buffer& buffer) {
  for (std::size_t i = 0; i < count; ++i) {
    if (list[i].begin == buffer.begin && list[i].end == buffer.end) return true;
  }
  return false;
}

// The entry of the buffer, which is made and filled where there is none. Null if the list is full.
Source* FilledSource(const Buffer& buffer, bool& isNew) {
  for (std::size_t i = 0; i < sourceCount; ++i) {
    if (sources[i].buffer.begin == buffer.begin && sources[i].buffer.end == buffer.end) return &sources[i];
  }
  if (sourceCount == kMostBuffers) return nullptr;
  isNew = true;
  Source& source = sources[sourceCount++];
  source = {buffer, !Overlaps(destinations, destinationCount, buffer), 0};
  const int error = errno;
  source.isFilled = source.isFilled && Write(buffer.begin, buffer.end - buffer.begin);
  errno = error;
  return &source;
}

}  // namespace

bool PrepareFill() {
  const char* const name = std::getenv(kFillVariable);
  if (name == nullptr || *name == '\0') return false;
  std::uint32_t at = 0;
  while (at < kFillCount && std::strcmp(kFillNames[at], name) != 0) ++at;
  if (at == kFillCount) return false;
  pattern = static_cast<Fill>(at);
  if (MakeBlock()) return true;
  (void)std::fprintf(stderr, "libstress_scope: cannot make the pattern %s: %s\n", name, strerror(errno));
  return false;
}

bool FillSource(Engine engine, const void* source, std::size_t bytes) {
  const auto begin = reinterpret_cast<std::uintptr_t>(source);
  const Buffer buffer{begin, begin + bytes};
  const Buffer& last = lastSource.buffer;
  if (buffer.begin == last.begin && buffer.end == last.end && engine == lastSource.engine) return false;
  lastSource = {buffer, engine};
  const auto number = static_cast<std::uint32_t>(engine);
  const ShortLock lock(listTaken);
  Counts& ofEngine = counts[number];
  ofEngine.hasSources = true;
  if (source == nullptr || bytes == 0) return false;
  bool isNew = false;
  Source* const entry = FilledSource(buffer, isNew);
  if (entry != nullptr && (entry->engines >> number & 1U) != 0) return false;
  if (entry != nullptr) entry->engines |= 1U << number;
  if (entry == nullptr || !entry->isFilled) {
    ++ofEngine.refused;
    return false;
  }
  ++ofEngine.buffers;
  ofEngine.bytes += bytes;
  return isNew;
}

bool HoldsPattern(Span filled, Difference& difference) {
  bool same = true;
  for (std::size_t at = 0; at < filled.bytes; at += kBlockBytes) {
    const std::size_t left = filled.bytes - at;
    const Span part{filled.data + at, left < kBlockBytes ? left : kBlockBytes};
    FlushLines(part);
    same = Same(block, part, at, difference) && same;
  }
  if (same) return true;
  const auto begin = reinterpret_cast<std::uintptr_t>(filled.data);
  const ShortLock lock(listTaken);
  return Overlaps(destinations, destinationCount, {begin, begin + filled.bytes});
}

void NoteDestination(const void* destination, std::size_t bytes) {
  const auto begin = reinterpret_cast<std::uintptr_t>(destination);
  const Buffer buffer{begin, begin + bytes};
  if (buffer.begin == lastDestination.begin && buffer.end == lastDestination.end) return;
  lastDestination = buffer;
  const ShortLock lock(listTaken);
  if (IsIn(destinations, destinationCount, buffer) || destinationCount == kMostBuffers) return;
  destinations[destinationCount++] = buffer;
}

FillPacket FillCounts(Engine engine) {
  const ShortLock lock(listTaken);
  const Counts& ofEngine = counts[static_cast<std::uint32_t>(engine)];
  FillPacket packet{};
  packet.pattern = static_cast<std::uint32_t>(pattern);
  packet.engine = engine;
  packet.hasSources = ofEngine.hasSources ? 1 : 0;
  packet.buffers = ofEngine.buffers;
  packet.refused = ofEngine.refused;
  packet.bytes = ofEngine.bytes;
  return packet;
}

}  // namespace scope
