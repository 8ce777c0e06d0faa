// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace scope {

/// What became of a word that was wrong.
enum class GuardedState : std::uint32_t {
  kPassing,    ///< right when it was read again
  kEvent,      ///< repaired, and right since then
  kComesBack,  ///< wrong again after an earlier repair
  kStays       ///< still wrong after it was repaired
};
constexpr std::uint32_t kGuardedStates = 4;

/// Whether the system tells the physical address.
enum class Physical : std::uint32_t { kUnknown, kNotAllowed, kKnown };

/// A wrong word of guarded memory.
struct GuardedError {
  std::uint64_t offset = 0;   ///< bytes from the start of the memory
  std::uint64_t address = 0;  ///< virtual, in the guard's process
  std::uint64_t physicalAddress = 0;
  Physical physical = Physical::kUnknown;
  GuardedState state = GuardedState::kEvent;
  std::uint64_t expected = 0;
  std::uint64_t found = 0;
  std::uint32_t pattern = 0;    ///< number of the pattern that was written
  std::uint64_t writtenNs = 0;  ///< when the word was written, by the pattern or a repair (monotonic)
  std::uint64_t foundNs = 0;
};

/// The name of a pattern: "random", "random, inverted".
const char* GuardPatternName(std::uint32_t pattern);

struct GuardCounts {
  std::uint64_t walks = 0;  ///< through all of the memory
  std::uint64_t checkedBytes = 0;
  std::uint64_t errors = 0;
  std::uint64_t unlisted = 0;  ///< errors that were not handed out: too many, or the same again
};

/// Memory with patterns, which is read block by block to find what changed. Some walks read, the next one
/// also writes the following pattern: each is followed by its inverse, and directions alternate. What is read
/// comes from memory: lines are flushed from the caches before they are read, and after they were written.
/// Threads: one.
class GuardedMemory {
 public:
  static constexpr std::size_t kBlockBytes = std::size_t{64} << 10;
  /// A pattern is read so often before the next one takes its place.
  static constexpr std::uint64_t kReadsOfAPattern = 4;
  /// Errors that are handed out for each walk.
  static constexpr std::size_t kMostListed = 2000;

  /// Takes `bytes`, rounded down to blocks, fills them with the first pattern and locks them against
  /// swapping if that is allowed. Throws std::bad_alloc if there are none.
  explicit GuardedMemory(std::size_t bytes);
  ~GuardedMemory();
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;

  /// Checks the next block and adds what is wrong to `errors`. Repairs it, and reads it again. Of a place
  /// that is wrong again and again, each GuardedState is added once, with what was found the first time.
  void Step(std::vector<GuardedError>& errors);

  /// True between two walks.
  bool IsAtStart() const { return next_ == 0; }

  unsigned char* Data() const { return data_; }
  std::size_t Bytes() const { return blocks_.size() * kBlockBytes; }
  bool IsLocked() const { return isLocked_; }
  const GuardCounts& Counts() const { return counts_; }
  /// How reads are kept from the caches: the instruction that empties them, or "none".
  static const char* FlushName();

 private:
  struct Block {
    std::uint32_t pattern = 0;
    std::uint64_t writtenNs = 0;
  };
  /// A word that was wrong before.
  struct Place {
    std::uint32_t listed = 0;      ///< a bit for each GuardedState that was handed out
    std::uint64_t repairedNs = 0;  ///< 0: it was not repaired
  };

  std::uint64_t* WordsOf(std::size_t block) const;
  void Write(std::size_t block, std::uint32_t pattern);
  void Judge(std::size_t block, std::size_t word, std::uint64_t expected, std::uint64_t found,
             std::vector<GuardedError>& errors);
  GuardedState Repair(std::uint64_t* word, std::uint64_t expected);
  void FindPhysical(GuardedError& error) const;

  unsigned char* mapping_ = nullptr;  ///< with a page before and behind that nobody may touch
  std::size_t mappingBytes_ = 0;
  unsigned char* data_ = nullptr;
  bool isLocked_ = false;
  int pageMap_ = -1;
  std::vector<Block> blocks_;
  std::size_t next_ = 0;  ///< blocks of this walk that are done
  std::size_t listed_ = 0;
  GuardCounts counts_;
  std::map<std::uint64_t, Place> places_;  ///< by offset
};

}  // namespace scope
