// SPDX-License-Identifier: Apache-2.0
#include "log_site.h"

#include "fixture.h"
#include "stress_bencmark.h"

namespace {

class LogSiteTest : public UnitTest {
 protected:
  ~LogSiteTest() override { stopFlag = 0; }
};

int evaluations = 0;
const char* Evaluated() {
  ++evaluations;
  return "text";
}

TEST_F(LogSiteTest, EnabledStatementWritesFunctionNameThenSeparatorThenPieces) {
  STBM_LOG_ERROR("Name fail" << ", ret = " << -7 << std::string("!") << 8U);
  ASSERT_EQ(fakeLog::Records().size(), 1U);
  const fakeLog::Record record = fakeLog::Records()[0];
  EXPECT_EQ(record.Text(), "TestBody() | Name fail, ret = -7!8");
  EXPECT_EQ(std::string(record.kinds.begin(), record.kinds.end()), "vcccisu");
  EXPECT_EQ(record.contextId, "STBM");
  EXPECT_EQ(record.file, "tests/unit/log_site_test.cpp");
  EXPECT_EQ(record.function, "TestBody");
}

TEST_F(LogSiteTest, EachLevelAsksIsEnabledAndOpensARecordOfThatLevel) {
  const int line = __LINE__;
  STBM_LOG_ERROR("e");
  STBM_LOG_WARN("w");
  STBM_LOG_INFO("i");
  STBM_LOG_DEBUG("d");
  EXPECT_THAT(fakeLog::Calls(), ElementsAre("IsEnabled 2", "LogError", "IsEnabled 3", "LogWarn",
                                            "IsEnabled 4", "LogInfo", "IsEnabled 5", "LogDebug"));
  EXPECT_EQ(fakeLog::Records()[3].line, line + 4);
}

TEST_F(LogSiteTest, DisabledStatementOpensOneEmptyRecordAndEvaluatesNothing) {
  SetLevel(ara::log::LogLevel::kInfo);
  fakeLog::Reset();
  evaluations = 0;
  STBM_LOG_DEBUG(Evaluated());
  EXPECT_EQ(evaluations, 0);
  EXPECT_THAT(fakeLog::Calls(), ElementsAre("IsEnabled 5", "LogDebug"));
  ASSERT_EQ(fakeLog::Records().size(), 1U);
  EXPECT_EQ(fakeLog::Records()[0].pieces.size(), 1U);
  EXPECT_EQ(fakeLog::Records()[0].Text(), "");
  EXPECT_EQ(std::string(fakeLog::Records()[0].kinds.data(), 1), "c");
}

TEST_F(LogSiteTest, EnabledStatementEvaluatesItsPiecesOnce) {
  evaluations = 0;
  STBM_LOG_DEBUG(Evaluated());
  EXPECT_EQ(evaluations, 1);
}

TEST_F(LogSiteTest, EachStepGetsTheSingletonAgain) {
  for (const ara::log::LogLevel level : {ara::log::LogLevel::kDebug, ara::log::LogLevel::kInfo}) {
    SetLevel(level);
    ara::log::Logger& other = ara::log::CreateLogger("NEXT", "", ara::log::LogLevel::kDebug);
    fakeLog::Reset();
    // Another logger is put in place while the statement asks whether its level is enabled.
    fakeLog::OnCall([&] { Ormis::OrmisLogger::GetInstance().logger = &other; });
    STBM_LOG_DEBUG("text");
    fakeLog::OnCall(nullptr);
    ASSERT_EQ(fakeLog::Records().size(), 1U);
    EXPECT_EQ(fakeLog::Records()[0].contextId, "NEXT");
    EXPECT_EQ(fakeLog::Records()[0].Text().empty(), level == ara::log::LogLevel::kInfo);
  }
}

TEST_F(LogSiteTest, MacroIsOneStatement) {
  if (evaluations < 0)
    STBM_LOG_ERROR("not reached");
  else
    STBM_LOG_ERROR("reached");
  EXPECT_THAT(Errors(), ElementsAre("TestBody() | reached"));
}

TEST_F(LogSiteTest, SignalHandlerRaisesTheFlagAndLogsBothNumbers) {
  SignalHandler(2);
  EXPECT_EQ(stopFlag, 1);
  EXPECT_THAT(
      Debugs(),
      ElementsAre("SignalHandler() | ===== Signal Interactive attention received. signal: 2 stopFlag_: 1 "
                  "====="));
  const fakeLog::Record record = fakeLog::Records()[0];
  EXPECT_EQ(std::string(record.kinds.begin(), record.kinds.end()), "vccicic");
  EXPECT_EQ(record.file, "stress_benchmark/src/stress_bencmark.cpp");
}

TEST_F(LogSiteTest, SignalHandlerAtInfoLevelStillOpensOneEmptyDebugRecord) {
  SetLevel(ara::log::LogLevel::kInfo);
  fakeLog::Reset();
  SignalHandler(2);
  EXPECT_EQ(stopFlag, 1);
  EXPECT_THAT(fakeLog::Calls(), ElementsAre("IsEnabled 5", "LogDebug"));
  EXPECT_EQ(fakeLog::Records()[0].Text(), "");
}

TEST_F(LogSiteTest, SignalHandlerRaisesTheFlagBeforeItLogs) {
  int flagAtFirstQuestion = -1;
  fakeLog::OnCall([&] {
    if (flagAtFirstQuestion == -1) flagAtFirstQuestion = stopFlag;
  });
  SignalHandler(2);
  EXPECT_EQ(flagAtFirstQuestion, 1);
}

}  // namespace
