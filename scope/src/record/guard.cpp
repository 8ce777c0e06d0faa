// SPDX-License-Identifier: Apache-2.0
#include "guard.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "errors.h"
#include "memory_limit.h"
#include "run_error.h"
#include "signals.h"
#include "system_files.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kMebibyteBytes = 1 << 20;

std::string Mebibytes(std::uint64_t bytes) {
  return Format("%.1f MiB", static_cast<double>(bytes) / kMebibyteBytes);
}

// The bytes of the size, before they are compared with what there is; a negative number if it is no size.
double WantedBytes(const std::string& size, std::uint64_t availableBytes) {
  const std::size_t digits = std::min(size.find_first_not_of("0123456789."), size.size());
  const std::optional<double> number = ParseNumber(size.substr(0, digits));
  const std::string unit = size.substr(digits);
  if (!number) return -1;
  if (unit.empty()) return *number;
  if (unit == "K") return *number * 1024;
  if (unit == "M") return *number * kMebibyteBytes;
  if (unit == "G") return *number * kMebibyteBytes * 1024;
  return unit == "%" ? *number / 100 * static_cast<double>(availableBytes) : -1;
}

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

std::uint64_t AvailableBytes(const std::string& systemRoot) {
  const std::string root = systemRoot.substr(0, systemRoot.find_last_not_of('/') + 1);
  const std::string memory = ReadText(root + "/proc/meminfo").value_or("");
  const std::string key = "MemAvailable:";
  const std::size_t at = memory.find(key);
  if (at == std::string::npos) return 0;
  const std::uint64_t available = std::strtoull(memory.c_str() + at + key.size(), nullptr, 10) << 10;
  return std::min(available, Ormis::portable::MemoryLimit(root));
}

std::uint64_t GuardBytes(const std::string& size, std::uint64_t availableBytes) {
  const double bytes = WantedBytes(size, availableBytes);
  if (bytes < 0 || !std::isfinite(bytes)) {
    throw UserError(
        "--guard: expected a size as 512M or 2G, or a share of the available memory as 25%, found \"" + size +
        "\"");
  }
  if (availableBytes == 0) throw UserError("--guard: the system does not say how much memory is available");
  if (bytes < static_cast<double>(GuardedMemory::kBlockBytes)) {
    throw UserError("--guard " + size + ": expected at least " +
                    std::to_string(GuardedMemory::kBlockBytes >> 10) + "K");
  }
  if (bytes > static_cast<double>(availableBytes)) {
    throw UserError("--guard " + size + ": only " + Mebibytes(availableBytes) +
                    " of memory are available, and the benchmark needs some of it, too");
  }
  return static_cast<std::uint64_t>(bytes);
}

Guard::Guard(std::uint64_t bytes, double megabytesPerS) {
  id_ = StartGuardProcess(bytes, megabytesPerS * 1e6, descriptor_);
  GuardPacket packet;
  const bool isReady = Receive(packet, true) && packet.type == GuardPacket::Type::kReady;
  if (!isReady) {
    const std::string reason = fault_.empty() ? "the system refuses it" : fault_;
    (void)kill(id_, SIGKILL);
    Reap();
    throw UserError("cannot guard " + Mebibytes(bytes) + " of memory: " + reason);
  }
  readyNs_ = packet.timeNs;
  last_ = packet;
  summary_.bytes = packet.bytes;
  summary_.reads = GuardedMemory::FlushName();
  summary_.locked = packet.isLocked != 0;
}

Guard::~Guard() {
  if (id_ > 0) (void)kill(id_, SIGKILL);
  Reap();
}

void Guard::Reap() {
  if (descriptor_ >= 0) (void)close(std::exchange(descriptor_, -1));
  if (id_ <= 0) return;
  int status = 0;
  while (waitpid(id_, &status, 0) < 0 && errno == EINTR) {
  }
  id_ = -1;
  if (saidEnd_) return;
  fault_ = "the guard ended by itself";
  if (WIFSIGNALED(status)) fault_ = "the guard was ended by " + SignalText(WTERMSIG(status));
}

// False if there is no packet. After the guard's end it is reaped.
bool Guard::Receive(GuardPacket& packet, bool waits) {
  while (descriptor_ >= 0) {
    const ssize_t size = recv(descriptor_, &packet, sizeof(packet), waits ? 0 : MSG_DONTWAIT);
    if (size == ssize_t{sizeof(packet)}) return true;
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
    Reap();
  }
  return false;
}

void Guard::Take(const GuardPacket& packet, std::uint64_t startNs, std::vector<RunError>& errors,
                 std::vector<CounterValue>& values) {
  if (packet.type == GuardPacket::Type::kError) {
    errors.push_back(ErrorOf(packet.error, startNs));
    return;
  }
  summary_.walks = packet.counts.walks;
  summary_.errors = packet.counts.errors;
  summary_.unlisted = packet.counts.unlisted;
  saidEnd_ = packet.type == GuardPacket::Type::kEnd;
  // The last walk has no bound, and the benchmark has ended.
  if (saidEnd_) return;
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
  for (GuardPacket packet; Receive(packet, false);) Take(packet, startNs, errors, values);
}

void Guard::End(std::uint64_t startNs, std::vector<RunError>& errors, std::vector<CounterValue>& values) {
  if (descriptor_ < 0) return;
  (void)shutdown(descriptor_, SHUT_WR);
  for (GuardPacket packet; Receive(packet, true);) Take(packet, startNs, errors, values);
}

}  // namespace scope
