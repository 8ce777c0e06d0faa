// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>

namespace ara::log {

/// A moment in UTC, proleptic Gregorian calendar.
struct UtcTime {
  std::int64_t year;
  unsigned month;  ///< 1 to 12
  unsigned day;    ///< 1 to 31
  unsigned hour;
  unsigned minute;
  unsigned second;
  unsigned microsecond;
};

/// Converts a time since 1970-01-01T00:00:00Z, which may be negative, to UTC. Requires: tv_nsec from 0 to
/// 999,999,999. Fractions of a microsecond are dropped. Threads: any, and signal handlers: unlike gmtime_r it
/// takes no lock and reads no time zone.
UtcTime ToUtc(const std::timespec& sinceEpoch);

}  // namespace ara::log
