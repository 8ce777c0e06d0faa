// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "guard_process.h"
#include "run.h"

namespace scope {

/// The bytes that `size` asks for: a number ("65536"), with K, M or G for powers of 1024 ("512M"), or a share
/// of `availableBytes` ("25%"). Throws UserError if it is none of these, too little, or more than there is.
std::uint64_t GuardBytes(const std::string& size, std::uint64_t availableBytes);

/// Memory that the system says is available, or the limit of this process's control group if that is less.
/// `systemRoot` is "/", or a recorded tree. 0 if the system does not say.
std::uint64_t AvailableBytes(const std::string& systemRoot);

/// The process that guards memory during a run. It never outlives this object or this program.
class Guard {
 public:
  /// Returns when the memory is filled. Throws UserError if there is not so much.
  Guard(std::uint64_t bytes, double megabytesPerS);
  /// Kills it if it still runs.
  ~Guard();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  pid_t Id() const { return id_; }
  /// Readable when it has something to say; -1 after its end.
  int Descriptor() const { return descriptor_; }

  /// Takes what has arrived. Times are from `startNs` (monotonic) on. Does not wait.
  void Read(std::uint64_t startNs, std::vector<RunError>& errors, std::vector<CounterValue>& values);
  /// Lets it walk through all of its memory once more, and waits until it has ended.
  void End(std::uint64_t startNs, std::vector<RunError>& errors, std::vector<CounterValue>& values);

  /// Why it ended before it was asked; empty if it did not.
  const std::string& Fault() const { return fault_; }
  const GuardSummary& Summary() const { return summary_; }

 private:
  bool Receive(GuardPacket& packet, bool waits);
  void Take(const GuardPacket& packet, std::uint64_t startNs, std::vector<RunError>& errors,
            std::vector<CounterValue>& values);
  void Reap();

  pid_t id_ = -1;
  int descriptor_ = -1;
  bool saidEnd_ = false;
  std::string fault_;
  GuardSummary summary_;
  GuardPacket last_;  ///< the last one with counts
  std::uint64_t readyNs_ = 0;
};

}  // namespace scope
