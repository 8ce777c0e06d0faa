// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// What the machine did beside the benchmark, from the files of proc: processor time of other programs and
/// processor time that a hypervisor took (both in CPUs, so 1 is one CPU all the time), and the pressure on
/// processors, memory and disks (per cent of the time in which a thread had to wait).
class MachineLoad {
 public:
  /// `root` is "/", or a recorded tree.
  explicit MachineLoad(std::string root);

  /// "load", "pressure" and "processor".
  std::vector<CounterSource> Sources() const;

  /// The values at `timeS`, over the time since the previous call; the first call returns none. The time of
  /// `benchmark`, of the programs that it started, of `helpers` and of this program is not that of others.
  /// After the benchmark has ended, there is no value for others.
  std::vector<CounterValue> Read(double timeS, pid_t benchmark, const std::vector<pid_t>& helpers = {});

 private:
  std::optional<double> PerSecond(const std::string& name, double count, double timeS);

  std::string root_;
  std::map<std::string, std::pair<double, double>> before_;  ///< name to time and count
};

}  // namespace scope
