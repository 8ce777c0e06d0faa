// SPDX-License-Identifier: Apache-2.0
#include "verify.h"

#include <sys/mman.h>

#include "checker.h"

namespace scope {

namespace {

constexpr std::size_t kSlots = 16384;
constexpr std::size_t kKeptStreams = 1024;
constexpr std::size_t kKeptBytes = std::size_t{32} << 10;

}  // namespace

/// The streams of one kind of encoder by the number of the frame: what the first channel that came there
/// made.
struct StreamTable {
  struct Slot {
    std::uint64_t frame;  ///< its number, from 1; 0: empty
    std::uint64_t hash;
    std::uint64_t bytes;
    std::uint32_t thread;
    std::uint32_t compared;  ///< with how many others
  };

  std::atomic<bool> taken;
  std::uint64_t key;   ///< 0: not in use
  std::uint8_t* kept;  ///< the bytes of the last kKeptStreams frames; null if there is no room
  std::uint64_t compared;
  std::uint64_t others;  ///< of the first ones compared: streams with nothing in common
  Slot slots[kSlots];
};

namespace {

constexpr std::size_t kDrawnBytes = 1024;
constexpr std::size_t kLineBytes = 64;
constexpr int kMostTables = 4;
constexpr int kMostReferences = 32;
constexpr int kLeastAlike = 6;  // of Checker::kObservations
constexpr std::uint64_t kFirstStreams = 8;
constexpr std::uint64_t kMostOthers = 4;
constexpr int kStrayed = 8;
constexpr std::uint64_t kPartEvery = 4;

std::uint64_t Mixed(std::uint64_t a, std::uint64_t b) {
  std::uint64_t mixed = (a ^ (b + 0x9e3779b97f4a7c15U)) * 0xbf58476d1ce4e5b9U;
  mixed ^= mixed >> 31;
  return mixed == 0 ? 1 : mixed;
}

// What a source gives: learnt by the first thread, and compared by all others.
struct Reference {
  std::uint64_t key;
  std::uint64_t hash;
  const Content* content;
  std::uint32_t thread;
};

std::atomic<bool> referencesTaken{false};
Reference references[kMostReferences];
int referenceCount = 0;
std::atomic<bool> tablesTaken{false};
StreamTable tables[kMostTables];

// --- copies ---

// The destination differs from what the source held at first, or from the source where that is not known.
void ExplainCopy(ThreadCounters& counters, Checker& checker, const Spans& source, const Spans& destination,
                 std::size_t from, std::size_t bytes, const Difference& first) {
  FlushLines({source.list[0].data + from, bytes});
  Difference difference;
  if (SameInMemory(source.list[0].data, destination, from, bytes, difference)) {
    // The copy is right, so the source is not. If it is what it was, the difference has gone.
    if (checker.content == nullptr || checker.content->copy == nullptr ||
        CheckSourceAt(counters, checker, source, from, bytes)) {
      ReportError(counters, checker, ErrorKind::kPassing, &first);
    }
  } else if (IsOther(difference, bytes) && checker.operations.load(std::memory_order_relaxed) <= 2) {
    RaiseState(counters.engine, CheckState::kSourcesChange);
  } else {
    ReportError(counters, checker, ErrorKind::kCopy, &difference);
  }
}

void CompareCopy(ThreadCounters& counters, Checker& checker, const Spans& source, const Spans& destination,
                 std::size_t from, std::size_t bytes) {
  // A destination that has what the source held at first shows both: the source is right, and so is the copy.
  const bool isKept = checker.content != nullptr && checker.content->copy != nullptr;
  if (!isKept) FlushLines({source.list[0].data + from, bytes});
  const std::uint8_t* const expected = isKept ? checker.content->copy : source.list[0].data;
  Difference difference;
  if (SameInMemory(expected, destination, from, bytes, difference)) return;
  ExplainCopy(counters, checker, source, destination, from, bytes, difference);
}

// --- results ---

// The reference for the key. Makes it of these results, which have `hash`, where there is none; null if there
// is no room.
const Reference* ReferenceFor(std::uint64_t key, std::uint64_t hash, const Spans& results,
                              std::uint32_t thread) {
  {
    const ShortLock lock(referencesTaken);
    for (int i = 0; i < referenceCount; ++i) {
      if (references[i].key == key) return &references[i];
    }
  }
  const Content* const content = KeepContent(results);
  const ShortLock lock(referencesTaken);
  for (int i = 0; i < referenceCount; ++i) {
    if (references[i].key == key) return &references[i];
  }
  if (referenceCount == kMostReferences) return nullptr;
  Reference& reference = references[referenceCount++];
  reference = {key, hash, content, thread};
  return &reference;
}

// True when enough results were seen. A thread whose own results differ from each other cannot be judged.
void Learn(ThreadCounters& counters, Checker& checker, std::uint64_t hash) {
  checker.seen[checker.observations++] = hash;
  if (checker.observations < Checker::kObservations) return;
  int alike = 0;
  for (const std::uint64_t candidate : checker.seen) {
    const auto count =
        static_cast<int>(std::count(checker.seen, checker.seen + Checker::kObservations, candidate));
    if (count <= alike) continue;
    alike = count;
    checker.expected = candidate;
  }
  if (alike < kLeastAlike) {
    RaiseState(counters.engine, CheckState::kNotDeterministic);
    return;
  }
  checker.learnt = true;
  checker.compared = false;
  checker.reference = nullptr;
  RaiseState(counters.engine, CheckState::kJudged);
  for (int i = alike; i < Checker::kObservations; ++i) {
    ReportError(counters, checker, ErrorKind::kResult, nullptr);
  }
}

void CompareThreads(ThreadCounters& counters, Checker& checker, const Spans& results) {
  checker.compared = true;
  const Reference* const reference = ReferenceFor(checker.key, checker.expected, results, counters.thread);
  if (reference == nullptr) return;
  if (reference->hash == checker.expected) {
    checker.reference = reference->content;
    return;
  }
  Difference difference;
  const Content* const content = reference->content;
  if (content != nullptr && content->copy != nullptr && content->bytes == results.total) {
    (void)SameInMemory(content->copy, results, 0, results.total, difference);
  }
  ReportError(counters, checker, ErrorKind::kThreads, &difference, reference->thread);
}

void ExplainResult(ThreadCounters& counters, Checker& checker, const Spans& sources, const Spans& results) {
  // What follows from a source that has changed is not counted twice.
  if (!CheckSource(counters, checker, sources, true)) return;
  if (Mixed(HashFromMemory(results), results.total) == checker.expected) {
    ReportError(counters, checker, ErrorKind::kPassing, nullptr);
    return;
  }
  Difference difference;
  if (checker.reference != nullptr && checker.reference->copy != nullptr &&
      checker.reference->bytes == results.total) {
    (void)SameInMemory(checker.reference->copy, results, 0, results.total, difference);
  }
  ReportError(counters, checker, ErrorKind::kResult, &difference);
}

void CheckWholeResult(ThreadCounters& counters, Checker& checker, const Spans& sources,
                      const Spans& results) {
  const std::uint64_t start = NowNs();
  const bool learning = !checker.learnt;
  const std::uint64_t hash = Mixed(HashFromMemory(results), results.total);
  Compared(checker, results.total, true);
  checker.wholeNs = NowNs() - start;
  if (learning) {
    Learn(counters, checker, hash);
    return;
  }
  if (hash != checker.expected) {
    ExplainResult(counters, checker, sources, results);
  } else if (!checker.compared) {
    CompareThreads(counters, checker, results);
  }
  Spent(checker, NowNs() - start);
}

void CheckPart(ThreadCounters& counters, Checker& checker, const Spans& sources) {
  const std::uint64_t start = NowNs();
  (void)CheckSource(counters, checker, sources, false);
  checker.partNs = NowNs() - start;
  Spent(checker, checker.partNs);
}

// --- streams ---

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

// The stream is the first one of its frame.
void KeepStream(StreamTable& table, StreamTable::Slot& slot, const StreamTable::Slot& made,
                const Spans& stream) {
  slot = made;
  std::uint8_t* const kept = KeptAt(table, made.frame);
  if (kept == nullptr) return;
  stream.Each(0, std::min(stream.total, kKeptBytes), [kept](Span part, std::size_t at) {
    std::memcpy(kept + at, part.data, part.bytes);
    return true;
  });
}

// Finds where the stream differs from that of `slot`. Only its first bytes are kept, and only for some
// frames.
void FindDifference(const StreamTable& table, const StreamTable::Slot& slot, const Spans& stream,
                    Difference& difference) {
  const std::uint64_t next = slot.frame + kKeptStreams;
  const bool isKept = table.slots[next % kSlots].frame != next;
  const std::uint8_t* const kept = KeptAt(table, slot.frame);
  if (kept == nullptr || !isKept || slot.bytes != stream.total) return;
  (void)SameInMemory(kept, stream, 0, std::min(stream.total, kKeptBytes), difference);
}

enum class StreamAnswer { kNotCompared, kSame, kDiffers, kOther };

struct StreamComparison {
  StreamAnswer answer = StreamAnswer::kNotCompared;
  Difference difference;
  std::uint32_t other = 0;  // the thread that made the first stream of the frame
  bool firstPair = false;   // no other stream was compared with it before
  bool learning = false;    // too few were compared to know whether streams are the same by nature
  bool byNature = false;    // they are not
  std::uint64_t held = 0;   // differences of the first streams, which are now known to be errors
};

StreamComparison CompareStream(StreamTable& table, const StreamTable::Slot& made, const Spans& stream) {
  StreamComparison comparison;
  const ShortLock lock(table.taken);
  StreamTable::Slot& slot = table.slots[made.frame % kSlots];
  if (slot.frame < made.frame) {
    KeepStream(table, slot, made, stream);
    return comparison;
  }
  if (slot.frame != made.frame || slot.thread == made.thread) return comparison;
  comparison.other = slot.thread;
  comparison.firstPair = slot.compared++ == 0;
  comparison.answer = StreamAnswer::kSame;
  if (slot.hash != made.hash) {
    FindDifference(table, slot, stream, comparison.difference);
    const bool isOther = slot.bytes != stream.total || IsOther(comparison.difference, stream.total);
    comparison.answer = isOther ? StreamAnswer::kOther : StreamAnswer::kDiffers;
  }
  comparison.learning = ++table.compared < kFirstStreams;
  if (table.compared <= kFirstStreams && comparison.answer == StreamAnswer::kOther) ++table.others;
  comparison.byNature = table.others >= kMostOthers;
  if (table.compared == kFirstStreams) comparison.held = table.others;
  return comparison;
}

void JudgeStream(ThreadCounters& counters, Checker& checker, const StreamComparison& comparison) {
  if (comparison.byNature) {
    RaiseState(Engine::kVenc, CheckState::kNotDeterministic);
    return;
  }
  RaiseState(Engine::kVenc, CheckState::kJudged);
  for (std::uint64_t i = 0; i < comparison.held; ++i) {
    ReportError(counters, checker, ErrorKind::kThreads, nullptr, comparison.other);
  }
  if (comparison.answer == StreamAnswer::kSame) {
    checker.strayed = 0;
    return;
  }
  // Held back: counted in `others`.
  const bool isOther = comparison.answer == StreamAnswer::kOther;
  if (isOther && (comparison.learning || comparison.held != 0)) return;
  ReportError(counters, checker, ErrorKind::kThreads, &comparison.difference, comparison.other);
  if (isOther) ++checker.strayed;
}

}  // namespace

void CheckCopy(ThreadCounters& counters, const void* destination, const void* source, std::size_t bytes,
               std::uint64_t ns) {
  Checker& checker = BeginCheck(counters, ns, bytes);
  if (bytes == 0 || !MayJudge(Engine::kCpu)) return;
  const Spans to(destination, bytes);
  const Spans from(source, bytes);
  const bool isKnown = checker.source == from.list[0].data && checker.sourceBytes == bytes;
  if (!isKnown && !CanRead(to)) return RaiseState(Engine::kCpu, CheckState::kUnreadable);
  if (!KnowSource(checker, Engine::kCpu, from)) return;
  RaiseState(Engine::kCpu, CheckState::kJudged);

  const std::uint64_t start = NowNs();
  const bool first = checker.wholeNs == 0;
  const bool whole = first || MaySpend(checker, checker.wholeNs);
  checker.random ^= checker.random << 13;
  checker.random ^= checker.random >> 7;
  checker.random ^= checker.random << 17;
  const std::size_t drawn = std::min(kDrawnBytes, bytes);
  const std::size_t at = whole ? 0 : checker.random % (bytes - drawn + 1) / kLineBytes * kLineBytes;
  const std::size_t length = whole ? bytes : drawn;
  CompareCopy(counters, checker, from, to, at, length);
  Compared(checker, length, whole);
  const std::uint64_t took = NowNs() - start;
  if (whole) checker.wholeNs = took;
  if (!first) Spent(checker, took);
}

void CheckResults(ThreadCounters& counters, const Spans& sources, const Spans& results, std::uint64_t kind,
                  std::uint64_t ns) {
  Checker& checker = BeginCheck(counters, ns, results.total);
  if (!MayJudge(counters.engine) || results.total == 0) return;
  if (!KnowSource(checker, counters.engine, sources)) return;
  const std::uint64_t key = Mixed(kind, checker.content == nullptr ? 0 : checker.content->hash);
  if (checker.key != key) {
    if (!CanRead(results)) {
      RaiseState(counters.engine, CheckState::kUnreadable);
      return;
    }
    checker.key = key;
    checker.learnt = false;
    checker.observations = 0;
  }
  if (!checker.learnt) {
    CheckWholeResult(counters, checker, sources, results);
  } else if (++checker.turn % kPartEvery == 0) {
    if (MaySpend(checker, checker.partNs)) CheckPart(counters, checker, sources);
  } else if (MaySpend(checker, checker.wholeNs)) {
    CheckWholeResult(counters, checker, sources, results);
  }
}

void CheckFrame(ThreadCounters& counters, const Spans& frame, std::uint64_t settings) {
  Checker& checker = CheckerOf(counters);
  if (!MayJudge(Engine::kVenc)) return;
  const bool isKnown = checker.key != 0 && frame.count != 0 && checker.source == frame.list[0].data &&
                       checker.sourceBytes == frame.total;
  const std::uint64_t before = checker.key;
  if (isKnown || !KnowSource(checker, Engine::kVenc, frame)) return;
  // Another frame in the middle of the stream: what follows depends on all frames before it.
  checker.key = Mixed(Mixed(settings, checker.content == nullptr ? 0 : checker.content->hash), before);
  checker.table = TableFor(checker.key);
}

void CheckStream(ThreadCounters& counters, const Spans& frame, const Spans& stream, std::uint64_t number,
                 std::uint64_t ns) {
  Checker& checker = BeginCheck(counters, ns, stream.total);
  if (!MayJudge(Engine::kVenc) || checker.table == nullptr || stream.total == 0) return;
  if (++checker.turn % kPartEvery == 0 && MaySpend(checker, checker.partNs)) {
    CheckPart(counters, checker, frame);
  }
  if (checker.strayed >= kStrayed) return;
  const std::uint64_t start = NowNs();
  std::uint64_t hash = stream.total;
  stream.Each(0, stream.total, [&hash](Span part, std::size_t /*at*/) {
    hash = HashOf(part, hash);
    return true;
  });
  const StreamTable::Slot made{number + 1, hash, stream.total, counters.thread, 0};
  const StreamComparison comparison = CompareStream(*checker.table, made, stream);
  if (comparison.answer != StreamAnswer::kNotCompared) {
    Compared(checker, stream.total, true);
    // The first stream of the frame is now checked, too.
    if (comparison.firstPair) Compared(checker, stream.total, true);
    JudgeStream(counters, checker, comparison);
  }
  Spent(checker, NowNs() - start);
}

void LeaveUnchecked(ThreadCounters& counters, std::uint64_t ns) {
  (void)BeginCheck(counters, ns, 0);
  RaiseState(counters.engine, CheckState::kUnknown);
}

}  // namespace scope
