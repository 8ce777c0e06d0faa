// SPDX-License-Identifier: Apache-2.0
#include "machine_load.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

#include "system_files.h"

namespace scope {
namespace {

constexpr const char* kLoad = "load";
constexpr const char* kPressure = "pressure";
constexpr const char* kProcessor = "processor";

struct CpuTimes {
  double busy = 0;  ///< clock ticks; idle time, waits for a disk and steal are not in it
  double steal = 0;
};

std::optional<CpuTimes> ReadCpuTimes(const std::string& path) {
  std::istringstream text(ReadText(path).value_or(""));
  std::string name;
  // user, nice, system, idle, iowait, irq, softirq, steal
  std::array<double, 8> ticks{};
  text >> name;
  for (double& tick : ticks) text >> tick;
  if (!text || name != "cpu") return {};
  return CpuTimes{ticks[0] + ticks[1] + ticks[2] + ticks[5] + ticks[6], ticks[7]};
}

/// User and system time, in clock ticks.
struct ProcessTicks {
  double own = 0;    ///< of all threads of the process
  double ended = 0;  ///< of the children that it has waited for, and of theirs
};

std::optional<ProcessTicks> ReadProcessTicks(const std::string& path) {
  const std::string text = ReadText(path).value_or("");
  // The second field is the program's name in brackets, which may contain anything.
  const std::size_t end = text.rfind(')');
  if (end == std::string::npos) return {};
  std::istringstream fields(text.substr(end + 1));
  std::string skipped;
  for (int field = 3; field != 14; ++field) fields >> skipped;
  double user = 0;
  double system = 0;
  double endedUser = 0;
  double endedSystem = 0;
  if (!(fields >> user >> system >> endedUser >> endedSystem)) return {};
  return ProcessTicks{user + system, endedUser + endedSystem};
}

// The children of all threads of the process. The kernel lists a child with the thread that started it. One
// that was built without these lists shows a child's time only when the child has ended.
std::vector<std::string> ChildrenOf(const std::string& process) {
  std::vector<std::string> children;
  for (const std::string& thread : ListFolder(process + "/task")) {
    std::istringstream text(ReadText(process + "/task/" + thread + "/children").value_or(""));
    for (std::string child; text >> child;) children.push_back(child);
  }
  return children;
}

// The time of the process and of all that it started, in clock ticks: a model is tried in a child, and a
// script may start the benchmark. A child's time moves to its parent when the parent has waited for it. So
// the parent is read first: a child that is gone by then is in the parent's time alone.
std::optional<double> ReadTreeTicks(const std::string& proc, pid_t process) {
  std::vector<std::string> ids{std::to_string(process)};
  double sum = 0;
  for (std::size_t i = 0; i != ids.size(); ++i) {
    const std::string folder = proc + "/" + ids[i];
    // A child moves to another thread if its own ends, and may be listed twice.
    for (const std::string& child : ChildrenOf(folder)) {
      if (std::find(ids.begin(), ids.end(), child) == ids.end()) ids.push_back(child);
    }
    const std::optional<ProcessTicks> ticks = ReadProcessTicks(folder + "/stat");
    if (!ticks && i == 0) return {};
    if (ticks) sum += ticks->own + ticks->ended;
  }
  return sum;
}

// The microseconds in which some thread waited.
std::optional<double> ReadStalledUs(const std::string& path) {
  const std::string text = ReadText(path).value_or("");
  const std::string line = text.substr(0, text.find('\n'));
  const std::size_t at = line.find(" total=");
  if (line.rfind("some ", 0) != 0 || at == std::string::npos) return {};
  double value = 0;
  return std::istringstream(line.substr(at + 7)) >> value ? std::optional(value) : std::nullopt;
}

CounterSource SourceOf(const char* source, const std::string& path) {
  if (ReadText(path)) return {source, true, ""};
  return {source, false, "cannot read " + path + ": " + std::strerror(errno)};
}

}  // namespace

MachineLoad::MachineLoad(std::string root) : root_(std::move(root)) {}

std::vector<CounterSource> MachineLoad::Sources() const {
  return {SourceOf(kLoad, root_ + "/proc/stat"), SourceOf(kPressure, root_ + "/proc/pressure/cpu"),
          SourceOf(kProcessor, root_ + "/proc/self/stat")};
}

std::vector<CounterValue> MachineLoad::Read(double timeS, pid_t benchmark,
                                            const std::vector<pid_t>& helpers) {
  std::vector<CounterValue> values;
  const auto add = [&](const char* source, const char* name, const char* unit, double count) {
    const std::optional<double> rate = PerSecond(std::string(source) + "/" + name, count, timeS);
    // The files are read one after the other, and ticks are counted late: a difference may be below 0.
    if (rate) values.push_back({timeS, source, name, unit, std::max(0.0, *rate)});
  };
  const std::optional<ProcessTicks> recorder = ReadProcessTicks(root_ + "/proc/self/stat");
  double ofHelpers = 0;
  for (const pid_t helper : helpers) {
    const auto ticks = ReadProcessTicks(root_ + "/proc/" + std::to_string(helper) + "/stat");
    if (ticks) ofHelpers += ticks->own;
  }
  const std::optional<double> ofBenchmark = ReadTreeTicks(root_ + "/proc", benchmark);
  const auto ticksPerS = static_cast<double>(sysconf(_SC_CLK_TCK));
  if (ofBenchmark) add(kProcessor, "benchmark", "CPUs", *ofBenchmark / ticksPerS);
  if (!helpers.empty()) add(kProcessor, "helpers", "CPUs", ofHelpers / ticksPerS);
  if (const std::optional<CpuTimes> times = ReadCpuTimes(root_ + "/proc/stat")) {
    if (recorder && ofBenchmark) {
      const double own = recorder->own + ofHelpers + *ofBenchmark;
      add(kLoad, "others", "CPUs", (times->busy - own) / ticksPerS);
    }
    add(kLoad, "steal", "CPUs", times->steal / ticksPerS);
  }
  for (const char* const name : {"cpu", "memory", "io"}) {
    const std::optional<double> us = ReadStalledUs(root_ + "/proc/pressure/" + name);
    if (us) add(kPressure, name, "%", *us * 1e-4);
  }
  return values;
}

std::optional<double> MachineLoad::PerSecond(const std::string& name, double count, double timeS) {
  const auto before = before_.find(name);
  std::optional<double> rate;
  if (before != before_.end() && timeS > before->second.first) {
    rate = (count - before->second.second) / (timeS - before->second.first);
  }
  before_[name] = {timeS, count};
  return rate;
}

}  // namespace scope
