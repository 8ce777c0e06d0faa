// SPDX-License-Identifier: Apache-2.0

// Runs stress_scope with what upsets a program: benchmarks that print without pause, closed descriptors,
// ignored signals, full disks, links, pipes, and a second recorder in the same folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "child_process.h"
#include "folder_lock.h"
#include "matrix_folder.h"
#include "run_reader.h"
#include "run_tool.h"
#include "sanitizers.h"
#include "temporary_folder.h"

namespace {

using scope::ChildProcess;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kRateLine = "cpuStress : 5.000000 fps. ispStress : 30.0 fps.";
// Much longer than any of these programs takes. A program that has not ended then hangs.
constexpr std::chrono::seconds kHangs(60);

ToolResult WaitOrKill(ChildProcess& child) {
  const auto giveUp = std::chrono::steady_clock::now() + kHangs;
  bool ended = false;
  ToolResult result;
  scope::LineReader output;
  scope::LineReader errors;
  while (!ended) {
    ended = child.HasEnded();
    if (!ended && std::chrono::steady_clock::now() >= giveUp) child.Signal(SIGKILL);
    std::vector<std::string> lines;
    output.Read(child.Output(), lines);
    for (const std::string& line : lines) result.output += line + "\n";
    lines.clear();
    errors.Read(child.Errors(), lines);
    for (const std::string& line : lines) result.errors += line + "\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  result.status = child.EndSignal() == 0 ? child.ExitStatus() : -child.EndSignal();
  return result;
}

class AttackTest : public ::testing::Test {
 protected:
  std::string Script(const std::string& body) const {
    const std::string path = folder_.Put("benchmark", "#!/bin/sh\n" + body + "\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  std::string Config() const { return folder_.Put("config.yaml", "runTimes: 40\nCPU:\n  Level: 1\n"); }

  std::vector<std::string> RecordOf(const std::string& body) const {
    return {"record", Config(), "-o", folder_ / "run", "--benchmark", Script(body), "--no-meter"};
  }

  static ToolResult Run(std::vector<std::string> arguments) {
    ChildProcess child(ProgramOptions(STRESS_SCOPE, std::move(arguments)));
    return WaitOrKill(child);
  }

  // With the shell's redirections and limits, which come before the program.
  ToolResult RunInShell(const std::string& before, const std::vector<std::string>& arguments,
                        const std::string& behind = "") const {
    std::string command = before + " '" STRESS_SCOPE "'";
    for (const std::string& argument : arguments) command += " '" + argument + "'";
    ChildProcess child(ProgramOptions("/bin/sh", {"-c", command + " " + behind}));
    return WaitOrKill(child);
  }

  // Records a script that touches "$0.up", sends SIGINT when it has printed for a second, and requires the
  // end.
  void EndsAtSigint(const std::string& body) const {
    ChildProcess child(ProgramOptions(STRESS_SCOPE, RecordOf(body)));
    const auto giveUp = std::chrono::steady_clock::now() + kHangs;
    while (!std::filesystem::exists(folder_ / "benchmark.up") && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    child.Signal(SIGINT);
    const ToolResult result = WaitOrKill(child);
    EXPECT_EQ(result.status, 1) << result.errors;
    EXPECT_THAT(result.errors, HasSubstr("the benchmark was ended by SIG"));
    EXPECT_EQ(scope::ReadRunInfo(folder_ / "run").kind, "record");
  }

  TemporaryFolder folder_;
};

TEST_F(AttackTest, ABenchmarkThatPrintsWithoutPauseIsEndedAtSigint) {
  EndsAtSigint("touch \"$0.up\"; yes & yes & yes & exec yes");
}

TEST_F(AttackTest, ABenchmarkThatPrintsALineWithoutEndIsEndedAtSigint) {
  EndsAtSigint("touch \"$0.up\"; cat /dev/zero & cat /dev/zero & exec cat /dev/zero");
}

TEST_F(AttackTest, RatesRefusesALineWithoutEnd) {
  const ToolResult result = Run({"rates", "/dev/zero", "-o", folder_ / "run"});
  EXPECT_EQ(result.status, 2) << result.errors;
  EXPECT_THAT(result.errors, HasSubstr("/dev/zero:1: character 1: expected the name of a stress"));
}

TEST_F(AttackTest, ClosedDescriptorsAreNotTakenForTheRunsFiles) {
  const ToolResult result = RunInShell("exec", RecordOf(std::string("echo '") + kRateLine + "'"), "<&- >&-");
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("cannot write to standard output: Bad file descriptor"));
  EXPECT_EQ(folder_.Get("run/rates.txt"), std::string(kRateLine) + "\n");
  EXPECT_EQ(scope::ReadRun(folder_ / "run").rates.size(), 1U);
}

TEST_F(AttackTest, RecordsAlthoughItInheritsSigchldIgnored) {
  const ToolResult result = RunInShell("exec env --ignore-signal=CHLD", RecordOf("exit 0"));
  EXPECT_EQ(result.status, 0) << result.errors;
}

TEST_F(AttackTest, TheLimitOfAFilesSizeIsAnError) {
  const std::string lines = std::string("for i in $(seq 400); do echo '") + kRateLine + "'; done; sleep 30";
  const ToolResult result = RunInShell("ulimit -f 32; exec", RecordOf(lines));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("rates.txt: File too large"));
  EXPECT_THAT(scope::ReadRunInfo(folder_ / "run").incompleteReason, HasSubstr("File too large"));
}

TEST_F(AttackTest, TheBenchmarkMeetsTheLimitOfAFilesSizeAsUsual) {
  const ToolResult result = RunInShell(
      "ulimit -f 32; exec", RecordOf("exec dd if=/dev/zero of=\"$0.large\" bs=64k count=1 2>/dev/null"));
  EXPECT_THAT(result.errors, HasSubstr("the benchmark was ended by SIGXFSZ"));
}

TEST_F(AttackTest, LostOutputIsAnError) {
  const auto lost = [this](const std::vector<std::string>& arguments) {
    const ToolResult result = RunInShell("exec", arguments, ">/dev/full");
    EXPECT_EQ(result.status, 2) << arguments.front();
    EXPECT_THAT(result.errors, HasSubstr("cannot write to standard output: No space left on device"));
  };
  lost(RecordOf(std::string("echo '") + kRateLine + "'"));
  EXPECT_TRUE(scope::ReadRunInfo(folder_ / "run").complete);
  lost({"report", folder_ / "run"});
  lost({"rates", folder_.Put("lines", std::string(kRateLine) + "\n"), "-o", folder_ / "rates"});
  lost({"--version"});
}

TEST_F(AttackTest, AFailedRunAndLostOutputGiveTheStatusOfTheRun) {
  EXPECT_EQ(RunInShell("exec", RecordOf("exit 3"), ">/dev/full").status, 1);
}

TEST_F(AttackTest, PreloadsAMeterWhosePathTheLoaderWouldSplit) {
  if (kSanitized) GTEST_SKIP() << "another program cannot load a meter that is built with a sanitizer";
  const std::string meter = folder_.Put("a b:c$LIB/libstress_scope.so", "");
  std::filesystem::copy(STRESS_SCOPE_METER, meter, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::create_directory(folder_ / "tmp");
  std::vector<std::string> arguments =
      RecordOf("grep -c 'a b:c$LIB/libstress_scope.so' /proc/$$/maps >\"$0.maps\"");
  arguments.back() = "--meter";
  arguments.push_back(meter);
  ChildProcess::Options options = ProgramOptions(STRESS_SCOPE, arguments);
  options.environment = {{"TMPDIR", folder_ / "tmp"}};
  ChildProcess child(options);
  const ToolResult result = WaitOrKill(child);
  EXPECT_THAT(result.errors, Not(HasSubstr("cannot be preloaded")));
  EXPECT_THAT(folder_.Get("benchmark.maps"), Not(StartsWith("0")));
  EXPECT_TRUE(std::filesystem::is_empty(folder_ / "tmp")) << "the link is left behind";
}

TEST_F(AttackTest, RefusesAConfigurationThatIsAPipe) {
  const std::string pipe = folder_ / "pipe.yaml";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"record", pipe, "-o", folder_ / "run"},
        std::vector<std::string>{"sweep", pipe, "--levels", "CPU=1,2", "-o", folder_ / "run"}}) {
    const ToolResult result = Run(command);
    EXPECT_EQ(result.status, 2) << command.front();
    EXPECT_THAT(result.errors, HasSubstr("pipe.yaml: not a regular file"));
    EXPECT_FALSE(std::filesystem::exists(folder_ / "run"));
  }
}

TEST_F(AttackTest, ALinkInThePlaceOfATemporaryFileIsNotFollowed) {
  const std::string precious = folder_.Put("precious", "mine");
  ASSERT_EQ(Run(RecordOf("exit 0")).status, 0);
  std::filesystem::create_symlink(precious, folder_ / "run/report.html.new");
  const ToolResult result = Run({"report", folder_ / "run"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(folder_.Get("precious"), "mine");
  EXPECT_THAT(folder_.Get("run/report.html"), HasSubstr("<html"));
}

TEST_F(AttackTest, ASecondRecorderIsRefusedAndToldWhoHasTheFolder) {
  ChildProcess first(ProgramOptions(STRESS_SCOPE, RecordOf("touch \"$0.up\"; exec sleep 60")));
  while (!std::filesystem::exists(folder_ / "benchmark.up")) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const std::string before = folder_.Get("run/run.json");
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"record", Config(), "-o", folder_ / "run", "--no-meter", "--force",
                                 "--benchmark", "/bin/true"},
        std::vector<std::string>{"rates", folder_.Put("lines", std::string(kRateLine) + "\n"), "-o",
                                 folder_ / "run", "--force"}}) {
    const ToolResult result = Run(command);
    EXPECT_EQ(result.status, 2) << command.front();
    EXPECT_THAT(result.errors, AllOf(HasSubstr("run is in use: another stress_scope records into it"),
                                     HasSubstr("process " + std::to_string(first.Id()))));
  }
  EXPECT_EQ(folder_.Get("run/run.json"), before);
  first.Signal(SIGINT);
  (void)WaitOrKill(first);
  EXPECT_EQ(
      Run({"record", Config(), "-o", folder_ / "run", "--no-meter", "--force", "--benchmark", "/bin/true"})
          .status,
      0)
      << "the lock stays";
}

class ResumeTest : public AttackTest {
 protected:
  // A sweep of two points whose second run has still to be recorded.
  void MakeSweep() {
    const std::string benchmark = Script(std::string("echo '") + kRateLine + "'");
    ASSERT_EQ(Run({"sweep", Config(), "--levels", "CPU=1,2", "-o", Sweep(), "--no-meter", "--warmup", "0",
                   "--quiet", "--benchmark", benchmark})
                  .status,
              0);
    for (const auto& entry : std::filesystem::directory_iterator(Sweep())) {
      if (entry.is_directory()) run_ = entry.path().string();
    }
    std::filesystem::remove_all(run_);
  }

  std::string Sweep() const { return folder_ / "sweep"; }

  std::string run_;
};

TEST_F(ResumeTest, SaysWhichProgramItRuns) {
  MakeSweep();
  const ToolResult result = Run({"sweep", "--resume", Sweep()});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("sweep.json names the program to run: " + (folder_ / "benchmark")));
}

TEST_F(ResumeTest, FollowsNoLinks) {
  MakeSweep();
  folder_.Put("elsewhere/run.json", "precious");
  std::filesystem::create_directory_symlink(folder_ / "elsewhere", run_);
  const ToolResult result = Run({"sweep", "--resume", Sweep()});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr(run_ + " is a link"));
  EXPECT_EQ(folder_.Get("elsewhere/run.json"), "precious");
  std::filesystem::remove(run_);
  for (const char* const name : {"/sweep.json", "/config.yaml"}) {
    std::filesystem::rename(Sweep() + name, folder_ / "moved");
    std::filesystem::create_symlink(folder_ / "moved", Sweep() + name);
    EXPECT_THAT(Run({"sweep", "--resume", Sweep()}).errors, HasSubstr(std::string(name) + " is a link"));
    std::filesystem::rename(folder_ / "moved", Sweep() + name);
  }
}

TEST_F(ResumeTest, SaysItBesideJson) {
  MakeSweep();
  const ToolResult result = Run({"sweep", "--resume", Sweep(), "--json"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, StartsWith("{"));
  EXPECT_THAT(result.errors, HasSubstr("sweep.json names the program to run: " + (folder_ / "benchmark")));
  EXPECT_THAT(Run({"sweep", "--resume", Sweep(), "--quiet"}).errors, IsEmpty());
}

// Each of the two recorders reads it.
TEST_F(ResumeTest, RefusesAConfigurationThatIsNoFileOfARun) {
  MakeSweep();
  scope::Matrix matrix;
  matrix.axes = {{"CPU", {0, 1}}};
  matrix.victims = {{"VPC", 1}};
  std::filesystem::create_directory(folder_ / "matrix");
  scope::WriteMatrix(folder_ / "matrix", matrix);
  for (const char* const command : {"sweep", "matrix"}) {
    const std::string config = folder_ / (command + std::string("/config.yaml"));
    const auto refuses = [&](const char* words) {
      const ToolResult result = Run({command, "--resume", folder_ / command});
      EXPECT_EQ(result.status, 2) << result.output;
      EXPECT_THAT(result.errors, HasSubstr(std::string("config.yaml") + words));
    };
    std::filesystem::remove(config);
    refuses(" is missing: all runs are made from it. Put it back");
    ASSERT_EQ(mkfifo(config.c_str(), 0600), 0);
    refuses(": not a regular file");
    std::filesystem::remove(config);
    folder_.Put(command + std::string("/config.yaml"), "");
    std::filesystem::resize_file(config, (1 << 20) + 1);  // takes no room on the disk
    refuses(": larger than 1 MiB");
  }
}

TEST_F(ResumeTest, ASecondOneIsRefused) {
  MakeSweep();
  {
    const scope::FolderLock lock(Sweep());
    const ToolResult result = Run({"sweep", "--resume", Sweep()});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, HasSubstr("is in use: another stress_scope records into it, process " +
                                         std::to_string(getpid())));
  }
  EXPECT_EQ(Run({"sweep", "--resume", Sweep()}).status, 0);
}

class AbResumeTest : public AttackTest {
 protected:
  // An experiment of four runs that has to be recorded.
  void MakeExperiment() {
    folder_.Put("allowed", "");
    const std::string command = "test -e " + (folder_ / "allowed");
    const std::string benchmark =
        Script("rm " + (folder_ / "allowed") + std::string("\necho '") + kRateLine + "'");
    // The benchmark takes the permission away, so that the second setting cannot be made.
    const ToolResult stopped =
        Run({"ab", Config(), "-o", Folder(), "--a", command, "--b", command, "--no-meter", "--warmup", "0",
             "--max-runs", "4", "--seed", "1", "--quiet", "--benchmark", benchmark});
    ASSERT_EQ(stopped.status, 2);
    ASSERT_THAT(stopped.errors, HasSubstr("the command ended with status 1: " + command));
    Script(std::string("echo '") + kRateLine + "'");
    folder_.Put("allowed", "");
  }

  std::string Folder() const { return folder_ / "ab"; }

  ToolResult Resume() const { return Run({"ab", "--resume", Folder(), "--allow-unclear"}); }
};

TEST_F(AbResumeTest, SaysWhatItRuns) {
  MakeExperiment();
  const ToolResult result = Resume();
  EXPECT_EQ(result.status, 0) << result.errors;
  const std::string names = "experiment.json names the ";
  const std::string command = "test -e " + (folder_ / "allowed") + "\n";
  EXPECT_THAT(result.output, AllOf(HasSubstr(names + "command of A: " + command),
                                   HasSubstr(names + "command of B: " + command),
                                   HasSubstr(names + "program to run: " + (folder_ / "benchmark"))));
  EXPECT_LT(result.output.find("command of B"), result.output.find("run 2 of at most 4")) << result.output;
}

TEST_F(AbResumeTest, FollowsNoLinks) {
  MakeExperiment();
  folder_.Put("elsewhere/run.json", "precious");
  for (const char* const name : {"/experiment.json", "/config.yaml", "/a", "/a/001"}) {
    std::filesystem::rename(Folder() + name, folder_ / "moved");
    std::filesystem::create_symlink(folder_ / "moved", Folder() + name);
    const ToolResult result = Resume();
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, HasSubstr(std::string(name) + " is a link"));
    std::filesystem::remove(Folder() + name);
    std::filesystem::rename(folder_ / "moved", Folder() + name);
  }
  std::filesystem::create_directory_symlink(folder_ / "elsewhere", Folder() + "/a/002");
  EXPECT_THAT(Resume().errors, HasSubstr("/a/002 is a link"));
  EXPECT_EQ(folder_.Get("elsewhere/run.json"), "precious");
}

TEST_F(AbResumeTest, ASecondOneIsRefused) {
  MakeExperiment();
  {
    const scope::FolderLock lock(Folder());
    const ToolResult result = Resume();
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, HasSubstr("is in use: another stress_scope records into it, process " +
                                         std::to_string(getpid())));
  }
  EXPECT_EQ(Resume().status, 0);
}

TEST_F(AttackTest, ControlCharactersOfTheBenchmarkDoNotReachTheTerminal) {
  const ToolResult result = Run(RecordOf("printf 'no\\033[2J\\n'; exit 0"));
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("found \"\\x1b[2J"), Not(HasSubstr("\033"))));
}

TEST_F(AttackTest, ControlCharactersOfAFoldersNameDoNotReachTheTerminal) {
  const std::string benchmark = Script(std::string("echo '") + kRateLine + "'");
  const std::string folder = folder_ / "red\033[31m";
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"record", Config()},
        std::vector<std::string>{"sweep", Config(), "--levels", "CPU=1", "--warmup", "0"},
        std::vector<std::string>{"ab", Config(), "--a", "true", "--b", "true", "--warmup", "0", "--max-runs",
                                 "4", "--allow-unclear"}}) {
    std::vector<std::string> arguments = command;
    arguments.insert(arguments.end(), {"-o", folder, "--no-meter", "--benchmark", benchmark});
    const ToolResult result = Run(arguments);
    EXPECT_EQ(result.status, 0) << command.front() << result.errors;
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("saved in " + (folder_ / "red\\x1b[31m")), Not(HasSubstr("\033"))))
        << command.front();
    std::filesystem::remove_all(folder);
  }
}

TEST_F(AttackTest, ControlCharactersOfARunFolderDoNotReachTheTerminal) {
  std::vector<std::string> arguments = RecordOf(std::string("echo '") + kRateLine + "'");
  arguments.insert(arguments.end(), {"--label", "red\033[31m"});
  ASSERT_EQ(Run(arguments).status, 0);
  const ToolResult shown = Run({"report", "--text", folder_ / "run"});
  EXPECT_EQ(shown.status, 0) << shown.errors;
  EXPECT_THAT(shown.output, AllOf(HasSubstr("red\\x1b[31m"), Not(HasSubstr("\033"))));
  folder_.Put("run/rates.csv", "time_s,stress,fps\n1.000,cpu\033[31m,5\n");
  const ToolResult refused = Run({"report", "--text", folder_ / "run"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.errors, AllOf(HasSubstr("rates.csv:2: expected a short name"), Not(HasSubstr("\033"))));
}

}  // namespace
