// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "ormis/ormis.h"

namespace Ormis::test {
namespace {

using ara::log::LogLevel;
using ara::log::LogMode;

TEST(ParseLogLevelTest, MapsTheNumberToTheLevelOfTheSameNumber) {
  EXPECT_EQ(ParseLogLevel(kQetLogOff), LogLevel::kOff);
  EXPECT_EQ(ParseLogLevel(kQetLogFatal), LogLevel::kFatal);
  EXPECT_EQ(ParseLogLevel(kQetLogError), LogLevel::kError);
  EXPECT_EQ(ParseLogLevel(kQetLogWarn), LogLevel::kWarn);
  EXPECT_EQ(ParseLogLevel(static_cast<QetLogLevelType>(4)), LogLevel::kInfo);  // the configuration's default
  EXPECT_EQ(ParseLogLevel(kQetLogDebug), LogLevel::kDebug);
  EXPECT_EQ(ParseLogLevel(kQetLogVerbose), LogLevel::kVerbose);
}

TEST(ParseLogLevelTest, ANumberAboveSixIsVerbose) {
  for (const std::uint32_t number : {7U, 256U, 0x80000000U, 0xffffffffU}) {
    EXPECT_EQ(ParseLogLevel(static_cast<QetLogLevelType>(number)), LogLevel::kVerbose) << number;
  }
}

TEST(ParseLogModeTest, MapsTheBits) {
  EXPECT_EQ(static_cast<int>(ParseLogMode(static_cast<QetLogModeType>(0))), 0);
  EXPECT_EQ(ParseLogMode(kQetLogRemote), LogMode::kRemote);
  EXPECT_EQ(ParseLogMode(kQetLogFile), LogMode::kFile);
  EXPECT_EQ(ParseLogMode(kQetLogConsole), LogMode::kConsole);
  EXPECT_EQ(ParseLogMode(static_cast<QetLogModeType>(6)), LogMode::kFile | LogMode::kConsole);  // the default
  EXPECT_EQ(ParseLogMode(static_cast<QetLogModeType>(7)),
            LogMode::kRemote | LogMode::kFile | LogMode::kConsole);
}

TEST(ParseLogModeTest, IgnoresOtherBits) {
  EXPECT_EQ(static_cast<int>(ParseLogMode(static_cast<QetLogModeType>(8))), 0);
  EXPECT_EQ(ParseLogMode(static_cast<QetLogModeType>(0x100 + 2)), LogMode::kFile);
  EXPECT_EQ(static_cast<int>(ParseLogMode(static_cast<QetLogModeType>(0xffffffffU))), 7);
}

}  // namespace
}  // namespace Ormis::test
