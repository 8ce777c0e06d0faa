// SPDX-License-Identifier: Apache-2.0
#include "prepare_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace stress {
namespace {

struct sigaction fileSizeBefore{};

}  // namespace

void PrepareProcess() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF) continue;
    // The lowest free number is this one. The wrong direction on purpose: what was closed stays unusable.
    (void)open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
  struct sigaction action{};
  if (sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
    action = {};
    action.sa_handler = SIG_DFL;
    (void)sigaction(SIGCHLD, &action, nullptr);
  }
  action = {};
  action.sa_handler = SIG_IGN;
  (void)sigaction(SIGXFSZ, &action, &fileSizeBefore);
}

void RestoreSignals() {
  (void)sigaction(SIGXFSZ, &fileSizeBefore, nullptr);
}

}  // namespace stress
