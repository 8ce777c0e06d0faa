// SPDX-License-Identifier: Apache-2.0
#include "sink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "log_files.h"
#include "system_calls.h"

namespace ara::log {
namespace {

using testing::ElementsAre;

/// Delivers a line with this text, as a record does.
const char* Deliver(Sink& sink, const std::string& text) {
  char buffer[4096];
  FixedText line(buffer, sizeof buffer);
  line.Append("\n");
  line.Append(text);
  return sink.Deliver(line);
}

struct Pipe {
  Pipe() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
  ~Pipe() {
    CloseReader();
    close(ends[1]);
  }
  void CloseReader() {
    if (ends[0] >= 0) close(ends[0]);
    ends[0] = -1;
  }
  /// Fills the pipe until it has no room for another page. Its end is blocking afterwards.
  void Fill() const {
    const int flags = fcntl(ends[1], F_GETFL);
    fcntl(ends[1], F_SETFL, flags | O_NONBLOCK);
    const std::string page(4096, '#');
    while (write(ends[1], page.data(), page.size()) > 0) {
    }
    fcntl(ends[1], F_SETFL, flags);
  }
  std::string Read() const {
    char buffer[1 << 17];
    const ssize_t count = read(ends[0], buffer, sizeof buffer);
    return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : "";
  }
  int ends[2] = {-1, -1};
};

TEST(Sink, WritesALineInOneWrite) {
  int ends[2];
  // A packet socket does not join writes.
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  Sink sink(ends[1], Sink::Blocking::kPossible);
  EXPECT_EQ(Deliver(sink, "one"), nullptr);
  EXPECT_EQ(Deliver(sink, std::string(4000, 'x')), nullptr);
  char packet[8192];
  EXPECT_EQ(std::string(packet, static_cast<std::size_t>(read(ends[0], packet, sizeof packet))), "one\n");
  EXPECT_EQ(read(ends[0], packet, sizeof packet), 4001);
  close(ends[0]);
  close(ends[1]);
}

TEST(Sink, IsNotDelayedLongByAReaderThatStopped) {
  Pipe pipe;
  pipe.Fill();
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  for (int i = 0; i < 500; ++i) EXPECT_NE(Deliver(sink, "lost"), nullptr);
  while (pipe.Read().size() == 1 << 17) {
  }
  EXPECT_EQ(Deliver(sink, "first"), nullptr);
  EXPECT_EQ(Deliver(sink, "second"), nullptr);
  EXPECT_EQ(pipe.Read(), "first [500 lost before]\nsecond\n");
}

/// Records the calls of poll(2) and answers them without waiting.
struct ScriptedPoll {
  ScriptedPoll() {
    calls.onPoll = [this](pollfd& request, int timeoutMs) {
      EXPECT_EQ(request.events, POLLOUT);
      timeouts.push_back(timeoutMs);
      return answer(request);
    };
  }
  log_test::SystemCalls calls;
  std::vector<int> timeouts;
  std::function<std::optional<int>(pollfd& request)> answer = [](pollfd& /*request*/) { return 0; };
};

/// The timeouts of a sink that gives up: one poll without a wait, then a hundred waits of 10 ms.
std::vector<int> AllTimeouts() {
  std::vector<int> timeouts(101, 10);
  timeouts.front() = 0;
  return timeouts;
}

TEST(Sink, WaitsForAReaderThatIsSlow) {
  Pipe pipe;
  pipe.Fill();
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  ScriptedPoll poll;
  poll.answer = [&](pollfd& /*request*/) -> std::optional<int> {
    if (poll.timeouts.size() < 51) return 0;
    if (poll.timeouts.size() == 51) pipe.Read();  // in the 50th wait
    return std::nullopt;
  };
  EXPECT_EQ(Deliver(sink, "line"), nullptr);
  std::vector<int> expected = AllTimeouts();
  expected.resize(51);
  EXPECT_EQ(poll.timeouts, expected) << "it writes as soon as there is room";
  EXPECT_EQ(pipe.Read(), "line\n");
}

TEST(Sink, GivesUpOnAReaderAfterAHundredWaits) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  ScriptedPoll poll;
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  EXPECT_EQ(poll.timeouts, AllTimeouts());

  poll.timeouts.clear();
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  EXPECT_THAT(poll.timeouts, ElementsAre(0)) << "it waits once, not for each line";

  poll.answer = [](pollfd& /*request*/) { return std::nullopt; };
  EXPECT_EQ(Deliver(sink, "line"), nullptr);
  EXPECT_EQ(pipe.Read(), "line [2 lost before]\n");

  poll.answer = [](pollfd& /*request*/) { return 0; };
  poll.timeouts.clear();
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  EXPECT_EQ(poll.timeouts, AllTimeouts()) << "after a line that got through it waits again";
}

TEST(Sink, AnInterruptedPollCountsAsAWait) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  ScriptedPoll poll;
  poll.answer = [](pollfd& /*request*/) {
    errno = EINTR;
    return -1;
  };
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  EXPECT_EQ(poll.timeouts, AllTimeouts());
}

TEST(Sink, AnErrorOfTheDescriptorIsNotReadiness) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  ScriptedPoll poll;
  poll.calls.onWrite = [](int, const char*, std::size_t) {
    ADD_FAILURE() << "this write would raise SIGPIPE";
    return std::nullopt;
  };
  poll.answer = [](pollfd& request) {
    request.revents = POLLOUT | POLLERR;
    return 1;
  };
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  EXPECT_THAT(poll.timeouts, ElementsAre(0));
}

TEST(Sink, RepeatsAWriteThatWasInterrupted) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kNever);
  for (const int error : {EINTR, EAGAIN}) {
    ScriptedPoll poll;
    poll.answer = [](pollfd& /*request*/) { return std::nullopt; };
    int writes = 0;
    poll.calls.onWrite = [&](int, const char*, std::size_t) -> std::optional<ssize_t> {
      if (++writes > 3) return std::nullopt;
      errno = error;
      return -1;
    };
    EXPECT_EQ(Deliver(sink, "line"), nullptr);
    EXPECT_EQ(writes, 4);
    EXPECT_THAT(poll.timeouts, ElementsAre(0, 0, 0))
        << "before each repeated write, and not before the first one";
    EXPECT_EQ(pipe.Read(), "line\n");
  }
}

TEST(Sink, GivesUpAfterAHundredWrites) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  ScriptedPoll poll;
  poll.answer = [](pollfd& /*request*/) { return std::nullopt; };
  int writes = 0;
  poll.calls.onWrite = [&](int, const char*, std::size_t) {
    ++writes;
    errno = EINTR;
    return -1;
  };
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  EXPECT_EQ(writes, 100);
  EXPECT_EQ(poll.timeouts.size(), 100U);
}

TEST(Sink, AFileThatMayNotGrowIsNoticedWithoutASignal) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kNever);
  log_test::SystemCalls calls;
  int writes = 0;
  calls.onWrite = [&](int, const char*, std::size_t) {
    ++writes;
    errno = EFBIG;  // as at the largest size of the file system, where there is no signal
    return -1;
  };
  EXPECT_STREQ(Deliver(sink, "lost"), "File too large");
  EXPECT_EQ(writes, 1);
}

TEST(Sink, LosesLinesOfANonBlockingPipeThatIsFull) {
  Pipe pipe;
  pipe.Fill();
  fcntl(pipe.ends[1], F_SETFL, O_NONBLOCK);
  Sink sink(pipe.ends[1], Sink::Blocking::kNever);
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  EXPECT_STREQ(Deliver(sink, "lost"), "it takes nothing");
  pipe.Read();
  EXPECT_EQ(Deliver(sink, "line"), nullptr);
  EXPECT_EQ(pipe.Read(), "line [2 lost before]\n");
}

TEST(Sink, ASingleLossIsMarkedToo) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kNever);
  {
    log_test::SystemCalls calls;
    calls.onWrite = [](int, const char*, std::size_t) {
      errno = ENOSPC;
      return -1;
    };
    EXPECT_STREQ(Deliver(sink, "lost"), "No space left on device");
  }
  EXPECT_EQ(Deliver(sink, "first"), nullptr);
  EXPECT_EQ(Deliver(sink, "second"), nullptr);
  EXPECT_EQ(pipe.Read(), "first [1 lost before]\nsecond\n");
}

TEST(Sink, RaisesNoSignalWhenTheReaderIsGone) {
  const auto handler = std::signal(SIGPIPE, SIG_DFL);
  Pipe pipe;
  pipe.CloseReader();
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  EXPECT_NE(Deliver(sink, "lost"), nullptr);
  (void)std::signal(SIGPIPE, handler);
}

TEST(Sink, AcceptsADescriptorThatIsClosed) {
  Pipe pipe;
  const int closed = dup(pipe.ends[1]);
  close(closed);
  Sink console(closed, Sink::Blocking::kPossible);
  EXPECT_NE(Deliver(console, "lost"), nullptr);
  Sink file(closed, Sink::Blocking::kNever);
  EXPECT_STREQ(Deliver(file, "lost"), "Bad file descriptor");
}

TEST(Sink, WritesAndReportsNothingWhenDisabled) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  sink.Disable();
  EXPECT_EQ(Deliver(sink, "nowhere"), nullptr);
  fcntl(pipe.ends[0], F_SETFL, O_NONBLOCK);
  EXPECT_EQ(pipe.Read(), "");
}

TEST(Sink, ReturnsTheReasonOfAFullDisk) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  Sink sink(full, Sink::Blocking::kNever);
  EXPECT_STREQ(Deliver(sink, "lost"), "No space left on device");
  close(full);
}

TEST(Sink, EndsALineThatWasWrittenInPart) {
  const log_test::TemporaryFolder folder;
  const std::string path = folder.File("torn");
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ASSERT_GE(file, 0);
  Sink sink(file, Sink::Blocking::kNever);

  // A limit on the file's size has the same effect as a disk that becomes full in the middle of a line. In
  // addition there is a signal that would end the program.
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlimit small{10, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const char* const whole = Deliver(sink, "123456");
  const char* const inPart = Deliver(sink, "abcdef");
  const char* const none = Deliver(sink, "ABCDEF");
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);

  sigset_t blocked;
  EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
  EXPECT_EQ(sigismember(&blocked, SIGXFSZ), 0);
  EXPECT_EQ(whole, nullptr);
  EXPECT_STREQ(inPart, "it took a line in part");
  EXPECT_STREQ(none, "File too large");
  EXPECT_EQ(Deliver(sink, "after"), nullptr);
  EXPECT_EQ(Deliver(sink, "last"), nullptr);
  EXPECT_EQ(log_test::ReadFile(path), "123456\nabc\nafter [2 lost before]\nlast\n");
  close(file);
}

TEST(Sink, AWriteOfNoBytesIsALoss) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kNever);
  log_test::SystemCalls calls;
  int writes = 0;
  calls.onWrite = [&](int, const char*, std::size_t) {
    ++writes;
    return 0;
  };
  EXPECT_STREQ(Deliver(sink, "lost"), "it took a line in part");
  EXPECT_EQ(writes, 1);
}

TEST(Sink, LeavesASizeSignalThatTheApplicationBlocksPending) {
  const log_test::TemporaryFolder folder;
  const int file = open(folder.File("full").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ASSERT_GE(file, 0);
  Sink sink(file, Sink::Blocking::kNever);
  sigset_t sizeSignal;
  sigemptyset(&sizeSignal);
  sigaddset(&sizeSignal, SIGXFSZ);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &sizeSignal, nullptr), 0);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlimit none{0, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
  const char* const reason = Deliver(sink, "lost");
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);

  EXPECT_STREQ(reason, "File too large");
  sigset_t blocked;
  EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
  EXPECT_EQ(sigismember(&blocked, SIGXFSZ), 1);
  constexpr timespec kAtOnce{};
  EXPECT_EQ(sigtimedwait(&sizeSignal, nullptr, &kAtOnce), SIGXFSZ);
  EXPECT_EQ(pthread_sigmask(SIG_UNBLOCK, &sizeSignal, nullptr), 0);
  close(file);
}

TEST(Sink, ANewFileGetsNoMarksOfTheOldOne) {
  Pipe first;
  Pipe second;
  const int sinksOwn = dup(first.ends[1]);
  Sink sink(sinksOwn, Sink::Blocking::kNever);
  {
    log_test::SystemCalls calls;
    calls.onWrite = [&](int descriptor, const char* bytes, std::size_t) {
      return syscall(SYS_write, descriptor, bytes, 3);
    };
    EXPECT_STREQ(Deliver(sink, "torn"), "it took a line in part");
    calls.onWrite = [&](int, const char*, std::size_t) {
      errno = ENOSPC;
      return -1;
    };
    EXPECT_STREQ(Deliver(sink, "lost"), "No space left on device");
  }
  const int given = dup(second.ends[1]);
  ASSERT_TRUE(sink.Replace(given));
  EXPECT_EQ(Deliver(sink, "line"), nullptr);
  EXPECT_EQ(first.Read(), "tor");
  EXPECT_EQ(second.Read(), "line\n");
  EXPECT_EQ(fcntl(given, F_GETFD), -1) << "the sink closes the descriptor that it was given";
  EXPECT_EQ(fcntl(sinksOwn, F_GETFD), FD_CLOEXEC) << "and keeps its own number";
  close(sinksOwn);
}

TEST(Sink, RepeatsAReplacementThatWasInterrupted) {
  for (const int error : {EINTR, EBUSY}) {
    Pipe first;
    Pipe second;
    const int sinksOwn = dup(first.ends[1]);
    Sink sink(sinksOwn, Sink::Blocking::kNever);
    log_test::SystemCalls calls;
    int attempts = 0;
    calls.onDup3 = [&](int, int, int) -> std::optional<int> {
      if (++attempts > 3) return std::nullopt;
      errno = error;
      return -1;
    };
    EXPECT_TRUE(sink.Replace(dup(second.ends[1])));
    EXPECT_EQ(attempts, 4);
    EXPECT_EQ(Deliver(sink, "line"), nullptr);
    EXPECT_EQ(second.Read(), "line\n");
    close(sinksOwn);
  }
}

TEST(Sink, KeepsItsFileWhenItCannotBeReplaced) {
  struct Case {
    int error;
    int attempts;
  };
  for (const Case c : {Case{EMFILE, 1}, Case{EBUSY, 100}}) {
    Pipe pipe;
    Sink sink(pipe.ends[1], Sink::Blocking::kNever);
    const int given = open("/dev/null", O_WRONLY | O_CLOEXEC);
    log_test::SystemCalls calls;
    int attempts = 0;
    calls.onDup3 = [&](int from, int to, int flags) {
      EXPECT_EQ(from, given);
      EXPECT_EQ(to, pipe.ends[1]);
      EXPECT_EQ(flags, O_CLOEXEC);
      if (++attempts == c.attempts) close(given);  // so that the sink's close(2) fails as well
      errno = c.error;
      return -1;
    };
    EXPECT_FALSE(sink.Replace(given));
    EXPECT_EQ(errno, c.error) << "errno is that of dup3(2), not that of close(2)";
    EXPECT_EQ(attempts, c.attempts);
    EXPECT_EQ(Deliver(sink, "line"), nullptr);
    EXPECT_EQ(pipe.Read(), "line\n");
  }
}

// A call that succeeds leaves errno as it was.
TEST(Sink, DescriptorZeroIsReplacedLikeAnyOther) {
  Sink sink(0, Sink::Blocking::kNever);
  log_test::SystemCalls calls;
  std::vector<int> replaced;
  calls.onDup3 = [&](int, int to, int) {
    replaced.push_back(to);
    return to;
  };
  const int given = open("/dev/null", O_WRONLY | O_CLOEXEC);
  errno = EINTR;
  EXPECT_TRUE(sink.Replace(given));
  EXPECT_THAT(replaced, testing::ElementsAre(0));
}

TEST(Sink, AnErrorNumberWithoutATextIsUnknown) {
  EXPECT_STREQ(ErrorText(ENOENT), "No such file or directory");
  EXPECT_STREQ(ErrorText(99999), "unknown error");
}

TEST(Sink, CanBeReplacedWhileThreadsWrite) {
  const log_test::TemporaryFolder folder;
  const auto openFile = [&](const std::string& name) {
    return open(folder.File(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  };
  Sink sink(-1, Sink::Blocking::kNever);
  ASSERT_TRUE(sink.Replace(openFile("a")));
  constexpr int kRecords = 5000;
  std::atomic<int> failures{0};
  std::vector<std::thread> writers;
  writers.reserve(2);
  for (int writer = 0; writer < 2; ++writer) {
    writers.emplace_back([&] {
      for (int i = 0; i < kRecords; ++i) failures += Deliver(sink, "line") == nullptr ? 0 : 1;
    });
  }
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(sink.Replace(openFile(i % 2 == 0 ? "b" : "a")));
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(failures, 0);
  const auto a = log_test::SplitLines(log_test::ReadFile(folder.File("a")));
  const auto b = log_test::SplitLines(log_test::ReadFile(folder.File("b")));
  EXPECT_EQ(a.size() + b.size(), 2U * kRecords);
}

}  // namespace
}  // namespace ara::log
