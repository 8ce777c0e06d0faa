// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace scope {

/// How the benchmark is started and ended.
struct RunSettings {
  std::string benchmark;  ///< program; empty: stress_benchmark beside this program
  std::string meter;      ///< library; empty: libstress_scope.so in the lib folder beside this program's
  bool useMeter = true;   ///< false: only rate lines, counters and conditions
  std::vector<std::string> extra;  ///< further arguments of the benchmark
  std::string systemRoot = "/";    ///< folder that contains sys and proc
  double stopAfterS = 0;           ///< SIGINT ends the run after these seconds; 0: it ends by itself
  double graceS = 15;              ///< after its run time, a benchmark that is silent for so long has hung
};

}  // namespace scope
