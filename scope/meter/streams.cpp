// SPDX-License-Identifier: Apache-2.0
#include "streams.h"

#include <sys/mman.h>

#include <utility>

#include "checker.h"
#include "verify.h"

namespace scope {
namespace {

constexpr std::size_t kSlots = 16384;
constexpr std::size_t kKeptStreams = 1024;
constexpr std::size_t kKeptBytes = std::size_t{32} << 10;
constexpr std::uint64_t kLeastAgreed = 8;
constexpr std::uint64_t kMostHeld = 8;
// An encoder that has strayed stays wrong: after so many errors in a row they are only counted.
constexpr int kMostListedInARow = 8;
constexpr std::uint64_t kPartEvery = 4;

struct Stream {
  std::uint64_t hash;
  std::uint64_t bytes;
  std::uint64_t operation;  ///< of its thread
  Checker* by;              ///< null: none
  std::uint32_t thread;
};

/// The streams of one frame.
struct Slot {
  std::uint64_t frame;  ///< its number, from 1; 0: empty
  Stream first;
  Stream other;  ///< the first one that is not as `first`
  std::uint32_t compared;
};

}  // namespace

/// The streams of one kind of encoder by the number of the frame.
struct StreamTable {
  std::atomic<bool> taken;
  std::atomic<bool> differs;    ///< see StreamsDiffer
  std::uint64_t key;            ///< 0: not in use
  std::uint8_t* kept;           ///< the bytes of the last kKeptStreams frames; null if there is no room
  bool judged;                  ///< channels agree: streams that have nothing in common are errors
  std::uint64_t agreed;         ///< streams that were as that of another channel
  std::uint64_t others;         ///< until then: streams that have nothing in common with another channel's
  ErrorPacket held[kMostHeld];  ///< the first ones of these
  std::uint64_t groups[kStreamGroups];  ///< hash of the first channel that has finished it; 0: none has
  bool groupsDiffer[kStreamGroups];     ///< another channel has another one
  Slot slots[kSlots];
};

namespace {

std::atomic<bool> tablesTaken{false};
StreamTable tables[kMostStreamKinds];

StreamTable* TableFor(std::uint64_t key) {
  const ShortLock lock(tablesTaken);
  for (StreamTable& table : tables) {
    if (table.key == key) return &table;
    if (table.key != 0) continue;
    void* const kept = mmap(nullptr, kKeptStreams * kKeptBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    table.kept = kept == MAP_FAILED ? nullptr : static_cast<std::uint8_t*>(kept);
    table.key = key;
    return &table;
  }
  return nullptr;
}

std::uint8_t* KeptAt(const StreamTable& table, std::uint64_t frame) {
  return table.kept == nullptr ? nullptr : table.kept + frame % kKeptStreams * kKeptBytes;
}

void KeepStream(StreamTable& table, Slot& slot, std::uint64_t frame, const Stream& made,
                const Spans& stream) {
  slot = {frame, made, {}, 0};
  std::uint8_t* const kept = KeptAt(table, frame);
  if (kept == nullptr) return;
  stream.Each(0, std::min(stream.total, kKeptBytes), [kept](Span part, std::size_t at) {
    std::memcpy(kept + at, part.data, part.bytes);
    return true;
  });
}

// Finds where the stream differs from the first one of `slot`. Only its first bytes are kept, and only for
// some frames. True if the two have nothing in common, or nothing is known.
bool FindDifference(const StreamTable& table, const Slot& slot, const Spans& stream, Difference& difference) {
  const std::uint64_t next = slot.frame + kKeptStreams;
  const bool isKept = table.slots[next % kSlots].frame != next;
  const std::uint8_t* const kept = KeptAt(table, slot.frame);
  if (kept == nullptr || !isKept || slot.first.bytes != stream.total) return true;
  const std::size_t bytes = std::min(stream.total, kKeptBytes);
  (void)SameInMemory(kept, stream, 0, bytes, difference);
  return IsOther(difference, bytes);
}

int Strayed(const Checker& checker) {
  return checker.strayed.load(std::memory_order_relaxed);
}

void Strays(Checker& checker) {
  checker.strayed.store(Strayed(checker) + 1, std::memory_order_relaxed);
}

// Two channels have the same stream.
void Agree(StreamTable& table, Slot& slot, const Stream& made) {
  const bool isFirst = slot.first.hash == made.hash;
  made.by->strayed.store(0, std::memory_order_relaxed);
  (isFirst ? slot.first : slot.other).by->strayed.store(0, std::memory_order_relaxed);
  // So the first one is alone with its stream. That the two differ is an error already.
  if (!isFirst) Strays(*slot.first.by);
  ++table.agreed;
  RaiseState(Engine::kVenc, CheckState::kJudged);
}

// The error that the stream differs from the first one of `slot`. Of the two channels, `wrong` is the one
// that has strayed.
ErrorPacket Disagreement(const ThreadCounters& counters, const Slot& slot, const Stream& made,
                         const Difference& difference, Checker*& wrong) {
  ErrorPacket error = MakeError(counters, *made.by, ErrorKind::kThreads, &difference, slot.first.thread);
  wrong = made.by;
  if (Strayed(*slot.first.by) <= Strayed(*made.by)) return error;
  wrong = slot.first.by;
  error.thread = slot.first.thread;
  error.other = made.thread;
  error.operation = slot.first.operation;
  std::swap(error.expected, error.found);
  error.address = 0;  // that stream has been released
  return error;
}

void Disagree(const ThreadCounters& counters, StreamTable& table, Slot& slot, const Stream& made,
              const Spans& stream) {
  Difference difference;
  const bool isOther = FindDifference(table, slot, stream, difference);
  Checker* wrong = nullptr;
  const ErrorPacket error = Disagreement(counters, slot, made, difference, wrong);
  if (slot.other.by == nullptr) slot.other = made;
  if (isOther && !table.judged) {
    if (table.others < kMostHeld) table.held[table.others] = error;
    ++table.others;
    return;
  }
  RaiseState(Engine::kVenc, CheckState::kJudged);
  // Some wrong bits are an error for itself.
  if (isOther) Strays(*wrong);
  AddError(*made.by, error, !isOther || Strayed(*wrong) <= kMostListedInARow);
}

// Streams of encoders that are not deterministic seldom agree.
void JudgeTable(Checker& checker, StreamTable& table) {
  if (!table.judged && table.agreed >= kLeastAgreed && 2 * table.agreed >= table.others) {
    table.judged = true;
    for (std::uint64_t i = 0; i < table.others; ++i) {
      AddError(checker, table.held[std::min(i, kMostHeld - 1)], i < kMostHeld);
    }
  }
  table.differs.store(!table.judged && table.others != 0, std::memory_order_relaxed);
}

// True if the stream differs from those of other channels and `mayDisagree` is not set: nothing is counted
// then.
bool CompareStream(const ThreadCounters& counters, StreamTable& table, std::uint64_t frame,
                   const Stream& made, const Spans& stream, bool mayDisagree) {
  const ShortLock lock(table.taken);
  Slot& slot = table.slots[frame % kSlots];
  if (slot.frame < frame) {
    KeepStream(table, slot, frame, made, stream);
    return false;
  }
  if (slot.frame != frame || slot.first.by == made.by) return false;
  const bool agrees =
      slot.first.hash == made.hash || (slot.other.by != nullptr && slot.other.hash == made.hash);
  if (!agrees && !mayDisagree) return true;
  Compared(*made.by, stream.total, true);
  // The first stream of the frame is now checked, too.
  if (slot.compared++ == 0) Compared(*made.by, slot.first.bytes, true);
  NoteJudged(*made.by);
  NoteJudged(*slot.first.by);
  if (agrees) {
    Agree(table, slot, made);
  } else {
    Disagree(counters, table, slot, made, stream);
  }
  JudgeTable(*made.by, table);
  return false;
}

std::uint32_t GroupOf(std::uint64_t frame) {
  std::uint32_t group = 0;
  while (group + 1 < kStreamGroups && frame >= GroupBegin(group + 1)) ++group;
  return group;
}

// Adds the stream of the channel's frame, numbered from 0, to its group. A group of which a stream is
// missing, and frames after the last group, are left out.
void AddToGroup(StreamTable& table, GroupSum& sum, std::uint64_t frame, std::uint64_t hash) {
  const std::uint32_t group = GroupOf(frame);
  if (frame == GroupBegin(group)) sum = {0, frame + 1};
  if (sum.next != frame + 1) return;
  sum.hash = Mixed(sum.hash, hash);
  if (sum.next++ != GroupBegin(group + 1)) return;
  sum.next = 0;
  const ShortLock lock(table.taken);
  if (table.groups[group] == 0) table.groups[group] = sum.hash;
  if (table.groups[group] != sum.hash) table.groupsDiffer[group] = true;
}

// What follows from a frame that has changed is not counted twice. A channel that has strayed has shown
// before that its frame is right.
bool MayDisagree(ThreadCounters& counters, Checker& checker, const Spans& frame) {
  return Strayed(checker) > kMostListedInARow || CheckSource(counters, checker, frame, true);
}

}  // namespace

bool StreamsDiffer() {
  return std::any_of(tables, tables + kMostStreamKinds,
                     [](const StreamTable& table) { return table.differs.load(std::memory_order_relaxed); });
}

bool StreamsOf(std::size_t kind, StreamsPacket& packet) {
  StreamTable& table = tables[kind];
  const ShortLock lockTables(tablesTaken);
  const ShortLock lock(table.taken);
  packet = {};
  packet.key = table.key;
  bool isKnown = false;
  for (std::uint32_t i = 0; i < kStreamGroups; ++i) {
    isKnown = isKnown || table.groups[i] != 0;
    if (!table.groupsDiffer[i]) packet.hashes[i] = table.groups[i];
  }
  return isKnown;
}

void CheckFrame(ThreadCounters& counters, const Spans& frame, std::uint64_t settings) {
  Checker& checker = CheckerOf(counters);
  if (!MayJudge(Engine::kVenc) || frame.count == 0) return;
  if (checker.kind == Mixed(settings, frame.total) && checker.source == frame.Begin()) return;
  if (!LearnWork(checker, Engine::kVenc, frame, settings)) {
    ForgetWork(checker);
    checker.lostChain = true;
    return;
  }
  // Another frame in the middle of the stream: what follows depends on all frames before it.
  std::uint64_t chain = Mixed(settings, checker.content->hash);
  if (checker.chain != 0) {
    chain = Mixed(Mixed(chain, checker.chain), checker.operations.load(std::memory_order_relaxed));
  }
  checker.chain = chain;
  checker.group = {};
  if (!checker.lostChain) checker.table = TableFor(chain);
}

void CheckStream(ThreadCounters& counters, const Spans& frame, const Spans& stream, std::uint64_t number,
                 std::uint64_t ns) {
  Checker& checker = BeginCheck(counters, ns, stream.total);
  if (!MayJudge(Engine::kVenc) || stream.total == 0) return;
  if (!LookAgain(checker, Engine::kVenc, frame)) return;
  if (++checker.turn % kPartEvery == 0 && MaySpend(checker, checker.partNs)) {
    CheckSourcePart(counters, checker, frame);
  }
  // None: the program has written the frame, or there are too many kinds.
  if (checker.table == nullptr) return;
  const std::uint64_t start = NowNs();
  std::uint64_t hash = stream.total;
  stream.Each(0, stream.total, [&hash](Span part, std::size_t /*at*/) {
    hash = HashOf(part, hash);
    return true;
  });
  const Stream made{hash, stream.total, checker.operations.load(std::memory_order_relaxed), &checker,
                    counters.thread};
  if (CompareStream(counters, *checker.table, number + 1, made, stream, false) &&
      MayDisagree(counters, checker, frame)) {
    (void)CompareStream(counters, *checker.table, number + 1, made, stream, true);
  }
  if (checker.table != nullptr) AddToGroup(*checker.table, checker.group, number, hash);
  Spent(checker, NowNs() - start);
}

}  // namespace scope
