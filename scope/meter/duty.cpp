// SPDX-License-Identifier: Apache-2.0
#include "duty.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <ctime>

#include "protocol.h"
#include "words.h"

namespace scope {
namespace {

constexpr double kWholePercent = 100;
constexpr std::uint64_t kNsOfASecond = 1'000'000'000;
// A thread that did nothing for longer, for example while it was set up, does not work without a pause to
// make up for that.
constexpr std::uint64_t kMostCreditNs = 100'000'000;
// The system sleeps some 50 us longer than it is asked to.
constexpr std::uint64_t kLeastSleepNs = 100'000;

// Multiples of the golden ratio, without their whole parts, are far from each other, however many there are.
constexpr double kGoldenRatio = 0.618033988749895;

double wholeOfBusy = 1;
std::atomic<unsigned> threads{0};
__attribute__((tls_model("initial-exec"))) thread_local std::uint64_t dueNs;

// The share of its period by which this thread is late: threads do not sleep in step.
double PhaseOfThisThread() {
  const double turns = kGoldenRatio * threads.fetch_add(1);
  return turns - std::floor(turns);
}

}  // namespace

bool PrepareDuty() {
  const char* const text = std::getenv(kDutyVariable);
  const double percent = text == nullptr ? kWholePercent : std::strtod(text, nullptr);
  if (!(percent > 0) || percent >= kWholePercent) return false;
  wholeOfBusy = kWholePercent / percent;
  return true;
}

void Rest(std::uint64_t startNs, std::uint64_t busyNs) {
  const double periodNs = static_cast<double>(busyNs) * wholeOfBusy;
  if (dueNs == 0) dueNs = startNs + static_cast<std::uint64_t>(periodNs * PhaseOfThisThread());
  if (startNs > dueNs + kMostCreditNs) dueNs = startNs - kMostCreditNs;
  dueNs += static_cast<std::uint64_t>(periodNs);
  if (dueNs < NowNs() + kLeastSleepNs) return;
  // A signal ends the sleep: it may be what ends the program.
  const timespec due = {static_cast<time_t>(dueNs / kNsOfASecond), static_cast<long>(dueNs % kNsOfASecond)};
  (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
}

}  // namespace scope
