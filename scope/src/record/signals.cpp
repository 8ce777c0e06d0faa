// SPDX-License-Identifier: Apache-2.0
#include "signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace scope {

std::string SignalText(int signal) {
  const char* const name = sigabbrev_np(signal);
  return name == nullptr ? "signal " + std::to_string(signal) : "SIG" + std::string(name);
}

Signals::Signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&set, signal);
  // A terminal or a connection that has gone says so. A signal that is ignored, as under nohup, would come
  // from the descriptor all the same.
  struct sigaction hangUp{};
  const bool isIgnored = sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler == SIG_IGN;
  if (!isIgnored) sigaddset(&set, SIGHUP);
  (void)pthread_sigmask(SIG_BLOCK, &set, &before_);
  struct sigaction ignore{};
  ignore.sa_handler = SIG_IGN;
  (void)sigaction(SIGPIPE, &ignore, &brokenPipe_);
  descriptor_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (descriptor_ < 0) {
    const std::string reason = std::strerror(errno);
    Restore();
    throw std::runtime_error("cannot wait for signals: " + reason);
  }
}

Signals::~Signals() {
  // A pending signal would be delivered when the mask is restored.
  (void)TakeStop();
  (void)close(descriptor_);
  Restore();
}

bool Signals::TakeStop() {
  bool stop = false;
  signalfd_siginfo info{};
  while (read(descriptor_, &info, sizeof(info)) == ssize_t{sizeof(info)}) {
    // A lost terminal is told twice, by the shell and by the system: that asks only once.
    const bool isToldAgain = info.ssi_signo == SIGHUP && std::exchange(hungUp_, true);
    stop = stop || (info.ssi_signo != SIGCHLD && !isToldAgain);
  }
  return stop;
}

void Signals::Restore() {
  (void)sigaction(SIGPIPE, &brokenPipe_, nullptr);
  (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace scope
