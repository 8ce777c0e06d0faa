// SPDX-License-Identifier: Apache-2.0
#include "runner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>

#include "apart.h"
#include "demangled.h"
#include "loader.h"
#include "options.h"
#include "result_file.h"
#include "usage.h"

namespace conformance {

namespace {

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
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

std::string ProgramFile() {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
  return length < 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(length));
}

/// Called in the check's process. If a preloaded library starts threads, the fork has lost them, and the
/// check needs a fresh process. If none can be started (under an emulator), the check runs in the fork.
void TryFreshProcess(const CheckText& check, const Settings& settings) {
  const std::string program = ProgramFile();
  std::vector<std::string> arguments = ArgumentsFor(check, settings);
  std::vector<char*> pointers = {const_cast<char*>(program.c_str())};
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  (void)execv(program.c_str(), pointers.data());
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

/// `during`: "in the middle of the check".
Outcome OutcomeOf(const Ending& ending, const std::string& folder, const std::string& during) {
  Outcome outcome;
  outcome.output = ending.output;
  std::string kind;
  std::string text;
  ReadResult(folder, kind, text);
  const bool endedWell = WIFEXITED(ending.status) && WEXITSTATUS(ending.status) == 0;
  if (kind.empty()) {
    outcome.text = HowItEnded(ending.status, outcome.output) + " " + during;
  } else if (!endedWell) {
    outcome.text =
        (kind == kFailed ? text + "; then " : "after the check ") + HowItEnded(ending.status, outcome.output);
  } else {
    outcome.text = text;
    if (kind == kPassed) outcome.kind = Outcome::Kind::kPassed;
    if (kind == kSkipped) outcome.kind = Outcome::Kind::kSkipped;
  }
  return outcome;
}

Outcome Run(unsigned int timeoutS, const std::string& during, const std::function<int()>& body) {
  const auto begin = std::chrono::steady_clock::now();
  const ScratchFolder scratch;
  Outcome outcome;
  if (scratch.Path().empty()) {
    outcome.text = std::string("cannot create a folder for the check: ") + std::strerror(errno);
    return outcome;
  }
  const Ending ending = RunApart(scratch.Path(), timeoutS, body);
  switch (ending.kind) {
    case Ending::Kind::kEnded:
      outcome = OutcomeOf(ending, scratch.Path(), during);
      break;
    case Ending::Kind::kTimedOut:
      outcome.text = "still running after " + std::to_string(timeoutS) + " s " + during;
      break;
    case Ending::Kind::kInterrupted:
      outcome.text = "interrupted";
      break;
    case Ending::Kind::kNotStarted:
      outcome.text = ending.error;
      break;
  }
  outcome.output = ending.output;
  if (ending.leftBehind != 0) {
    outcome.text += std::string(outcome.text.empty() ? "" : "; ") +
                    "processes that it left behind and that were ended: " + std::to_string(ending.leftBehind);
  }
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return outcome;
}

}  // namespace

Description Describe(unsigned int timeoutS, Outcome& outcome) {
  outcome = Run(timeoutS, "while the library was loaded", DescribeHere);
  Description description;
  if (outcome.kind != Outcome::Kind::kPassed) return description;
  std::istringstream lines(outcome.text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos) continue;
    if (tab == 0) {
      description.libraries.push_back(line.substr(1));
    } else {
      description.checks.push_back({line.substr(0, tab), line.substr(tab + 1)});
    }
  }
  return description;
}

Outcome RunCheck(const CheckText& check, const Settings& settings, unsigned int timeoutS) {
  const bool fresh = ThreadCount() > 1;
  return Run(timeoutS, "in the middle of the check", [&] {
    if (fresh) TryFreshProcess(check, settings);
    return RunHere(check.name, settings);
  });
}

}  // namespace conformance
