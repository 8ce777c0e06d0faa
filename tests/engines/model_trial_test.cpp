// SPDX-License-Identifier: Apache-2.0

// What a load makes of the trial of a model. A shell script in place of the trial ends as the engine might.
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <vector>

#include "endless_network.h"
#include "expect_failure.h"
#include "memory_limit.h"
#include "model_bytes.h"
#include "model_test.h"
#include "sanitizers.h"
#include "spawn_calls.h"

namespace {

using Ormis::QetDNNHandle;
using Ormis::test::ExpectFailure;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

int trims = 0;
std::size_t trimPad = 1;

}  // namespace

extern "C" __attribute__((visibility("default"))) int malloc_trim(std::size_t pad) noexcept {
  ++trims;
  trimPad = pad;
  static const auto real = reinterpret_cast<decltype(&malloc_trim)>(dlsym(RTLD_NEXT, "malloc_trim"));
  return real == nullptr ? 0 : real(pad);
}

namespace {

class ModelTrialTest : public ModelTest {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    path_ = Write(TinyNetwork());
  }

  /// Runs the script in place of the trial from now on.
  void ReplaceTrial(const std::string& script) {
    Touch();
    spawn_calls::ReplaceByScript(script);
  }

  /// Expects that the load fails with this code and message when the script is run in place of the trial.
  void ExpectLoadFails(const std::string& script, std::int32_t code, const std::string& message) {
    SCOPED_TRACE(script);
    ReplaceTrial(script);
    QetDNNHandle handle;
    ExpectFailure(code, "QetDNNModelInitialize", message,
                  [&] { return Ormis::QetDNNModelInitialize(handle, path_); });
    EXPECT_EQ(handle.modelId, 0U);
  }

  /// Expects that the model loads, and that its inference fails with this code and message.
  void ExpectRunFails(const std::string& script, std::int32_t code, const std::string& message) {
    SCOPED_TRACE(script);
    ReplaceTrial(script);
    QetDNNHandle handle;
    ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path_), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
    ExpectFailure(code, "QetDNNModelProcess", "model " + path_ + ": " + message,
                  [&] { return Ormis::QetDNNModelProcess(handle); });
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }

  /// Makes the file a new one, whose trial is not remembered.
  void Touch() {
    std::filesystem::last_write_time(path_,
                                     std::filesystem::file_time_type() + std::chrono::seconds(++touched_));
  }

  void RestartWith(const std::string& settings) {
    ReleasePlatform();
    std::ofstream(folder_ / "host.yaml") << settings;
    StartPlatform(folder_ / "host.yaml");
  }

  void ExpectLoads() {
    QetDNNHandle handle;
    EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path_), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }

  std::string path_;
  spawn_calls::Watch watch_;

 private:
  int touched_ = 0;
};

TEST_F(ModelTrialTest, TheTrialsAnswerIsTheLoads) {
  ExpectLoadFails("echo 'loaded 1010 there is not enough memory'", Ormis::kQetOutOfMemory,
                  "there is not enough memory");
  ExpectLoadFails("printf 'loaded 1015 a line without an end'", Ormis::kQetModelUnreadable,
                  "a line without an end");
  ExpectLoadFails("echo 'loaded 1018'", Ormis::kQetInternal, "");
  ExpectLoadFails("echo 'loaded words'", Ormis::kQetInternal, "words");
  EXPECT_EQ(watch_.Count(), 4);
}

TEST_F(ModelTrialTest, TheAnswerIsFoundAmongWhatTheEngineWrites) {
  ExpectLoadFails(
      "i=0; while [ $i -lt 300 ]; do echo 'a line of the engine'; i=$((i + 1)); done;"
      "echo; echo loadedagain 1; echo ' loaded 2'; echo 'ran 1016 not yet'; echo 'loaded 1015 the reason'; "
      "echo 'loaded 0'",
      Ormis::kQetModelUnreadable, "the reason");
}

TEST_F(ModelTrialTest, AnAnswerInSeveralPiecesIsReadWhole) {
  ExpectLoadFails("printf l; sleep 0.1; printf 'oaded 1015 the '; sleep 0.1; echo reason",
                  Ormis::kQetModelUnreadable, "the reason");
}

TEST_F(ModelTrialTest, ATrialThatEndsWhileItLoadsSaysOfWhat) {
  const std::string died = "cannot load model " + path_ + ": the engine died of it in a trial: ";
  const std::string limit = "more than 20 s of processor time, or more memory than there is";
  ExpectLoadFails("exit 3", Ormis::kQetModelUnreadable, died + "exit status 3");
  ExpectLoadFails("kill -SEGV $$", Ormis::kQetModelUnreadable, died + "Segmentation fault");
  ExpectLoadFails("kill -FPE $$", Ormis::kQetModelUnreadable, died + "Floating point exception");
  ExpectLoadFails("kill -KILL $$", Ormis::kQetModelUnreadable, died + limit);
  ExpectLoadFails("kill -XCPU $$", Ormis::kQetModelUnreadable, died + limit);
#if defined(__x86_64__)  // an emulator of another processor has other numbers for these signals
  ExpectLoadFails("kill -40 $$", Ormis::kQetModelUnreadable, died + "signal 40");
#endif
  spawn_calls::before = nullptr;
  Touch();
  ExpectLoads();
}

TEST_F(ModelTrialTest, WhereTheApplicationIgnoresSigchldOnlyTheClockIsAKnownEnd) {
  RestartWith("trial_wall_s: 1");
  const std::string died = "cannot load model " + path_ + ": the engine died of it in a trial: ";
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  ExpectLoadFails("exec sleep 1000", Ormis::kQetModelUnreadable, died + "more than 1 s by the clock");
  RestartWith("");
  ExpectLoadFails("exit 3", Ormis::kQetModelUnreadable, died + "exit status unknown");
  (void)std::signal(SIGCHLD, before);
}

TEST_F(ModelTrialTest, AnInferenceThatFailsInTheTrialIsRefused) {
  ExpectRunFails("echo loaded 0; kill -ABRT $$", Ormis::kQetInferenceFailure,
                 "the engine died of the first inference in a trial: Aborted");
  ExpectRunFails("echo loaded 0; echo ran 1010 no memory", Ormis::kQetOutOfMemory, "no memory");
  EXPECT_EQ(watch_.Count(), 2);
}

TEST_F(ModelTrialTest, AModelThatPassedIsNotTriedAgain) {
  ExpectLoads();
  ExpectLoads();
  EXPECT_EQ(watch_.Count(), 1);
  path_ = Write(TinyNetwork());
  ExpectLoads();
  EXPECT_EQ(watch_.Count(), 2) << "the file has been written again";
}

TEST_F(ModelTrialTest, AModelThatFailedIsNotTriedAgain) {
  const std::string died = "cannot load model " + path_ + ": the engine died of it in a trial: exit status 3";
  const auto expectFailure = [&] {
    QetDNNHandle handle;
    ExpectFailure(Ormis::kQetModelUnreadable, "QetDNNModelInitialize", died,
                  [&] { return Ormis::QetDNNModelInitialize(handle, path_); });
  };
  ReplaceTrial("exit 3");
  expectFailure();
  expectFailure();
  EXPECT_EQ(watch_.Count(), 1);
  Touch();
  expectFailure();
  EXPECT_EQ(watch_.Count(), 2) << "the file has changed";
  RestartWith("trial_wall_s: 59");
  expectFailure();
  EXPECT_EQ(watch_.Count(), 3) << "a limit has changed";
  ReplaceTrial("echo loaded 0; echo ran 1016 so it ends");
  for (int i = 0; i < 2; ++i) {
    QetDNNHandle handle;
    ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path_), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
    ExpectFailure(Ormis::kQetInferenceFailure, "QetDNNModelProcess", "model " + path_ + ": so it ends",
                  [&] { return Ormis::QetDNNModelProcess(handle); });
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }
  EXPECT_EQ(watch_.Count(), 4);
}

TEST_F(ModelTrialTest, AChangeOfExternalWeightsIsTriedAgain) {
  path_ = Write(onnx_writer::Serialize(TinyNetwork()) + Field(7, Field(5, ExternalTensor("w.bin"))));
  std::ofstream(folder_ / "w.bin") << "four";
  ExpectLoads();
  ExpectLoads();
  EXPECT_EQ(watch_.Count(), 1);
  std::ofstream(folder_ / "w.bin") << "fourmore";
  ExpectLoads();
  EXPECT_EQ(watch_.Count(), 2);
  std::filesystem::remove(folder_ / "w.bin");
  ExpectLoads();  // the engine does not read what nothing uses
  EXPECT_EQ(watch_.Count(), 3);
}

TEST_F(ModelTrialTest, TheClockEndsATrialThatWaits) {
  RestartWith("trial_wall_s: 1");
  const std::string late =
      "cannot load model " + path_ + ": the engine died of it in a trial: more than 1 s by the clock";
  ExpectLoadFails("exec sleep 1000", Ormis::kQetModelUnreadable, late);
  // Nor does one live on that cannot be ended by its descriptor, as with an older kernel.
  for (const long number : {SYS_pidfd_send_signal, SYS_pidfd_open}) {
    int refused = 0;
    spawn_calls::missing = [&](long one) {
      refused += one == number ? 1 : 0;
      return one == number;
    };
    ExpectLoadFails("exec sleep 1000", Ormis::kQetModelUnreadable, late);
    EXPECT_EQ(refused, 1);
  }
}

TEST_F(ModelTrialTest, WithoutADescriptorOfTheTrialTheEndOfItsOutputIsAwaited) {
  RestartWith("trial_wall_s: 20");
  spawn_calls::missing = [](long number) { return number == SYS_pidfd_open; };
  ExpectLoadFails("sleep 0.1; echo loaded 1015 late", Ormis::kQetModelUnreadable, "late");
  ExpectLoadFails("exit 3", Ormis::kQetModelUnreadable,
                  "cannot load model " + path_ + ": the engine died of it in a trial: exit status 3");
}

int signals = 0;
int handled = -1;  // a file that gets a byte for each

TEST_F(ModelTrialTest, SignalsDoNotEndTheWait) {
  const std::string file = folder_ / "handled";
  handled = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(handled, 0);
  struct sigaction counting{};
  counting.sa_handler = [](int) {
    ++signals;
    (void)!write(handled, "x", 1);
  };
  struct sigaction before{};
  ASSERT_EQ(sigaction(SIGUSR1, &counting, &before), 0);
  // Of two that come before the first one is handled, the system makes one.
  ExpectLoadFails(
      "kill -USR1 $PPID; until [ -s '" + file +
          "' ]; do sleep 0.01; done; sleep 0.1; kill -USR1 $PPID; sleep 0.1; echo loaded 1015 read",
      Ormis::kQetModelUnreadable, "read");
  ExpectLoadFails("exec >&-; sleep 0.1; kill -USR1 $PPID; sleep 0.1; exit 3", Ormis::kQetModelUnreadable,
                  "cannot load model " + path_ + ": the engine died of it in a trial: exit status 3");
  EXPECT_EQ(signals, 3);
  (void)sigaction(SIGUSR1, &before, nullptr);
  (void)close(handled);
}

// Where the application has closed its standard input, the platform's descriptors may have its number.
TEST_F(ModelTrialTest, ADescriptorMayBeZero) {
  const auto answer = [&] {
    Touch();
    QetDNNHandle handle;
    ExpectFailure(Ormis::kQetModelUnreadable, "QetDNNModelInitialize", "read", [&] {
      const int input = dup(STDIN_FILENO);
      (void)close(STDIN_FILENO);
      const std::int32_t code = Ormis::QetDNNModelInitialize(handle, path_);
      EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
      EXPECT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
      (void)close(input);
      return code;
    });
  };
  spawn_calls::ReplaceByScript("sleep 0.1; echo loaded 1015 read");
  answer();
  // That of the pipe is closed before the process has a descriptor.
  const auto script = spawn_calls::before;
  int pipeEnd = -1;
  spawn_calls::before = [&](spawn_calls::Call& call) {
    pipeEnd = dup(STDIN_FILENO);
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_GT(file, 0);
    (void)close(file);
    return script(call);
  };
  spawn_calls::after = [](pid_t) { errno = ESRCH; };  // of an earlier call
  answer();
  (void)close(pipeEnd);
}

TEST_F(ModelTrialTest, TheLogSaysThatAndForHowLongAModelIsTried) {
  RestartWith("trial_processor_s: 7\ntrial_wall_s: 8\n");
  const std::string log = StandardErrorOf([&] { ExpectLoads(); });
  EXPECT_THAT(log, HasSubstr("Z INFO - QET "));
  EXPECT_THAT(log, EndsWith(" TryModel)\n"));
  EXPECT_EQ(Ormis::test::MessageOf(log),
            "QetDNNModelInitialize: trying model " + path_ +
                " in a process of its own, for at most 7 s of processor time and 8 s by the clock");
  EXPECT_EQ(StandardErrorOf([&] { ExpectLoads(); }), "");
}

TEST_F(ModelTrialTest, TenWorkersTryAnEndlessModelOnce) {
  RestartWith("trial_processor_s: 1");
  path_ = Write(EndlessNetwork());
  std::vector<std::int32_t> results(10);
  std::vector<std::thread> threads;
  const std::string log = StandardErrorOf([&] {
    for (std::int32_t& result : results) {
      threads.push_back(WithContext([&] {
        QetDNNHandle handle;
        EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path_), Ormis::kQetOk);
        EXPECT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
        EXPECT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
        result = Ormis::QetDNNModelProcess(handle);
        EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
      }));
    }
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_THAT(results, testing::Each(Ormis::kQetInferenceFailure));
  EXPECT_THAT(log, HasSubstr("more than 1 s of processor time, or more memory than there is"));
  EXPECT_EQ(watch_.Count(), 1);
}

TEST_F(ModelTrialTest, WhatIsNoFileIsNotTried) {
  for (const std::string& path : {std::string("/dev/null"), folder_.string(), std::string("none.onnx")}) {
    QetDNNHandle handle;
    EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetModelUnreadable);
  }
  EXPECT_EQ(watch_.Count(), 0);
}

// Ctrl-C reaches the trial as well.
TEST_F(ModelTrialTest, AnInterruptDoesNotEndTheTrial) {
  ExpectLoadFails("kill -INT $$; echo loaded 1015 lived", Ormis::kQetModelUnreadable, "lived");
}

TEST_F(ModelTrialTest, TheTrialInheritsOnlyItsOutput) {
  constexpr int kInherited = 9;
  ASSERT_EQ(dup2(STDERR_FILENO, kInherited), kInherited);
  const int input = dup(STDIN_FILENO);
  const int zeros = open("/dev/zero", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(dup2(zeros, STDIN_FILENO), STDIN_FILENO);
  (void)close(zeros);
  // The next one may be in use.
  const int third = fcntl(STDERR_FILENO + 1, F_GETFD);
  if (third < 0) ASSERT_EQ(dup2(STDERR_FILENO, STDERR_FILENO + 1), STDERR_FILENO + 1);
  ASSERT_EQ(fcntl(STDERR_FILENO + 1, F_SETFD, 0), 0);
  ExpectLoadFails(
      "cd /proc/self/fd; for i in 3 4 5 6 7 8 9; do [ -e $i ] && open=\"$open $i\"; done;"
      "for i in 0 2; do [ $i -ef /dev/null ] || open=\"$open $i\"; done; echo loaded 1015 open:$open",
      Ormis::kQetModelUnreadable, "open:");
  (void)close(kInherited);
  if (third < 0) {
    (void)close(STDERR_FILENO + 1);
  } else {
    (void)fcntl(STDERR_FILENO + 1, F_SETFD, third);
  }
  EXPECT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
  (void)close(input);
}

TEST_F(ModelTrialTest, TheTrialHasTheEnvironmentWithoutPreloadedLibraries) {
  std::vector<std::string> environment;
  spawn_calls::before = [&](spawn_calls::Call& call) {
    for (char* const* variable = call.environment; *variable != nullptr; ++variable)
      environment.emplace_back(*variable);
    return 0;
  };
  ASSERT_EQ(setenv("LD_PRELOAD", "/none.so", 1), 0);
  ASSERT_EQ(setenv("LD_PRELOADED", "yes", 1), 0);
  ExpectLoads();
  std::size_t variables = 0;
  while (environ[variables] != nullptr) ++variables;
  EXPECT_EQ(environment.size(), variables - 1);
  EXPECT_THAT(environment, Contains("LD_PRELOADED=yes"));
  EXPECT_THAT(environment, Not(Contains("LD_PRELOAD=/none.so")));
  (void)unsetenv("LD_PRELOAD");
  (void)unsetenv("LD_PRELOADED");
}

TEST_F(ModelTrialTest, TheSettingsAreItsLimits) {
  std::vector<std::string> arguments;
  spawn_calls::before = [&](spawn_calls::Call& call) {
    for (char* const* argument = call.arguments; *argument != nullptr; ++argument)
      arguments.emplace_back(*argument);
    return 0;
  };
  ExpectLoads();
  EXPECT_THAT(arguments, ElementsAre(EndsWith("/lib/ormis/model_trial"), path_, "20", "50"));
  RestartWith("trial_processor_s: 7\ntrial_memory_percent: 80\n");
  arguments.clear();
  path_ = Write(TinyNetwork());
  ExpectLoads();
  EXPECT_THAT(arguments, ElementsAre(EndsWith("/lib/ormis/model_trial"), path_, "7", "80"));
  path_ = Write(TinyNetwork());
  ExpectLoadFails("kill -XCPU $$", Ormis::kQetModelUnreadable,
                  "cannot load model " + path_ +
                      ": the engine died of it in a trial: more than 7 s of "
                      "processor time, or more memory than there is");
}

TEST_F(ModelTrialTest, TheLastLoadInProgressGivesMemoryBack) {
  int duringTheLoad = -1;
  spawn_calls::before = [&](spawn_calls::Call&) {
    QetDNNHandle inner;  // a load that begins and ends while the other is in progress
    EXPECT_EQ(Ormis::QetDNNModelInitialize(inner, "none.onnx"), Ormis::kQetModelUnreadable);
    duringTheLoad = trims;
    return 0;
  };
  trims = 0;
  ExpectLoads();
  EXPECT_EQ(duringTheLoad, 0);
  EXPECT_EQ(trims, 1);
  EXPECT_EQ(trimPad, 0U);
  ExpectLoads();
  EXPECT_EQ(trims, 2);
}

TEST_F(ModelTrialTest, WithoutATrialAModelIsLoadedAndOneWarningSaysSo) {
  std::string program;
  spawn_calls::before = [&](spawn_calls::Call& call) {
    program = call.program;
    return ENOEXEC;
  };
  const std::string first = Ormis::test::WithoutTrials(StandardErrorOf([&] { ExpectLoads(); }));
  EXPECT_THAT(first, HasSubstr(" WARN - QET "));
  EXPECT_THAT(first, EndsWith(" TryModel)\n"));
  EXPECT_EQ(Ormis::test::MessageOf(first),
            "models are loaded without a trial: cannot run " + program + ": Exec format error");
  EXPECT_EQ(LineCount(first), 1U) << first;
  EXPECT_THAT(program, EndsWith("/lib/ormis/model_trial"));
  EXPECT_EQ(Ormis::test::WithoutTrials(StandardErrorOf([&] { ExpectLoads(); })), "");
  EXPECT_EQ(watch_.Count(), 2) << "a model that was not tried has not passed";

  // Nor is there one without descriptors for a pipe. Then the model cannot be read either.
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  QetDNNHandle handle;
  ExpectFailure(Ormis::kQetModelUnreadable, "QetDNNModelInitialize",
                "cannot read model " + path_ + ": Too many open files", [&] {
                  const int free = dup(STDIN_FILENO);
                  (void)close(free);
                  const rlimit none = {static_cast<rlim_t>(free), files.rlim_max};
                  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
                  const std::int32_t code = Ormis::QetDNNModelInitialize(handle, path_);
                  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
                  return code;
                });
  EXPECT_EQ(watch_.Count(), 2);
  EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0);
}

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST_F(ModelTrialTest, ATrialLeavesNothingOpen) {
  const std::ptrdiff_t before = OpenDescriptors();
  ExpectLoads();
  ExpectLoadFails("echo loaded 1015 read", Ormis::kQetModelUnreadable, "read");
  spawn_calls::before = [](spawn_calls::Call&) { return ENOEXEC; };
  Touch();
  (void)StandardErrorOf([&] { ExpectLoads(); });
  EXPECT_EQ(watch_.Count(), 3);
  EXPECT_EQ(watch_.FreedActions(), 3);
  EXPECT_EQ(OpenDescriptors(), before);
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    EXPECT_GE(fcntl(descriptor, F_GETFD), 0) << descriptor;
  }
}

/// The program of trials, as a user might start it.
class TrialProgramTest : public ModelTrialTest {
 protected:
  void SetUp() override {
    ModelTrialTest::SetUp();
    spawn_calls::before = [&](spawn_calls::Call& call) {
      program_ = call.program;
      return 0;
    };
    ExpectLoads();
    spawn_calls::before = nullptr;
  }

  struct Result {
    int status;
    std::string out, error;
  };

  Result Run(const std::string& arguments) const {
    const auto text = [](const std::filesystem::path& path) {
      std::ostringstream all;
      all << std::ifstream(path).rdbuf();
      return all.str();
    };
    const std::string command = "'" + program_ + "' " + arguments + " >" + (folder_ / "out").string() +
                                " 2>" + (folder_ / "error").string() + " </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text(folder_ / "out"), text(folder_ / "error")};
  }

  std::string program_;
};

constexpr char kUsage[] =
    "usage: model_trial FILE SECONDS PERCENT\n"
    "Loads the model FILE and runs it: once, or twice where it leaves sizes of outputs open. libormis.so "
    "starts "
    "this\nprogram, because a damaged model may crash it.\n\n"
    "  SECONDS    most seconds of processor time\n"
    "  PERCENT    most memory, in per cent of the machine's or of the control group's limit\n"
    "  --help     print this help\n"
    "  --version  print the version\n";

TEST_F(TrialProgramTest, ItsArgumentsAreAFileAndTwoLimits) {
  struct Case {
    std::string arguments;
    int status;
    std::string out, error;
  };
  const Case cases[] = {
      {"--version", 0, "model_trial " STRESS_VERSION "\n", ""},
      {"--help", 0, kUsage, ""},
      {"", 2, "", kUsage},
      {"x", 2, "", kUsage},
      {"--help 1", 2, "", kUsage},
      {"--version 1", 2, "", kUsage},
      {"1 --help", 2, "", kUsage},
      {"1 --version", 2, "", kUsage},
      {path_ + " 10 50 x", 2, "", kUsage},
      {path_ + " 10 50", 0, "loaded 0\nran 0\n", ""},
      {"none.onnx 10 50", 0, "loaded 1015 cannot read model none.onnx: No such file or directory\n", ""},
  };
  for (const Case& one : cases) {
    const Result result = Run(one.arguments);
    EXPECT_EQ(result.status, one.status) << one.arguments;
    EXPECT_EQ(result.out, one.out) << one.arguments;
    EXPECT_EQ(result.error, one.error) << one.arguments;
  }
}

TEST_F(TrialProgramTest, LimitsAreThoseOfTheSettings) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs address space";
  rlimit cores{};
  ASSERT_EQ(getrlimit(RLIMIT_CORE, &cores), 0);
  const rlimit endless = {RLIM_INFINITY, RLIM_INFINITY};
  (void)setrlimit(RLIMIT_CORE, &endless);  // where this is allowed
  RestartWith("trial_processor_s: 17\ntrial_memory_percent: 80\n");
  Touch();
  std::string limits;
  spawn_calls::after = [&](pid_t child) {
    siginfo_t ended{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    std::ostringstream all;
    all << std::ifstream("/proc/" + std::to_string(child) + "/limits").rdbuf();
    limits = all.str();
  };
  ExpectLoads();
  (void)setrlimit(RLIMIT_CORE, &cores);
  const std::string memory = std::to_string(Ormis::portable::MemoryLimit() / 100 * 80);
  EXPECT_THAT(limits, testing::ContainsRegex("\nMax core file size +0 +0 "));
  EXPECT_THAT(limits, testing::ContainsRegex("\nMax cpu time +17 +17 |^Max cpu time +17 +17 "));
  EXPECT_THAT(limits, testing::ContainsRegex("\nMax address space +" + memory + " +" + memory + " "));
}

#ifdef STRESS_ADDRESS_SANITIZER
TEST_F(TrialProgramTest, ASanitizerLimitsMemoryInPlaceOfAddressSpace) {
  (void)setenv("ASAN_OPTIONS", "help=1", 1);
  const Result result = Run("--version");
  (void)unsetenv("ASAN_OPTIONS");
  EXPECT_THAT(result.error, testing::ContainsRegex("\thard_rss_limit_mb\n[^\n]*Value: 0x1000\\)"));
}
#endif

TEST_F(TrialProgramTest, ItEndsWithItsCaller) {
  const std::string model = Write(EndlessNetwork());
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  const pid_t caller = fork();
  if (caller == 0) {
    std::FILE* const said = popen(("exec '" + program_ + "' " + model + " 20 50").c_str(), "r");
    _exit(said != nullptr && std::fgetc(said) == 'l' ? 0 : 1);  // "loaded 0"
  }
  int status = -1;
  EXPECT_EQ(waitpid(caller, &status, 0), caller);
  EXPECT_EQ(status, 0);
  rusage used{};
  EXPECT_GT(wait4(-1, &status, 0, &used), 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  EXPECT_LT(used.ru_utime.tv_sec, 10) << "its limit has ended it";
  EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
}

}  // namespace
