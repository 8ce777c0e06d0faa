// SPDX-License-Identifier: Apache-2.0
#include "guard.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "error_of.h"
#include "guarded.h"
#include "memory_size.h"
#include "temporary_folder.h"

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using namespace scope;

constexpr std::size_t kBytes = 4 * GuardedMemory::kBlockBytes;

std::vector<GuardedError> Walk(GuardedMemory& memory) {
  std::vector<GuardedError> errors;
  for (std::size_t i = 0; i < memory.Bytes() / GuardedMemory::kBlockBytes; ++i) memory.Step(errors);
  return errors;
}

void FlipIn(GuardedMemory& memory, std::size_t bit) {
  memory.Data()[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
}

// --- patterns ---

TEST(GuardedMemory, EachPatternIsFollowedByItsInverse) {
  GuardedMemory memory(kBytes);
  ASSERT_EQ(memory.Bytes(), kBytes);
  std::set<std::string> names;
  std::set<std::vector<std::uint64_t>> contents;
  std::vector<std::uint64_t> before;
  for (std::uint32_t pattern = 0; pattern < 12; ++pattern) {
    std::vector<std::uint64_t> words(kBytes / 8);
    std::memcpy(words.data(), memory.Data(), kBytes);
    names.insert(GuardPatternName(pattern));
    if (pattern % 2 == 1) {
      for (std::size_t i = 0; i < words.size(); ++i) ASSERT_EQ(words[i], ~before[i]) << pattern << " " << i;
    }
    if (pattern == 0) {
      EXPECT_EQ(words[777], reinterpret_cast<std::uintptr_t>(memory.Data() + 777 * 8))
          << "address in address";
    }
    contents.insert(words);
    before = std::move(words);
    for (std::uint64_t read = 0; read < GuardedMemory::kReadsOfAPattern; ++read) {
      ASSERT_THAT(Walk(memory), IsEmpty()) << "pattern " << pattern;
    }
  }
  EXPECT_THAT(names, SizeIs(12));
  EXPECT_THAT(contents, SizeIs(12));
  EXPECT_EQ(memory.Counts().walks, 12 * GuardedMemory::kReadsOfAPattern);
  EXPECT_EQ(memory.Counts().checkedBytes, memory.Counts().walks * kBytes);
}

TEST(GuardedMemory, RandomWordsAreOthersInEachRound) {
  GuardedMemory memory(kBytes);
  const auto walkTo = [&memory](std::uint64_t pattern) {
    while (memory.Counts().walks < pattern * GuardedMemory::kReadsOfAPattern)
      ASSERT_THAT(Walk(memory), IsEmpty());
  };
  walkTo(2);
  const std::vector<unsigned char> first(memory.Data(), memory.Data() + kBytes);
  walkTo(14);
  const std::vector<unsigned char> second(memory.Data(), memory.Data() + kBytes);
  EXPECT_NE(first, second);
}

// --- errors ---

TEST(GuardedMemory, EveryFlipIsFoundWithItsPlaceAndRepaired) {
  GuardedMemory memory(kBytes);
  std::mt19937 random(1);
  std::set<std::size_t> words;
  for (int flip = 0; flip < 1000; ++flip) {
    std::size_t bit = random() % (kBytes * 8);
    while (!words.insert(bit / 64).second) bit = random() % (kBytes * 8);
    FlipIn(memory, bit);
    const std::vector<GuardedError> errors = Walk(memory);
    ASSERT_THAT(errors, SizeIs(1)) << "flip " << flip << " of bit " << bit;
    const GuardedError& error = errors[0];
    ASSERT_EQ(error.offset, bit / 64 * 8);
    ASSERT_EQ(error.address, reinterpret_cast<std::uintptr_t>(memory.Data() + error.offset));
    ASSERT_EQ(error.expected ^ error.found, std::uint64_t{1} << bit % 64);
    ASSERT_EQ(error.state, GuardedState::kEvent);
    ASSERT_GT(error.foundNs, error.writtenNs);
  }
  EXPECT_THAT(Walk(memory), IsEmpty()) << "all are repaired";
  EXPECT_EQ(memory.Counts().errors, 1000U);
  EXPECT_EQ(memory.Counts().unlisted, 0U);
}

TEST(GuardedMemory, TheSamePlaceAgainComesBackAndIsListedOnce) {
  GuardedMemory memory(kBytes);
  FlipIn(memory, 4711);
  EXPECT_EQ(Walk(memory).at(0).state, GuardedState::kEvent);
  FlipIn(memory, 4712);
  EXPECT_EQ(Walk(memory).at(0).state, GuardedState::kComesBack) << "another bit of the same word";
  FlipIn(memory, 4711);
  EXPECT_THAT(Walk(memory), IsEmpty());
  EXPECT_EQ(memory.Counts().errors, 3U);
  EXPECT_EQ(memory.Counts().unlisted, 1U);
}

TEST(GuardedMemory, TheAgeOfARepairedWordBeginsWithItsRepair) {
  GuardedMemory memory(kBytes);
  FlipIn(memory, 4711);
  const GuardedError first = Walk(memory).at(0);
  EXPECT_LT(first.writtenNs, first.foundNs);
  FlipIn(memory, 4711);
  const GuardedError again = Walk(memory).at(0);
  EXPECT_GE(again.writtenNs, first.foundNs);
  EXPECT_LT(again.writtenNs, again.foundNs);
  // Other words of the block have the age of its pattern.
  FlipIn(memory, 4711 + 64);
  EXPECT_EQ(Walk(memory).at(0).writtenNs, first.writtenNs);
}

// Walks until `enough`. Another thread plays a bad cell: it changes a word again and again.
void WalkDisturbed(GuardedMemory& memory, const std::function<void(std::uint64_t*)>& disturb,
                   const std::function<bool(const std::vector<GuardedError>&)>& enough) {
  auto* const word = reinterpret_cast<std::uint64_t*>(memory.Data() + 800);
  std::atomic<bool> ends{false};
  std::thread other([&] {
    while (!ends.load(std::memory_order_relaxed)) disturb(word);
  });
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (!enough(Walk(memory)) && std::chrono::steady_clock::now() < limit) {
  }
  ends.store(true, std::memory_order_relaxed);
  other.join();
}

// When the other thread has a processor, the guard sees the wanted state sooner or later.
GuardedState SeenWith(const std::function<void(std::uint64_t*)>& disturb, GuardedState wanted) {
  GuardedMemory memory(GuardedMemory::kBlockBytes);
  GuardedState last = GuardedState::kEvent;
  WalkDisturbed(memory, disturb, [&](const std::vector<GuardedError>& errors) {
    for (const GuardedError& error : errors) last = last == wanted ? last : error.state;
    return last == wanted;
  });
  return last;
}

TEST(GuardedMemory, AWordThatCannotBeRepairedStays) {
  const auto stuck = [](std::uint64_t* word) { __atomic_store_n(word, 0x1234, __ATOMIC_RELAXED); };
  EXPECT_EQ(SeenWith(stuck, GuardedState::kStays), GuardedState::kStays);
}

TEST(GuardedMemory, AWordThatIsRightAgainPasses) {
  const auto toggling = [](std::uint64_t* word) { __atomic_fetch_xor(word, 1, __ATOMIC_RELAXED); };
  EXPECT_EQ(SeenWith(toggling, GuardedState::kPassing), GuardedState::kPassing);
}

// Its states come in turns.
TEST(GuardedMemory, APlaceThatIsWrongAgainAndAgainIsListedOnceForEachState) {
  GuardedMemory memory(GuardedMemory::kBlockBytes);
  std::map<GuardedState, int> rows;
  const auto toggling = [](std::uint64_t* word) { __atomic_fetch_xor(word, 1, __ATOMIC_RELAXED); };
  WalkDisturbed(memory, toggling, [&](const std::vector<GuardedError>& errors) {
    for (const GuardedError& error : errors) ++rows[error.state];
    return memory.Counts().errors >= 300;
  });
  ASSERT_GE(memory.Counts().errors, 300U);
  for (const auto& [state, count] : rows) EXPECT_EQ(count, 1) << static_cast<int>(state);
  EXPECT_EQ(memory.Counts().errors - memory.Counts().unlisted, rows.size());
}

TEST(GuardedMemory, AWalkListsABoundedNumberAndCountsAll) {
  GuardedMemory memory(kBytes);
  std::memset(memory.Data(), 0x5a, GuardedMemory::kBlockBytes);
  EXPECT_THAT(Walk(memory), SizeIs(GuardedMemory::kMostListed));
  EXPECT_EQ(memory.Counts().errors, GuardedMemory::kBlockBytes / 8);
  EXPECT_EQ(memory.Counts().unlisted, memory.Counts().errors - GuardedMemory::kMostListed);
}

TEST(GuardedMemory, ThePhysicalAddressIsThatOfThePageMapOrNotAllowed) {
  GuardedMemory memory(kBytes);
  FlipIn(memory, 99'999);
  const GuardedError error = Walk(memory).at(0);
  std::uint64_t entry = 0;
  std::ifstream map("/proc/self/pagemap", std::ios::binary);
  map.seekg(
      static_cast<std::streamoff>(error.address / static_cast<std::uint64_t>(getpagesize()) * sizeof(entry)));
  map.read(reinterpret_cast<char*>(&entry), sizeof(entry));
  const std::uint64_t frame = map ? entry & ((std::uint64_t{1} << 55) - 1) : 0;
  EXPECT_EQ(error.physical, frame == 0 ? Physical::kNotAllowed : Physical::kKnown);
  const auto page = static_cast<std::uint64_t>(getpagesize());
  EXPECT_EQ(error.physicalAddress, frame == 0 ? 0 : frame * page + error.address % page);
}

// --- how much ---

TEST(GuardSize, IsANumberWithAUnitOrAShare) {
  constexpr std::uint64_t kAvailable = std::uint64_t{8} << 30;
  EXPECT_EQ(GuardBytes("65536", kAvailable), 65536U);
  EXPECT_EQ(GuardBytes("64K", kAvailable), 65536U);
  EXPECT_EQ(GuardBytes("512M", kAvailable), std::uint64_t{512} << 20);
  EXPECT_EQ(GuardBytes("1.5G", kAvailable), std::uint64_t{1536} << 20);
  EXPECT_EQ(GuardBytes("25%", kAvailable), std::uint64_t{2} << 30);
}

TEST(GuardSize, IsRefusedWithTheReason) {
  const auto refusal = [](const std::string& size) {
    return ErrorOf([&] { (void)GuardBytes(size, std::uint64_t{64} << 20); });
  };
  for (const char* const size : {"", "many", "-1", "5T", "512 M", "1e400", "%"}) {
    EXPECT_THAT(refusal(size), HasSubstr("expected a size as 512M or 2G, or a share"));
  }
  EXPECT_THAT(refusal("63K"), HasSubstr("expected at least 64K"));
  EXPECT_THAT(refusal("0%"), HasSubstr("expected at least 64K"));
  EXPECT_THAT(refusal("65M"), HasSubstr("only 64.0 MiB of memory are available"));
  EXPECT_THAT(refusal("101%"), HasSubstr("only 64.0 MiB of memory are available"));
  EXPECT_THAT(ErrorOf([] { (void)GuardBytes("1M", 0); }), HasSubstr("does not say how much memory"));
}

TEST(GuardSize, IsComparedWithWhatTheSystemSaysIsAvailable) {
  const TemporaryFolder folder;
  EXPECT_EQ(AvailableBytes(folder.Path()), 0U);
  folder.Put("proc/meminfo", "MemTotal:  999999 kB\nMemFree:  1 kB\nMemAvailable:   2048 kB\n");
  EXPECT_EQ(AvailableBytes(folder.Path() + "/"), 2048U << 10);
}

// --- the process ---

constexpr std::uint64_t kGuarded = std::uint64_t{1} << 20;
// A walk takes 0.1 s, and the fourth one writes the next pattern: over what has changed since its word was
// read, too, which nobody finds then. Tests change bits long before that.
constexpr double kSlowRate = 10;

struct Seen {
  std::vector<RunError> errors;
  std::vector<CounterValue> values;
};

void WaitForError(Guard& guard, Seen& seen) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (seen.errors.empty() && guard.Fault().empty() && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    guard.Read(0, seen.errors, seen.values);
  }
}

// Its last walk.
void End(Guard& guard, Seen& seen) {
  guard.BeginLastWalk();
  while (guard.Descriptor() >= 0) {
    pollfd wait{guard.Descriptor(), POLLIN, 0};
    (void)poll(&wait, 1, 1000);
    guard.Read(0, seen.errors, seen.values);
  }
}

bool HasEnded(pid_t process) {
  std::string name;
  std::string state = "Z";
  pid_t id = 0;
  std::ifstream("/proc/" + std::to_string(process) + "/stat") >> id >> name >> state;
  return state == "Z";
}

TEST(Guard, FindsAFlipInItsRunningProcess) {
  Guard guard(kGuarded, kSlowRate);
  EXPECT_EQ(guard.Summary().bytes, kGuarded);
  ASSERT_EQ(guarded::Process(), guard.Id());
  const std::uint64_t address = guarded::Address(guard.Id(), kGuarded);
  ASSERT_NE(address, 0U);
  // The signals that end a recording are not for it.
  (void)kill(guard.Id(), SIGINT);
  (void)kill(guard.Id(), SIGTERM);
  ASSERT_TRUE(guarded::Flip(guard.Id(), address, 7'654'321));
  Seen seen;
  WaitForError(guard, seen);
  ASSERT_THAT(seen.errors, SizeIs(1)) << guard.Fault();
  const RunError& error = seen.errors[0];
  EXPECT_EQ(error.source, "guard");
  EXPECT_EQ(error.what, "event");
  EXPECT_EQ(error.offset, 7'654'321U / 64 * 8);
  EXPECT_EQ(std::stoull(error.address, nullptr, 16), address + 7'654'321U / 64 * 8);
  EXPECT_EQ(std::stoull(error.expected, nullptr, 16) ^ std::stoull(error.found, nullptr, 16),
            std::uint64_t{1} << 7'654'321U % 64);
  EXPECT_EQ(error.bits, 1U);
  EXPECT_THAT(error.note, testing::MatchesRegex("pattern [a-z, ]+; written [0-9.]+ s before"));
  EXPECT_GT(error.timeS, 0);
  End(guard, seen);
  EXPECT_EQ(guard.Fault(), "");
  EXPECT_THAT(seen.errors, SizeIs(1)) << "it was repaired";
  EXPECT_EQ(guard.Summary().errors, 1U);
  EXPECT_GT(guard.Summary().walks, 0U);
  EXPECT_FALSE(guard.Summary().isCut);
  EXPECT_GT(guard.Summary().checkedBytes, 0U);
  EXPECT_GT(guard.Summary().guardedS, 0);
}

TEST(Guard, WalksOnceMoreAtTheEnd) {
  Guard guard(kGuarded, 1);
  const std::uint64_t address = guarded::Address(guard.Id(), kGuarded);
  ASSERT_NE(address, 0U);
  ASSERT_TRUE(guarded::Flip(guard.Id(), address, kGuarded * 8 - 1));
  Seen seen;
  End(guard, seen);
  ASSERT_THAT(seen.errors, SizeIs(1));
  EXPECT_EQ(seen.errors[0].offset, kGuarded - 8);
  EXPECT_EQ(guard.Fault(), "");
  EXPECT_EQ(guard.Descriptor(), -1);
}

TEST(Guard, ASignalEndsItWhileItFillsItsMemory) {
  Signals signals;
  ASSERT_EQ(kill(getpid(), SIGINT), 0);
  EXPECT_THROW(Guard(std::uint64_t{64} << 20, 1000, &signals), Interrupted);
  EXPECT_EQ(guarded::Process(), -1);
  // The end of another process is a signal, too, but none of the user's.
  ASSERT_EQ(kill(getpid(), SIGCHLD), 0);
  Guard guard(kGuarded, 1000, &signals);
  EXPECT_EQ(guard.Summary().bytes, kGuarded);
}

// It has found one bit when it is stopped, so that its last walk does not end.
TEST(Guard, ALastWalkThatIsCutShortKeepsWhatWasFound) {
  Guard guard(kGuarded, kSlowRate);
  const std::uint64_t address = guarded::Address(guard.Id(), kGuarded);
  ASSERT_NE(address, 0U);
  const auto flipAndAwaitRepair = [&](std::uint64_t bit) {
    // Not read again: by then it may have been repaired.
    const int is = guarded::Flipped(guard.Id(), address, bit);
    ASSERT_GE(is, 0);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (guarded::Byte(guard.Id(), address, bit) == is && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  };
  flipAndAwaitRepair(800);
  flipAndAwaitRepair(kGuarded * 8 - 1);  // in another block: the first one was told before
  ASSERT_EQ(kill(guard.Id(), SIGSTOP), 0);
  guard.BeginLastWalk();
  guard.CutShort();
  Seen seen;
  End(guard, seen);
  EXPECT_EQ(guard.Fault(), "");
  ASSERT_GE(seen.errors.size(), 1U);
  EXPECT_EQ(seen.errors[0].offset, 800U / 64 * 8);
  EXPECT_GE(guard.Summary().errors, seen.errors.size());
  EXPECT_TRUE(guard.Summary().isCut);
}

TEST(Guard, KeepsToItsRate) {
  Guard guard(kGuarded, 1);
  Seen seen;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
  while (std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    guard.Read(0, seen.errors, seen.values);
  }
  End(guard, seen);
  const GuardSummary& summary = guard.Summary();
  // 1 MB a second, the first block, and what a guard that had no processor may make good.
  EXPECT_LE(static_cast<double>(summary.checkedBytes), 1e6 * (summary.guardedS + 0.1) + 65536);
}

TEST(Guard, OneThatIsKilledSaysSo) {
  Guard guard(kGuarded, 100);
  ASSERT_EQ(kill(guard.Id(), SIGKILL), 0);
  Seen seen;
  WaitForError(guard, seen);
  EXPECT_EQ(guard.Fault(), "the guard was ended by SIGKILL");
  EXPECT_FALSE(guard.HasCrashed());
  EXPECT_EQ(guard.Descriptor(), -1);
}

// The files that a process has open, by their descriptors.
std::map<int, std::string> OpenFiles(pid_t process) {
  std::map<int, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
    std::error_code gone;  // the one that lists the folder
    files[std::stoi(entry.path().filename())] = std::filesystem::read_symlink(entry.path(), gone);
  }
  return files;
}

TEST(Guard, HasNoFileOfTheRecorder) {
  const TemporaryFolder folder;
  const std::string path = folder.Put("lock", "");
  // One below the guard's socket and one above it.
  const int low = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int high = fcntl(low, F_DUPFD_CLOEXEC, 200);
  ASSERT_EQ(OpenFiles(getpid()).at(low), path);
  ASSERT_EQ(OpenFiles(getpid()).at(high), path);
  const Guard guard(kGuarded, 100);
  int sockets = 0;
  for (const auto& [descriptor, file] : OpenFiles(guard.Id())) {
    if (descriptor <= STDERR_FILENO) {
      EXPECT_EQ(file, "/dev/null");
    } else if (file.find("socket:") == 0) {
      ++sockets;
      EXPECT_GT(descriptor, low);
      EXPECT_LT(descriptor, high);
    } else {
      EXPECT_EQ(file, "/proc/" + std::to_string(guard.Id()) + "/pagemap") << "opened by the guard";
    }
  }
  EXPECT_EQ(sockets, 1);
  (void)close(low);
  (void)close(high);
}

TEST(Guard, OneThatCrashesSaysSo) {
  Guard guard(kGuarded, 100);
  ASSERT_EQ(kill(guard.Id(), SIGABRT), 0);
  Seen seen;
  WaitForError(guard, seen);
  EXPECT_EQ(guard.Fault(), "the guard was ended by SIGABRT");
  EXPECT_TRUE(guard.HasCrashed());
}

TEST(Guard, DoesNotOutliveItsOwner) {
  pid_t id = 0;
  {
    const Guard guard(kGuarded, 100);
    id = guard.Id();
    EXPECT_FALSE(HasEnded(id));
  }
  EXPECT_TRUE(HasEnded(id));
}

TEST(Guard, DoesNotOutliveAProgramThatIsKilled) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe(ends), 0);
  const pid_t recorder = fork();
  if (recorder == 0) {
    const Guard guard(kGuarded, 100);
    const pid_t id = guard.Id();
    (void)!write(ends[1], &id, sizeof(id));
    (void)kill(getpid(), SIGKILL);
  }
  pid_t guard = 0;
  ASSERT_EQ(read(ends[0], &guard, sizeof(guard)), ssize_t{sizeof(guard)});
  int status = 0;
  ASSERT_EQ(waitpid(recorder, &status, 0), recorder);
  ASSERT_TRUE(WIFSIGNALED(status));
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!HasEnded(guard) && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(HasEnded(guard));
  (void)close(ends[0]);
  (void)close(ends[1]);
}

}  // namespace
