// SPDX-License-Identifier: Apache-2.0
#include "board_cells.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "child_process.h"
#include "durable_file.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// The scripts know no more of the board than a POSIX shell, tar and sha256sum, as busybox has them. Their
// arguments begin with the folder.

// PLAN SUM: what is there.
constexpr const char* kLook = R"(
mkdir -p "$1/plan-$2" && cd "$1" || exit 1
size=0
[ ! -e "plan-$2/plan.json" ] || size=$(wc -c <"plan-$2/plan.json")
echo plan $((size))
if [ -n "$3" ] && [ -e "bundle-$3/sums" ] && (cd "bundle-$3" && sha256sum -c sums >/dev/null 2>&1); then
  echo bundle
fi
)";

// PLAN: takes the plan's file.
constexpr const char* kTakePlan = R"(
cd "$1/plan-$2" && cat >plan.json.part && mv plan.json.part plan.json
)";

// PLAN SUM: takes a bundle as a tar file, in place of those that are there: it is large.
constexpr const char* kTakeBundle = R"(
cd "$1" || exit 1
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

// PLAN SUM NUMBER OPTION...: runs the cell until it ends, or the input does.
constexpr const char* kRun = R"(
cd "$1" || exit 2
plan=$PWD/plan-$2
number=$4
scope=stress_scope
if [ -n "$3" ]; then
  cd "bundle-$3" || exit 2
  scope=$PWD/bin/stress_scope
fi
shift 4
exec 3<&0
"$scope" cell "$plan/plan.json" "$number" -o "$plan" --quiet "$@" </dev/null 3<&- &
run=$!
(
  while read -r line <&3; do :; done
  kill -TERM "$run"
) >/dev/null 2>&1 &
watch=$!
exec 3<&-
wait "$run"
status=$?
kill "$watch" 2>/dev/null
exit "$status"
)";

// PLAN CELL: sends the folders as a tar file, or nothing.
constexpr const char* kSend = R"(
cd "$1/plan-$2" || exit 1
cell=$3
set --
for folder in "$cell" "attempts/$cell"; do
  [ ! -e "$folder" ] || set -- "$@" "$folder"
done
[ $# = 0 ] || tar -c -f - "$@"
)";

// PLAN CELL
constexpr const char* kRemove = R"(
cd "$1/plan-$2" && rm -rf "$3" "attempts/$3"
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

BoardShell::Result BoardCells::Do(const char* what, BoardShell::Script script) {
  script.arguments.insert(script.arguments.begin(), {folder_, plan_});
  BoardShell::Result result = shell_.Run(script);
  if (result.status == 0) return result;
  const std::string line = result.errors.empty() ? "no message" : result.errors.back();
  const auto isFull = [](const std::string& text) { return text.find("No space left") != std::string::npos; };
  const auto full = std::find_if(result.errors.begin(), result.errors.end(), isFull);
  if (full != result.errors.end()) {
    throw UserError("the disk of " + shell_.Host() + " is full: cannot " + what + " (" + *full +
                    "). Make room for " + folder_ + " there");
  }
  throw UserError(shell_.Host() + " cannot " + what + ": " + line);
}

void BoardCells::Prepare(const std::string& bundle, const std::string& planPath) {
  sum_ = bundle.empty() ? "" : SumOf(bundle, signals_);
  const std::string there = Do("use the folder", {kLook, {sum_}, -1, -1, 0, 0}).output;
  const File plan(planPath, O_RDONLY);
  const std::string size = "plan " + std::to_string(fs::file_size(planPath)) + "\n";
  if (there.rfind(size, 0) != 0) (void)Do("take the plan", {kTakePlan, {}, plan.Number(), -1, 0, 0});
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
    (void)Do("take the programs", {kTakeBundle, {sum_}, unpack.Output(), -1, 0, 0});
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
  BoardShell::Script script{kRun, {folder_, plan_, sum_, std::to_string(number)}, -1, -1, limitS, 60};
  script.arguments.insert(script.arguments.end(), options.begin(), options.end());
  BoardShell::Result result = shell_.Run(script);
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
    (void)Do("send what it measured", {kSend, {cellFolder}, -1, file.Number(), 0, 0});
  }
  if (fs::file_size(archive) != 0) {
    (void)OutputOf({"tar", "-x", "--no-same-owner", "--no-same-permissions", "-f", archive, "-C", to},
                   signals_);
    RequirePlain(to, shell_.Host());
  }
  fs::remove(archive, ignored);
}

void BoardCells::Remove(const std::string& cellFolder) {
  (void)Do("remove what was brought back", {kRemove, {cellFolder}, -1, -1, 0, 0});
}

}  // namespace scope
