// SPDX-License-Identifier: Apache-2.0
#include "cpu_stress.h"

#include <cstdint>
#include <cstring>

#include "log_site.h"
#include "measuring_period.h"

namespace {

// Every byte is written, so that the buffer has pages of its own. All pages of a source that was never
// written are one shared page of zeros, and the copies would then move half the memory.
std::unique_ptr<std::uint8_t[]> MakeZeroedBuffer() {
  std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[kCopyBytes]);
  std::memset(buffer.get(), 0, kCopyBytes);
  return buffer;
}

}  // namespace

void runCpuStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                  const volatile int& stopFlag) {
  STBM_LOG_INFO("CPU threadNum: " << reg->threadNum << " , memcpy Process start...");
  for (std::uint32_t i = 0; i < reg->threadNum; ++i) {
    threads.push_back(std::thread(MemoryCopy, std::ref(reg), static_cast<int>(i), std::ref(stopFlag)));
  }
}

void MemoryCopy(std::unique_ptr<vorn::StressRegister>& reg, int index, const volatile int& stopFlag) {
  const std::unique_ptr<std::uint8_t[]> source = MakeZeroedBuffer();
  const std::unique_ptr<std::uint8_t[]> destination = MakeZeroedBuffer();
  MeasuringPeriod period(reg, index, STBM_HERE);
  while (stopFlag == 0) {
    period.StartCycle();
    (void)memcpy_s(destination.get(), kCopyBytes, source.get(), kCopyBytes);  // the result is ignored
    period.EndCycle();
  }
}
