// SPDX-License-Identifier: Apache-2.0

// An application may fork at any time, from any thread. Here it forks in the middle of an operation.
#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "model_test.h"

namespace {

using Ormis::QetDNNHandle;

constexpr unsigned int kLongS = 100;  // far longer than a small model takes to load

bool forks = false;
pid_t forked = 0;

class ForkTest : public ModelTest {
 protected:
  /// Loads a model and forks a process meanwhile. Expects that the load does not wait for the end of that
  /// process.
  void LoadWhileForking() {
    const std::string path = Write(TinyNetwork());
    QetDNNHandle handle;
    forks = true;
    EXPECT_EQ(QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    forks = false;
    ASSERT_GT(forked, 0);
    EXPECT_EQ(waitpid(forked, nullptr, WNOHANG), 0) << "the load waited for the end of the forked process";
    (void)kill(forked, SIGKILL);
    (void)waitpid(forked, nullptr, 0);
    EXPECT_EQ(QetDNNRelease(handle), Ormis::kQetOk);
  }
};

}  // namespace

// The library's call comes here. It is the last moment at which a forked process inherits all descriptors
// that the library has open.
extern "C" __attribute__((visibility("default"))) int posix_spawn(pid_t* child, const char* path,
                                                                  const posix_spawn_file_actions_t* actions,
                                                                  const posix_spawnattr_t* attributes,
                                                                  char* const* arguments,
                                                                  char* const* environment) {
  if (forks) forked = fork();
  if (forks && forked == 0) {
    (void)alarm(kLongS);
    for (;;) (void)pause();
  }
  static const auto real = reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
  return real(child, path, actions, attributes, arguments, environment);
}

namespace {

TEST_F(ForkTest, ALoadDoesNotWaitForAProcessForkedMeanwhile) {
  LoadWhileForking();
}

TEST_F(ForkTest, ALoadDoesNotWaitWhereTheApplicationIgnoresSigchld) {
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  LoadWhileForking();
  (void)std::signal(SIGCHLD, before);
}

}  // namespace
