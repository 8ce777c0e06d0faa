// SPDX-License-Identifier: Apache-2.0

// Without a remote sink the other sinks work.

#include "daemon.h"

namespace {

class NoRemoteSink : public ProgramTest {
 protected:
  Launch Probe() const {
    Launch launch = With({"init", "STBM", "4", "3", "./log", "init", "STBM", "4", "3", "./log", "logger",
                          "STBM", "6", "info", "text"});
    launch.program = LOG_PROBE;
    return launch;
  }
};

TEST_F(NoRemoteSink, IsReportedOnceWhenTheBuildHasNone) {
  Launch launch = Probe();
  launch.environment["LD_LIBRARY_PATH"] = LOG_WITHOUT_DLT;
  const Ending ending = Run(launch);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "ara::log: the remote sink is not available in this build\n");
  EXPECT_THAT(LogFile(), SizeIs(1));
}

TEST_F(NoRemoteSink, TheProgramRunsWhenTheBuildHasNone) {
  Launch launch = Configured("logMode: 1\nCPU: {Level: 1}\n");
  launch.environment["LD_LIBRARY_PATH"] = LOG_WITHOUT_DLT;
  const Ending ending = RunLines(launch);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "ara::log: the remote sink is not available in this build\n");
  EXPECT_FALSE(Exists("log"));
}

TEST_F(NoRemoteSink, IsReportedOnceWhenTheLibraryCannotBeLoaded) {
  if (!STRESS_HAVE_DLT) GTEST_SKIP() << "the build has none";
  Write("libdlt.so.2", "no library");
  Launch launch = Probe();
  launch.environment["LD_LIBRARY_PATH"] = Directory().string();
  const Ending ending = Run(launch);
  EXPECT_THAT(ending, Exited(0));
  ASSERT_THAT(ending.ErrorLines(), SizeIs(1));
  EXPECT_THAT(ending.error, HasSubstr("ara::log: the remote sink is not available: "));
  EXPECT_THAT(ending.error, HasSubstr("libdlt.so.2"));
  EXPECT_THAT(LogFile(), SizeIs(1));
}

TEST_F(NoRemoteSink, IsReportedWhenTheFolderOfThePipesIsMissing) {
  if (!STRESS_HAVE_DLT) GTEST_SKIP() << "the build has none";
  Launch launch = Probe();
  launch.environment["DLT_PIPE_DIR"] = (Directory() / "missing").string();
  const Ending ending = Run(launch);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.error,
              HasSubstr("ara::log: the remote sink is not available: libdlt cannot be initialised"));
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(LogFile(), SizeIs(1));
}

// libdlt is loaded only on demand.
TEST_F(NoRemoteSink, TheOtherModesDoNotLoadTheLibrary) {
  Write("libdlt.so.2", "no library");
  Launch launch = With({"init", "STBM", "4", "6", "./log", "logger", "STBM", "6", "info", "text"});
  launch.program = LOG_PROBE;
  launch.environment["LD_LIBRARY_PATH"] = Directory().string();
  const Ending ending = Run(launch);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.ErrorLines(), SizeIs(1));
  EXPECT_THAT(LogFile(), SizeIs(1));
}

}  // namespace
