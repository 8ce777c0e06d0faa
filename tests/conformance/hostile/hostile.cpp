// SPDX-License-Identifier: Apache-2.0

// A platform library that does harm when it is loaded: what the environment variable ORMIS_HOSTILE names. Its
// operations are the skeleton's.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

namespace {

void BreakSignals() {
  (void)std::signal(SIGCHLD, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  (void)sigprocmask(SIG_BLOCK, &all, nullptr);
}

/// 64 MiB without an end of a line.
void Flood() {
  const std::string much(1 << 20, 'x');
  for (int i = 0; i < 64; ++i) (void)!write(STDERR_FILENO, much.data(), much.size());
}

/// A process in a session of its own, which outlives its parent and takes no signal but SIGKILL. Its number
/// is in the file that ORMIS_HOSTILE_PID names.
void LeaveSession() {
  if (fork() != 0) return;
  (void)setsid();
  BreakSignals();
  const std::string id = std::to_string(getpid()) + "\n";
  const int file = open(std::getenv("ORMIS_HOSTILE_PID"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  (void)!write(file, id.data(), id.size());
  for (;;) (void)pause();
}

/// A link to the file that ORMIS_HOSTILE_PID names, in the place of the kit's result. That file says how
/// often.
void PlantLink() {
  const char* const target = std::getenv("ORMIS_HOSTILE_PID");
  if (symlink(target, ".result") != 0) return;
  const int file = open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  (void)!write(file, "planted\n", 8);
}

/// What a terminal takes for a title, for colours and for the one character that begins a control sequence.
void Control() {
  const std::string text =
      "\033]0;title\a \xc2\x9b"
      "31m \x9b"
      "32m";
  (void)!write(STDERR_FILENO, text.data(), text.size());
  _exit(3);
}

struct AtLoad {
  AtLoad() {
    const char* const chosen = std::getenv("ORMIS_HOSTILE");
    const std::string harm = chosen == nullptr ? "" : chosen;
    if (harm == "exit") _exit(3);
    if (harm == "hang") LeaveSession();
    while (harm == "hang") (void)pause();
    if (harm == "signals") BreakSignals();
    if (harm == "flood") Flood();
    if (harm == "flood") _exit(3);
    if (harm == "session") LeaveSession();
    if (harm == "link") PlantLink();
    if (harm == "control") Control();
  }
} atLoad;

}  // namespace
