// SPDX-License-Identifier: Apache-2.0
#include "series.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <optional>
#include <utility>

#include "conditions.h"
#include "configuration.h"
#include "durable_file.h"
#include "errors.h"
#include "folder_file.h"
#include "latency_probe.h"
#include "memory_size.h"
#include "printable.h"
#include "run_reader.h"
#include "tell.h"
#include "text_format.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

}  // namespace

std::string AbsolutePath(const std::string& path) {
  return fs::absolute(path).lexically_normal().string();
}

void MakeAbsolute(RunSettings& settings) {
  for (std::string* path : {&settings.benchmark, &settings.meter}) {
    if (!path->empty()) *path = AbsolutePath(*path);
  }
}

void FixLatencySize(RunSettings& settings) {
  const std::uint64_t available = AvailableBytes(settings.systemRoot);
  if (available == 0) return;  // nothing is taken from it then
  // A later run may find a little less. It must not be refused what this one chose.
  constexpr std::uint64_t kSparedShare = 8;
  const bool isGiven = !settings.latencySize.empty() && settings.latencySize.back() != '%';
  const std::uint64_t bytes = LatencyBytes(settings.latencySize, ReadConditions(settings.systemRoot).caches,
                                           isGiven ? available : available - available / kSparedShare);
  constexpr std::uint64_t kMebibyteBytes = std::uint64_t{1} << 20;
  settings.latencySize =
      bytes % kMebibyteBytes == 0 ? std::to_string(bytes / kMebibyteBytes) + "M" : std::to_string(bytes);
}

void RequireAllRead(const std::string& config) {
  const std::vector<std::string> sentences = UnreadSections(config);
  if (!sentences.empty()) throw UserError(Joined(sentences, "\n"));
}

double RunSeconds(const std::string& config, const RunSettings& settings) {
  unsigned int runTimeS = 0;
  (void)ReadConfiguration(config, runTimeS);
  const double whole = runTimeS;
  return settings.stopAfterS > 0 ? std::min(settings.stopAfterS, whole) : whole;
}

void CheckRunLength(double runS, double warmupS, double leastS) {
  if (runS >= warmupS + leastS) return;
  throw UserError(Format("a run of %g s is too short for a warm-up of %g s: at least %g s must remain", runS,
                         warmupS, leastS));
}

std::unique_ptr<FolderLock> MakeSeriesFolder(const std::string& folder, const std::string& config) {
  if (IsTaken(folder)) {
    throw UserError(folder + " exists and is not an empty folder: choose another one");
  }
  MakeFolder(folder);
  auto lock = std::make_unique<FolderLock>(folder);
  ReplaceFile(folder + "/" + kSeriesConfig, config);
  return lock;
}

std::string ReadSeriesConfig(const std::string& folder) {
  constexpr std::uint64_t kMostBytes = 1 << 20;
  const std::string path = folder + "/" + kSeriesConfig;
  std::optional<std::string> text = ReadFolderFile(path, kMostBytes);
  if (!text)
    throw DamagedFolder(path +
                        " is missing: all runs are made from it. Put it back, or record into another folder");
  return std::move(*text);
}

bool IsRecorded(const std::string& folder) {
  if (!IsRunFolder(folder)) return false;
  try {
    return ReadRunInfo(folder).complete;
  } catch (const DamagedFolder& error) {
    Tell(error.what() + std::string("; the run is recorded again"));
    return false;
  }
}

void TellWhatRuns(const std::string& file, const std::vector<std::pair<const char*, std::string>>& named,
                  Output output) {
  if (output == Output::kQuiet) return;
  for (const auto& [what, text] : named) {
    if (text.empty()) continue;
    const std::string sentence = file + " names the " + what + ": " + text;
    if (output == Output::kJson) {
      Tell(sentence);
    } else {
      std::cout << Printable(sentence) << std::endl;
    }
  }
}

void TellOfEarlyEnd(bool isStuck, const std::string& command, const std::string& folder) {
  const std::string kept = "; the finished runs are kept. ";
  Tell((isStuck ? "ended early: a process that SIGKILL does not end would disturb the next runs" + kept +
                      "When it is gone, at the latest after a restart of the machine, continue with: "
                : "interrupted" + kept + "Continue with: ") +
       "stress_scope " + command + " --resume " + folder);
}

}  // namespace scope
