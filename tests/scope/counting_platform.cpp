// SPDX-License-Identifier: Apache-2.0

/// A platform that only waits and counts its own work. Tests compare the meter with these counts.
#include "counting_platform.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>

#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"

namespace {

CountedCalls counted[kCountedEngines];
std::atomic<long> waitNs{0};
std::atomic<int> failEvery{0};
thread_local std::uint64_t encodeNs = 0;
thread_local std::uint64_t virtualNs = 0;

std::uint64_t NowNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// Virtual steps take one to four times the set time, evenly distributed.
std::uint64_t WorkVirtually(std::uint64_t call) {
  const auto least = static_cast<std::uint64_t>(waitNs.load());
  const std::uint64_t ns = least + call * 7919 * 1009 % (3 * least + 1);
  virtualNs += ns;
  return ns;
}

// Every fourth wait is four times as long, so that the percentiles differ.
std::uint64_t Work(std::uint64_t call) {
  if (virtualNs != 0) return WorkVirtually(call);
  const std::uint64_t start = NowNs();
  const long ns = waitNs.load() * (call % 4 == 3 ? 4 : 1);
  const timespec wait{ns / 1'000'000'000, ns % 1'000'000'000};
  if (ns > 0) (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, nullptr);
  return NowNs() - start;
}

bool Fails(std::uint64_t call) {
  const int every = failEvery.load();
  return every != 0 && call % static_cast<std::uint64_t>(every) == 0;
}

int Note(int engine, std::uint64_t ns, bool failed) {
  CountedCalls& calls = counted[engine];
  if (failed) {
    calls.failures.fetch_add(1);
    return 77;
  }
  const std::uint64_t index = calls.operations.fetch_add(1);
  calls.busyNs.fetch_add(ns);
  if (index < kKeptLatencies) calls.latenciesNs[index] = ns;
  return 0;
}

int Call(int engine) {
  const std::uint64_t call = counted[engine].calls.fetch_add(1) + 1;
  return Note(engine, Work(call), Fails(call));
}

}  // namespace

CountedCalls& CountedCallsOf(int engine) {
  return counted[engine];
}

std::uint64_t& VirtualNs() {
  return virtualNs;
}

void SetWork(long ns, int failEveryNth) {
  waitNs = ns;
  failEvery = failEveryNth;
}

int memcpy_s(void* /*destination*/, std::size_t /*destinationMax*/, const void* /*source*/,
             std::size_t /*count*/) {
  return Call(kCountedCpu);
}

namespace Ormis {

std::int32_t QetImageResize(int /*channel*/, const ImageData& /*source*/, const ImageData& /*destination*/,
                            QetImageInterpolationType /*interpolation*/, int /*timeoutMs*/) {
  return Call(kCountedVpc);
}

std::int32_t QetMemcpyToKivu(const ImageData& /*source*/, ImageData& /*destination*/) {
  return Call(kCountedVpcCopy);
}

QetVenc::~QetVenc() {}

std::int32_t QetVenc::SendFrame(const ImageData& /*frame*/) {
  encodeNs = Work(0);
  return 0;
}

// Sets a large size. A reader that mistakes the record for the project's own would count it.
std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  stream.totalBytes = 1'000'000;
  encodeNs += Work(0);
  return 0;
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& /*stream*/) {
  const std::uint64_t call = counted[kCountedVenc].calls.fetch_add(1) + 1;
  encodeNs += Work(call);
  return Note(kCountedVenc, encodeNs, Fails(call));
}

std::int32_t QetDNNModelInitialize(QetDNNHandle& /*handle*/, const std::string& path) {
  return path.empty() ? 77 : 0;
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& /*handle*/) {
  return Call(kCountedAic);
}

}  // namespace Ormis
