// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

#include "contents.h"
#include "protocol.h"
#include "recorder.h"

namespace scope {

/// What checks may take: so much of the time in which an engine works. The rest of what an engine may lose to
/// them, 3 %, is for the memory that they move.
constexpr std::uint64_t kCheckShareOf = 1000;
constexpr std::uint64_t kCheckShare = 10;

/// A word of a source that is not what it was. It is looked at again for some operations before it counts: a
/// program that writes its sources changes it again.
struct HeldDifference {
  std::atomic<int> left;  ///< operations for which it is looked at; 0: nothing is held
  bool isBack;            ///< the word is again what it was
  ErrorPacket error;
};

/// Of the streams of a channel's frames in the present group.
struct GroupSum {
  std::uint64_t hash;
  std::uint64_t next;  ///< the frame that has to come next, from 1; 0: the group has gaps, or is finished
};

/// An error, apart from when it was seen: bits that differ at a place.
struct ListedError {
  ErrorKind kind;
  std::uint32_t thread;  ///< of streams: the one that is blamed
  std::uint64_t address;
  std::uint64_t offset;
  std::uint64_t bits;
};

/// What the checks know about one thread's work on one engine. Only that thread writes, and the reporting
/// thread reads the counts.
struct alignas(64) Checker {
  static constexpr int kObservations = 8;
  static constexpr std::size_t kMostPlaces = 4;
  static constexpr std::size_t kRemembered = 64;

  std::atomic<std::uint64_t> operations;
  std::atomic<std::uint64_t> checked;
  std::atomic<std::uint64_t> whole;
  std::atomic<std::uint64_t> bytes;
  std::atomic<std::uint64_t> allBytes;
  std::atomic<std::uint64_t> errors;
  std::atomic<std::uint64_t> unlisted;
  std::atomic<std::uint64_t> checkNs;
  std::atomic<bool> leftOut;  ///< a source was not checked: too many are known
  std::atomic<bool> judged;   ///< something has said whether a result of the thread was right
  std::atomic<bool> unlike;   ///< its first results differ from each other, and nothing says which are right
  std::atomic<bool> unsure;   ///< some of its results differed from each other: others are not judged by them

  // The allowance: checks take a bounded share of the time that the engine works. See CheckTimer.
  std::uint64_t busyNs;
  std::uint64_t spentNs;
  std::uint64_t wholeNs;  ///< processor time that the last check of a whole result took
  std::uint64_t partNs;   ///< the same of the last part of a source
  std::uint64_t turn;
  std::uint64_t random;

  // The work that is checked: an operation of one kind with one source.
  std::uint64_t kind;  ///< 0: none is known
  const std::uint8_t* source;
  const Content* content;
  std::size_t cursor;        ///< where the next part of the source begins
  int changes;               ///< how often the program has written it
  bool wrongSource;          ///< it has lost bits, which was reported
  HeldDifference held;       ///< of the source
  int missed;                ///< operations of other work since this one came by
  std::uint64_t works;       ///< how many were learnt
  std::uint64_t learnNs;     ///< processor time that learning the last one took
  Span places[kMostPlaces];  ///< of results, which can be read
  std::uint64_t placesSeen;
  std::uint64_t readNs;  ///< processor time that the last look whether a place can be read took

  // Results of the same source.
  std::uint64_t key;
  std::uint64_t seen[kObservations];
  int observations;
  bool learnt;
  std::uint64_t expected;
  bool compared;             ///< with what other threads get
  const Content* reference;  ///< a copy of what is expected; null if there is none. Of a thread that is
                             ///< `unlike`: of the result that others have differed from in few bits so far

  // Of copies, the blocks that are drawn. See DrawBlock.
  std::size_t blocks;
  std::size_t blocksLeft;  ///< that were not drawn yet
  std::size_t block;       ///< the last one
  std::size_t blockStep;

  // Streams.
  struct StreamTable* table;
  std::uint64_t chain;  ///< the frames so far; 0: none
  GroupSum group;
  bool lostChain;            ///< one of them is not known, and the streams depend on it
  std::atomic<int> strayed;  ///< times in a row that the thread's streams were not those of other channels

  ListedError listed[kRemembered];  ///< the last errors that were listed
  std::uint64_t listedCount;
};

/// The checker of the thread that `counters` belong to.
Checker& CheckerOf(const ThreadCounters& counters);

/// Begins an operation of `ns` with results of `bytes`. Returns the thread's checker.
Checker& BeginCheck(ThreadCounters& counters, std::uint64_t ns, std::size_t bytes);

/// True if a check of `ns` fits into the share of the time that checks may take: that of the thread, and of
/// all threads together that of the processors.
bool MaySpend(const Checker& checker, std::uint64_t ns);

/// Counts the time of a check that has been made.
void Spent(Checker& checker, std::uint64_t ns);

/// Counts what has been compared.
void Compared(Checker& checker, std::size_t bytes, bool whole);

/// Notes that a result of the thread was judged.
void NoteJudged(Checker& checker);

/// The state of an engine rises and never falls. kPartlyJudged and kNotDeterministic are none of its states:
/// see CheckCounts.
void RaiseState(Engine engine, CheckState state);
CheckState StateOf(Engine engine);
/// True as long as nothing says that the engine's results cannot be judged.
bool MayJudge(Engine engine);

/// Learns the thread's work, and forgets what was learnt from another. The first work is learnt whatever it
/// costs, others within the allowance. False if the allowance is used up, if the source cannot be read, or if
/// so many are known that this one cannot be told from others.
bool LearnWork(Checker& checker, Engine engine, const Spans& sources, std::uint64_t kind);

/// True if this operation can be checked: it is the thread's known work, or a new one that was learnt. A
/// thread that takes several in turns sticks to one as long as that comes back.
bool KnowWork(Checker& checker, Engine engine, const Spans& sources, std::uint64_t kind);

/// True if the results are where this program may read them. Looks at a new place within the allowance.
bool KnowPlace(Checker& checker, Engine engine, const Spans& results);

/// Forgets the work and what was learnt from it.
void ForgetWork(Checker& checker);

/// Compares the next part of the source, or all of it, with what it was. Reports where it differs. False if
/// it does. Without a copy only all of it can be compared, and a difference counts as another source.
bool CheckSource(ThreadCounters& counters, Checker& checker, const Spans& sources, bool all);
/// As CheckSource, for one stretch.
bool CheckSourceAt(ThreadCounters& counters, Checker& checker, const Spans& sources, std::size_t from,
                   std::size_t bytes);
/// As CheckSource for the next part, and counts its time.
void CheckSourcePart(ThreadCounters& counters, Checker& checker, const Spans& sources);

/// Looks at the held difference again: once in each operation of the known work. False if the program writes
/// its sources.
bool LookAgain(Checker& checker, Engine engine, const Spans& sources);

/// At the program's end: reports the differences that are still held, if they were seen more than once.
void ReportHeld();

/// An error of now. `difference` is null if the place is not known.
ErrorPacket MakeError(const ThreadCounters& counters, const Checker& checker, ErrorKind kind,
                      const Difference* difference, std::uint32_t other = 0);
/// Counts the error, and lists it unless it is one of the last that were listed.
void AddError(Checker& checker, const ErrorPacket& error, bool isListed = true);

/// MakeError and AddError.
void ReportError(const ThreadCounters& counters, Checker& checker, ErrorKind kind,
                 const Difference* difference, std::uint32_t other = 0);

/// True if so much differs that it is other content. Memory that has lost some bits, lines or rows differs in
/// less.
inline bool IsOther(const Difference& difference, std::size_t bytes) {
  return difference.words > 8 && difference.words > bytes / 8 / 4;
}

/// The engine's counts so far, of all threads. The header is not set.
CheckPacket CheckCounts(Engine engine);

/// Takes the oldest error that was not taken; false if there is none. Its header has only its time.
bool TakeError(ErrorPacket& error);

}  // namespace scope
