// SPDX-License-Identifier: Apache-2.0
#include "checker.h"

#include <sched.h>

#include <algorithm>

#include "streams.h"

namespace scope {
namespace {

constexpr std::size_t kPartBytes = std::size_t{32} << 10;
constexpr int kMostChanges = 3;
// A program that writes something into each source, or into each of some frames, does so again within these.
constexpr int kHeldOperations = 16;
// The thread has gone over to other work.
constexpr int kMostMissed = 64;
constexpr std::size_t kListedErrors = 256;

Checker checkers[kCounterSets];
std::atomic<std::uint32_t> engineOf[kCounterSets];
std::atomic<std::uint32_t> states[kEngineCount];
std::atomic<std::uint64_t> workers{0};
std::atomic<bool> listTaken{false};
ErrorPacket list[kListedErrors];
std::size_t listBegin = 0;
std::size_t listCount = 0;

void Count(std::atomic<std::uint64_t>& counter, std::uint64_t amount) {
  counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

// Those that the program may use.
std::uint64_t Processors() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  const bool known = sched_getaffinity(0, sizeof(allowed), &allowed) == 0;
  return known ? std::max<std::uint64_t>(1, static_cast<std::uint64_t>(CPU_COUNT(&allowed))) : 1;
}

bool List(const ErrorPacket& error) {
  const ShortLock lock(listTaken);
  if (listCount == kListedErrors) return false;
  list[(listBegin + listCount++) % kListedErrors] = error;
  return true;
}

ListedError AsListed(const ErrorPacket& error) {
  return {error.kind, error.thread, error.address, error.offset, error.expected ^ error.found};
}

// A bit that stays wrong is found with every check. Several of them are found in turns.
bool IsListed(const Checker& checker, const ErrorPacket& error) {
  const ListedError wanted = AsListed(error);
  const std::uint64_t count = std::min<std::uint64_t>(checker.listedCount, Checker::kRemembered);
  return std::any_of(checker.listed, checker.listed + count, [&wanted](const ListedError& one) {
    return one.kind == wanted.kind && one.thread == wanted.thread && one.address == wanted.address &&
           one.offset == wanted.offset && one.bits == wanted.bits;
  });
}

// The program has written another source into the place.
void TakeAsWritten(Checker& checker, Engine engine) {
  ForgetWork(checker);
  if (++checker.changes == kMostChanges) RaiseState(engine, CheckState::kSourcesChange);
}

// True if the source, of which there was no room for a copy, has the sum that it had. If not, nothing tells
// whether it has lost bits or the program has written it.
bool IsSame(Checker& checker, Engine engine, const Spans& sources) {
  if (HashFromMemory(sources) == checker.content->hash) return true;
  TakeAsWritten(checker, engine);
  return false;
}

// The word has been looked at often enough, or cannot be looked at any more. One that was seen only once says
// nothing.
void EndHolding(Checker& checker) {
  const int left = checker.held.left.exchange(0, std::memory_order_acquire);
  if (left == 0 || left == kHeldOperations) return;
  ErrorPacket& error = checker.held.error;
  if (checker.held.isBack) error.kind = ErrorKind::kPassing;
  checker.wrongSource = !checker.held.isBack;
  AddError(checker, error);
}

}  // namespace

Checker& CheckerOf(const ThreadCounters& counters) {
  return checkers[counters.set];
}

Checker& BeginCheck(ThreadCounters& counters, std::uint64_t ns, std::size_t bytes) {
  Checker& checker = checkers[counters.set];
  engineOf[counters.set].store(static_cast<std::uint32_t>(counters.engine), std::memory_order_relaxed);
  if (checker.operations.load(std::memory_order_relaxed) == 0)
    workers.fetch_add(1, std::memory_order_relaxed);
  Count(checker.operations, 1);
  Count(checker.allBytes, bytes);
  checker.busyNs += ns;
  if (checker.random == 0) checker.random = counters.set * 0x9e3779b97f4a7c15U + 0x2545f4914f6cdd1dU;
  return checker;
}

// Of more threads than processors, each has waited for the others in part of its time.
bool MaySpend(const Checker& checker, std::uint64_t ns) {
  static const std::uint64_t processors = Processors();
  const std::uint64_t sharing = std::max(processors, workers.load(std::memory_order_relaxed));
  return checker.spentNs + ns <= checker.busyNs / kCheckShareOf * kCheckShare * processors / sharing;
}

void Spent(Checker& checker, std::uint64_t ns) {
  checker.spentNs += ns;
  Count(checker.checkNs, ns);
}

void Compared(Checker& checker, std::size_t bytes, bool whole) {
  Count(checker.checked, 1);
  Count(checker.whole, whole ? 1 : 0);
  Count(checker.bytes, bytes);
}

void NoteJudged(Checker& checker) {
  checker.judged.store(true, std::memory_order_relaxed);
}

void RaiseState(Engine engine, CheckState state) {
  std::atomic<std::uint32_t>& held = states[static_cast<std::uint32_t>(engine)];
  std::uint32_t before = held.load(std::memory_order_relaxed);
  const auto wanted = static_cast<std::uint32_t>(state);
  while (before < wanted && !held.compare_exchange_weak(before, wanted, std::memory_order_relaxed)) {
  }
}

CheckState StateOf(Engine engine) {
  return static_cast<CheckState>(states[static_cast<std::uint32_t>(engine)].load(std::memory_order_relaxed));
}

bool MayJudge(Engine engine) {
  return StateOf(engine) <= CheckState::kAlone;
}

void ForgetWork(Checker& checker) {
  EndHolding(checker);
  checker.kind = 0;
  checker.source = nullptr;
  checker.content = nullptr;
  checker.wrongSource = false;
  checker.key = 0;
  checker.learnt = false;
  checker.unlike.store(false, std::memory_order_relaxed);
  checker.observations = 0;
  checker.table = nullptr;
}

bool LearnWork(Checker& checker, Engine engine, const Spans& sources, std::uint64_t kind) {
  if (checker.works != 0 && !MaySpend(checker, checker.learnNs)) return false;
  const CheckTimer timer;
  ForgetWork(checker);
  if (!CanRead(sources)) {
    RaiseState(engine, CheckState::kUnreadable);
    return false;
  }
  checker.kind = Mixed(kind, sources.total);
  checker.source = sources.Begin();
  checker.cursor = 0;
  checker.missed = 0;
  if (sources.count != 0) {
    checker.content = KeepContent(sources);
    // Results of this source would be compared with those of any other.
    if (checker.content == nullptr) {
      checker.leftOut.store(true, std::memory_order_relaxed);
      checker.kind = 0;
    }
  }
  checker.learnNs = timer.TookNs();
  if (checker.works++ != 0) Spent(checker, checker.learnNs);
  return checker.kind != 0;
}

bool KnowWork(Checker& checker, Engine engine, const Spans& sources, std::uint64_t kind) {
  if (checker.kind == Mixed(kind, sources.total) && checker.source == sources.Begin()) {
    checker.missed = 0;
    return true;
  }
  if (checker.kind != 0 && ++checker.missed < kMostMissed) return false;
  return LearnWork(checker, engine, sources, kind);
}

bool KnowPlace(Checker& checker, Engine engine, const Spans& results) {
  for (const Span& place : checker.places) {
    if (place.data == results.Begin() && place.bytes == results.total) return true;
  }
  if (checker.placesSeen != 0 && !MaySpend(checker, checker.readNs)) return false;
  const CheckTimer timer;
  if (!CanRead(results)) {
    RaiseState(engine, CheckState::kUnreadable);
    return false;
  }
  checker.places[checker.placesSeen % Checker::kMostPlaces] = {results.Begin(), results.total};
  checker.readNs = timer.TookNs();
  if (checker.placesSeen++ != 0) Spent(checker, checker.readNs);
  return true;
}

bool LookAgain(Checker& checker, Engine engine, const Spans& sources) {
  HeldDifference& held = checker.held;
  const int left = held.left.load(std::memory_order_relaxed);
  if (left == 0) return true;
  const std::size_t bytes = std::min(sizeof(std::uint64_t), sources.total - held.error.offset);
  Difference now;
  const bool isBack = SameInMemory(checker.content->copy, sources, held.error.offset, bytes, now);
  if ((!isBack && now.found != held.error.found) || (held.isBack && !isBack)) {
    held.left.store(0, std::memory_order_relaxed);
    ForgetWork(checker);
    RaiseState(engine, CheckState::kSourcesChange);
    return false;
  }
  held.isBack = isBack;
  if (left == 1) {
    EndHolding(checker);
  } else {
    held.left.store(left - 1, std::memory_order_release);
  }
  return true;
}

void ReportHeld() {
  for (Checker& checker : checkers) EndHolding(checker);
}

bool CheckSourceAt(ThreadCounters& counters, Checker& checker, const Spans& sources, std::size_t from,
                   std::size_t bytes) {
  const Content* const content = checker.content;
  if (content == nullptr || content->copy == nullptr) return true;
  Difference difference;
  if (SameInMemory(content->copy, sources, from, bytes, difference)) return true;
  Difference again;
  if (SameInMemory(content->copy, sources, from, bytes, again)) {
    ReportError(counters, checker, ErrorKind::kPassing, &difference);
    return false;
  }
  HeldDifference& held = checker.held;
  if (held.left.load(std::memory_order_relaxed) != 0) return false;
  Difference all;
  (void)SameInMemory(content->copy, sources, 0, sources.total, all);
  if (IsOther(all, sources.total)) {
    TakeAsWritten(checker, counters.engine);
    return false;
  }
  const ErrorPacket error = MakeError(counters, checker, ErrorKind::kSource, &again);
  if (IsListed(checker, error)) {
    AddError(checker, error);
    return false;
  }
  held.error = error;
  held.isBack = false;
  held.left.store(kHeldOperations, std::memory_order_release);
  return false;
}

void CheckSourcePart(ThreadCounters& counters, Checker& checker, const Spans& sources) {
  const CheckTimer timer;
  (void)CheckSource(counters, checker, sources, false);
  checker.partNs = timer.TookNs();
  Spent(checker, checker.partNs);
}

bool CheckSource(ThreadCounters& counters, Checker& checker, const Spans& sources, bool all) {
  if (sources.total == 0 || checker.content == nullptr) return true;
  if (checker.content->copy == nullptr) return !all || IsSame(checker, counters.engine, sources);
  if (all) return CheckSourceAt(counters, checker, sources, 0, sources.total);
  if (checker.cursor >= sources.total) checker.cursor = 0;
  const std::size_t from = checker.cursor;
  const std::size_t bytes = std::min(kPartBytes, sources.total - from);
  checker.cursor += bytes;
  return CheckSourceAt(counters, checker, sources, from, bytes);
}

ErrorPacket MakeError(const ThreadCounters& counters, const Checker& checker, ErrorKind kind,
                      const Difference* difference, std::uint32_t other) {
  ErrorPacket error{};
  error.header.timeNs = NowNs();
  error.engine = counters.engine;
  error.thread = counters.thread;
  error.kind = kind;
  error.other = other;
  error.operation = checker.operations.load(std::memory_order_relaxed);
  if (difference != nullptr && difference->words != 0) {
    error.placed = 1;
    error.bits = difference->bits;
    error.offset = difference->offset;
    error.address = difference->address;
    error.expected = difference->expected;
    error.found = difference->found;
  }
  return error;
}

void AddError(Checker& checker, const ErrorPacket& error, bool isListed) {
  Count(checker.errors, 1);
  if (!isListed || IsListed(checker, error) || !List(error)) {
    Count(checker.unlisted, 1);
    return;
  }
  checker.listed[checker.listedCount++ % Checker::kRemembered] = AsListed(error);
}

void ReportError(const ThreadCounters& counters, Checker& checker, ErrorKind kind,
                 const Difference* difference, std::uint32_t other) {
  AddError(checker, MakeError(counters, checker, kind, difference, other));
}

CheckPacket CheckCounts(Engine engine) {
  CheckPacket packet{};
  packet.engine = engine;
  packet.state = StateOf(engine);
  bool isUnlike = false;
  for (std::size_t i = 0; i < kCounterSets; ++i) {
    const Checker& checker = checkers[i];
    const std::uint64_t operations = checker.operations.load(std::memory_order_relaxed);
    const std::uint32_t of = engineOf[i].load(std::memory_order_relaxed);
    if (operations == 0 || of != static_cast<std::uint32_t>(engine)) continue;
    ++packet.threads;
    if (checker.leftOut.load(std::memory_order_relaxed)) packet.leftOut = 1;
    isUnlike = isUnlike || checker.unlike.load(std::memory_order_relaxed);
    packet.judgedThreads += checker.judged.load(std::memory_order_relaxed) ? 1 : 0;
    packet.operations += operations;
    packet.checked += checker.checked.load(std::memory_order_relaxed);
    packet.whole += checker.whole.load(std::memory_order_relaxed);
    packet.bytes += checker.bytes.load(std::memory_order_relaxed);
    packet.allBytes += checker.allBytes.load(std::memory_order_relaxed);
    packet.errors += checker.errors.load(std::memory_order_relaxed);
    packet.unlisted += checker.unlisted.load(std::memory_order_relaxed);
    packet.checkNs += checker.checkNs.load(std::memory_order_relaxed);
  }
  // The errors of threads that are judged count, whatever others do.
  const bool differs = isUnlike && packet.judgedThreads == 0;
  if (MayJudge(engine) && (differs || (engine == Engine::kVenc && StreamsDiffer()))) {
    packet.state = CheckState::kNotDeterministic;
  }
  // Nothing but another channel shows what the stream of a frame has to be.
  if (engine == Engine::kVenc && packet.state == CheckState::kLearning && packet.threads == 1) {
    packet.state = CheckState::kAlone;
  }
  if (packet.state == CheckState::kJudged && (packet.judgedThreads < packet.threads || packet.leftOut != 0)) {
    packet.state = CheckState::kPartlyJudged;
  }
  return packet;
}

bool TakeError(ErrorPacket& error) {
  const ShortLock lock(listTaken);
  if (listCount == 0) return false;
  error = list[listBegin];
  listBegin = (listBegin + 1) % kListedErrors;
  --listCount;
  return true;
}

}  // namespace scope
