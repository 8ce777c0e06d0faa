// SPDX-License-Identifier: Apache-2.0
#include "memory_limit.h"

#include <sys/sysinfo.h>

#include <algorithm>
#include <fstream>
#include <limits>

namespace Ormis::portable {

namespace {

constexpr std::uint64_t kUnlimited = std::numeric_limits<std::uint64_t>::max();

/// A file that is missing, or says "max", sets no limit.
std::uint64_t LimitIn(const std::string& file) {
  std::uint64_t bytes{};
  return std::ifstream(file) >> bytes ? bytes : kUnlimited;
}

/// The smallest limit of the group and those above it. In a container, the group's path may be the host's,
/// and the groups that the container sees begin at `mount`: folders that do not exist are passed over.
std::uint64_t LimitOfGroups(const std::string& mount, std::string group, const char* file) {
  std::uint64_t least = kUnlimited;
  for (;;) {
    least = std::min(least, LimitIn(mount + group + "/" + file));
    if (group.empty()) return least;
    group.erase(group.rfind('/') == std::string::npos ? 0 : group.rfind('/'));
  }
}

/// True when `list`, names with commas between them, has the controller of memory.
bool HasMemory(const std::string& list) {
  return ("," + list + ",").find(",memory,") != std::string::npos;
}

std::uint64_t MachineMemory() {
  struct sysinfo machine{};
  if (sysinfo(&machine) != 0) return kUnlimited;
  return std::uint64_t{machine.totalram} * machine.mem_unit;
}

}  // namespace

std::uint64_t MemoryLimit(const std::string& root) {
  std::uint64_t least = MachineMemory();
  std::ifstream groups(root + "/proc/self/cgroup");
  groups.exceptions(std::ios_base::badbit);  // want of memory is not the end of the file
  // NUMBER:CONTROLLERS:PATH. The controllers of version 2 are none.
  for (std::string line; std::getline(groups, line);) {
    const std::size_t first = line.find(':');
    const std::size_t second = first == std::string::npos ? first : line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const std::string controllers = line.substr(first + 1, second - first - 1);
    const std::string group = line.substr(second + 1);
    if (controllers.empty()) {
      least = std::min(least, LimitOfGroups(root + "/sys/fs/cgroup", group, "memory.max"));
    } else if (HasMemory(controllers)) {
      least = std::min(least, LimitOfGroups(root + "/sys/fs/cgroup/memory", group, "memory.limit_in_bytes"));
    }
  }
  return least;
}

}  // namespace Ormis::portable
