// SPDX-License-Identifier: Apache-2.0
#include "child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>
#include <utility>

#include "prepare_process.h"

namespace scope {
namespace {

struct Pipe {
  int readEnd = -1;
  int writeEnd = -1;
};

Pipe MakePipe() {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
  }
  return {ends[0], ends[1]};
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> Environment(const std::vector<std::pair<std::string, std::string>>& additions) {
  std::map<std::string, std::string> values;
  for (char** at = environ; *at != nullptr; ++at) {
    const std::string entry(*at);
    values.emplace(entry.substr(0, entry.find('=')), entry);
  }
  for (const auto& [name, value] : additions) values[name] = name + "=" + value;
  std::vector<std::string> entries;
  for (const auto& [name, entry] : values) entries.push_back(entry);
  return entries;
}

}  // namespace

ChildProcess::ChildProcess(const Options& options) {
  std::vector<std::string> arguments{options.program};
  arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
  std::vector<std::string> environment = Environment(options.environment);
  const std::vector<char*> argv = Pointers(arguments);
  const std::vector<char*> envp = Pointers(environment);
  const Pipe output = MakePipe();
  const Pipe errors = options.takeErrors ? MakePipe() : Pipe{};
  const Pipe failure = MakePipe();
  const pid_t parent = getpid();

  id_ = fork();
  if (id_ == 0) {
    (void)setpgid(0, 0);
    (void)prctl(PR_SET_PDEATHSIG, options.ignoresStop ? SIGHUP : SIGINT);
    if (getppid() != parent) _exit(127);
    if (options.input >= 0) (void)dup2(options.input, STDIN_FILENO);
    (void)dup2(options.output >= 0 ? options.output : output.writeEnd, STDOUT_FILENO);
    if (options.takeErrors) (void)dup2(errors.writeEnd, STDERR_FILENO);
    if (options.inherit >= 0) (void)fcntl(options.inherit, F_SETFD, 0);
    // Blocked and ignored signals would stay blocked and ignored after the exec.
    (void)std::signal(SIGPIPE, SIG_DFL);
    // A script that starts this program in the background makes it ignore SIGINT.
    (void)std::signal(SIGINT, SIG_DFL);
    stress::RestoreSignals();
    if (options.ignoresStop) {
      (void)std::signal(SIGINT, SIG_IGN);
      (void)std::signal(SIGTERM, SIG_IGN);
    }
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    (void)execve(argv[0], argv.data(), envp.data());
    const int error = errno;
    (void)!write(failure.writeEnd, &error, sizeof(error));
    _exit(127);
  }
  const int forkError = errno;
  for (const int end : {output.writeEnd, errors.writeEnd, failure.writeEnd}) {
    if (end >= 0) (void)close(end);
  }
  output_ = output.readEnd;
  errors_ = errors.readEnd;
  int error = forkError;
  // A successful exec closes this pipe, so it is empty when the program runs.
  const bool failed = id_ < 0 || read(failure.readEnd, &error, sizeof(error)) == ssize_t{sizeof(error)};
  (void)close(failure.readEnd);
  if (failed) {
    if (id_ > 0) (void)waitpid(id_, nullptr, 0);
    id_ = -1;
    (void)close(output_);
    if (errors_ >= 0) (void)close(errors_);
    throw std::runtime_error("cannot start " + options.program + ": " + std::strerror(error));
  }
  (void)fcntl(output_, F_SETFL, O_NONBLOCK);
  if (errors_ >= 0) (void)fcntl(errors_, F_SETFL, O_NONBLOCK);
}

ChildProcess::~ChildProcess() {
  if (!HasEnded() && !isGivenUp_) {
    Signal(SIGKILL);
    (void)waitpid(id_, nullptr, 0);
  }
  (void)close(output_);
  if (errors_ >= 0) (void)close(errors_);
}

void ChildProcess::Signal(int signal) {
  if (!ended_) (void)kill(-id_, signal);
}

// "SigCgt:" is followed by a number with a bit for each signal, from 1 on.
bool ChildProcess::Catches(int signal) const {
  std::ifstream status("/proc/" + std::to_string(id_) + "/status");
  std::string word;
  while (status >> word && word != "SigCgt:") continue;
  status >> word;
  return status && (std::strtoull(word.c_str(), nullptr, 16) >> (signal - 1)) % 2 != 0;
}

bool ChildProcess::HasEnded() {
  if (!ended_ && waitpid(id_, &status_, WNOHANG) == id_) ended_ = true;
  return ended_;
}

int ChildProcess::ExitStatus() const {
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : 0;
}

int ChildProcess::EndSignal() const {
  return WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
}

bool LineReader::Read(int descriptor, std::vector<std::string>& lines, std::size_t mostBytes) {
  std::array<char, 4096> bytes{};
  for (std::size_t taken = 0; !atEnd_ && taken < mostBytes;) {
    const ssize_t size = read(descriptor, bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    atEnd_ = size <= 0;
    if (atEnd_) break;
    taken += static_cast<std::size_t>(size);
    Take(bytes.data(), static_cast<std::size_t>(size), lines);
  }
  if (!atEnd_) return true;
  if (!rest_.empty()) lines.push_back(std::exchange(rest_, {}));
  return false;
}

void LineReader::Take(const char* bytes, std::size_t size, std::vector<std::string>& lines) {
  for (const char* const end = bytes + size; bytes != end;) {
    const char* const feed = std::find(bytes, end, '\n');
    const auto length = static_cast<std::size_t>(feed - bytes);
    rest_.append(bytes, std::min(length, kMostLineBytes - rest_.size()));
    if (feed == end) return;
    lines.push_back(std::exchange(rest_, {}));
    bytes = feed + 1;
  }
}

}  // namespace scope
