// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

#include "contents.h"
#include "protocol.h"
#include "recorder.h"

namespace scope {

/// What the checks know about one thread's work on one engine. Only that thread writes, and the reporting
/// thread reads the counts.
struct alignas(64) Checker {
  static constexpr int kObservations = 8;

  std::atomic<std::uint64_t> operations;
  std::atomic<std::uint64_t> checked;
  std::atomic<std::uint64_t> whole;
  std::atomic<std::uint64_t> bytes;
  std::atomic<std::uint64_t> allBytes;
  std::atomic<std::uint64_t> errors;
  std::atomic<std::uint64_t> unlisted;
  std::atomic<std::uint64_t> checkNs;

  // The allowance: checks take a bounded share of the time that the engine works.
  std::uint64_t busyNs;
  std::uint64_t spentNs;
  std::uint64_t wholeNs;  ///< what the last check of a whole result took
  std::uint64_t partNs;   ///< what the last check of a part of a source took
  std::uint64_t turn;
  std::uint64_t random;

  // The source that the thread works on.
  const std::uint8_t* source;
  std::size_t sourceBytes;
  const Content* content;
  std::size_t cursor;  ///< where the next part of the source begins
  int changes;         ///< how often the program has written it

  // Results of the same source.
  std::uint64_t key;
  std::uint64_t seen[kObservations];
  int observations;
  bool learnt;
  std::uint64_t expected;
  bool compared;             ///< with what other threads get
  const Content* reference;  ///< a copy of what is expected; null if there is none

  // Streams.
  struct StreamTable* table;
  int strayed;  ///< frames in a row that have nothing in common with those of the other channels

  ErrorPacket last;  ///< the last error that was listed
};

/// The checker of the thread that `counters` belong to.
Checker& CheckerOf(const ThreadCounters& counters);

/// Begins an operation of `ns` with results of `bytes`. Returns the thread's checker.
Checker& BeginCheck(ThreadCounters& counters, std::uint64_t ns, std::size_t bytes);

/// True if a check of `ns` fits into the share of the time that checks may take.
bool MaySpend(const Checker& checker, std::uint64_t ns);

/// Counts the time of a check that has been made.
void Spent(Checker& checker, std::uint64_t ns);

/// Counts what has been compared.
void Compared(Checker& checker, std::size_t bytes, bool whole);

/// The state of an engine rises and never falls.
void RaiseState(Engine engine, CheckState state);
CheckState StateOf(Engine engine);
/// True as long as nothing says that the engine's results cannot be judged.
bool MayJudge(Engine engine);

/// Looks whether the thread works on the same source as before. Learns a new one, and forgets what was learnt
/// from another. False if it cannot be read.
bool KnowSource(Checker& checker, Engine engine, const Spans& sources);

/// Compares the next part of the source, or all of it, with what it was. Reports where it differs. False if
/// it does.
bool CheckSource(ThreadCounters& counters, Checker& checker, const Spans& sources, bool all);
/// As CheckSource, for one stretch.
bool CheckSourceAt(ThreadCounters& counters, Checker& checker, const Spans& sources, std::size_t from,
                   std::size_t bytes);

/// Reports an error. `difference` is null if the place is not known.
void ReportError(const ThreadCounters& counters, Checker& checker, ErrorKind kind,
                 const Difference* difference, std::uint32_t other = 0);

/// True if so much differs that it is other content, and not memory that has lost some bits.
inline bool IsOther(const Difference& difference, std::size_t bytes) {
  return difference.words > 8 && difference.words > bytes / 8 / 16;
}

/// The engine's counts so far, of all threads. The header is not set.
CheckPacket CheckCounts(Engine engine);

/// Takes the oldest error that was not taken; false if there is none. Its header has only its time.
bool TakeError(ErrorPacket& error);

}  // namespace scope
