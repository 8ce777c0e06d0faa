// SPDX-License-Identifier: Apache-2.0
#include "latency_probe.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "chase_timer.h"
#include "errors.h"
#include "memory_size.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr std::uint64_t kMebibyteOfProbe = std::uint64_t{1} << 20;
constexpr std::uint64_t kLeastBytes = std::uint64_t{1} << 16;
constexpr std::uint64_t kCachesPerBuffer = 8;
constexpr std::uint64_t kSharesOfAvailable = 4;

std::string PageText(std::uint64_t bytes) {
  return bytes < kMebibyteOfProbe ? Format("%llu KiB", static_cast<unsigned long long>(bytes >> 10))
                                  : Format("%llu MiB", static_cast<unsigned long long>(bytes >> 20));
}

}  // namespace

std::uint64_t LatencyBytes(const std::string& size, const std::vector<Cache>& caches,
                           std::uint64_t availableBytes) {
  const std::uint64_t most = availableBytes == 0 ? std::numeric_limits<std::uint64_t>::max()
                                                 : std::max(availableBytes / kSharesOfAvailable, kLeastBytes);
  if (!size.empty()) {
    const std::uint64_t bytes = MemoryBytes("--latency-size", size, availableBytes, kLeastBytes);
    if (bytes <= most) return bytes;
    throw UserError("the latency probe is to go through " + size +
                    " (--latency-size, or chosen before the first run): expected at most a quarter of the " +
                    MebibytesText(availableBytes) + " of memory that are available");
  }
  std::uint64_t largest = 0;
  for (const Cache& cache : caches) largest = std::max(largest, cache.bytes);
  const std::uint64_t least = 256 * kMebibyteOfProbe;
  const std::uint64_t wanted = std::clamp(kCachesPerBuffer * std::min(largest, least), least, 4 * least);
  if (wanted <= most) return wanted;
  // The available memory differs from run to run, and runs over other memory are not compared.
  std::uint64_t bytes = kLeastBytes;
  while (2 * bytes <= most) bytes *= 2;
  return bytes;
}

std::string LatencyPages(std::uint64_t bytes, std::uint64_t hugeBytes) {
  const std::string usual = PageText(static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
  const std::string huge = PageText(ChaseMemory::HugePageBytes());
  if (hugeBytes == 0) return usual;
  // The memory need not end with a page.
  if (hugeBytes + ChaseMemory::HugePageBytes() > bytes) return huge;
  return huge + " and " + usual;
}

UserError NoCpuForLatency(int cpu, int error) {
  return UserError("--latency-cpu " + std::to_string(cpu) +
                   ": the latency probe cannot run there: " + std::strerror(error));
}

LatencyProbe::LatencyProbe(std::uint64_t bytes, int cpu, const LatencyRhythm& rhythm, Signals* signals)
    : process_("the latency probe", "scope_latency",
               [bytes, cpu, &rhythm](int socket) { RunLatencyProbe(socket, bytes, cpu, rhythm); }) {
  if (signals != nullptr && !process_.Await(*signals)) {
    throw Interrupted("interrupted while the latency probe prepared its memory; nothing was recorded");
  }
  LatencyPacket packet;
  const bool hasAnswer = process_.Receive(&packet, sizeof(packet), true);
  const LatencySetup& setup = packet.setup;
  if (hasAnswer && packet.type == LatencyPacket::Type::kNoCpu) {
    process_.ExpectEnd();
    throw NoCpuForLatency(cpu, setup.cpuError);
  }
  if (!hasAnswer || packet.type != LatencyPacket::Type::kReady) {
    const std::string reason = process_.Fault().empty() ? "the system refuses it" : process_.Fault();
    throw UserError("cannot measure the latency over " + MebibytesText(bytes) + " of memory: " + reason);
  }
  summary_.bytes = setup.bytes;
  summary_.lineBytes = setup.lineBytes;
  summary_.hugeBytes = setup.hugeBytes;
  summary_.pages = LatencyPages(setup.bytes, setup.hugeBytes);
  summary_.cpu = setup.cpu;
  if (setup.cpu < 0) summary_.cpuNote = std::strerror(setup.cpuError);
  summary_.realTime = setup.realTimeError == 0;
  if (!summary_.realTime) summary_.realTimeNote = std::strerror(setup.realTimeError);
  summary_.timer = kTimerName;
  summary_.timerNs = setup.timerNs;
  summary_.timerStepNs = setup.timerStepNs;
  for (std::size_t i = 0; i < std::min(setup.growths, setup.growth.size()); ++i) {
    summary_.growth.push_back({setup.growth[i].bytes, setup.growth[i].p50Ns});
  }
}

void LatencyProbe::Begin(std::uint64_t startNs) {
  startNs_ = startNs;
  const char begin = 1;
  process_.Send(&begin, sizeof(begin));
}

void LatencyProbe::Take(const LatencyPacket& packet, std::vector<LatencySecond>& seconds) {
  if (packet.type == LatencyPacket::Type::kEnd) process_.ExpectEnd();
  const LatencyCounts& counts = packet.counts;
  if (counts.bursts == 0) return;
  LatencySecond second;
  second.timeS = static_cast<double>(packet.timeNs - std::min(packet.timeNs, startNs_)) * 1e-9;
  second.second = second_ = SecondAfter(second_, second.timeS - timeS_);
  timeS_ = second.timeS;
  second.accesses = counts.accesses;
  if (counts.batchAccesses != 0) second.meanNs = counts.batchNs / static_cast<double>(counts.batchAccesses);
  second.p50Ns = LatencyAt(counts, 0.5);
  second.p99Ns = LatencyAt(counts, 0.99);
  second.p999Ns = LatencyAt(counts, 0.999);
  second.maxNs = counts.maxNs;
  second.bursts = counts.bursts;
  second.interrupted = counts.interrupted;
  second.stealMs = packet.stealMs;
  second.interrupts = packet.interrupts;
  second.switches = packet.switches;
  seconds.push_back(second);
  for (std::size_t bucket = 0; bucket < counts.buckets.size(); ++bucket) {
    latencies_.Add(bucket, counts.buckets[bucket]);
  }
  summary_.bursts += counts.bursts;
  summary_.interrupted += counts.interrupted;
  summary_.accesses += counts.accesses;
  summary_.maxNs = std::max(summary_.maxNs, counts.maxNs);
  batchNs_ += counts.batchNs;
  batchAccesses_ += counts.batchAccesses;
  allAccesses_ += counts.allAccesses;
}

void LatencyProbe::Read(std::vector<LatencySecond>& seconds) {
  for (LatencyPacket packet; process_.Receive(&packet, sizeof(packet), false);) Take(packet, seconds);
}

void LatencyProbe::End(std::vector<LatencySecond>& seconds) {
  process_.EndSending();
  for (LatencyPacket packet; process_.Receive(&packet, sizeof(packet), true);) Take(packet, seconds);
}

LatencySummary LatencyProbe::Summary() const {
  LatencySummary summary = summary_;
  const auto at = [&](double quantile) { return std::min(latencies_.Percentile(quantile), summary.maxNs); };
  summary.p50Ns = at(0.5);
  summary.p99Ns = at(0.99);
  summary.p999Ns = at(0.999);
  if (batchAccesses_ != 0) summary.meanNs = batchNs_ / static_cast<double>(batchAccesses_);
  if (timeS_ > 0) summary.bytesPerS = static_cast<double>(allAccesses_ * summary.lineBytes) / timeS_;
  return summary;
}

std::string LatencyText(const LatencySummary& latency) {
  const bool isSmall = latency.bytes < kMebibyteOfProbe;
  return Format(isSmall ? "%.0f KiB in pages of " : "%.0f MiB in pages of ",
                static_cast<double>(latency.bytes) / (isSmall ? 1 << 10 : 1 << 20)) +
         latency.pages +
         (latency.cpu < 0 ? std::string(", no CPU of its own") : ", CPU " + std::to_string(latency.cpu)) +
         (latency.realTime ? ", real-time" : "");
}

}  // namespace scope
