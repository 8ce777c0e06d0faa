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

// User and system time of all threads of a process, in clock ticks.
std::optional<double> ReadProcessTicks(const std::string& path) {
  const std::string text = ReadText(path).value_or("");
  // The second field is the program's name in brackets, which may contain anything.
  const std::size_t end = text.rfind(')');
  if (end == std::string::npos) return {};
  std::istringstream fields(text.substr(end + 1));
  std::string skipped;
  for (int field = 3; field != 14; ++field) fields >> skipped;
  double user = 0;
  double system = 0;
  if (!(fields >> user >> system)) return {};
  return user + system;
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
  return {SourceOf(kLoad, root_ + "/proc/stat"), SourceOf(kPressure, root_ + "/proc/pressure/cpu")};
}

std::vector<CounterValue> MachineLoad::Read(double timeS, pid_t benchmark) {
  std::vector<CounterValue> values;
  const auto add = [&](const char* source, const char* name, const char* unit, double count) {
    const std::optional<double> rate = PerSecond(std::string(source) + "/" + name, count, timeS);
    // The files are read one after the other, and ticks are counted late: a difference may be below 0.
    if (rate) values.push_back({timeS, source, name, unit, std::max(0.0, *rate)});
  };
  const std::optional<double> own = ReadProcessTicks(root_ + "/proc/self/stat");
  const std::optional<double> child =
      ReadProcessTicks(root_ + "/proc/" + std::to_string(benchmark) + "/stat");
  if (const std::optional<CpuTimes> times = ReadCpuTimes(root_ + "/proc/stat")) {
    const auto ticksPerS = static_cast<double>(sysconf(_SC_CLK_TCK));
    if (own && child) add(kLoad, "others", "CPUs", (times->busy - *own - *child) / ticksPerS);
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
