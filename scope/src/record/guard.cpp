// SPDX-License-Identifier: Apache-2.0
#include "guard.h"

#include "errors.h"
#include "memory_size.h"
#include "run_error.h"
#include "text_format.h"

namespace scope {
namespace {

std::string HexText(const char* format, std::uint64_t value) {
  return Format(format, static_cast<unsigned long long>(value));
}

RunError ErrorOf(const GuardedError& found, std::uint64_t startNs) {
  static constexpr const char* kWhat[kGuardedStates] = {"passing", "event", "comes back", "stays"};
  RunError error;
  if (found.foundNs > startNs) error.timeS = static_cast<double>(found.foundNs - startNs) * 1e-9;
  error.source = kGuardSource;
  error.what = kWhat[static_cast<std::uint32_t>(found.state)];
  error.offset = found.offset;
  error.address = HexText("0x%llx", found.address);
  if (found.physical == Physical::kKnown) error.physical = HexText("0x%llx", found.physicalAddress);
  if (found.physical == Physical::kNotAllowed) error.physical = "not allowed";
  error.expected = HexText("0x%016llx", found.expected);
  error.found = HexText("0x%016llx", found.found);
  error.bits = static_cast<std::uint64_t>(__builtin_popcountll(found.expected ^ found.found));
  error.note = std::string("pattern ") + GuardPatternName(found.pattern) +
               Format("; written %.3f s before", static_cast<double>(found.foundNs - found.writtenNs) * 1e-9);
  return error;
}

}  // namespace

std::uint64_t GuardBytes(const std::string& size, std::uint64_t availableBytes) {
  return MemoryBytes("--guard", size, availableBytes, GuardedMemory::kBlockBytes);
}

Guard::Guard(std::uint64_t bytes, double megabytesPerS, Signals* signals)
    : process_("the guard", "scope_guard",
               [bytes, megabytesPerS](int socket) { RunGuard(socket, bytes, megabytesPerS * 1e6); }) {
  if (signals != nullptr && !process_.Await(*signals)) {
    throw Interrupted("interrupted while the guard filled its memory; nothing was recorded");
  }
  GuardPacket packet;
  const bool isReady =
      process_.Receive(&packet, sizeof(packet), true) && packet.type == GuardPacket::Type::kReady;
  if (!isReady) {
    const std::string reason = process_.Fault().empty() ? "the system refuses it" : process_.Fault();
    throw UserError("cannot guard " + MebibytesText(bytes) + " of memory: " + reason);
  }
  readyNs_ = packet.timeNs;
  last_ = packet;
  summary_.bytes = packet.bytes;
  summary_.reads = GuardedMemory::FlushName();
  summary_.locked = packet.isLocked != 0;
}

void Guard::Take(const GuardPacket& packet, std::uint64_t startNs, std::vector<RunError>& errors,
                 std::vector<CounterValue>& values) {
  summary_.walks = packet.counts.walks;
  summary_.errors = packet.counts.errors;
  summary_.unlisted = packet.counts.unlisted;
  if (packet.type == GuardPacket::Type::kError) {
    errors.push_back(ErrorOf(packet.error, startNs));
    return;
  }
  // The last walk has no bound, and the benchmark has ended.
  if (packet.type == GuardPacket::Type::kEnd) {
    isDone_ = true;
    summary_.isCut = false;
    process_.ExpectEnd();
    return;
  }
  const auto seconds = [](std::uint64_t ns) { return static_cast<double>(ns) * 1e-9; };
  const double passedS = seconds(packet.timeNs - last_.timeNs);
  if (passedS > 0 && packet.timeNs > startNs) {
    const double timeS = seconds(packet.timeNs - startNs);
    const auto checked = static_cast<double>(packet.counts.checkedBytes - last_.counts.checkedBytes);
    values.push_back({timeS, kGuardSource, "checked", "GB/s", checked / kBytesPerGigabyte / passedS});
    values.push_back(
        {timeS, kGuardSource, "processor", "CPUs", seconds(packet.cpuNs - last_.cpuNs) / passedS});
  }
  last_ = packet;
  summary_.checkedBytes = packet.counts.checkedBytes;
  summary_.guardedS = seconds(packet.timeNs - readyNs_);
  summary_.cpuS = seconds(packet.cpuNs);
}

void Guard::Read(std::uint64_t startNs, std::vector<RunError>& errors, std::vector<CounterValue>& values) {
  for (GuardPacket packet; process_.Receive(&packet, sizeof(packet), false);) {
    Take(packet, startNs, errors, values);
  }
}

void Guard::CutShort() {
  if (isDone_ || Descriptor() < 0) return;
  summary_.isCut = true;
  process_.Break();
}

}  // namespace scope
