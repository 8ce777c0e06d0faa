// SPDX-License-Identifier: Apache-2.0
#include "watcher_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace scope {
namespace {

// In the new process: nothing of the recorder but the socket.
void LeaveRecorder(int socket, const char* processName) {
  (void)setpgid(0, 0);
  (void)prctl(PR_SET_NAME, processName);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) (void)std::signal(signal, SIG_IGN);
  const int null = open("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(null, standard);
  // The recorder's files, and the lock of its folder.
  if (socket > 3) (void)close_range(3, static_cast<unsigned>(socket) - 1, 0);
  (void)close_range(static_cast<unsigned>(socket) + 1, ~0U, 0);
  // A system that runs out of memory ends this process, and not the benchmark.
  const int score = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  if (score < 0) return;
  (void)!write(score, "1000", 4);
  (void)close(score);
}

}  // namespace

WatcherProcess::WatcherProcess(std::string name, const char* processName,
                               const std::function<void(int socket)>& work)
    : name_(std::move(name)) {
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error("cannot make a socket for " + name_ + ": " + std::strerror(errno));
  }
  const pid_t parent = getpid();
  id_ = fork();
  if (id_ == 0) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    LeaveRecorder(ends[1], processName);
    work(ends[1]);
    _exit(0);
  }
  const int error = errno;
  (void)close(ends[1]);
  if (id_ < 0) {
    (void)close(ends[0]);
    throw std::runtime_error("cannot start " + name_ + ": " + std::strerror(error));
  }
  descriptor_ = ends[0];
}

WatcherProcess::~WatcherProcess() {
  Kill();
}

void WatcherProcess::Kill() {
  if (id_ > 0) (void)kill(id_, SIGKILL);
  Reap();
}

void WatcherProcess::Reap() {
  if (descriptor_ >= 0) (void)close(std::exchange(descriptor_, -1));
  if (id_ <= 0) return;
  int status = 0;
  while (waitpid(id_, &status, 0) < 0 && errno == EINTR) {
  }
  id_ = -1;
  if (endIsExpected_) return;
  fault_ = name_ + " ended by itself";
  if (WIFSIGNALED(status)) fault_ = name_ + " was ended by " + SignalText(WTERMSIG(status));
  hasCrashed_ = WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL;
}

// After the end of the process it is reaped.
bool WatcherProcess::Receive(void* packet, std::size_t bytes, bool waits) {
  while (descriptor_ >= 0) {
    const ssize_t size = recv(descriptor_, packet, bytes, waits ? 0 : MSG_DONTWAIT);
    if (size == static_cast<ssize_t>(bytes)) return true;
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
    Reap();
  }
  return false;
}

bool WatcherProcess::Await(Signals& signals) const {
  pollfd waits[] = {{descriptor_, POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
  while (descriptor_ >= 0) {
    (void)poll(waits, 2, -1);
    if (signals.TakeStop()) return false;
    if (waits[0].revents != 0) break;
  }
  return true;
}

void WatcherProcess::Break() {
  ExpectEnd();
  if (id_ > 0) (void)kill(id_, SIGKILL);
}

void WatcherProcess::Send(const void* packet, std::size_t bytes) const {
  if (descriptor_ >= 0) (void)send(descriptor_, packet, bytes, MSG_NOSIGNAL);
}

void WatcherProcess::EndSending() const {
  if (descriptor_ >= 0) (void)shutdown(descriptor_, SHUT_WR);
}

void SendOrExit(int socket, const void* packet, std::size_t bytes) {
  while (send(socket, packet, bytes, MSG_NOSIGNAL) < 0) {
    if (errno != EINTR) _exit(1);
  }
}

}  // namespace scope
