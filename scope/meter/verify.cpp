// SPDX-License-Identifier: Apache-2.0
#include "verify.h"

#include <numeric>

#include "checker.h"
#include "fill.h"

namespace scope {
namespace {

constexpr std::size_t kDrawnBytes = 1024;
constexpr std::uint64_t kMostDrawnNs = 20'000;
constexpr int kMostReferences = 32;
constexpr int kLeastAlike = 6;  // of Checker::kObservations
constexpr std::uint64_t kMostOnTop = std::uint64_t{2} * Checker::kObservations;
constexpr std::size_t kFewWords = 16;
constexpr std::uint64_t kPartEvery = 4;

// What a source gives: learnt by the first thread, and compared by all others.
struct Reference {
  std::uint64_t key;
  std::uint64_t hash;
  const Content* content;
  std::uint32_t thread;
  const Checker* owner;  // of that thread
};

std::atomic<bool> referencesTaken{false};
Reference references[kMostReferences];
int referenceCount = 0;

// --- copies ---

// The destination differs from what the source held at first, or from the source where that is not known.
// Only where they differ is read again: what this takes is part of the allowance, and the next check waits
// for it.
void ExplainCopy(ThreadCounters& counters, Checker& checker, const Spans& source, const Spans& destination,
                 const Difference& first) {
  const std::size_t from = first.offset;
  const std::size_t bytes = first.end - first.offset;
  FlushLines({source.list[0].data + from, bytes});
  Difference difference;
  if (SameInMemory(source.list[0].data, destination, from, bytes, difference)) {
    // The copy is right, so the source is not. If it is what it was, the difference has gone.
    if (checker.content == nullptr || checker.content->copy == nullptr ||
        CheckSourceAt(counters, checker, source, from, bytes)) {
      ReportError(counters, checker, ErrorKind::kPassing, &first);
    }
    return;
  }
  // Another thread of the program may write the source all the time.
  Difference all;
  if (checker.operations.load(std::memory_order_relaxed) <= 2 &&
      !SameInMemory(source.list[0].data, destination, 0, source.total, all) && IsOther(all, source.total)) {
    RaiseState(counters.engine, CheckState::kSourcesChange);
    return;
  }
  ReportError(counters, checker, ErrorKind::kCopy, &difference);
}

void CompareCopy(ThreadCounters& counters, Checker& checker, const Spans& source, const Spans& destination,
                 std::size_t from, std::size_t bytes) {
  // A destination that has what the source held at first shows both: the source is right, and so is the copy.
  const bool isKept = checker.content != nullptr && checker.content->copy != nullptr;
  if (!isKept) FlushLines({source.list[0].data + from, bytes});
  const std::uint8_t* const expected = isKept ? checker.content->copy : source.list[0].data;
  Difference difference;
  if (SameInMemory(expected, destination, from, bytes, difference)) return;
  ExplainCopy(counters, checker, source, destination, difference);
}

// --- results ---

// Null if there is none.
const Reference* FindReference(std::uint64_t key) {
  const ShortLock lock(referencesTaken);
  for (int i = 0; i < referenceCount; ++i) {
    if (references[i].key == key) return &references[i];
  }
  return nullptr;
}

// The reference for the key. Makes it of these results, which have `hash`, where there is none; null if there
// is no room.
const Reference* ReferenceFor(std::uint64_t key, std::uint64_t hash, const Spans& results,
                              std::uint32_t thread, const Checker& owner) {
  if (const Reference* const known = FindReference(key); known != nullptr) return known;
  const Content* const content = KeepContent(results);
  const ShortLock lock(referencesTaken);
  for (int i = 0; i < referenceCount; ++i) {
    if (references[i].key == key) return &references[i];
  }
  if (referenceCount == kMostReferences) return nullptr;
  Reference& reference = references[referenceCount++];
  reference = {key, hash, content, thread, &owner};
  return &reference;
}

// From now on `checker.expected` is right. Those of the seen results that differ are errors.
void JudgeBy(ThreadCounters& counters, Checker& checker, const Content* reference, bool isCompared) {
  checker.learnt = true;
  checker.unlike.store(false, std::memory_order_relaxed);
  checker.observations = 0;
  checker.compared = isCompared;
  checker.reference = reference;
  NoteJudged(checker);
  RaiseState(counters.engine, CheckState::kJudged);
  for (const std::uint64_t hash : checker.seen) {
    if (hash != checker.expected) ReportError(counters, checker, ErrorKind::kResult, nullptr);
  }
}

// Takes the most common one of the seen results as right. Returns how many are as this one.
int TakeMostCommon(Checker& checker) {
  int alike = 0;
  for (const std::uint64_t candidate : checker.seen) {
    const auto count =
        static_cast<int>(std::count(checker.seen, checker.seen + Checker::kObservations, candidate));
    if (count <= alike) continue;
    alike = count;
    checker.expected = candidate;
  }
  return alike;
}

// The first results of the first work come on top: those that Learn and LearnFromBits take.
bool IsOnTop(const Checker& checker) {
  return checker.works == 1 && checker.checked.load(std::memory_order_relaxed) < kMostOnTop;
}

// Learns what is right when enough results were seen. A thread whose own results differ from each other, if
// its source has stayed the same, does not know what is right: see LearnFromUnlike.
void Learn(ThreadCounters& counters, Checker& checker, const Spans& sources, const Spans& results,
           std::uint64_t hash) {
  checker.seen[checker.observations++] = hash;
  if (checker.observations < Checker::kObservations) return;
  const int alike = TakeMostCommon(checker);
  checker.observations = 0;
  // What follows from a source that has changed is not counted.
  if (alike < Checker::kObservations && !CheckSource(counters, checker, sources, true)) return;
  if (alike < Checker::kObservations) checker.unsure.store(true, std::memory_order_relaxed);
  if (alike >= kLeastAlike) return JudgeBy(counters, checker, nullptr, false);
  // Whole numbers, unlike a network's outputs, whose last bits may depend on the order of sums.
  const bool hasPixels = counters.engine == Engine::kVpc;
  checker.reference = hasPixels ? KeepContent(results) : nullptr;
  checker.unlike.store(true, std::memory_order_relaxed);
}

// True if so little differs that no resize does that by nature.
bool IsInFewBits(const Content& content, const Spans& results) {
  if (content.copy == nullptr || content.bytes != results.total) return false;
  Difference difference;
  (void)SameInMemory(content.copy, results, 0, results.total, difference);
  // A result that has no more words than these may differ in all of them.
  const std::size_t most = std::min(kFewWords, results.total / sizeof(std::uint64_t) / 4);
  return difference.words <= most && difference.bits <= 2 * difference.words;
}

// Compares so many more results with the kept one. If all of them differ in few bits at most, the most common
// one is taken as right, or the kept one if no two are alike.
void LearnFromBits(ThreadCounters& counters, Checker& checker, const Spans& sources, const Spans& results) {
  const Content* const kept = checker.reference;
  checker.seen[checker.observations++] = Mixed(HashFromMemory(results), results.total);
  Compared(checker, results.total, true);
  const bool isFew = IsInFewBits(*kept, results);
  if (isFew && checker.observations < Checker::kObservations) return;
  checker.reference = nullptr;
  if (!CheckSource(counters, checker, sources, true)) {
    checker.unlike.store(false, std::memory_order_relaxed);  // Learn begins again
    checker.observations = 0;
    return;
  }
  if (!isFew) return;
  const std::uint64_t hash = Mixed(kept->hash, kept->bytes);
  if (TakeMostCommon(checker) == 1) checker.expected = hash;
  JudgeBy(counters, checker, checker.expected == hash ? kept : nullptr, false);
}

// The lock is that of all threads, so this is not done in each operation. By the clock: see CheckPartOfCopy.
const Reference* LookForReference(Checker& checker) {
  if (++checker.turn % kPartEvery != 0 || !MaySpend(checker, 1)) return nullptr;
  const std::uint64_t start = NowNs();
  const Reference* const reference = FindReference(checker.key);
  Spent(checker, std::min(NowNs() - start, kMostDrawnNs));
  return reference;
}

// Either the engine gives different results by nature, or the thread's are often wrong. It is the second if
// another thread has always had the same one, or if pixels differ in few bits.
void LearnFromUnlike(ThreadCounters& counters, Checker& checker, const Spans& sources, const Spans& results) {
  const Reference* const reference = LookForReference(checker);
  // Of a thread whose own results differ at times, some are alike by chance.
  if (reference != nullptr && !reference->owner->unsure.load(std::memory_order_relaxed)) {
    checker.expected = reference->hash;
    return JudgeBy(counters, checker, reference->content, true);
  }
  if (checker.reference == nullptr) return;
  const bool isOnTop = IsOnTop(checker);
  if (!isOnTop && !MaySpend(checker, checker.wholeNs)) return;
  const CheckTimer timer;
  LearnFromBits(counters, checker, sources, results);
  if (!isOnTop) Spent(checker, timer.TookNs());
}

void CompareThreads(ThreadCounters& counters, Checker& checker, const Spans& results) {
  // What follows from a source that has changed is not counted twice.
  if (checker.wrongSource || checker.held.left.load(std::memory_order_relaxed) != 0) return;
  checker.compared = true;
  const Reference* const reference =
      ReferenceFor(checker.key, checker.expected, results, counters.thread, checker);
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
  // As above.
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
  checker.unsure.store(true, std::memory_order_relaxed);
  ReportError(counters, checker, ErrorKind::kResult, &difference);
}

void CheckWholeResult(ThreadCounters& counters, Checker& checker, const Spans& sources,
                      const Spans& results) {
  const CheckTimer timer;
  const bool learning = !checker.learnt;
  const bool isOnTop = learning && IsOnTop(checker);
  const std::uint64_t hash = Mixed(HashFromMemory(results), results.total);
  Compared(checker, results.total, true);
  checker.wholeNs = timer.TookNs();
  if (learning) {
    Learn(counters, checker, sources, results, hash);
  } else if (hash != checker.expected) {
    ExplainResult(counters, checker, sources, results);
  } else if (!checker.compared) {
    CompareThreads(counters, checker, results);
  }
  if (!isOnTop) Spent(checker, timer.TookNs());
}

// Each of the blocks is drawn once before any is drawn again: a bit that stays wrong is found in so many
// copies. The order is another one each time, and on each thread.
std::size_t DrawBlock(Checker& checker, std::size_t blocks) {
  if (checker.blocksLeft == 0 || checker.blocks != blocks) {
    checker.random ^= checker.random << 13;
    checker.random ^= checker.random >> 7;
    checker.random ^= checker.random << 17;
    checker.blocks = checker.blocksLeft = blocks;
    checker.block = checker.random % blocks;
    checker.blockStep = 1 + (checker.random >> 32) % blocks;
    while (std::gcd(checker.blockStep, blocks) != 1) ++checker.blockStep;
  }
  --checker.blocksLeft;
  return checker.block = (checker.block + checker.blockStep) % blocks;
}

// A drawn block is too short to be worth a system call for its processor time. By the clock, one that lost
// its CPU would count for all of the wait, and keep whole checks away.
void CheckPartOfCopy(ThreadCounters& counters, Checker& checker, const Spans& from, const Spans& to) {
  const std::uint64_t start = NowNs();
  const std::size_t at = DrawBlock(checker, (to.total + kDrawnBytes - 1) / kDrawnBytes) * kDrawnBytes;
  const std::size_t length = std::min(kDrawnBytes, to.total - at);
  CompareCopy(counters, checker, from, to, at, length);
  Compared(checker, length, false);
  Spent(checker, std::min(NowNs() - start, kMostDrawnNs));
}

void CheckWholeCopy(ThreadCounters& counters, Checker& checker, const Spans& from, const Spans& to) {
  const bool isFirst = checker.wholeNs == 0;
  const CheckTimer timer;
  const std::uint64_t errors = checker.errors.load(std::memory_order_relaxed);
  CompareCopy(counters, checker, from, to, 0, to.total);
  Compared(checker, to.total, true);
  const std::uint64_t took = timer.TookNs();
  // To find out about an error takes longer: the next check is not foretold by that.
  if (isFirst || errors == checker.errors.load(std::memory_order_relaxed)) checker.wholeNs = took;
  if (!isFirst) Spent(checker, took);
}

}  // namespace

void CheckFilled(ThreadCounters& counters, const Spans& source) {
  Difference first;
  if (!CanRead(source) || HoldsPattern(source.list[0], first) || first.words == 0) return;
  Difference again;
  const bool isBack = HoldsPattern(source.list[0], again) || again.words == 0;
  const Difference& difference = isBack ? first : again;
  // If most of it differs, the program has written it.
  if (IsOther(difference, source.total)) return;
  Checker& checker = CheckerOf(counters);
  ErrorPacket error =
      MakeError(counters, checker, isBack ? ErrorKind::kPassing : ErrorKind::kSource, &difference);
  ++error.operation;  // the one that begins
  AddError(checker, error);
}

void CheckCopy(ThreadCounters& counters, const void* destination, const void* source, std::size_t bytes,
               std::uint64_t ns) {
  Checker& checker = BeginCheck(counters, ns, bytes);
  if (bytes == 0 || !MayJudge(Engine::kCpu)) return;
  const Spans to(destination, bytes);
  const Spans from(source, bytes);
  if (!KnowWork(checker, Engine::kCpu, from, 0) || !KnowPlace(checker, Engine::kCpu, to)) return;
  if (!LookAgain(checker, Engine::kCpu, from)) return;
  NoteJudged(checker);
  RaiseState(Engine::kCpu, CheckState::kJudged);

  if (checker.wholeNs == 0 || MaySpend(checker, checker.wholeNs)) {
    CheckWholeCopy(counters, checker, from, to);
  } else {
    CheckPartOfCopy(counters, checker, from, to);
  }
}

void CheckResults(ThreadCounters& counters, const Spans& sources, const Spans& results, std::uint64_t kind,
                  std::uint64_t ns) {
  Checker& checker = BeginCheck(counters, ns, results.total);
  if (!MayJudge(counters.engine) || results.total == 0) return;
  if (!KnowWork(checker, counters.engine, sources, kind)) return;
  if (!KnowPlace(checker, counters.engine, results)) return;
  if (!LookAgain(checker, counters.engine, sources)) return;
  // Without a content there are no sources.
  checker.key = Mixed(kind, checker.content == nullptr ? 0 : checker.content->hash);
  if (checker.unlike.load(std::memory_order_relaxed)) {
    LearnFromUnlike(counters, checker, sources, results);
  } else if (!checker.learnt) {
    if (IsOnTop(checker) || MaySpend(checker, checker.wholeNs))
      CheckWholeResult(counters, checker, sources, results);
  } else if (++checker.turn % kPartEvery == 0) {
    if (MaySpend(checker, checker.partNs)) CheckSourcePart(counters, checker, sources);
  } else if (MaySpend(checker, checker.wholeNs)) {
    CheckWholeResult(counters, checker, sources, results);
  }
}

void LeaveUnchecked(ThreadCounters& counters, std::uint64_t ns) {
  (void)BeginCheck(counters, ns, 0);
  RaiseState(counters.engine, CheckState::kUnknown);
}

}  // namespace scope
