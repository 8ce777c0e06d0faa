// SPDX-License-Identifier: Apache-2.0
#include "board_cells.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "cell_folder.h"
#include "child_process.h"
#include "durable_file.h"
#include "system_files.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// The scripts know no more of the board than a POSIX shell, tar, sha256sum and flock, as busybox has them.
// Their arguments begin with the folder.

// What a script exits with if another one has the folder.
constexpr int kBusyStatus = 75;

// Before a script that needs the folder for itself, after a line patience=SECONDS. lock returns when no other
// script has the folder that descriptor 9 is. It is free again when no process has this descriptor. Not all
// versions of flock can wait with a limit.
constexpr const char* kLock = R"(
lock() {
  command -v flock >/dev/null || { echo "flock is missing" >&2; exit 1; }
  until flock -n 9; do
    [ "$patience" -gt 0 ] || { echo "another stress_scope uses $PWD" >&2; exit 75; }
    patience=$((patience - 1))
    sleep 1
  done
}
)";

// PLAN SUM: what is there.
constexpr const char* kLook = R"(
mkdir -p "$1/plan-$2" && cd "$1" || exit 1
[ ! -e "plan-$2/plan.json" ] || echo plan $(sha256sum <"plan-$2/plan.json")
if [ -n "$3" ] && [ -e "bundle-$3/sums" ] && (cd "bundle-$3" && sha256sum -c sums >/dev/null 2>&1); then
  echo bundle
fi
)";

// PLAN: takes the plan's file.
constexpr const char* kTakePlan = R"(
cd "$1/plan-$2" && cat >plan.json.part && mv plan.json.part plan.json
)";

// PLAN SUM: takes a bundle as a tar file, in place of those that are there: it is large. Locked: nothing runs
// from them.
constexpr const char* kTakeBundle = R"(
cd "$1" && exec 9<. || exit 1
lock
base=$PWD
bundle=bundle-$3
fail() {
  cd "$base" && rm -rf "$bundle" "$bundle.part"
  exit 1
}
rm -rf bundle-* && mkdir "$bundle.part" || exit 1
tar -x -f - -C "$bundle.part" || fail
set -- "$bundle.part"/*
if [ $# != 1 ] || [ ! -x "$1/prepare" ]; then
  echo "what was sent is no tar file of scripts/bundle" >&2
  fail
fi
mv "$1" "$bundle" && rmdir "$bundle.part" && cd "$bundle" || fail
./prepare >/dev/null </dev/null || fail
find . -type f ! -name sums.part -exec sha256sum {} + >sums.part && sync || fail
)";

// PLAN SUM: the bundle that was taken is complete.
constexpr const char* kConfirmBundle = R"(
cd "$1/bundle-$3" && mv sums.part sums
)";

// PLAN SUM NUMBER OPTION...: runs the cell until it ends, or the input does. This script keeps the lock until
// then, also when the connection has ended. The run does not have it: what it leaves behind would keep it.
constexpr const char* kRun = R"(
cd "$1" || exit 2
plan=$PWD/plan-$2
bundle=$3
number=$4
shift 4
exec 3<&0 9<. || exit 2
(
  lock
  scope=stress_scope
  if [ -n "$bundle" ]; then
    [ -e "bundle-$bundle/sums" ] || { echo "another stress_scope has replaced the programs" >&2; exit 75; }
    cd "bundle-$bundle" || exit 2
    scope=$PWD/bin/stress_scope
  fi
  exec "$scope" cell "$plan/plan.json" "$number" -o "$plan" --quiet "$@" 9<&-
) </dev/null 3<&- &
run=$!
(
  while read -r line <&3; do :; done
  kill -TERM "$run"
) >/dev/null 2>&1 9<&- &
watch=$!
exec 3<&-
wait "$run"
status=$?
kill "$watch" 2>/dev/null
exit "$status"
)";

// PLAN CELL: sends the folders as a tar file, or nothing.
constexpr const char* kSend = R"(
cd "$1" && exec 9<. || exit 1
lock
cd "plan-$2" || exit 1
cell=$3
set --
for folder in "$cell" "attempts/$cell"; do
  [ ! -e "$folder" ] || set -- "$@" "$folder"
done
[ $# = 0 ] || tar -c -f - "$@"
)";

// PLAN CELL FOLDER...: removes these folders.
constexpr const char* kRemove = R"(
cd "$1" && exec 9<. || exit 1
lock
cd "plan-$2" || exit 1
cell=$3
shift 3
rm -rf -- "$@" && { rmdir "attempts/$cell" 2>/dev/null || :; }
)";

class File {
 public:
  File(const std::string& path, int flags) : number_(open(path.c_str(), flags | O_CLOEXEC, 0666)) {
    if (number_ < 0) throw UserError("cannot open " + path + ": " + std::strerror(errno));
  }
  ~File() { (void)close(number_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int Number() const { return number_; }

 private:
  int number_;
};

// Runs a program of this machine and returns the lines of its standard output. Throws UserError if it fails.
std::vector<std::string> OutputOf(const std::vector<std::string>& command, Signals& signals) {
  ChildProcess::Options options;
  options.program = "/usr/bin/env";
  options.arguments = command;
  options.takeErrors = true;
  ChildProcess child(options);
  LineReader output;
  LineReader errors;
  std::vector<std::string> lines;
  std::vector<std::string> messages;
  const auto take = [&] {
    (void)output.Read(child.Output(), lines);
    (void)errors.Read(child.Errors(), messages);
  };
  while (!child.HasEnded()) {
    pollfd waits[] = {{output.AtEnd() ? -1 : child.Output(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
    (void)poll(waits, 2, 1000);
    take();
    if (signals.TakeStop()) throw UserError("interrupted by a signal");
  }
  take();
  if (child.EndSignal() == 0 && child.ExitStatus() == 0) return lines;
  throw UserError(command[0] + " fails: " + (messages.empty() ? "without a message" : messages.back()));
}

std::string SumOf(const std::string& path, Signals& signals) {
  (void)File(path, O_RDONLY);
  const std::vector<std::string> lines = OutputOf({"sha256sum", "--", path}, signals);
  // A backslash comes first if the name had to be escaped.
  const std::size_t begin = !lines.empty() && lines[0].rfind('\\', 0) == 0 ? 1 : 0;
  constexpr std::size_t kDigits = 64;
  if (lines.empty() || lines[0].size() < begin + kDigits)
    throw UserError("sha256sum gives no sum of " + path);
  return lines[0].substr(begin, kDigits);
}

// What comes from a board leads nowhere else.
void RequirePlain(const std::string& folder, const std::string& host) {
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::file_status status = entry->symlink_status(error);
    if (!fs::is_directory(status) && !fs::is_regular_file(status))
      throw UserError(host +
                      " sent something that is no file of a run: " + entry->path().filename().string());
  }
  if (error) throw UserError("cannot read the folder " + folder + ": " + error.message());
}

}  // namespace

std::string BoardCells::Locked(const char* script) const {
  return "patience=" + std::to_string(patienceS_) + kLock + script;
}

BoardShell::Result BoardCells::Do(const char* what, BoardShell::Script script) {
  script.arguments.insert(script.arguments.begin(), {folder_, plan_});
  // What its messages mean is read here.
  script.text = "LC_ALL=C\nexport LC_ALL\n" + script.text;
  BoardShell::Result result = shell_.Run(script);
  if (result.status == 0) return result;
  ThrowIfBusy(result);
  const std::string line = result.errors.empty() ? "no message" : result.errors.back();
  const auto isFull = [](const std::string& text) { return text.find("No space left") != std::string::npos; };
  const auto full = std::find_if(result.errors.begin(), result.errors.end(), isFull);
  if (full != result.errors.end()) {
    throw UserError("the disk of " + shell_.Host() + " is full: cannot " + what + " (" + *full +
                    "). Make room for " + folder_ + " there");
  }
  throw UserError(shell_.Host() + " cannot " + what + ": " + line);
}

void BoardCells::ThrowIfBusy(const BoardShell::Result& result) const {
  if (result.status != kBusyStatus) return;
  throw BoardAway(shell_.Host() + " is in use: " +
                  (result.errors.empty() ? "another stress_scope uses it" : result.errors.back()));
}

void BoardCells::Prepare(const std::string& bundle, const std::string& planPath, double patienceS) {
  patienceS_ = std::lround(patienceS);
  sum_ = bundle.empty() ? "" : SumOf(bundle, signals_);
  const std::string there = Do("use the folder", {kLook, {sum_}, -1, -1, 0, 0}).output;
  const File plan(planPath, O_RDONLY);
  if (there.rfind("plan " + SumOf(planPath, signals_), 0) != 0)
    (void)Do("take the plan", {kTakePlan, {}, plan.Number(), -1, 0, 0});
  if (!bundle.empty() && there.find("\nbundle\n") == std::string::npos) PutBundle(bundle);
}

void BoardCells::PutBundle(const std::string& bundle) {
  // The board may have no xz. What is not compressed is passed on as it is.
  ChildProcess::Options options;
  options.program = "/usr/bin/env";
  options.arguments = {"xz", "-dcf", "--", bundle};
  options.takeErrors = true;
  ChildProcess unpack(options);
  std::vector<std::string> errors;
  LineReader reader;
  try {
    (void)Do("take the programs", {Locked(kTakeBundle), {sum_}, unpack.Output(), -1, 0, 0});
  } catch (const BoardLost&) {
    throw;
  } catch (const UserError& error) {
    (void)reader.Read(unpack.Errors(), errors);
    if (errors.empty()) throw;
    throw UserError("cannot unpack " + bundle + ": " + errors.back());
  }
  // All that it wrote was taken. Whether that is all that there is, it says when it ends.
  while (!unpack.HasEnded()) (void)poll(nullptr, 0, 10);
  if (unpack.ExitStatus() != 0 || unpack.EndSignal() != 0)
    throw UserError("cannot unpack " + bundle + ": it is damaged");
  (void)Do("keep the programs", {kConfirmBundle, {sum_}, -1, -1, 0, 0});
}

BoardShell::Result BoardCells::Run(std::size_t number, const std::vector<std::string>& options,
                                   double limitS) {
  BoardShell::Script script{Locked(kRun), {folder_, plan_, sum_, std::to_string(number)}, -1, -1, limitS, 60};
  script.arguments.insert(script.arguments.end(), options.begin(), options.end());
  BoardShell::Result result = shell_.Run(script);
  ThrowIfBusy(result);
  // Who ends it does not want to wait for another one.
  constexpr long kPatienceAfterSignalS = 5;
  if (result.stopped) patienceS_ = std::min(patienceS_, kPatienceAfterSignalS);
  constexpr int kNotExecutable = 126;
  constexpr int kNotFound = 127;
  if (result.status == kNotExecutable || result.status == kNotFound) {
    throw UserError(shell_.Host() + " cannot start stress_scope" +
                    (sum_.empty() ? ": install the packages there, or give a bundle with --bundle"
                                  : ": is the bundle made for its processor?"));
  }
  return result;
}

void BoardCells::Fetch(const std::string& cellFolder, const std::string& to) {
  std::error_code ignored;
  fs::remove_all(to, ignored);
  MakeFolder(to);
  const std::string archive = to + ".tar";
  {
    const File file(archive, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
    (void)Do("send what it measured", {Locked(kSend), {cellFolder}, -1, file.Number(), 0, 0});
  }
  if (fs::file_size(archive) != 0) {
    (void)OutputOf({"tar", "-x", "--no-same-owner", "--no-same-permissions", "-f", archive, "-C", to},
                   signals_);
    RequirePlain(to, shell_.Host());
  }
  fs::remove(archive, ignored);
  fetched_.clear();
  const std::string attempts = std::string(kAttemptsName) + "/" + cellFolder;
  for (const std::string& name : ListFolder(to + "/" + attempts)) fetched_.push_back(attempts + "/" + name);
  if (fs::exists(to + "/" + cellFolder)) fetched_.push_back(cellFolder);
}

void BoardCells::Remove(const std::string& cellFolder) {
  BoardShell::Script script{Locked(kRemove), {cellFolder}, -1, -1, 0, 0};
  script.arguments.insert(script.arguments.end(), fetched_.begin(), fetched_.end());
  if (!fetched_.empty()) (void)Do("remove what was brought back", script);
}

}  // namespace scope
