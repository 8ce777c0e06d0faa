// SPDX-License-Identifier: Apache-2.0
#include "setting_switch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>

#include "errors.h"
#include "temporary_folder.h"

namespace {

/// A terminal as the standard input of this process.
class TerminalAsInput {
 public:
  TerminalAsInput() : before_(dup(STDIN_FILENO)), keys_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_TRUE(grantpt(keys_) == 0 && unlockpt(keys_) == 0);
    const int terminal = open(ptsname(keys_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(dup2(terminal, STDIN_FILENO), STDIN_FILENO);
    (void)close(terminal);
  }
  ~TerminalAsInput() {
    (void)dup2(before_, STDIN_FILENO);
    (void)close(before_);
    (void)close(keys_);
  }
  TerminalAsInput(const TerminalAsInput&) = delete;
  TerminalAsInput& operator=(const TerminalAsInput&) = delete;

  void PressEnter() const { EXPECT_EQ(write(keys_, "\n", 1), 1); }

 private:
  int before_;
  int keys_;
};

TEST(SettingSwitchTest, ALineThatWasTypedBeforeThePromptIsNoAnswer) {
  using std::chrono::milliseconds;
  const TerminalAsInput terminal;
  terminal.PressEnter();
  // A worker of the kernel hands the line over: the prompt must not come before that.
  pollfd input{STDIN_FILENO, POLLIN, 0};
  ASSERT_EQ(poll(&input, 1, 10000), 1);
  scope::Signals signals;
  testing::internal::CaptureStderr();
  auto answer = std::async(std::launch::async, [&] { return scope::AskForSwitch("B", signals); });
  EXPECT_EQ(answer.wait_for(milliseconds(300)), std::future_status::timeout);
  // More than once: what comes before the prompt is dropped.
  while (answer.wait_for(milliseconds(20)) == std::future_status::timeout) terminal.PressEnter();
  EXPECT_TRUE(answer.get());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Make setting B and press Enter: ");
}

// A shell cannot undo it either: what it ignores from its start, it ignores for ever.
TEST(SettingSwitchTest, ACommandCanBeInterruptedWhereThisProcessIgnoresInterrupts) {
  const auto before = std::signal(SIGINT, SIG_IGN);
  ASSERT_NE(before, SIG_ERR);
  scope::Signals signals;
  std::string answer = "not ended by a signal";
  try {
    (void)scope::RunSwitch("kill -INT $$; sleep 0", false, signals);
  } catch (const scope::UserError& error) {
    answer = error.what();
  }
  (void)std::signal(SIGINT, before);
  EXPECT_EQ(answer, "the command was ended by signal 2: kill -INT $$; sleep 0");
}

// What RunSwitch says of the command: "missing", or its other errors.
std::string AnswerTo(const std::string& command) {
  scope::Signals signals;
  try {
    return scope::RunSwitch(command, false, signals) ? "made" : "interrupted";
  } catch (const scope::CommandMissing&) {
    return "missing";
  } catch (const scope::UserError& error) {
    return error.what();
  }
}

TEST(SettingSwitchTest, OnlyACommandThatIsNotThereIsMissing) {
  const TemporaryFolder folder;
  const auto script = [&folder](const std::string& first, std::filesystem::perms rights) {
    folder.Put("set", first + "\nexit ${1#*=}\n");
    std::filesystem::permissions(folder / "set", rights);
    return folder / "set";
  };
  using std::filesystem::perms;
  const std::string set = script("#!/bin/sh", perms::owner_all);
  EXPECT_EQ(AnswerTo(set + " a=0"), "made");
  EXPECT_EQ(AnswerTo(set + " a=127"), "the command ended with status 127: " + set + " a=127");
  EXPECT_EQ(AnswerTo("  sh -c 'exit 126'"), "the command ended with status 126:   sh -c 'exit 126'");
  EXPECT_EQ(AnswerTo(set + "-none a=0"), "missing");
  EXPECT_EQ(AnswerTo("no-such-command a=0"), "missing");
  EXPECT_EQ(AnswerTo(script("#!/bin/sh", perms::owner_read) + " a=0"), "missing");
  EXPECT_EQ(AnswerTo(script("#!/no/such/shell", perms::owner_all) + " a=0"), "missing");
  // What a shell makes of the first word is not known.
  EXPECT_EQ(AnswerTo("$NO_SUCH_VARIABLE/set a=0"), "missing");
}

}  // namespace
