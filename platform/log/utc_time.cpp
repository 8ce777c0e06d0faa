// SPDX-License-Identifier: Apache-2.0
#include "utc_time.h"

#include <algorithm>

namespace ara::log {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr std::int64_t kDaysPerYear = 365;
constexpr std::int64_t kDaysPer4Years = 4 * kDaysPerYear + 1;
constexpr std::int64_t kDaysPer100Years = 25 * kDaysPer4Years - 1;
constexpr std::int64_t kDaysPer400Years = 4 * kDaysPer100Years + 1;

// Years begin in March here, so that a leap day is the last day of its year. They are counted from 2000,
// where a cycle of 400 years begins.
constexpr std::int64_t kMarch2000 = 11017;  // days from 1970-01-01 to 2000-03-01
constexpr int kDaysFromMarch[] = {31, 30, 31, 30, 31, 31, 30, 31, 30, 31, 31, 29};

}  // namespace

UtcTime ToUtc(const std::timespec& sinceEpoch) {
  std::int64_t days = sinceEpoch.tv_sec / kSecondsPerDay;
  std::int64_t second = sinceEpoch.tv_sec % kSecondsPerDay;
  if (second < 0) {
    second += kSecondsPerDay;
    --days;
  }

  std::int64_t rest = days - kMarch2000;
  std::int64_t cycles = rest / kDaysPer400Years;
  rest %= kDaysPer400Years;
  if (rest < 0) {
    rest += kDaysPer400Years;
    --cycles;
  }
  // The last century of a cycle and the last year of four are one day longer. The minimum keeps that day in
  // its century and its year.
  const std::int64_t centuries = std::min<std::int64_t>(rest / kDaysPer100Years, 3);
  rest -= centuries * kDaysPer100Years;
  const std::int64_t fours = rest / kDaysPer4Years;
  rest %= kDaysPer4Years;
  const std::int64_t years = std::min<std::int64_t>(rest / kDaysPerYear, 3);
  rest -= years * kDaysPerYear;

  unsigned month = 3;
  for (const int length : kDaysFromMarch) {
    if (rest < length) break;
    rest -= length;
    ++month;
  }
  UtcTime utc{};
  utc.year = 2000 + 400 * cycles + 100 * centuries + 4 * fours + years + (month > 12 ? 1 : 0);
  utc.month = month > 12 ? month - 12 : month;
  utc.day = static_cast<unsigned>(rest + 1);
  utc.hour = static_cast<unsigned>(second / 3600);
  utc.minute = static_cast<unsigned>(second / 60 % 60);
  utc.second = static_cast<unsigned>(second % 60);
  utc.microsecond = static_cast<unsigned>(sinceEpoch.tv_nsec / 1000);
  return utc;
}

}  // namespace ara::log
