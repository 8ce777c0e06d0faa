// SPDX-License-Identifier: Apache-2.0

// How a recording ends. Time is virtual: the test sets what happens when.
#include "supervisor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace {

using scope::Supervisor;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Send = Supervisor::Send;
using State = Supervisor::State;
using Meter = Supervisor::Meter;

class SupervisorTest : public ::testing::Test {
 protected:
  static Supervisor::Limits Limits() {
    Supervisor::Limits limits;
    limits.program = "bin/benchmark";
    limits.runTimeS = 40;
    limits.graceS = 15;
    return limits;
  }

  // Below 0: it has not begun.
  static Supervisor StoppingAfter(double stopAfterS, double beganS = 0.1) {
    Supervisor::Limits limits = Limits();
    limits.stopAfterS = stopAfterS;
    Supervisor supervisor(limits);
    if (beganS >= 0) supervisor.CatchesSigint(true, beganS);
    return supervisor;
  }

  void Expect(const Supervisor::Decision& decision, Send send, const std::string& fault, State state) {
    EXPECT_EQ(decision.send, send);
    EXPECT_EQ(decision.fault, fault);
    EXPECT_EQ(supervisor_.CurrentState(), state);
  }

  Supervisor supervisor_{Limits()};
};

TEST_F(SupervisorTest, BeginsWithARunningBenchmark) {
  EXPECT_EQ(supervisor_.CurrentState(), State::kRunning);
  EXPECT_EQ(supervisor_.Fault(), "");
  EXPECT_FALSE(supervisor_.Interrupted());
}

TEST_F(SupervisorTest, ABenchmarkThatEndsByItselfIsACompleteRecording) {
  for (double nowS = 0; nowS <= 42; nowS += 0.25) {
    supervisor_.SignOfLife(nowS);
    Expect(supervisor_.TimePassed(nowS), Send::kNothing, "", State::kRunning);
  }
  Expect(supervisor_.BenchmarkEnded({0, 0, Meter::kSaidTheEnd}), Send::kNothing, "", State::kEnded);
  EXPECT_EQ(supervisor_.Fault(), "");
  EXPECT_FALSE(supervisor_.Interrupted());
}

TEST_F(SupervisorTest, ASignalAsksTheBenchmarkToEndWhichIsNoFault) {
  Expect(supervisor_.SignalCame(3), Send::kSigint, "", State::kStopping);
  EXPECT_TRUE(supervisor_.Interrupted());
  Expect(supervisor_.TimePassed(4), Send::kNothing, "", State::kStopping);
  Expect(supervisor_.BenchmarkEnded({}), Send::kNothing, "", State::kEnded);
  EXPECT_EQ(supervisor_.Fault(), "");
}

TEST_F(SupervisorTest, TheSameSignalMayComeTwiceWithinASecond) {
  (void)supervisor_.SignalCame(3);
  Expect(supervisor_.SignalCame(3), Send::kNothing, "", State::kStopping);
  Expect(supervisor_.SignalCame(4), Send::kNothing, "", State::kStopping);
  Expect(supervisor_.SignalCame(4.001), Send::kSigkill, "", State::kKilled);
}

TEST_F(SupervisorTest, ASecondSignalKillsWhoeverAskedFirst) {
  supervisor_ = StoppingAfter(8);
  (void)supervisor_.TimePassed(8);
  EXPECT_FALSE(supervisor_.Interrupted());
  Expect(supervisor_.SignalCame(10), Send::kSigkill, "", State::kKilled);
  EXPECT_TRUE(supervisor_.Interrupted());
}

TEST_F(SupervisorTest, AKilledBenchmarkIsSentNothingMore) {
  (void)supervisor_.SignalCame(1);
  (void)supervisor_.SignalCame(3);
  Expect(supervisor_.SignalCame(5), Send::kNothing, "", State::kKilled);
  Expect(supervisor_.TimePassed(13), Send::kNothing, "", State::kKilled);
  Expect(supervisor_.RecordingFailed(13, "full"), Send::kNothing, "full", State::kKilled);
  Expect(supervisor_.BenchmarkEnded({0, SIGKILL, Meter::kCut}), Send::kNothing, "", State::kEnded);
  EXPECT_EQ(supervisor_.Fault(), "full");
}

// For example one that a driver keeps.
TEST_F(SupervisorTest, ABenchmarkThatSigkillDoesNotEndIsGivenUp) {
  const std::string stuck =
      "the benchmark, process 4711, did not end within 10 s of SIGKILL: it still runs, and disturbs what "
      "follows";
  supervisor_.BenchmarkStarted(4711);
  (void)supervisor_.SignalCame(1);
  (void)supervisor_.SignalCame(3);
  Expect(supervisor_.TimePassed(13), Send::kNothing, "", State::kKilled);
  EXPECT_FALSE(supervisor_.IsOver());
  Expect(supervisor_.TimePassed(13.001), Send::kNothing, stuck, State::kStuck);
  EXPECT_TRUE(supervisor_.IsOver());
  EXPECT_TRUE(supervisor_.Hung());
  EXPECT_FALSE(supervisor_.RecorderFailed());
  EXPECT_EQ(supervisor_.Fault(), stuck);
  Expect(supervisor_.TimePassed(500), Send::kNothing, "", State::kStuck);
}

TEST_F(SupervisorTest, WhatKilledABenchmarkIsToldBeforeThatItDoesNotEnd) {
  supervisor_ = StoppingAfter(8);
  supervisor_.BenchmarkStarted(5);
  (void)supervisor_.TimePassed(8);
  const std::string killed = supervisor_.TimePassed(23.001).fault;
  ASSERT_NE(killed, "");
  const std::string stuck = supervisor_.TimePassed(33.002).fault;
  EXPECT_THAT(stuck, StartsWith("the benchmark, process 5, did not end within 10 s of SIGKILL"));
  EXPECT_EQ(supervisor_.Fault(), killed + "; " + stuck);
  EXPECT_TRUE(supervisor_.Hung());
  // What the recorder could not do comes first, and says nothing about the board.
  supervisor_ = StoppingAfter(8);
  (void)supervisor_.RecordingFailed(1, "full");
  (void)supervisor_.TimePassed(17);
  (void)supervisor_.TimePassed(28);
  EXPECT_EQ(supervisor_.CurrentState(), State::kStuck);
  EXPECT_FALSE(supervisor_.Hung());
  EXPECT_TRUE(supervisor_.RecorderFailed());
}

TEST_F(SupervisorTest, OneSignalMayComeTwiceAlsoWhenTheBenchmarkHasEnded) {
  EXPECT_TRUE(supervisor_.IsAnotherSignal(0));
  (void)supervisor_.SignalCame(3);
  (void)supervisor_.BenchmarkEnded({});
  EXPECT_FALSE(supervisor_.IsAnotherSignal(4));
  EXPECT_TRUE(supervisor_.IsAnotherSignal(4.001));
}

TEST_F(SupervisorTest, ABenchmarkThatIgnoresSigintIsKilledAfterTheGrace) {
  (void)supervisor_.SignalCame(3);
  Expect(supervisor_.TimePassed(18), Send::kNothing, "", State::kStopping);
  Expect(supervisor_.TimePassed(18.001), Send::kSigkill,
         "the benchmark did not end within 15 s of SIGINT and was killed", State::kKilled);
  // The kill is already reported. The death that follows adds no second report.
  Expect(supervisor_.BenchmarkEnded({0, SIGKILL, Meter::kCut}), Send::kNothing, "", State::kEnded);
  EXPECT_EQ(supervisor_.Fault(), "the benchmark did not end within 15 s of SIGINT and was killed");
}

TEST_F(SupervisorTest, SignsOfLifeDoNotPutOffTheKill) {
  (void)supervisor_.SignalCame(3);
  supervisor_.SignOfLife(18);
  EXPECT_EQ(supervisor_.TimePassed(18.001).send, Send::kSigkill);
}

TEST_F(SupervisorTest, StopsAtTheTimeThatWasAskedFor) {
  supervisor_ = StoppingAfter(8);
  Expect(supervisor_.TimePassed(7.999), Send::kNothing, "", State::kRunning);
  Expect(supervisor_.TimePassed(8), Send::kSigint, "", State::kStopping);
  Expect(supervisor_.TimePassed(8.2), Send::kNothing, "", State::kStopping);
  Expect(supervisor_.TimePassed(23), Send::kNothing, "", State::kStopping);
  EXPECT_EQ(supervisor_.TimePassed(23.001).send, Send::kSigkill);
}

// SIGINT would break off a benchmark that does not catch it yet.
TEST_F(SupervisorTest, ABenchmarkThatHasNotBegunIsNotStopped) {
  constexpr double kNotYet = -1;
  supervisor_ = StoppingAfter(3, kNotYet);
  Expect(supervisor_.TimePassed(3), Send::kNothing, "", State::kRunning);
  // A script that starts it.
  supervisor_.CatchesSigint(true, 3);
  supervisor_.CatchesSigint(false, 3.1);
  Expect(supervisor_.TimePassed(4.5), Send::kNothing, "", State::kRunning);
  supervisor_.CatchesSigint(true, 4.5);
  // It has the time that was asked for, but for the usual second of a start.
  Expect(supervisor_.TimePassed(6.499), Send::kNothing, "", State::kRunning);
  supervisor_.CatchesSigint(true, 5);
  Expect(supervisor_.TimePassed(6.5), Send::kSigint, "", State::kStopping);
  // What it prints or does shows it as well.
  supervisor_ = StoppingAfter(3, kNotYet);
  EXPECT_FALSE(supervisor_.IsAlive());
  supervisor_.SignOfLife(2);
  EXPECT_TRUE(supervisor_.IsAlive());
  Expect(supervisor_.TimePassed(3.999), Send::kNothing, "", State::kRunning);
  Expect(supervisor_.TimePassed(4), Send::kSigint, "", State::kStopping);
}

TEST_F(SupervisorTest, ABenchmarkThatNeverBeginsHangs) {
  supervisor_ = StoppingAfter(3, -1);
  Expect(supervisor_.TimePassed(42), Send::kNothing, "", State::kRunning);
  Expect(supervisor_.TimePassed(42.001), Send::kSigint, supervisor_.Fault(), State::kStopping);
  EXPECT_THAT(supervisor_.Fault(), StartsWith("the benchmark hangs"));
  // The user's signal does not wait.
  supervisor_ = StoppingAfter(3, -1);
  Expect(supervisor_.SignalCame(1), Send::kSigint, "", State::kStopping);
}

TEST_F(SupervisorTest, ASilentBenchmarkHangsOnceItsRunTimeAndTheGraceAreOver) {
  supervisor_.SignOfLife(30);
  Expect(supervisor_.TimePassed(42), Send::kNothing, "", State::kRunning);
  Expect(supervisor_.TimePassed(45), Send::kNothing, "", State::kRunning);
  Expect(supervisor_.TimePassed(45.001), Send::kSigint,
         "the benchmark hangs: its run time of 40 s is over, and there was neither a rate line nor an "
         "operation for 15 s",
         State::kStopping);
  Expect(supervisor_.TimePassed(60.001), Send::kNothing, "", State::kStopping);
  Expect(supervisor_.TimePassed(60.002), Send::kSigkill, "", State::kKilled);
  EXPECT_FALSE(supervisor_.Interrupted());
}

TEST_F(SupervisorTest, TheLatestSignOfLifeCountsInAnyOrder) {
  supervisor_.SignOfLife(40);
  supervisor_.SignOfLife(39);
  Expect(supervisor_.TimePassed(55), Send::kNothing, "", State::kRunning);
  EXPECT_EQ(supervisor_.TimePassed(55.001).send, Send::kSigint);
}

TEST_F(SupervisorTest, ABenchmarkMayBeSilentWithinItsRunTimeAndTwoSecondsMore) {
  Expect(supervisor_.TimePassed(42), Send::kNothing, "", State::kRunning);
  Expect(supervisor_.TimePassed(42.001), Send::kSigint, supervisor_.Fault(), State::kStopping);
  EXPECT_THAT(supervisor_.Fault(), StartsWith("the benchmark hangs"));
}

TEST_F(SupervisorTest, ABenchmarkThatStillWorksHangsAMinuteAfterItsEnd) {
  for (double nowS = 0; nowS < 90; nowS += 10) {
    supervisor_.SignOfLife(nowS);
    Expect(supervisor_.TimePassed(nowS + 9), Send::kNothing, "", State::kRunning);
  }
  supervisor_.SignOfLife(102);
  Expect(supervisor_.TimePassed(102), Send::kNothing, "", State::kRunning);
  supervisor_.SignOfLife(103);
  Expect(supervisor_.TimePassed(103), Send::kSigint,
         "the benchmark hangs: its run time of 40 s is over, and it still prints or works 63 s later",
         State::kStopping);
}

TEST_F(SupervisorTest, ALongerGraceLetsTheBenchmarkWorkLonger) {
  Supervisor::Limits limits = Limits();
  limits.graceS = 20;
  supervisor_ = Supervisor(limits);
  supervisor_.SignOfLife(122);
  Expect(supervisor_.TimePassed(122), Send::kNothing, "", State::kRunning);
  EXPECT_EQ(supervisor_.TimePassed(122.001).send, Send::kSigint);
}

TEST_F(SupervisorTest, ARecordingThatFailsEndsTheBenchmark) {
  Expect(supervisor_.RecordingFailed(5, "no space"), Send::kSigint, "no space", State::kStopping);
  Expect(supervisor_.RecordingFailed(6, "still none"), Send::kNothing, "", State::kStopping);
  Expect(supervisor_.TimePassed(20.001), Send::kSigkill, "", State::kKilled);
  EXPECT_EQ(supervisor_.Fault(), "no space");
}

TEST_F(SupervisorTest, ARecordingMayFailWhileTheBenchmarkEnds) {
  (void)supervisor_.SignalCame(5);
  Expect(supervisor_.RecordingFailed(6, "no space"), Send::kNothing, "no space", State::kStopping);
  // The grace starts at the signal.
  EXPECT_EQ(supervisor_.TimePassed(20).send, Send::kNothing);
  EXPECT_EQ(supervisor_.TimePassed(20.001).send, Send::kSigkill);
}

TEST_F(SupervisorTest, AfterTheEndThereIsNobodyToSendASignalTo) {
  (void)supervisor_.BenchmarkEnded({});
  Expect(supervisor_.TimePassed(500), Send::kNothing, "", State::kEnded);
  Expect(supervisor_.RecordingFailed(500, "no space"), Send::kNothing, "no space", State::kEnded);
  EXPECT_FALSE(supervisor_.Interrupted());
  Expect(supervisor_.SignalCame(501), Send::kNothing, "", State::kEnded);
  EXPECT_TRUE(supervisor_.Interrupted());
}

TEST_F(SupervisorTest, SaysHowTheBenchmarkEnded) {
  const auto fault = [](const Supervisor::Ending& ending) {
    Supervisor supervisor(Limits());
    const Supervisor::Decision decision = supervisor.BenchmarkEnded(ending);
    EXPECT_EQ(decision.fault, supervisor.Fault());
    EXPECT_EQ(decision.send, Send::kNothing);
    return decision.fault;
  };
  EXPECT_EQ(fault({0, SIGSEGV, Meter::kCut}), "the benchmark was ended by SIGSEGV");
  EXPECT_EQ(fault({0, SIGRTMIN + 3, Meter::kUnused}),
            "the benchmark was ended by signal " + std::to_string(SIGRTMIN + 3));
  EXPECT_EQ(fault({255, 0, Meter::kSilent}), "the benchmark ended with status 255; its log says why");
  EXPECT_THAT(fault({0, 0, Meter::kSilent}),
              HasSubstr("the meter did not answer: bin/benchmark does not call the platform library"));
  EXPECT_EQ(fault({0, 0, Meter::kCut}),
            "the meter did not report the end of the program: its last samples are missing");
  EXPECT_EQ(fault({0, 0, Meter::kUnused}), "");
  EXPECT_EQ(fault({0, 0, Meter::kSaidTheEnd}), "");
}

TEST_F(SupervisorTest, AHangMayBeFoundBeforeTheRunTimeIsOver) {
  Supervisor::Limits limits = Limits();
  limits.hangAfterS = 5;
  supervisor_ = Supervisor(limits);
  supervisor_.SignOfLife(3);
  Expect(supervisor_.TimePassed(8), Send::kNothing, "", State::kRunning);
  Expect(supervisor_.TimePassed(8.25), Send::kSigint,
         "the benchmark hangs: there was neither a rate line nor an operation for 5 s", State::kStopping);
  EXPECT_TRUE(supervisor_.Hung());
}

TEST_F(SupervisorTest, OnlyWhatDoesNotEndHangs) {
  (void)supervisor_.RecordingFailed(3, "no room");
  Expect(supervisor_.TimePassed(19), Send::kSigkill, "", State::kKilled);
  EXPECT_FALSE(supervisor_.Hung()) << "the first fault counts";
  supervisor_ = StoppingAfter(2);
  (void)supervisor_.TimePassed(2);
  EXPECT_FALSE(supervisor_.Hung());
  (void)supervisor_.TimePassed(18);
  EXPECT_TRUE(supervisor_.Hung());
}

// Whose fault it is: the recorder's says nothing about the benchmark and the board.
TEST_F(SupervisorTest, TellsItsOwnFaultsFromThoseOfTheBenchmark) {
  const auto ofRecorder = [](const Supervisor::Ending& ending) {
    Supervisor supervisor(Limits());
    (void)supervisor.BenchmarkEnded(ending);
    return supervisor.RecorderFailed();
  };
  EXPECT_TRUE(ofRecorder({0, 0, Meter::kSilent}));
  EXPECT_TRUE(ofRecorder({0, 0, Meter::kCut}));
  EXPECT_FALSE(ofRecorder({0, 0, Meter::kSaidTheEnd}));
  EXPECT_FALSE(ofRecorder({0, 0, Meter::kUnused}));
  // A benchmark that ends so early has no meter, either.
  EXPECT_FALSE(ofRecorder({255, 0, Meter::kSilent}));
  EXPECT_FALSE(ofRecorder({0, SIGSEGV, Meter::kCut}));

  // The first fault counts.
  (void)supervisor_.RecordingFailed(5, "no space");
  (void)supervisor_.BenchmarkEnded({255, 0, Meter::kCut});
  EXPECT_TRUE(supervisor_.RecorderFailed());
  Supervisor hanging(Limits());
  (void)hanging.TimePassed(500);
  EXPECT_TRUE(hanging.Hung());
  (void)hanging.RecordingFailed(501, "no space");
  EXPECT_FALSE(hanging.RecorderFailed());
  Supervisor ofBoard(Limits());
  (void)ofBoard.RecordingFailed(5, "a crash", true);
  EXPECT_FALSE(ofBoard.RecorderFailed());
}

}  // namespace
