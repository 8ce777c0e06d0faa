// SPDX-License-Identifier: Apache-2.0
#include "runner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

#include "imports.h"
#include "options.h"
#include "usage.h"

namespace conformance {

namespace {

constexpr const char* kResultFile = ".result";
constexpr const char* kOutputFile = ".output";
constexpr const char* kPassed = "passed";
constexpr const char* kFailed = "failed";
constexpr const char* kSkipped = "skipped";

// The terminal sends them only to the kit, because a check has its own process group.
constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t interrupt = 0;

void KeepInterrupt(int signal) {
  interrupt = signal;
}

/// An empty folder that lives as long as this object.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::error_code error;
    std::string path = std::filesystem::temp_directory_path(error) / "conformance.XXXXXX";
    if (mkdtemp(path.data()) != nullptr) path_ = path;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  /// Empty if the folder could not be created.
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::string ProgramFile() {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
  return length < 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(length));
}

/// Called in the child. If the library starts threads when it is loaded, the fork has lost them, and the
/// check needs a `fresh` process. If none can be started (under an emulator), the check runs in the fork.
[[noreturn]] void BecomeTheCheck(const Check& check, const Settings& settings, const std::string& folder,
                                 bool fresh) {
  (void)setpgid(0, 0);
  for (const int signal : kInterrupts) {
    struct sigaction action{};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == KeepInterrupt) {
      (void)std::signal(signal, SIG_DFL);
    }
  }
  const int output =
      open((folder + "/" + kOutputFile).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (chdir(folder.c_str()) != 0 || output < 0 || dup2(output, STDOUT_FILENO) < 0 ||
      dup2(output, STDERR_FILENO) < 0) {
    _exit(1);
  }
  (void)close(output);
  if (fresh) {
    const std::string program = ProgramFile();
    std::vector<std::string> arguments = ArgumentsFor(check, settings);
    std::vector<char*> pointers = {const_cast<char*>(program.c_str())};
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    (void)execv(program.c_str(), pointers.data());
  }
  // exit, not _exit: what the library does at the end of a process is part of the check.
  std::exit(RunHere(check, settings));
}

/// Waits for the child to end. If the time is over or the run is interrupted, it kills the child and
/// everything that the child started, and returns false.
bool WaitFor(pid_t child, unsigned int timeoutS, int& status) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutS);
  // Polled, because a library may take over the signal or keep the pipe open.
  for (auto pause = std::chrono::microseconds(200);;
       pause = std::min(pause * 2, std::chrono::microseconds(5000))) {
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == child) return true;
    if (interrupt != 0 || std::chrono::steady_clock::now() >= end || (ended < 0 && errno != EINTR)) break;
    std::this_thread::sleep_for(pause);
  }
  (void)kill(-child, SIGKILL);
  (void)waitpid(child, &status, 0);
  return false;
}

std::vector<std::string> LastLines(const std::filesystem::path& file) {
  constexpr std::size_t kLines = 20;
  std::ifstream stream(file, std::ios::binary);
  std::deque<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
    if (lines.size() > kLines) lines.pop_front();
  }
  return {lines.begin(), lines.end()};
}

/// A sentence about the operation that the loader did not find; empty if that is not the reason.
std::string MissingOperation(const std::vector<std::string>& output) {
  const std::string mark = "undefined symbol: ";
  for (const std::string& line : output) {
    const std::size_t at = line.find(mark);
    if (at == std::string::npos) continue;
    const std::string symbol = line.substr(at + mark.size());
    return "operation " + Demangled(symbol.substr(0, symbol.find_first_of(" ,("))) + " is missing";
  }
  return {};
}

std::string HowItEnded(int status, const std::vector<std::string>& output) {
  if (WIFSIGNALED(status)) {
    return "the process ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
           strsignal(WTERMSIG(status)) + ")";
  }
  if (const std::string missing = MissingOperation(output); !missing.empty()) return missing;
  return "the process ended with status " + std::to_string(WEXITSTATUS(status));
}

void WriteResult(const char* kind, const std::string& text) {
  std::ofstream file(kResultFile, std::ios::binary | std::ios::trunc);
  file << kind << '\n' << text;
}

Outcome ReadOutcome(const std::filesystem::path& folder, int status) {
  Outcome outcome;
  outcome.output = LastLines(folder / kOutputFile);
  std::ifstream file(folder / kResultFile, std::ios::binary);
  std::string kind;
  std::getline(file, kind);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const bool endedWell = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (kind.empty()) {
    outcome.text = HowItEnded(status, outcome.output) + " in the middle of the check";
  } else if (!endedWell) {
    outcome.text =
        (kind == kFailed ? text + "; then " : "after the check ") + HowItEnded(status, outcome.output);
  } else {
    outcome.text = text;
    if (kind == kPassed) outcome.kind = Outcome::Kind::kPassed;
    if (kind == kSkipped) outcome.kind = Outcome::Kind::kSkipped;
  }
  return outcome;
}

}  // namespace

void CatchInterrupts() {
  for (const int signal : kInterrupts) {
    struct sigaction action{};
    // A signal that the kit inherits as ignored stays ignored.
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = KeepInterrupt;
    (void)sigaction(signal, &action, nullptr);
  }
}

int Interrupted() {
  return interrupt;
}

void EndBy(int signal) {
  (void)std::signal(signal, SIG_DFL);
  (void)std::raise(signal);
  std::exit(128 + signal);  // reached if the signal is blocked
}

Outcome RunApart(const Check& check, const Settings& settings, unsigned int timeoutS) {
  const auto begin = std::chrono::steady_clock::now();
  const ScratchFolder scratch;
  Outcome outcome;
  if (scratch.Path().empty()) {
    outcome.text = std::string("cannot create a folder for the check: ") + std::strerror(errno);
    return outcome;
  }
  const std::string folder = scratch.Path();
  const bool fresh = ThreadCount() > 1;
  std::cout.flush();
  const pid_t child = fork();
  if (child == 0) BecomeTheCheck(check, settings, folder, fresh);
  (void)setpgid(child, child);  // parent and child both do this, so the group exists before either uses it
  if (child < 0) {
    outcome.text = std::string("cannot start a process for the check: ") + std::strerror(errno);
    return outcome;
  }
  int status = 0;
  if (WaitFor(child, timeoutS, status)) {
    outcome = ReadOutcome(scratch.Path(), status);
  } else {
    outcome.output = LastLines(scratch.Path() / kOutputFile);
    outcome.text = interrupt != 0 ? std::string("interrupted")
                                  : "still running after " + std::to_string(timeoutS) + " s";
  }
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return outcome;
}

int RunHere(const Check& check, const Settings& settings) {
  Session session{settings, {}};
  try {
    check.run(session);
    WriteResult(kPassed, session.note);
  } catch (const Skip& skip) {
    WriteResult(kSkipped, skip.what());
  } catch (const Failure& failure) {
    WriteResult(kFailed, failure.what());
  } catch (const std::exception& error) {
    WriteResult(kFailed, std::string("an exception: ") + error.what());
  } catch (...) {
    WriteResult(kFailed, "an exception of an unknown kind");
  }
  return 0;
}

}  // namespace conformance
