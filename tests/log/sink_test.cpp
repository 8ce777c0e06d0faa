#include "sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "log_files.h"

namespace ara::log {
namespace {

/// Delivers a line of this text, as a record would be.
const char* Deliver(Sink& sink, const std::string& text) {
  char buffer[4096];
  FixedText line(buffer, sizeof buffer - Sink::kTail);
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
  /// Fills the pipe so that it takes no page more, and leaves its end blocking.
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

TEST(Sink, HandsOverALineInOneWrite) {
  int ends[2];
  // A packet socket keeps the writes apart.
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

TEST(Sink, IsNotHeldUpByAReaderThatStopped) {
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

TEST(Sink, WaitsForAReaderThatIsSlow) {
  Pipe pipe;
  pipe.Fill();
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  const char* reason = "not delivered";
  std::thread writer([&] { reason = Deliver(sink, "line"); });
  std::string content;
  while (content.find("line\n") == std::string::npos) content += pipe.Read();
  writer.join();
  EXPECT_EQ(reason, nullptr);
}

TEST(Sink, OutlivesANonBlockingPipeThatIsFull) {
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

TEST(Sink, RaisesNoSignalWhenTheReaderIsGone) {
  const auto handler = std::signal(SIGPIPE, SIG_DFL);
  Pipe pipe;
  pipe.CloseReader();
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  EXPECT_NE(Deliver(sink, "lost"), nullptr);
  (void)std::signal(SIGPIPE, handler);
}

TEST(Sink, ToleratesADescriptorThatIsClosed) {
  Pipe pipe;
  const int closed = dup(pipe.ends[1]);
  close(closed);
  Sink console(closed, Sink::Blocking::kPossible);
  EXPECT_NE(Deliver(console, "lost"), nullptr);
  Sink file(closed, Sink::Blocking::kNever);
  EXPECT_STREQ(Deliver(file, "lost"), "Bad file descriptor");
}

TEST(Sink, DisabledWritesNothingAndComplainsOfNothing) {
  Pipe pipe;
  Sink sink(pipe.ends[1], Sink::Blocking::kPossible);
  sink.Disable();
  EXPECT_EQ(Deliver(sink, "nowhere"), nullptr);
  fcntl(pipe.ends[0], F_SETFL, O_NONBLOCK);
  EXPECT_EQ(pipe.Read(), "");
}

TEST(Sink, GivesTheReasonOfAFullDisk) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  Sink sink(full, Sink::Blocking::kNever);
  EXPECT_STREQ(Deliver(sink, "lost"), "No space left on device");
  close(full);
}

TEST(Sink, EndsALineThatWasTakenInPart) {
  const log_test::TemporaryFolder folder;
  const std::string path = folder.File("torn");
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ASSERT_GE(file, 0);
  Sink sink(file, Sink::Blocking::kNever);

  // A limit on the file's size stands in for a disk that fills up in the middle of a line. The signal that
  // comes with it would end the program.
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

TEST(Sink, IsReplacedUnderItsWriters) {
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
