// SPDX-License-Identifier: Apache-2.0
#include "utc_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>

namespace ara::log {
namespace {

std::string Text(std::time_t seconds, long nanoseconds = 0) {
  const UtcTime utc = ToUtc({seconds, nanoseconds});
  char text[64];
  (void)std::snprintf(text, sizeof text, "%04lld-%02u-%02u %02u:%02u:%02u.%06u",
                      static_cast<long long>(utc.year), utc.month, utc.day, utc.hour, utc.minute, utc.second,
                      utc.microsecond);
  return text;
}

std::string Reference(std::time_t seconds) {
  std::tm fields{};
  EXPECT_NE(gmtime_r(&seconds, &fields), nullptr);
  char text[64];
  (void)std::snprintf(text, sizeof text, "%04lld-%02d-%02d %02d:%02d:%02d.000000",
                      static_cast<long long>(fields.tm_year) + 1900, fields.tm_mon + 1, fields.tm_mday,
                      fields.tm_hour, fields.tm_min, fields.tm_sec);
  return text;
}

bool IsReference(std::time_t seconds) {
  const UtcTime utc = ToUtc({seconds, 0});
  std::tm fields{};
  return gmtime_r(&seconds, &fields) != nullptr && utc.year == fields.tm_year + 1900 &&
         static_cast<int>(utc.month) == fields.tm_mon + 1 && static_cast<int>(utc.day) == fields.tm_mday &&
         static_cast<int>(utc.hour) == fields.tm_hour && static_cast<int>(utc.minute) == fields.tm_min &&
         static_cast<int>(utc.second) == fields.tm_sec && utc.microsecond == 0;
}

TEST(UtcTime, ConvertsTheEpochAndLeapDays) {
  EXPECT_EQ(Text(0), "1970-01-01 00:00:00.000000");
  EXPECT_EQ(Text(-1), "1969-12-31 23:59:59.000000");
  EXPECT_EQ(Text(951782400), "2000-02-29 00:00:00.000000");  // a leap year, because 2000 is divisible by 400
  EXPECT_EQ(Text(951868800), "2000-03-01 00:00:00.000000");
  EXPECT_EQ(Text(1709251199), "2024-02-29 23:59:59.000000");
  EXPECT_EQ(Text(1709251200), "2024-03-01 00:00:00.000000");
  EXPECT_EQ(Text(4107542399),
            "2100-02-28 23:59:59.000000");  // no leap year, because 2100 is divisible by 100 and not by 400
  EXPECT_EQ(Text(4107542400), "2100-03-01 00:00:00.000000");
  EXPECT_EQ(Text(1735689599), "2024-12-31 23:59:59.000000");
  EXPECT_EQ(Text(1735689600), "2025-01-01 00:00:00.000000");
}

TEST(UtcTime, DropsFractionsOfAMicrosecond) {
  EXPECT_EQ(Text(0, 999), "1970-01-01 00:00:00.000000");
  EXPECT_EQ(Text(0, 1000), "1970-01-01 00:00:00.000001");
  EXPECT_EQ(Text(0, 999999999), "1970-01-01 00:00:00.999999");
}

TEST(UtcTimeSweep, AgreesWithTheCLibraryOnEveryDayOfAThousandYears) {
  constexpr std::time_t kDay = 86400;
  // From 1500 to 2500: more than two whole cycles of the calendar, on both sides of the epoch.
  for (std::time_t day = -171663; day < 193582; ++day) {
    const std::time_t second = (day * 7919 % kDay + kDay) % kDay;
    for (const std::time_t time : {day * kDay + second, day * kDay, day * kDay - 1}) {
      ASSERT_TRUE(IsReference(time)) << Text(time) << " is not " << Reference(time);
    }
  }
}

}  // namespace
}  // namespace ara::log
