// SPDX-License-Identifier: Apache-2.0
#include "signals.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <csignal>
#include <exception>
#include <stdexcept>
#include <string>

namespace {

using scope::Signals;

bool Blocked(int signal) {
  sigset_t set;
  (void)pthread_sigmask(SIG_BLOCK, nullptr, &set);
  return sigismember(&set, signal) == 1;
}

void (*BrokenPipe())(int) {
  struct sigaction now{};
  (void)sigaction(SIGPIPE, nullptr, &now);
  return now.sa_handler;
}

bool Readable(const Signals& signals) {
  pollfd wait{signals.Descriptor(), POLLIN, 0};
  return poll(&wait, 1, 0) == 1;
}

// Whatever started this program may ignore it.
void TakeHangUp() {
  ASSERT_NE(std::signal(SIGHUP, SIG_DFL), SIG_ERR);
}

TEST(SignalsTest, TellsOfASignalInsteadOfDyingOfIt) {
  TakeHangUp();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Signals signals;
    EXPECT_FALSE(Readable(signals));
    EXPECT_FALSE(signals.TakeStop());
    ASSERT_EQ(raise(signal), 0);
    EXPECT_TRUE(Readable(signals));
    EXPECT_TRUE(signals.TakeStop());
    EXPECT_FALSE(Readable(signals));
    EXPECT_FALSE(signals.TakeStop());
  }
}

// A shell passes on that its terminal has gone, and the system tells it as well.
TEST(SignalsTest, ALostTerminalAsksOnce) {
  TakeHangUp();
  Signals signals;
  ASSERT_EQ(raise(SIGHUP), 0);
  EXPECT_TRUE(signals.TakeStop());
  ASSERT_EQ(raise(SIGHUP), 0);
  EXPECT_TRUE(Readable(signals));
  EXPECT_FALSE(signals.TakeStop());
  ASSERT_EQ(raise(SIGINT), 0);
  EXPECT_TRUE(signals.TakeStop()) << "somebody asks again";
}

// As under nohup.
TEST(SignalsTest, AHangUpThatIsIgnoredStaysIgnored) {
  ASSERT_NE(std::signal(SIGHUP, SIG_IGN), SIG_ERR);
  {
    Signals signals;
    ASSERT_EQ(raise(SIGHUP), 0);
    EXPECT_FALSE(Readable(signals));
    EXPECT_FALSE(signals.TakeStop());
    ASSERT_EQ(raise(SIGTERM), 0);
    EXPECT_TRUE(signals.TakeStop());
  }
  TakeHangUp();
}

TEST(SignalsTest, AChildsEndWakesAndStopsNothing) {
  Signals signals;
  ASSERT_EQ(raise(SIGCHLD), 0);
  EXPECT_TRUE(Readable(signals));
  EXPECT_FALSE(signals.TakeStop());
  EXPECT_FALSE(Readable(signals));
  ASSERT_EQ(raise(SIGTERM), 0);
  ASSERT_EQ(raise(SIGCHLD), 0);
  EXPECT_TRUE(signals.TakeStop());
}

TEST(SignalsTest, LeavesSignalsAsTheyWere) {
  TakeHangUp();
  ASSERT_FALSE(Blocked(SIGINT));
  void (*const before)(int) = BrokenPipe();
  {
    const Signals signals;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) EXPECT_TRUE(Blocked(signal)) << signal;
    EXPECT_EQ(BrokenPipe(), SIG_IGN);
    // Nobody reads this signal. It must not end the test.
    ASSERT_EQ(raise(SIGINT), 0);
  }
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) EXPECT_FALSE(Blocked(signal)) << signal;
  EXPECT_EQ(BrokenPipe(), before);
}

TEST(SignalsTest, WithoutADescriptorSignalsAreAsBefore) {
  void (*const before)(int) = BrokenPipe();
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  std::exception_ptr thrown;
  try {
    const Signals signals;
  } catch (...) {
    thrown = std::current_exception();
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_NE(thrown, nullptr);
  // Only now, because a sanitizer takes a descriptor to look at the object.
  std::string error;
  try {
    std::rethrow_exception(thrown);
  } catch (const std::runtime_error& caught) {
    error = caught.what();
  }
  EXPECT_EQ(error, "cannot wait for signals: Too many open files");
  EXPECT_FALSE(Blocked(SIGINT));
  EXPECT_EQ(BrokenPipe(), before);
}

}  // namespace
