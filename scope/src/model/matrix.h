// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "sweep.h"

/// Who disturbs whom, as plain data: an engine alone, beside mixes of other engines, and beside threads that
/// only compute.
namespace scope {

/// The victim that is no engine: the latency of memory.
constexpr const char* kLatencyVictim = "latency";

struct MatrixVictim {
  std::string section;  ///< the section of an engine, "VPC", or kLatencyVictim
  int level = 1;        ///< 0 for kLatencyVictim
};

enum class MatrixPart {
  kLoad,    ///< the aggressors without a victim: how much processor time they take, and how
  kAlone,   ///< the victim alone
  kWith,    ///< the victim and the aggressors
  kControl  ///< the victim, and threads that take the aggressors' processor time and touch no memory
};

struct MatrixRun {
  std::string folder;  ///< within the matrix's
  MatrixPart part = MatrixPart::kAlone;
  std::string victim;  ///< MatrixVictim::section; empty for kLoad
  SweepLevels mix;     ///< the levels of the aggressors, all above 0; empty for kAlone
  int repeat = 1;      ///< from 1
  SweepState state = SweepState::kPlanned;
  std::string reason;  ///< why it failed; empty otherwise
};

struct Matrix {
  std::string started;     ///< UTC, ISO 8601
  std::string configPath;  ///< the user's file; the matrix's folder has a copy, config.yaml
  SweepSettings settings;
  std::vector<SweepAxis> axes;  ///< the aggressors' levels
  std::vector<MatrixVictim> victims;
  std::vector<int> ownCpus;  ///< CPUs that the victim has to itself; empty: none
  bool worst = false;        ///< look for the worst mix of the only victim, instead of recording all
  /// In a search for the worst mix: the runs that it has asked for so far. In the order of recording.
  std::vector<MatrixRun> runs;
};

}  // namespace scope
