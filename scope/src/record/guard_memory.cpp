// SPDX-License-Identifier: Apache-2.0
#include "guard_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "cache_flush.h"
#include "monotonic_ns.h"
#include "patterns.h"

namespace scope {
namespace {

using Ormis::portable::EndFlush;
using Ormis::portable::FlushRoutines;

constexpr std::size_t kBlockWords = GuardedMemory::kBlockBytes / sizeof(std::uint64_t);
// Wrong places that are remembered. On memory with more of them it does not matter which came back.
constexpr std::size_t kMostPlaces = 100'000;

constexpr const char* kPatternNames[] = {"address", "address, inverted", "random", "random, inverted",
                                         "checker", "checker, inverted", "worst",  "worst, inverted",
                                         "walking", "walking, inverted", "zeros",  "ones"};
constexpr std::uint32_t kPatterns = sizeof(kPatternNames) / sizeof(kPatternNames[0]);

// The finalizer of SplitMix64: any word of the pattern is computed without those before it.
std::uint64_t RandomWord(std::uint64_t word, std::uint64_t seed) {
  std::uint64_t mixed = (word + seed) * 0x9e3779b97f4a7c15U;
  mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9U;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebU;
  return mixed ^ (mixed >> 31);
}

// Calls `visit` with each word of the block and what the pattern has there.
template <typename Visit>
void ForWords(std::uint64_t* words, std::size_t first, std::uint32_t pattern, const Visit& visit) {
  const std::uint64_t flipped = pattern % 2 == 0 ? 0 : kAllBits;
  const auto each = [&](const auto& wordAt) {
    for (std::size_t i = 0; i < kBlockWords; ++i) visit(words[i], i, wordAt(first + i) ^ flipped);
  };
  switch (pattern % kPatterns / 2) {
    case 0: {
      const auto start = reinterpret_cast<std::uintptr_t>(words);
      return each(
          [start, first](std::size_t word) { return start + (word - first) * sizeof(std::uint64_t); });
    }
    case 1: {
      // Another one in each round. The inverse has the same.
      const std::uint64_t seed = std::uint64_t{pattern / kPatterns + 1} << 40;
      return each([seed](std::size_t word) { return RandomWord(word, seed); });
    }
    case 2:
      return each(CheckerWord);
    case 3:
      return each(WorstWord);
    case 4:
      return each(WalkingWord);
    default:
      return each([](std::size_t /*word*/) { return std::uint64_t{0}; });
  }
}

// Another processor, or the memory itself, changes the word: read it when this says so.
std::uint64_t ReadNow(const std::uint64_t* word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}

void FlushBytes(const void* memory, std::size_t bytes) {
  FlushRoutines().back().flush(memory, bytes);
  EndFlush();
}

}  // namespace

const char* GuardPatternName(std::uint32_t pattern) {
  return kPatternNames[pattern % kPatterns];
}

const char* GuardedMemory::FlushName() {
  return FlushRoutines().back().name;
}

GuardedMemory::GuardedMemory(std::size_t bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t wanted = bytes / kBlockBytes * kBlockBytes;
  mappingBytes_ = wanted + 2 * page;
  void* const memory = mmap(nullptr, mappingBytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (wanted == 0 || memory == MAP_FAILED) throw std::bad_alloc();
  mapping_ = static_cast<unsigned char*>(memory);
  data_ = mapping_ + page;
  if (mprotect(data_, wanted, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
  isLocked_ = mlock(data_, wanted) == 0;
  pageMap_ = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
  blocks_.resize(wanted / kBlockBytes);
  for (std::size_t block = 0; block < blocks_.size(); ++block) Write(block, 0);
}

GuardedMemory::~GuardedMemory() {
  (void)munmap(mapping_, mappingBytes_);
  if (pageMap_ >= 0) (void)close(pageMap_);
}

std::uint64_t* GuardedMemory::WordsOf(std::size_t block) const {
  return reinterpret_cast<std::uint64_t*>(data_ + block * kBlockBytes);
}

void GuardedMemory::Write(std::size_t block, std::uint32_t pattern) {
  std::uint64_t* const words = WordsOf(block);
  ForWords(words, block * kBlockWords, pattern,
           [](std::uint64_t& word, std::size_t /*at*/, std::uint64_t value) { word = value; });
  FlushBytes(words, kBlockBytes);
  blocks_[block] = {pattern, MonotonicNs()};
}

void GuardedMemory::Step(std::vector<GuardedError>& errors) {
  const std::uint64_t pass = counts_.walks % kReadsOfAPattern;
  const bool writes = pass == kReadsOfAPattern - 1;
  const bool isDown = counts_.walks / kReadsOfAPattern % 2 == 1;
  const std::size_t block = isDown ? blocks_.size() - 1 - next_ : next_;
  const std::uint32_t pattern = blocks_[block].pattern;
  std::uint64_t* const words = WordsOf(block);
  FlushBytes(words, kBlockBytes);
  ForWords(words, block * kBlockWords, pattern,
           [&](const std::uint64_t& word, std::size_t at, std::uint64_t expected) {
             const std::uint64_t found = ReadNow(&word);
             if (__builtin_expect(static_cast<long>(found != expected), 0) != 0) {
               Judge(block, at, expected, found, errors);
             }
           });
  if (writes) Write(block, pattern + 1);
  counts_.checkedBytes += kBlockBytes;
  if (++next_ < blocks_.size()) return;
  next_ = 0;
  listed_ = 0;
  ++counts_.walks;
}

GuardedState GuardedMemory::Repair(std::uint64_t* word, std::uint64_t expected) {
  FlushBytes(word, sizeof(*word));
  if (ReadNow(word) == expected) return GuardedState::kPassing;
  __atomic_store_n(word, expected, __ATOMIC_RELAXED);
  FlushBytes(word, sizeof(*word));
  return ReadNow(word) == expected ? GuardedState::kEvent : GuardedState::kStays;
}

void GuardedMemory::Judge(std::size_t block, std::size_t word, std::uint64_t expected, std::uint64_t found,
                          std::vector<GuardedError>& errors) {
  GuardedError error;
  error.foundNs = MonotonicNs();
  error.offset = block * kBlockBytes + word * sizeof(expected);
  error.address = reinterpret_cast<std::uintptr_t>(data_ + error.offset);
  error.expected = expected;
  error.found = found;
  error.pattern = blocks_[block].pattern;
  const auto known = places_.find(error.offset);
  Place place = known == places_.end() ? Place() : known->second;
  error.writtenNs = std::max(blocks_[block].writtenNs, place.repairedNs);
  FindPhysical(error);
  error.state = Repair(WordsOf(block) + word, expected);
  // What passed was not repaired, so that it cannot come back.
  if (place.repairedNs != 0 && error.state == GuardedState::kEvent) error.state = GuardedState::kComesBack;
  if (error.state != GuardedState::kPassing) place.repairedNs = MonotonicNs();
  ++counts_.errors;
  const std::uint32_t state = 1U << static_cast<std::uint32_t>(error.state);
  if ((place.listed & state) == 0 && listed_ < kMostListed) {
    place.listed |= state;
    ++listed_;
    errors.push_back(error);
  } else {
    ++counts_.unlisted;
  }
  if (known != places_.end()) {
    known->second = place;
  } else if (places_.size() < kMostPlaces) {
    places_.emplace(error.offset, place);
  }
}

// An entry of the page map has the number of the page frame in its low 55 bits, and 0 there for those who may
// not know it. Bit 63: the page is in memory.
void GuardedMemory::FindPhysical(GuardedError& error) const {
  constexpr std::uint64_t kFrame = (std::uint64_t{1} << 55) - 1;
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  std::uint64_t entry = 0;
  const auto at = static_cast<off_t>(error.address / page * sizeof(entry));
  if (pageMap_ < 0) {
    error.physical = Physical::kNotAllowed;
  } else if (pread(pageMap_, &entry, sizeof(entry), at) == ssize_t{sizeof(entry)} && entry >> 63 != 0) {
    error.physical = (entry & kFrame) == 0 ? Physical::kNotAllowed : Physical::kKnown;
    if (error.physical == Physical::kKnown) {
      error.physicalAddress = (entry & kFrame) * page + error.address % page;
    }
  }
}

}  // namespace scope
