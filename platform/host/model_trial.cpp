// SPDX-License-Identifier: Apache-2.0
#include "model_trial.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

#include "diagnostics.h"
#include "model_files.h"
#include "settings.h"

namespace Ormis::host {

namespace {

constexpr char kProgram[] = "ormis/model_trial";  // beside the library

/// What the result of a trial depends on: the files, and the limits.
using Question = std::tuple<std::vector<FileState>, unsigned int, unsigned int, unsigned int>;

std::mutex trialMutex;
std::map<Question, TrialResult> answers;

std::string ProgramPath() {
  return PathBesideLibrary(kProgram);
}

class Pipe {
 public:
  Pipe() {
    (void)pipe2(ends_, O_CLOEXEC);  // leaves them as they are where it fails
  }
  ~Pipe() {
    Close(ends_[0]);
    Close(ends_[1]);
    Close(ended_);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  bool Ok() const { return ends_[0] >= 0; }
  bool Killed() const { return killed_; }
  int WriteEnd() const { return ends_[1]; }

  /// Returns all that `writer` writes until it ends, and kills it after `limit`. Does not wait for the end of
  /// the pipe: a process that another thread forked meanwhile holds the write end open as long as it lives.
  std::string ReadAll(pid_t writer, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    Close(ends_[1]);
    // Fails on a kernel before 5.3. poll then ignores it, and the end of the pipe is waited for.
    ended_ = static_cast<int>(syscall(SYS_pidfd_open, writer, 0));
    const bool isGone = ended_ < 0 && errno == ESRCH;  // where the application ignores SIGCHLD
    pollfd events[] = {{ends_[0], POLLIN, 0}, {ended_, POLLIN, 0}};
    std::string text;
    char part[512];
    for (;;) {
      // The callers' lock is held on purpose: one trial at a time.
      // NOLINTBEGIN(clang-analyzer-unix.BlockInCriticalSection)
      const int ready = poll(events, std::size(events), isGone ? 0 : WaitMs(end));
      if (ready < 0) continue;  // a signal
      if (ready == 0 && !isGone) Kill(writer);
      if (events[0].revents == 0) return text;  // the process has ended, and all it wrote has been read
      const ssize_t size = read(ends_[0], part, sizeof part);
      // NOLINTEND(clang-analyzer-unix.BlockInCriticalSection)
      if (size <= 0) return text;
      text.append(part, static_cast<std::size_t>(size));
    }
  }

 private:
  static void Close(int& descriptor) {
    if (descriptor >= 0) (void)close(std::exchange(descriptor, -1));
  }

  /// Milliseconds until `end`, which is a day from now at most.
  static int WaitMs(std::chrono::steady_clock::time_point end) {
    const auto left = end - std::chrono::steady_clock::now();
    const auto leftMs = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::max<std::int64_t>(leftMs, 0));
  }

  void Kill(pid_t writer) {
    killed_ = true;
    // Not by its number where that can be avoided: a process that has ended and was waited for has none.
    if (ended_ < 0 || syscall(SYS_pidfd_send_signal, ended_, SIGKILL, nullptr, 0) != 0) {
      (void)kill(writer, SIGKILL);
    }
  }

  int ends_[2] = {-1, -1};
  int ended_ = -1;  ///< readable when the writer has ended
  bool killed_ = false;
};

/// The environment without LD_PRELOAD, which would load foreign code into the process.
std::vector<char*> TrialEnvironment() {
  std::vector<char*> variables;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    if (std::strncmp(*variable, "LD_PRELOAD=", 11) != 0) variables.push_back(*variable);
  }
  variables.push_back(nullptr);
  return variables;
}

/// Starts the process with `output` as its standard output; it inherits no other descriptor. Returns 0 or an
/// error number.
int Start(const std::string& path, int output, pid_t& child) {
  std::string program = ProgramPath();
  std::string file = path;
  std::string processorS = std::to_string(CurrentSettings().trialProcessorS);
  std::string memoryPercent = std::to_string(CurrentSettings().trialMemoryPercent);
  char* const arguments[] = {program.data(), file.data(), processorS.data(), memoryPercent.data(), nullptr};
  std::vector<char*> environment = TrialEnvironment();

  // The GNU C library's cannot fail.
  posix_spawn_file_actions_t files;
  (void)posix_spawn_file_actions_init(&files);
  posix_spawnattr_t attributes;
  (void)posix_spawnattr_init(&attributes);
  // Ctrl-C reaches this process, too. Blocked, so that it does not look like a fault of the model.
  sigset_t blocked;
  (void)sigemptyset(&blocked);
  (void)sigaddset(&blocked, SIGINT);
  int error = posix_spawnattr_setsigmask(&attributes, &blocked);
  if (error == 0) error = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  if (error == 0) error = posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  if (error == 0) error = posix_spawn_file_actions_adddup2(&files, output, 1);
  if (error == 0) error = posix_spawn_file_actions_addopen(&files, 2, "/dev/null", O_WRONLY, 0);
  if (error == 0) error = posix_spawn_file_actions_addclosefrom_np(&files, 3);
  if (error == 0)
    error = posix_spawn(&child, program.c_str(), &files, &attributes, arguments, environment.data());
  (void)posix_spawnattr_destroy(&attributes);
  (void)posix_spawn_file_actions_destroy(&files);
  return error;
}

/// Waits for the process and describes how it ended. `killed`: its time was over.
std::string EndOf(pid_t child, bool killed) {
  int status = 0;
  pid_t waited = 0;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (killed) return "more than " + std::to_string(CurrentSettings().trialWallS) + " s by the clock";
  if (waited < 0) return "exit status unknown";  // the application ignores SIGCHLD
  if (!WIFSIGNALED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WTERMSIG(status) == SIGXCPU || WTERMSIG(status) == SIGKILL) {
    return "more than " + std::to_string(CurrentSettings().trialProcessorS) +
           " s of processor time, or more memory than there is";
  }
  const char* const name = sigdescr_np(WTERMSIG(status));
  return name != nullptr ? name : "signal " + std::to_string(WTERMSIG(status));
}

/// Reads the line of `step` from the process's output. Returns false where the process ended before it.
bool Find(const std::string& said, const std::string& step, Outcome& outcome) {
  const std::string head = step + ' ';
  for (std::size_t begin = 0; begin < said.size();) {
    const std::size_t end = std::min(said.find('\n', begin), said.size());
    if (said.compare(begin, head.size(), head) == 0) {
      int code = kQetInternal;
      const char* const line = said.data() + begin;
      const auto [rest, error] = std::from_chars(line + head.size(), said.data() + end, code);
      outcome.code = error == std::errc() ? static_cast<QetError>(code) : kQetInternal;
      outcome.reason.assign(rest, said.data() + end);
      outcome.reason.erase(0, outcome.reason.find_first_not_of(' '));
      return true;
    }
    begin = end + 1;
  }
  return false;
}

void WarnOnce(int error) {
  static std::atomic<bool> warned{false};
  if (warned.exchange(true)) return;
  Log().LogWarn({__FILE__, "TryModel", __LINE__})
      << "models are loaded without a trial: cannot run " << ProgramPath() << ": " << std::strerror(error);
}

}  // namespace

TrialResult TryModel(const std::string& path) {
  if (!IsRegularFile(path)) return {};  // OnnxModel::Load reports why it is not one
  const std::lock_guard<std::mutex> lock(trialMutex);
  const Settings& settings = CurrentSettings();
  const Question question{StatesOfModel(path), settings.trialProcessorS, settings.trialWallS,
                          settings.trialMemoryPercent};
  if (const auto found = answers.find(question); found != answers.end()) return found->second;

  Log().LogInfo({__FILE__, "TryModel", __LINE__})
      << "QetDNNModelInitialize: trying model " << path << " in a process of its own, for at most "
      << settings.trialProcessorS << " s of processor time and " << settings.trialWallS << " s by the clock";
  Pipe pipe;
  pid_t child = 0;
  const int error = pipe.Ok() ? Start(path, pipe.WriteEnd(), child) : errno;
  if (error != 0) {
    WarnOnce(error);
    return {};
  }
  const std::string said = pipe.ReadAll(child, std::chrono::seconds(settings.trialWallS));
  const std::string end = EndOf(child, pipe.Killed());

  TrialResult result;
  if (!Find(said, kTrialLoaded, result.load)) {
    result.load = {kQetModelUnreadable,
                   "cannot load model " + path + ": the engine died of it in a trial: " + end};
  } else if (result.load.Ok() && !Find(said, kTrialRan, result.run)) {
    result.run = {kQetInferenceFailure, "the engine died of the first inference in a trial: " + end};
  }
  answers.emplace(question, result);
  return result;
}

}  // namespace Ormis::host
