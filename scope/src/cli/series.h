// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "command_line.h"
#include "folder_lock.h"
#include "run.h"

/// What commands share that record several runs into one folder.
namespace scope {

/// The copy of the benchmark's configuration in the folder of a series, and in that of each run.
constexpr const char* kSeriesConfig = "config.yaml";

/// Estimated time between two runs.
constexpr double kBetweenRunsS = 2;

/// The path from the root folder.
std::string AbsolutePath(const std::string& path);

/// Makes the paths of programs and libraries absolute: a series may be continued from another folder.
void MakeAbsolute(RunSettings& settings);

/// Chooses once how much memory the latency probe of all runs goes through, and puts it into the settings:
/// how much is available differs from run to run, and latencies over different memory are not compared. For
/// the same reason a share is one of seven eighths of what is available now. Throws UserError as LatencyBytes
/// does.
void FixLatencySize(RunSettings& settings);

/// Throws UserError if nothing reads a section of the configuration file, such as "cpu". The copies that the
/// runs get do not have it.
void RequireAllRead(const std::string& config);

/// The length of one run, in seconds. Throws UserError as ReadConfiguration does.
double RunSeconds(const std::string& config, const RunSettings& settings);

/// The figures leave out the first and the last second. A median needs two more.
constexpr double kLeastMeasuredS = 4;

/// Throws UserError if less than `leastS` of a run is left after the warm-up.
void CheckRunLength(double runS, double warmupS, double leastS = kLeastMeasuredS);

/// Makes the folder of a new series, locks it, and puts the configuration's text there. Throws UserError if
/// the folder exists and is not empty.
std::unique_ptr<FolderLock> MakeSeriesFolder(const std::string& folder, const std::string& config);

/// The configuration in the folder of a series, from which its runs are made. Throws UserError if it is
/// missing, no regular file, or larger than the benchmark reads.
std::string ReadSeriesConfig(const std::string& folder);

/// True if the folder of a run holds a complete recording. Prints a warning if its run.json is damaged.
bool IsRecorded(const std::string& folder);

/// Before a series is continued, whose folder may come from elsewhere: prints each program or command that
/// `file` names, with what it is for. Empty ones are left out. Beside JSON it goes to standard error; --quiet
/// leaves it out.
void TellWhatRuns(const std::string& file, const std::vector<std::pair<const char*, std::string>>& named,
                  Output output);

/// Prints why the series in `folder` ended before its runs did, and how `command` continues it. `isStuck`:
/// because what ran does not end; otherwise a signal came.
void TellOfEarlyEnd(bool isStuck, const std::string& command, const std::string& folder);

}  // namespace scope
