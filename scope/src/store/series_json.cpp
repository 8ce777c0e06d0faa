// SPDX-License-Identifier: Apache-2.0
#include "series_json.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "durable_file.h"
#include "errors.h"
#include "folder_file.h"
#include "folder_json.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

const std::array<std::pair<SweepState, const char*>, 6> kStates = {
    {{SweepState::kPlanned, "planned"},
     {SweepState::kRunning, "running"},
     {SweepState::kDone, "done"},
     {SweepState::kFailed, "failed"},
     {SweepState::kHung, "hung"},
     {SweepState::kInterrupted, "interrupted"}}};

}  // namespace

bool IsSeriesFolder(const std::string& folder, const SeriesKind& kind) {
  std::error_code ignored;
  return fs::exists(fs::path(folder) / kind.file, ignored);
}

SeriesJson ReadSeriesJson(const std::string& folder, const SeriesKind& kind) {
  const std::string path = folder + "/" + kind.file;
  const std::optional<std::string> text = ReadFolderFile(path, kMostJsonBytes);
  if (!text) {
    throw UserError(folder + ": not " + kind.what + ": cannot read " + kind.file + ": " +
                    std::strerror(errno));
  }
  return ParseSeriesJson(*text, path, kind);
}

SeriesJson ParseSeriesJson(const std::string& text, const std::string& path, const SeriesKind& kind) {
  return ReadFrom(path, [&] {
    SeriesJson json = ParseFolderJson(text, path);
    int format = 0;
    GetField(json, "format", format);
    if (format < kind.firstFormat || format > kind.format) {
      const std::string first = std::to_string(kind.firstFormat);
      throw UserError("written in format " + std::to_string(format) + ", this program reads " +
                      (kind.firstFormat == kind.format
                           ? "format " + first
                           : "formats " + first + " to " + std::to_string(kind.format)));
    }
    if (json.at("kind").get<std::string>() != kind.kind) throw UserError(std::string("not ") + kind.what);
    return json;
  });
}

SeriesJson SeriesHead(const SeriesKind& kind, const std::string& started, const std::string& configPath) {
  return SeriesJson{{"format", kind.format},
                    {"tool", kToolVersion},
                    {"kind", kind.kind},
                    {"started", started},
                    {"config", SeriesJson{{"path", configPath}}}};
}

std::string SeriesText(const SeriesJson& json) {
  return json.dump(2, ' ', false, SeriesJson::error_handler_t::replace) + '\n';
}

void WriteSeriesJson(const std::string& folder, const SeriesKind& kind, const SeriesJson& json) {
  ReplaceFile(folder + "/" + kind.file, SeriesText(json));
}

SeriesJson SettingsJson(const BoardSettings& settings) {
  SeriesJson json = SeriesJson::object();
  for (const auto& [name, value] : settings) json[name] = value;
  return json;
}

BoardSettings SettingsFromJson(const SeriesJson& json) {
  BoardSettings settings;
  for (const auto& [name, value] : json.items()) settings.emplace_back(name, value.get<std::string>());
  return settings;
}

const char* TextOfState(SweepState state) {
  return std::find_if(kStates.begin(), kStates.end(), [state](const auto& one) { return one.first == state; })
      ->second;
}

SweepState StateOf(const SeriesJson& run, const std::string& path) {
  const auto text = run.at("state").get<std::string>();
  const auto* const at =
      std::find_if(kStates.begin(), kStates.end(), [&text](const auto& one) { return text == one.second; });
  if (at == kStates.end()) throw DamagedFolder(path + ": a run has the unknown state \"" + text + "\"");
  return at->first;
}

}  // namespace scope
