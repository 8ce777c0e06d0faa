// SPDX-License-Identifier: Apache-2.0
#include "stream_runs.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <utility>

#include "engines.h"
#include "protocol.h"
#include "run_error.h"
#include "run_keys.h"
#include "text_format.h"

namespace scope {
namespace {

// Channels may have different engines, and the meter does not see which one a channel has.
bool HasMixedEngines(const Run& run) {
  std::set<std::string> engines;
  for (const auto& [channel, engine] : run.info.conditions.encoderEngines) engines.insert(engine);
  return engines.size() > 1;
}

bool CanCompare(const Run& run) {
  static const std::set<std::string> kStates = {"judged", kPartlyJudged, "alone", "learning"};
  const std::string venc = Engines()[static_cast<std::size_t>(Engine::kVenc)].id;
  const auto& checks = run.info.verification;
  const auto at = std::find_if(checks.begin(), checks.end(),
                               [&venc](const EngineCheck& check) { return check.engine == venc; });
  return at != checks.end() && kStates.count(at->state) != 0 && !HasMixedEngines(run);
}

// What decides which streams an encoder makes of equal frames.
std::string EncoderOf(const Run& run) {
  static const std::set<std::string> kNames = {"tool", "build_type", "library_versions", "platform_settings",
                                               "cpu_model"};
  std::string text = run.info.tool;
  for (const RunText& row : RunTexts(run.info)) {
    if (kNames.count(row.key.name) != 0) text += "\n" + row.text;
  }
  const auto& engines = run.info.conditions.encoderEngines;
  return text + "\n" + (engines.empty() ? "" : engines.front().second);
}

using Hashes = std::vector<std::pair<const Run*, std::string>>;

// The hash that most runs have, and the first run that has it.
Hashes::value_type MostCommon(const Hashes& hashes) {
  Hashes::value_type most;
  std::ptrdiff_t times = 0;
  for (const auto& one : hashes) {
    const auto count = std::count_if(hashes.begin(), hashes.end(),
                                     [&one](const auto& other) { return other.second == one.second; });
    if (count <= times) continue;
    times = count;
    most = one;
  }
  return most;
}

struct Deviation {
  std::size_t group;
  const Run* reference;
};

}  // namespace

std::vector<std::string> DifferentStreams(const std::vector<const Run*>& runs) {
  // From the encoder, the key of its streams and the group to the runs that have it.
  std::map<std::pair<std::pair<std::string, std::string>, std::size_t>, Hashes> all;
  for (const Run* run : runs) {
    if (!CanCompare(*run)) continue;
    for (const StreamHashes& streams : run->info.streams) {
      for (std::size_t i = 0; i < std::min<std::size_t>(streams.groups.size(), kStreamGroups); ++i) {
        if (streams.groups[i].empty()) continue;
        all[{{EncoderOf(*run), streams.key}, i}].emplace_back(run, streams.groups[i]);
      }
    }
  }
  std::map<const Run*, Deviation> deviations;
  for (auto& [key, hashes] : all) {
    // What a run makes after its first deviation says nothing about others.
    const auto deviates = [&deviations](const auto& one) { return deviations.count(one.first) != 0; };
    hashes.erase(std::remove_if(hashes.begin(), hashes.end(), deviates), hashes.end());
    if (hashes.empty()) continue;
    const auto [reference, right] = MostCommon(hashes);
    for (const auto& [run, hash] : hashes) {
      if (hash != right) deviations[run] = {key.second, reference};
    }
  }
  std::vector<std::string> texts;
  for (const Run* run : runs) {
    const auto at = deviations.find(run);
    if (at == deviations.end()) continue;
    const auto group = static_cast<std::uint32_t>(at->second.group);
    texts.push_back(
        Format("venc: of equal frames, the streams of %s differ from those of %s, first in frames "
               "%llu to %llu of a channel: something was wrong in one of them, or the encoder does not "
               "always make the same streams",
               run->folder.c_str(), at->second.reference->folder.c_str(),
               static_cast<unsigned long long>(GroupBegin(group) + 1),
               static_cast<unsigned long long>(GroupBegin(group + 1))));
  }
  return texts;
}

}  // namespace scope
