// SPDX-License-Identifier: Apache-2.0
#include "program.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr int kPollMs = 10;
constexpr int kCannotExecute = 127;

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

struct Pipe {
  int read = -1;
  int write = -1;
};

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) Fail("cannot make a pipe");
  return {ends[0], ends[1]};
}

void Close(int& descriptor) {
  if (descriptor >= 0) close(descriptor);
  descriptor = -1;
}

/// Makes `descriptor` the standard stream `stream`; closes the stream when the descriptor is -1.
void PutInPlace(int descriptor, int stream) {
  if (descriptor < 0) {
    close(stream);
  } else if (dup2(descriptor, stream) < 0) {
    _exit(kCannotExecute);
  }
}

std::vector<std::string> EnvironmentWith(const std::map<std::string, std::string>& changes) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (changes.count(text.substr(0, text.find('='))) == 0) environment.push_back(text);
  }
  for (const auto& [name, value] : changes) environment.emplace_back(name).append("=").append(value);
  return environment;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// Reads what is available. Closes the descriptor at the end of the stream.
void Take(int& descriptor, std::string& text) {
  char buffer[4096];
  const ssize_t count = read(descriptor, buffer, sizeof buffer);
  if (count > 0) {
    text.append(buffer, static_cast<std::size_t>(count));
  } else if (count == 0 || errno != EINTR) {
    Close(descriptor);
  }
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::string name = std::filesystem::temp_directory_path() / "stbm_XXXXXX";
  if (mkdtemp(name.data()) == nullptr) Fail("cannot make " + name);
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> SplitLines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

std::vector<std::string> Ending::OutputLines() const {
  return SplitLines(output);
}

std::vector<std::string> Ending::ErrorLines() const {
  return SplitLines(error);
}

std::ostream& operator<<(std::ostream& stream, const Ending& ending) {
  if (ending.hung) stream << "hung, killed; ";
  if (ending.status) stream << "exit status " << *ending.status;
  if (ending.signal) stream << "signal " << *ending.signal;
  return stream << " after " << ending.seconds << " s\n--- standard output:\n"
                << ending.output << "--- standard error:\n"
                << ending.error << "---";
}

// fork and not posix_spawn, because limits and the parent-death signal are set between fork and exec.
Program::Program(Launch launch) {
  std::vector<std::string> arguments = std::move(launch.arguments);
  arguments.insert(arguments.begin(), launch.program.string());
  std::vector<std::string> environment = EnvironmentWith(launch.environment);
  // All prepared before the fork. After it only async-signal-safe functions may be called.
  const std::vector<char*> argv = Pointers(arguments);
  const std::vector<char*> envp = Pointers(environment);
  const std::string directory = launch.directory.string();
  launch.limits.emplace(RLIMIT_CORE, 0);

  int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (input < 0) Fail("cannot open /dev/null");
  int output = -1;
  if (launch.standardOutput == Launch::Output::kFull) {
    output = open("/dev/full", O_WRONLY | O_CLOEXEC);
    if (output < 0) Fail("cannot open /dev/full");
  } else if (launch.standardOutput != Launch::Output::kClosed) {
    const Pipe pipe = MakePipe();
    output = pipe.write;
    outputPipe_ = pipe.read;
    if (launch.standardOutput == Launch::Output::kUnwanted) Close(outputPipe_);
    if (launch.standardOutput == Launch::Output::kHeldUp) {
      const auto size = static_cast<int>(kFilling.size());
      if (fcntl(output, F_SETPIPE_SZ, size) != size ||
          write(output, kFilling.data(), kFilling.size()) != size) {
        Fail("cannot fill a pipe");
      }
      std::swap(outputPipe_, heldPipe_);
    }
  }
  int error = -1;
  if (launch.standardError) {
    const Pipe pipe = MakePipe();
    error = pipe.write;
    errorPipe_ = pipe.read;
  }

  const pid_t parent = getpid();
  start_ = Clock::now();
  id_ = fork();
  if (id_ < 0) Fail("cannot fork");
  if (id_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kCannotExecute);  // the test had ended before the line above
    for (const int signal : {SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGQUIT}) (void)std::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    PutInPlace(input, STDIN_FILENO);
    PutInPlace(output, STDOUT_FILENO);
    PutInPlace(error, STDERR_FILENO);
    for (const auto& [resource, limit] : launch.limits) {
      const rlimit both{limit, limit};
      if (setrlimit(static_cast<__rlimit_resource_t>(resource), &both) != 0) _exit(kCannotExecute);
    }
    if (launch.user) {
      const uid_t user = *launch.user;
      if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0) _exit(kCannotExecute);
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // setuid has cleared it
    }
    if (chdir(directory.c_str()) == 0) execve(argv[0], argv.data(), envp.data());
    _exit(kCannotExecute);
  }
  Close(input);
  Close(output);
  Close(error);
}

Program::~Program() {
  if (!ended_) {
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
  }
  Close(outputPipe_);
  Close(heldPipe_);
  Close(errorPipe_);
}

bool Program::Running() {
  LookForEnd();
  return !ended_;
}

void Program::Signal(int signal) const {
  // The id of a process that has ended may belong to another process by now.
  if (!ended_) kill(id_, signal);
}

double Program::Seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Program::LookForEnd() {
  if (ended_) return;
  int status = 0;
  if (waitpid(id_, &status, WNOHANG) != id_) return;
  ended_ = true;
  ending_.seconds = Seconds();
  if (WIFEXITED(status)) ending_.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) ending_.signal = WTERMSIG(status);
}

void Program::Pump(Clock::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  const int pollMs = static_cast<int>(std::clamp<std::int64_t>(left, 0, kPollMs));
  pollfd streams[] = {{outputPipe_, POLLIN, 0}, {errorPipe_, POLLIN, 0}};  // poll ignores a descriptor of -1
  // A short timeout, so that the end of a program that writes nothing is noticed, too.
  if (poll(streams, 2, pollMs) > 0) {
    if (streams[0].revents != 0) Take(outputPipe_, ending_.output);
    if (streams[1].revents != 0) Take(errorPipe_, ending_.error);
  }
  LookForEnd();
}

bool Program::Over() const {
  return ended_ && outputPipe_ < 0 && errorPipe_ < 0;
}

template <typename Done>
bool Program::PumpUntil(Done&& done, std::chrono::milliseconds wait) {
  const Clock::time_point end = Clock::now() + wait;
  while (!done()) {
    if (Over() || Clock::now() >= end) return done();
    Pump(end);
  }
  return true;
}

std::optional<std::string> Program::ReadLine(std::chrono::milliseconds wait) {
  std::size_t lineEnd = std::string::npos;
  const auto whole = [&] {
    lineEnd = ending_.output.find('\n', linesRead_);
    return lineEnd != std::string::npos;
  };
  if (!PumpUntil(whole, wait)) return std::nullopt;
  std::string line = ending_.output.substr(linesRead_, lineEnd - linesRead_);
  linesRead_ = lineEnd + 1;
  return line;
}

bool Program::WaitForError(std::string_view text, std::chrono::milliseconds wait) {
  const auto found = [&] {
    const std::size_t at = ending_.error.find(text, errorFound_);
    if (at == std::string::npos) return false;
    errorFound_ = at + text.size();
    return true;
  };
  // Not called again after it has found the text: it would search for the next one.
  bool seen = false;
  return PumpUntil([&] { return seen = seen || found(); }, wait);
}

void Program::RunFor(std::chrono::milliseconds time) {
  PumpUntil([] { return false; }, time);
}

const Ending& Program::Wait(std::chrono::milliseconds wait) {
  if (!PumpUntil([this] { return Over(); }, wait)) {
    ending_.hung = true;
    kill(id_, SIGKILL);
    PumpUntil([this] { return Over(); }, std::chrono::seconds(10));
  }
  return ending_;
}

// One page, the size of the smallest pipe.
const std::string Program::kFilling(4096, '#');

void Program::TakeOutput() {
  std::swap(outputPipe_, heldPipe_);
}

int Program::ThreadCount() const {
  std::ifstream status("/proc/" + std::to_string(id_) + "/status");
  std::string line;
  constexpr std::string_view kKey = "Threads:";
  while (std::getline(status, line)) {
    if (line.compare(0, kKey.size(), kKey) == 0) return std::stoi(line.substr(kKey.size()));
  }
  return 0;
}
