// SPDX-License-Identifier: Apache-2.0

// Records on their way to a real daemon that runs, is missing, is slow, is stopped or dies.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <regex>

#include "daemon.h"

namespace {

using Dlt = DltTest;

// Much less than the 10 s for which libdlt would wait for a daemon at exit, and much more than the sink
// waits.
constexpr double kPromptSeconds = 5.0;

std::vector<std::string> Texts(const std::vector<DltMessage>& messages) {
  std::vector<std::string> texts;
  texts.reserve(messages.size());
  for (const DltMessage& message : messages) texts.push_back(message.text);
  return texts;
}

void ExpectNoWaits(const Ending& ending) {
  static const std::regex shape("waits (\\d+), longest .*");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(ending.output, match, shape)) << ending;
  std::cout << match[0] << "\n";
  EXPECT_LT(std::stol(match[1]), 100) << "a page fault may wait";
}

constexpr char kUnregistered[] = "Unregistered ApID 'STBM'";

TEST_F(Dlt, RecordsArriveWithApplicationContextLevelThreadAndText) {
  daemon_.Start();
  Program probe(Probe({"init", "STBM", "6", "1", "./log", "logger", "STBM", "6", "error", "e\n1", "warn", "w",
                       "debug", "d 2", "logger", "QET", "6", "info", "[i]"}));
  EXPECT_THAT(probe.Wait(), Exited(0));
  EXPECT_EQ(probe.Wait().output, "");
  EXPECT_EQ(probe.Wait().error, "");
  EXPECT_FALSE(Exists("log"));
  daemon_.WaitFor(kUnregistered);

  const std::vector<DltMessage> messages = daemon_.Received();
  ASSERT_THAT(messages, SizeIs(4));
  const std::string place = " (tests/log/log_probe.cpp:7 Probe)";
  EXPECT_THAT(Texts(messages), ElementsAre("e\\n1" + place, "w" + place, "d 2" + place, "[i]" + place));
  const char* const levels[] = {"error", "warn", "debug", "info"};
  const char* const contexts[] = {"STBM", "STBM", "STBM", "QET"};
  for (std::size_t i = 0; i < messages.size(); ++i) {
    EXPECT_EQ(messages[i].level, levels[i]);
    EXPECT_EQ(messages[i].context, contexts[i]);
    EXPECT_EQ(messages[i].threadId, std::to_string(probe.Id()));
  }
}

TEST_F(Dlt, TheDescriptionsOfApplicationAndContextArrive) {
  daemon_.LogRegistrations();
  daemon_.Start();
  EXPECT_THAT(Run(RemoteProbe({"info", "text"})), Exited(0));
  daemon_.WaitForOwnLog("ApplicationID 'STBM' registered for PID");
  daemon_.WaitForOwnLog("ContextID 'STBM' registered for ApID 'STBM', Description=a context");
  daemon_.WaitFor(kUnregistered);
  EXPECT_THAT(daemon_.Raw(), HasSubstr("Description=probe"));
}

TEST_F(Dlt, TheThresholdsApplyAndTheOtherSinksWork) {
  daemon_.Start();
  const Ending ending = Run(Probe({"init", "STBM", "3", "7", "./log", "logger", "STBM", "6", "error", "e",
                                   "warn", "w", "info", "i", "debug", "d"}));
  EXPECT_THAT(ending, Exited(0));
  daemon_.WaitFor(kUnregistered);
  EXPECT_THAT(Texts(daemon_.Received()), ElementsAre("e", "w"));
  EXPECT_THAT(SplitLines(Read("log/STBM.log")), SizeIs(2));
  EXPECT_THAT(ending.ErrorLines(), SizeIs(2));
}

TEST_F(Dlt, ALongTextIsCutAndMarked) {
  daemon_.Start();
  EXPECT_THAT(Run(RemoteProbe({"info", std::string(3000, 'x'), "info", "short"})), Exited(0));
  daemon_.WaitFor(kUnregistered);
  const std::vector<std::string> texts = Texts(daemon_.Received());
  ASSERT_THAT(texts, SizeIs(2));
  EXPECT_TRUE(std::regex_match(texts[0], std::regex("x{1200,} \\[cut\\]"))) << texts[0];
  EXPECT_EQ(texts[1], "short");
}

TEST_F(Dlt, AnotherApplicationIsRegistered) {
  daemon_.Start();
  Program probe(
      RemoteProbe({"info", "one", "await", "go", "init", "OTHR", "4", "1", "./log", "info", "two"}));
  daemon_.WaitFor("one");
  Release("go");
  EXPECT_THAT(probe.Wait(), Exited(0));
  daemon_.WaitFor("Unregistered ApID 'OTHR'");
  EXPECT_THAT(Texts(daemon_.Received("STBM")), ElementsAre("one"));
  ASSERT_THAT(Texts(daemon_.Received("OTHR")), ElementsAre("two"));
  EXPECT_EQ(daemon_.Received("OTHR")[0].context, "STBM");
}

TEST_F(Dlt, NothingIsWrittenToStandardOutput) {
  daemon_.Start();
  Launch launch = RemoteProbe({"info", "text"});
  launch.environment["DLT_LOG_MODE"] = "0";
  launch.environment["DLT_LOG_LEVEL"] = "7";
  for (const std::string mode : {"FORCE_ON", "AUTOMATIC"}) {
    launch.environment["DLT_LOCAL_PRINT_MODE"] = mode;
    EXPECT_EQ(Run(launch).output, "");
  }
  daemon_.Kill();
  EXPECT_EQ(Run(launch).output, "");
}

// Another file has the descriptor of standard error, and libdlt writes a message because there is no daemon.
TEST_F(Dlt, WithoutStandardErrorLibdltsMessagesGoToNoOtherFile) {
  Launch launch =
      Probe({"open", "mine", "init", "STBM", "4", "1", "./log", "logger", "STBM", "6", "info", "i"});
  launch.standardError = false;
  const Ending ending = Run(launch);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.output, "2\n") << "the file should have got the descriptor of standard error";
  EXPECT_TRUE(Exists("mine"));
  EXPECT_EQ(Read("mine"), "");
}

TEST_F(Dlt, TheThreadsOfTheRemoteSinkBlockSignals) {
  daemon_.Start();
  const Ending ending = Run(RemoteProbe({"info", "text", "unblocked"}));
  EXPECT_EQ(ending.output, "unblocked 0\n") << ending;
}

TEST_F(Dlt, EachRecordOfAFloodArrivesOrIsCounted) {
  constexpr std::uint64_t kThreads = 10;
  constexpr std::uint64_t kRecords = 10000;
  daemon_.Start();
  const Ending ending =
      Run(RemoteProbe({"flood", std::to_string(kThreads), std::to_string(kRecords), "waits"}));
  EXPECT_THAT(ending, Exited(0));
  ExpectNoWaits(ending);
  daemon_.WaitFor(kUnregistered);

  const std::vector<DltMessage> messages = daemon_.Received();
  const std::uint64_t lost = ReportedLosses(ending);
  std::cout << messages.size() << " arrived, " << lost << " were counted as lost\n";
  EXPECT_EQ(messages.size() + lost, kThreads * kRecords);
  std::map<int, int> last;
  std::uint64_t marked = 0;
  for (const DltMessage& message : messages) {
    int thread = -1;
    int record = -1;
    unsigned long long before = 0;
    (void)std::sscanf(message.text.c_str(), "flood %d %d [%llu lost before]", &thread, &record, &before);
    ASSERT_EQ(message.text, "flood " + std::to_string(thread) + " " + std::to_string(record) +
                                (before != 0 ? " [" + std::to_string(before) + " lost before]" : ""));
    const auto [entry, isFirst] = last.try_emplace(thread, -1);
    EXPECT_GT(record, entry->second) << "records arrive in order and once";
    entry->second = record;
    marked += before;
  }
  EXPECT_LE(marked, lost);
  EXPECT_TRUE(lost == 0 || marked > 0 || messages.size() <= 1024) << "a loss is marked in the next record";
}

TEST_F(Dlt, WithoutADaemonNoThreadWaitsAndEachRecordIsCounted) {
  const Ending ending = Run(RemoteProbe({"flood", "10", "10000", "waits", "sigpipe"}));
  EXPECT_THAT(ending, Exited(0));
  ExpectNoWaits(ending);
  EXPECT_THAT(ending.output, HasSubstr("SIGPIPE default\n"));
  EXPECT_EQ(ReportedLosses(ending), 100000U) << ending;
  EXPECT_THAT(ending.error, Not(HasSubstr("up to")));
  EXPECT_LT(ending.seconds, kSanitized ? 2 * kPromptSeconds : kPromptSeconds);
}

TEST_F(Dlt, ADaemonThatStartsLaterGetsTheQueuedRecords) {
  Program probe(RemoteProbe({"info", "early", "touch", "logged", "await", "go", "info", "late"}));
  WaitForFile("logged");
  daemon_.Start();
  daemon_.WaitFor("early");
  Release("go");
  EXPECT_THAT(probe.Wait(), Exited(0));
  daemon_.WaitFor(kUnregistered);
  EXPECT_THAT(Texts(daemon_.Received()), ElementsAre("early", "late"));
  EXPECT_EQ(ReportedLosses(probe.Wait()), 0U);
}

TEST_F(Dlt, AStoppedDaemonDelaysNoThreadAndTheExitOnlyShortly) {
  daemon_.Start();
  daemon_.Signal(SIGSTOP);
  const Ending ending = Run(RemoteProbe({"flood", "10", "10000", "waits"}));
  EXPECT_THAT(ending, Exited(0));
  ExpectNoWaits(ending);
  EXPECT_LT(ending.seconds, kSanitized ? 2 * kPromptSeconds : kPromptSeconds);
  const std::uint64_t lost = ReportedLosses(ending);
  EXPECT_GT(lost, 0U);
  // The daemon reads what is in the pipe when it continues. A later record shows when it has done so.
  daemon_.Signal(SIGCONT);
  EXPECT_THAT(Run(RemoteProbe({"info", "the later record"})), Exited(0));
  daemon_.WaitFor("the later record");
  EXPECT_EQ(daemon_.Received().size() - 1 + lost, 100000U);
}

// The log cannot count what the daemon had read and not yet passed on: at most the daemon's receive buffer.
TEST_F(Dlt, RecordsAreCountedWhenTheDaemonIsKilledDuringAFlood) {
  constexpr std::uint64_t kRecords = 100000;
  constexpr std::uint64_t kReceiveBufferBytes = 65535;
  constexpr std::uint64_t kShortestMessageBytes = 60;
  daemon_.Start();
  Program probe(RemoteProbe({"flood", "10", "5000", "touch", "half", "flood", "10", "2500", "await", "killed",
                             "flood", "10", "2500", "waits", "sigpipe"}));
  WaitForFile("half");
  daemon_.KillUnderTheReceiver();
  Release("killed");
  const Ending& ending = probe.Wait();
  EXPECT_THAT(ending, Exited(0));
  ExpectNoWaits(ending);
  EXPECT_THAT(ending.output, HasSubstr("SIGPIPE default\n"));
  EXPECT_LT(ending.seconds, kSanitized ? 2 * kPromptSeconds : kPromptSeconds);
  const std::uint64_t lost = ReportedLosses(ending);
  const std::uint64_t arrived = daemon_.Received().size();
  std::cout << arrived << " arrived, " << lost << " were counted as lost\n";
  EXPECT_LE(arrived + lost, kRecords);
  EXPECT_GE(arrived + lost + kReceiveBufferBytes / kShortestMessageBytes, kRecords);
}

// The pipe does not tell who has written the unread messages. The reported number is never too low, and the
// message says that it may be too high.
TEST_F(Dlt, WithAnotherWriterTheCountIsAnUpperBound) {
  daemon_.Start();
  Program probe(RemoteProbe({"flood", "1", "100", "info", "read", "await", "stopped", "flood", "1", "10",
                             "touch", "flooded", "await", "killed"}));
  daemon_.WaitFor("read");
  daemon_.Signal(SIGSTOP);
  EXPECT_THAT(Run(RemoteProbe({"flood", "1", "50"})), Exited(0));
  Release("stopped");
  WaitForFile("flooded");
  daemon_.Kill();
  Release("killed");
  const std::uint64_t lost = ReportedLosses(probe.Wait());
  EXPECT_THAT(probe.Wait().error, HasSubstr("up to"));
  EXPECT_GE(lost, 10U);
  EXPECT_LE(lost, 100U + 1U + 10U) << "no more than were sent";
}

TEST_F(Dlt, RecordsThatADyingDaemonHasNotReadAreCounted) {
  daemon_.Start();
  Program probe(RemoteProbe({"info", "before", "await", "stopped", "flood", "1", "300", "touch", "flooded",
                             "await", "killed", "sigpipe"}));
  daemon_.WaitFor("before");
  daemon_.Signal(SIGSTOP);
  Release("stopped");
  WaitForFile("flooded");
  // The forwarding thread may not have begun yet.
  WaitUntil([&] { return daemon_.UnreadBytes() > 0; }, "a record in the pipe");
  daemon_.Kill();
  Release("killed");
  const Ending& ending = probe.Wait();
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.output, "SIGPIPE default\n");
  EXPECT_EQ(ReportedLosses(ending), 300U) << ending;
  EXPECT_THAT(ending.error, HasSubstr("up to 300")) << "others may have written to the pipe";
  EXPECT_THAT(Texts(daemon_.Received()), ElementsAre("before"));
}

TEST_F(Dlt, TheNextDaemonGetsTheLaterRecordsAndTheCount) {
  daemon_.Start();
  Program probe(
      RemoteProbe({"info", "before", "await", "stopped", "flood", "1", "300", "touch", "flooded", "await",
                   "killed", "info", "next", "await", "again", "info", "after", "sigpipe"}));
  daemon_.WaitFor("before");
  daemon_.Signal(SIGSTOP);
  Release("stopped");
  WaitForFile("flooded");
  WaitUntil([&] { return daemon_.UnreadBytes() > 0; }, "a record in the pipe");
  daemon_.Kill();
  Release("killed");
  daemon_.Start();
  daemon_.WaitFor("next");
  Release("again");
  const Ending& ending = probe.Wait();
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.output, "SIGPIPE default\n");
  const std::uint64_t lost = ReportedLosses(ending);
  EXPECT_THAT(ending.error, HasSubstr("up to " + std::to_string(lost)))
      << "others may have written to the pipe";
  daemon_.WaitFor(kUnregistered);
  // On a busy machine the forwarding thread may not have sent all of the flood when the daemon dies. It sends
  // the rest to the next daemon.
  const std::vector<std::string> texts = Texts(daemon_.Received());
  const auto late =
      std::count_if(texts.begin(), texts.end(), testing::Matches(testing::StartsWith("flood ")));
  EXPECT_GT(lost, 0U);
  EXPECT_EQ(lost + static_cast<std::uint64_t>(late), 300U) << ending;
  EXPECT_EQ(texts.size(), 3U + static_cast<std::size_t>(late));
  EXPECT_THAT(texts, Contains("before"));
  EXPECT_THAT(texts, Contains(testing::StartsWith("next")));
  EXPECT_THAT(texts, Contains(testing::StartsWith("after")));
  EXPECT_THAT(texts, Contains(HasSubstr(" [up to " + std::to_string(lost) + " lost before]")).Times(1));
}

// libdlt would wait up to 10 s without a daemon. The shortest of several runs is compared, because a busy
// machine makes single runs longer.
TEST_F(Dlt, TheExitTakesNoLongerThanWithTheFileAlone) {
  const auto leastSeconds = [&](const std::string& mode) {
    double least = kPromptSeconds * 2;
    for (int run = 0; run < 3; ++run) {
      const Ending ending =
          Run(Probe({"init", "STBM", "4", mode, "./log", "logger", "STBM", "6", "info", "text"}));
      EXPECT_THAT(ending, Exited(0));
      least = std::min(least, ending.seconds);
    }
    return least;
  };
  const double withFile = leastSeconds("2");
  const double withoutDaemon = leastSeconds("1");
  daemon_.Start();
  const double withDaemon = leastSeconds("1");
  std::cout << withFile << " s with the file, " << withoutDaemon << " s without a daemon, " << withDaemon
            << " s with one\n";
  EXPECT_LT(withoutDaemon, withFile + 1.0);
  EXPECT_LT(withDaemon, withFile + 1.0);
}

TEST_F(Dlt, AChildProgramInheritsNoDescriptor) {
  daemon_.Start();
  const Ending alone = Run(Probe({"descriptors"}));
  Program probe(RemoteProbe({"info", "first", "info", "second", "await", "go", "exec", "descriptors"}));
  // When the second record arrives, the first has been handled completely, so every descriptor is open.
  daemon_.WaitFor("second");
  Release("go");
  EXPECT_THAT(probe.Wait(), Exited(0));
  EXPECT_EQ(probe.Wait().output, alone.output);
}

TEST_F(Dlt, AForkedProcessLogsToStandardError) {
  daemon_.Start();
  const Ending ending = Run(RemoteProbe({"fork", "from"}));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.ErrorLines(), ElementsAre(HasSubstr(" INFO STBM STBM ")));
  EXPECT_THAT(ending.error, HasSubstr("from child"));
  daemon_.WaitFor(kUnregistered);
  EXPECT_THAT(Texts(daemon_.Received()), ElementsAre("from parent"));
}

}  // namespace
