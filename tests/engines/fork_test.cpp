// SPDX-License-Identifier: Apache-2.0

// An application may fork at any time, from any thread. Here it forks in the middle of an operation.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "model_test.h"
#include "spawn_calls.h"

namespace {

using Ormis::QetDNNHandle;

constexpr unsigned int kLongS = 100;  // far longer than a small model takes to load

class ForkTest : public ModelTest {
 protected:
  /// Loads a model and forks a process meanwhile, which inherits all descriptors that the library has open.
  /// Expects that the load does not wait for the end of that process.
  void LoadWhileForking() {
    const std::string path = Write(TinyNetwork());
    QetDNNHandle handle;
    pid_t forked = 0;
    spawn_calls::before = [&forked](spawn_calls::Call&) {
      forked = fork();
      if (forked == 0) {
        (void)alarm(kLongS);
        for (;;) (void)pause();
      }
      return 0;
    };
    EXPECT_EQ(QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    ASSERT_GT(forked, 0);
    EXPECT_EQ(waitpid(forked, nullptr, WNOHANG), 0) << "the load waited for the end of the forked process";
    (void)kill(forked, SIGKILL);
    (void)waitpid(forked, nullptr, 0);
    EXPECT_EQ(QetDNNRelease(handle), Ormis::kQetOk);
  }

  spawn_calls::Watch watch_;
};

TEST_F(ForkTest, ALoadDoesNotWaitForAProcessForkedMeanwhile) {
  LoadWhileForking();
}

TEST_F(ForkTest, ALoadDoesNotWaitWhereTheApplicationIgnoresSigchld) {
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  LoadWhileForking();
  (void)std::signal(SIGCHLD, before);
}

// Nothing is left of a process that has ended where the application ignores SIGCHLD, so nothing can be waited
// for.
TEST_F(ForkTest, ALoadDoesNotWaitWhereTheTrialIsGoneAlready) {
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  spawn_calls::after = [](pid_t child) {
    while (kill(child, 0) == 0) (void)usleep(1000);
    EXPECT_EQ(errno, ESRCH);
  };
  LoadWhileForking();
  (void)std::signal(SIGCHLD, before);
}

}  // namespace
