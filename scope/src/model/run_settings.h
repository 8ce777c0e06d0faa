#pragma once

#include <string>
#include <vector>

namespace scope {

/// How the benchmark is started and ended.
struct RunSettings {
  std::string benchmark;  ///< program; empty: stress_benchmark beside this program
  std::string meter;      ///< library; empty: libstress_scope.so in the lib folder beside this program's
  bool useMeter = true;   ///< false: rate lines, counters and conditions alone
  std::vector<std::string> extra;  ///< further arguments of the benchmark
  std::string systemRoot = "/";    ///< where sys and proc are
  double stopAfterS = 0;           ///< seconds after which SIGINT ends the run; 0: it ends by itself
  double graceS = 15;              ///< seconds without a sign of life, past the run time, that count as hung
};

}  // namespace scope
