// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "guard_process.h"
#include "run.h"
#include "watcher_process.h"

namespace scope {

/// The bytes of the option --guard; see MemoryBytes. At least a block, and not more than there is. Throws
/// UserError.
std::uint64_t GuardBytes(const std::string& size, std::uint64_t availableBytes);

/// The process that guards memory during a run. It never outlives this object or this program.
class Guard {
 public:
  /// Returns when the memory is filled. Throws UserError if there is not so much, and Interrupted if a signal
  /// comes from `signals`, which may be null.
  Guard(std::uint64_t bytes, double megabytesPerS, Signals* signals = nullptr);

  pid_t Id() const { return process_.Id(); }
  /// Readable when it has something to say; -1 after its end.
  int Descriptor() const { return process_.Descriptor(); }

  /// Takes what has arrived. Times are from `startNs` (monotonic) on. Does not wait.
  void Read(std::uint64_t startNs, std::vector<RunError>& errors, std::vector<CounterValue>& values);
  /// Lets it walk through all of its memory once more, and end. Read until Descriptor is -1.
  void BeginLastWalk() { process_.EndSending(); }
  /// Ends the last walk now. What it has found can still be read.
  void CutShort();

  /// Why it ended before it was asked; empty if it did not.
  const std::string& Fault() const { return process_.Fault(); }
  bool HasCrashed() const { return process_.HasCrashed(); }
  const GuardSummary& Summary() const { return summary_; }

 private:
  void Take(const GuardPacket& packet, std::uint64_t startNs, std::vector<RunError>& errors,
            std::vector<CounterValue>& values);

  WatcherProcess process_;
  GuardSummary summary_;
  GuardPacket last_;  ///< the last one with counts
  std::uint64_t readyNs_ = 0;
  bool isDone_ = false;  ///< the last walk was whole
};

}  // namespace scope
