// SPDX-License-Identifier: Apache-2.0
#include "rate_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "errors.h"

namespace {

using scope::ParseRateLine;
using ::testing::HasSubstr;

std::string ErrorOf(const std::string& line) {
  try {
    (void)ParseRateLine(line, 1);
  } catch (const scope::UserError& error) {
    return error.what();
  }
  return "no error";
}

TEST(RateLine, HasAnEntryForEachStressAndLeavesTheConstantOut) {
  const auto rates =
      ParseRateLine("cpuStress : 431.034483 fps. kivuVpcStress : 0.000000 fps. ispStress : 30.0 fps.", 7);
  ASSERT_EQ(rates.size(), 2U);
  EXPECT_EQ(rates[0].stress, "cpuStress");
  EXPECT_DOUBLE_EQ(rates[0].fps, 431.034483);
  EXPECT_DOUBLE_EQ(rates[0].timeS, 7);
  EXPECT_EQ(rates[1].stress, "kivuVpcStress");
}

TEST(RateLine, WithoutAStressHasNoEntry) {
  EXPECT_TRUE(ParseRateLine("ispStress : 30.0 fps.", 1).empty());
}

TEST(RateLine, SaysWhereItIsWrongAndWhatWasExpected) {
  EXPECT_EQ(ErrorOf(""), "character 1: expected the name of a stress, found the end of the line");
  EXPECT_EQ(ErrorOf("cpuStress = 1 fps."), "character 10: expected \" : \", found \" = 1 fps.\"");
  EXPECT_EQ(ErrorOf("cpuStress : nan fps."),
            "character 13: expected a rate such as 30.0, found \"nan fps.\"");
  EXPECT_EQ(ErrorOf("cpuStress : 1.2.3 fps."),
            "character 13: expected a rate such as 30.0, found \"1.2.3 fps.\"");
  EXPECT_THAT(ErrorOf("cpuStress : " + std::string(400, '9') + " fps."), HasSubstr("expected a rate"));
  EXPECT_THAT(ErrorOf("cpuStress : 1 fps"), HasSubstr("expected \" fps.\""));
  EXPECT_THAT(ErrorOf("cpuStress : 1 fps."), HasSubstr("expected \" \", found the end of the line"));
  EXPECT_THAT(ErrorOf("ispStress : 30.0 fps. cpuStress : 1 fps."),
              HasSubstr("the end of the line after ispStress"));
}

TEST(RateLine, NamesHaveLettersDigitsAndUnderscores) {
  const auto rates = ParseRateLine("my_Stress2 : 1 fps. ispStress : 30.0 fps.", 1);
  ASSERT_EQ(rates.size(), 1U);
  EXPECT_EQ(rates[0].stress, "my_Stress2");
  EXPECT_EQ(ErrorOf("my-stress : 1 fps."), "character 3: expected \" : \", found \"-stress : 1 fps.\"");
}

TEST(RateLine, SaysOfALongRestItsFirstTwentyCharacters) {
  EXPECT_EQ(ErrorOf("cpuStress:0123456789012345678901234"),
            "character 10: expected \" : \", found \":0123456789012345678\"");
}

TEST(RateLine, EndsAnywhereButAfterTheConstantWithAnError) {
  EXPECT_EQ(ErrorOf("cpuStress"), "character 10: expected \" : \", found the end of the line");
  EXPECT_EQ(ErrorOf("cpuStress : "), "character 13: expected a rate such as 30.0, found the end of the line");
  EXPECT_EQ(ErrorOf("cpuStress : 12"), "character 15: expected \" fps.\", found the end of the line");
  EXPECT_EQ(ErrorOf("cpuStress : ."), "character 13: expected a rate such as 30.0, found \".\"");
  EXPECT_EQ(ErrorOf("cpuStress : 1 fps. "),
            "character 20: expected the name of a stress, found the end of the line");
  EXPECT_EQ(ErrorOf("ispStress : 30.0 fps. "),
            "character 22: expected the end of the line after ispStress, found \" \"");
}

}  // namespace
