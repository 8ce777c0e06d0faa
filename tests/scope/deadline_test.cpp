// SPDX-License-Identifier: Apache-2.0
#include "deadline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "error_of.h"

namespace {

using scope::Deadline;
using scope::EngineDeadline;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(DeadlineTest, ReadsATimeInEachUnit) {
  EXPECT_EQ(scope::ParseDeadline("vpc=16.7ms").ns, 16'700'000U);
  EXPECT_EQ(scope::ParseDeadline("vpc=16.7ms").engine, "vpc");
  EXPECT_EQ(scope::ParseDeadline("cpu=900us").ns, 900'000U);
  EXPECT_EQ(scope::ParseDeadline("aic=2s").ns, 2'000'000'000U);
  EXPECT_EQ(scope::ParseDeadline("venc=1ns").ns, 1U);
  EXPECT_EQ(scope::ParseDeadline("venc=3600s").ns, 3'600'000'000'000U);
}

TEST(DeadlineTest, RefusesWhatIsNoTimeOfAnEngine) {
  for (const char* const text : {"vpc", "=1ms", "isp=1ms", "vpc_copy=1ms"}) {
    EXPECT_THAT(ErrorOf([&] { (void)scope::ParseDeadline(text); }),
                HasSubstr("expected ENGINE=TIME with one of cpu, vpc, venc, aic, as vpc=16.7ms, found \"" +
                          std::string(text) + "\""));
  }
  for (const char* const time : {"", "16", "ms", "0ms", "-1ms", "1.5m", "3601s", "0.4ns", "nans", "1 ms x"}) {
    EXPECT_THAT(ErrorOf([&] { (void)scope::ParseDeadline("vpc=" + std::string(time)); }),
                HasSubstr("--deadline vpc: expected a time from 1ns to 3600s"))
        << time;
  }
}

TEST(DeadlineTest, ReadsAShareAndRefusesWhatIsNone) {
  EXPECT_DOUBLE_EQ(scope::ParseMissedShare("0.1%"), 0.001);
  EXPECT_DOUBLE_EQ(scope::ParseMissedShare("0.001"), 0.001);
  EXPECT_DOUBLE_EQ(scope::ParseMissedShare("0"), 0);
  for (const char* const text : {"", "%", "1", "100%", "-1%", "nan", "some"}) {
    EXPECT_THAT(ErrorOf([&] { (void)scope::ParseMissedShare(text); }),
                HasSubstr("--fail-over: expected a share of the operations below 1"))
        << text;
  }
}

TEST(DeadlineTest, AsksForOneDeadlineOfAnEngineThatWorks) {
  const std::vector<std::pair<std::string, int>> levels = {{"cpu", 1}, {"vpc", 0}};
  scope::RequireDeadlines({{"cpu", 5}}, levels);
  EXPECT_THAT(ErrorOf([&] { scope::RequireDeadlines({{"cpu", 5}, {"cpu", 6}}, levels); }),
              HasSubstr("cpu has two"));
  EXPECT_THAT(ErrorOf([&] { scope::RequireDeadlines({{"vpc", 5}}, levels); }), HasSubstr("vpc does nothing"));
  EXPECT_THAT(ErrorOf([&] { scope::RequireDeadlines({{"aic", 5}}, levels); }), HasSubstr("aic does nothing"));
}

TEST(DeadlineTest, SaysHowManyAreLateAndFailsAboveTheShare) {
  const EngineDeadline late{"vpc", 16'700'000, 2'000, 20, 3, 18'200'000};
  const EngineDeadline none{"cpu", 900'000, 1, 0, 0, 800'000};
  EXPECT_EQ(scope::DeadlineText(late),
            "vpc 16.7 ms: 1 % of 2000 operations late (20), at most 3 in a row, p99.9 18.2 ms");
  const EngineDeadline few{"vpc", 16'700'000, 999, 0, 0, 18'200'000};
  EXPECT_THAT(scope::DeadlineText(few), testing::EndsWith(", longest 18.2 ms"));
  const EngineDeadline enough{"vpc", 16'700'000, 1000, 0, 0, 18'200'000};
  EXPECT_THAT(scope::DeadlineText(enough), testing::EndsWith(", p99.9 18.2 ms"));
  EXPECT_EQ(scope::DeadlineText(none), "cpu 900 us: none of 1 operation late, longest 800 us");
  EXPECT_EQ(scope::DeadlineText({"aic", 1'000, 0, 0, 0, 0}),
            "aic 1.00 us: none of 0 operations late, longest -");
  EXPECT_THAT(scope::MissedTooOften({late, none}, 0.01), IsEmpty());
  EXPECT_THAT(scope::MissedTooOften({late, none}, 0.0099),
              ElementsAre(HasSubstr("(--fail-over 0.99 %): vpc 16.7 ms: 1 %")));
  EXPECT_THAT(scope::MissedTooOften({late, none}, 0), ElementsAre(HasSubstr("vpc")));
}

TEST(DeadlineTest, AreWrittenForTheMeter) {
  EXPECT_EQ(scope::DeadlinesText({{"vpc", 16'700'000}, {"aic", 5}}), "vpc=16700000,aic=5");
}

}  // namespace
