// SPDX-License-Identifier: Apache-2.0

// The live table of a recording, in a terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <regex>
#include <set>
#include <thread>

#include "experiment_folder.h"
#include "run_reader.h"
#include "run_tool.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

class TerminalTest : public ::testing::Test {
 protected:
  ~TerminalTest() override { (void)Tmux({"kill-server"}); }

  // Uses a separate server for this test.
  ToolResult Tmux(std::vector<std::string> arguments) const {
    const std::vector<std::string> own = {"-u", "-f", "/dev/null", "-S", folder_ / "terminal"};
    arguments.insert(arguments.begin(), own.begin(), own.end());
    return RunProgram(TMUX, std::move(arguments));
  }

  std::string Screen() const { return Tmux({"capture-pane", "-p"}).output; }

  // Waits until the screen satisfies `right`, or until a generous time limit. Returns the screen.
  std::string WaitForScreen(const std::function<bool(const std::string&)>& right) const {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    std::string screen = Screen();
    while (!right(screen) && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      screen = Screen();
    }
    return screen;
  }

  TemporaryFolder folder_;
};

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(TerminalTest, ShowsATableInPlaceAndCtrlCCompletesTheRecording) {
  const std::string config =
      folder_.Put("all.yaml",
                  "logMode: 4\nlogLevel: 3\nrunTimes: 600\nCPU:\n  Level: 1\nVPC:\n  Level: 2\n"
                  "VENC:\n  Level: 1\nAIC:\n  Level: 1\n  File: " EXAMPLE_NETWORK "\n");
  // The shell survives Ctrl-C, so the last screen stays.
  const std::string command = "trap : INT; '" STRESS_SCOPE "' record '" + config + "' -o '" +
                              (folder_ / "run") + "' --grace 120; echo \"the status is $?\"; exec sleep 600";
  const ToolResult started = Tmux({"new-session", "-d", "-x", "120", "-y", "30", command});
  ASSERT_EQ(started.status, 0) << started.errors;

  const std::string table = WaitForScreen([](const std::string& screen) {
    return Has(screen, "\ncpu ") && std::regex_search(screen, std::regex("\nvpc +2 ")) &&
           Has(screen, "\nvenc ") && Has(screen, "\naic ");
  });
  EXPECT_THAT(table, ContainsRegex("[0-9]+ s of 600 s  \\[#*\\.+\\] +[0-9]+ %"));
  EXPECT_THAT(table, ContainsRegex("engine +threads +ops/s +GB/s +p50 +p99 +max +ops/s over time"));
  EXPECT_THAT(table, ContainsRegex("\ncpu +1 +[0-9.]+ +[0-9.]+ +[0-9.]+ [mun]s"));
  EXPECT_THAT(table, ContainsRegex("\nvpc +2 "));
  EXPECT_THAT(table, AllOf(HasSubstr("\nvenc "), HasSubstr("\naic ")));
  EXPECT_THAT(table, HasSubstr("\xe2\x96")) << "the line of blocks";
  const std::size_t header = table.find("engine ");
  EXPECT_EQ(table.find("engine ", header + 1), std::string::npos) << "drawn anew in place\n" << table;

  ASSERT_EQ(Tmux({"send-keys", "C-c"}).status, 0);
  const std::string last =
      WaitForScreen([](const std::string& screen) { return Has(screen, "the status is"); });
  EXPECT_THAT(last, HasSubstr("saved in " + (folder_ / "run") + "\nthe status is 0\n"));
  const scope::Run run = scope::ReadRun(folder_ / "run");
  EXPECT_TRUE(run.info.complete) << run.info.incompleteReason;
  EXPECT_LT(run.info.durationS, 600);
  std::set<std::string> engines;
  for (const scope::Sample& sample : run.samples) engines.insert(sample.engine);
  EXPECT_THAT(engines, ::testing::IsSupersetOf({"cpu", "vpc", "venc", "aic"}));
}

// The names of the settings that the user was asked for.
std::string AskedFor(const std::string& screen) {
  const std::string words = "Make setting ";
  std::string names;
  for (std::size_t at = screen.find(words); at != std::string::npos; at = screen.find(words, at + 1)) {
    names += screen.at(at + words.size());
  }
  return names;
}

TEST_F(TerminalTest, AsksForEachSettingOfAnExperimentAndWaitsForEnter) {
  const std::string config = folder_.Put("config.yaml", "CPU:\n  Level: 1\n");
  const std::string benchmark = folder_.Put(
      "benchmark", "#!/bin/sh\ncd " + folder_.Path() +
                       "\ncat setting >>log\necho \"cpuStress : 5.000000 fps. ispStress : 30.0 fps.\"\n");
  (void)chmod(benchmark.c_str(), 0755);
  const std::string command = "'" STRESS_SCOPE "' ab '" + config + "' -o '" + (folder_ / "ab") +
                              "' --benchmark '" + benchmark +
                              "' --no-meter --warmup 0 --max-runs 4 --seed 1; echo \"the status is $?\"; "
                              "exec sleep 600";
  ASSERT_EQ(Tmux({"new-session", "-d", "-x", "120", "-y", "100", command}).status, 0);
  // Each prompt stays on the screen. The user makes what the newest one asks for.
  std::string asked;
  std::string screen;
  while (true) {
    screen = WaitForScreen([&asked](const std::string& text) {
      return Has(text, "the status is") || AskedFor(text).size() > asked.size();
    });
    if (AskedFor(screen).size() <= asked.size()) break;
    asked = AskedFor(screen);
    folder_.Put("setting", asked.substr(asked.size() - 1));
    ASSERT_EQ(Tmux({"send-keys", "Enter"}).status, 0);
  }
  EXPECT_THAT(screen, HasSubstr("the status is 0\n"));
  std::string runs;
  for (const scope::ExperimentRun& run : scope::ReadExperiment(folder_ / "ab").runs) {
    runs += run.isB ? 'B' : 'A';
  }
  EXPECT_EQ(folder_.Get("log"), runs) << "what was set while each run was recorded";
}

}  // namespace
