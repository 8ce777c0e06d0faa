// SPDX-License-Identifier: Apache-2.0
#include "fleet_folders.h"

#include <filesystem>
#include <map>
#include <set>
#include <system_error>

#include "errors.h"
#include "plan_file.h"
#include "system_files.h"
#include "text_format.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostNights = 5000;

[[noreturn]] void RefuseFolder(const std::string& path, const std::string& reason) {
  throw UserError("cannot read the folder " + path + ": " + reason);
}

bool IsNight(const std::string& folder) {
  std::error_code error;
  const fs::file_status plan = fs::symlink_status(folder + "/" + kPlanName, error);
  if (plan.type() == fs::file_type::none) RefuseFolder(folder, error.message());
  return fs::exists(plan);
}

// Names of folders that differ in their numbers alone are alike: 2026-11-21 and 2026-11-22.
std::string ShapeOf(const std::string& name) {
  std::string shape;
  for (const char letter : name) {
    const bool isDigit = letter >= '0' && letter <= '9';
    if (!isDigit || shape.empty() || shape.back() != '0') shape += isDigit ? '0' : letter;
  }
  return shape;
}

// The name of the folder, also of "night/" and of ".".
std::string NameOfFolder(const std::string& folder) {
  std::error_code ignored;
  const fs::path whole = fs::weakly_canonical(folder, ignored);
  return whole.filename().empty() ? folder : whole.filename().string();
}

bool LeadsNowhere(const fs::path& path) {
  std::error_code error;
  return fs::is_symlink(fs::symlink_status(path, error)) && !fs::exists(path, error);
}

// The folders in `folder`, each once: a link to another one of them is left out. Links that lead nowhere are
// among them: the night may lie on a disk that is away.
std::vector<std::string> FoldersIn(const std::string& folder) {
  std::error_code error;
  const fs::directory_iterator readable(folder, error);
  if (error) RefuseFolder(folder, error.message());
  std::vector<std::string> names;
  std::set<std::string> own;
  for (const std::string& name : ListFolder(folder)) {
    const fs::path path = folder + "/" + name;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::none) RefuseFolder(path.string(), error.message());
    if (!fs::is_directory(status) && !LeadsNowhere(path)) continue;
    names.push_back(name);
    if (!fs::is_symlink(fs::symlink_status(path, error))) own.insert(fs::canonical(path, error).string());
  }
  const auto isOther = [&](const std::string& name) {
    const fs::path path = folder + "/" + name;
    const bool isLink = fs::is_symlink(fs::symlink_status(path, error)) && !LeadsNowhere(path);
    return isLink && !own.insert(fs::canonical(path, error).string()).second;
  };
  names.erase(std::remove_if(names.begin(), names.end(), isOther), names.end());
  return names;
}

// The reason why `path` is no night.
std::string WhyNoNight(const fs::path& path) {
  return LeadsNowhere(path) ? "the link leads nowhere" : "there is no " + std::string(kPlanName);
}

// Says which folders are no nights, a note for each reason.
void NoteOthers(const std::string& folder, const std::vector<std::string>& others,
                std::vector<std::string>& notes) {
  std::map<std::string, std::vector<std::string>> reasons;
  for (const std::string& name : others) reasons[WhyNoNight(folder + "/" + name)].push_back(name);
  for (const auto& [reason, names] : reasons) {
    notes.push_back("left out, because " + reason + ": " + names.front() +
                    (names.size() > 1 ? " and " + Counted(names.size() - 1, "other folder") : ""));
  }
}

}  // namespace

NightFolders FindNights(const std::string& folder) {
  if (IsNight(folder)) return {{{NameOfFolder(folder), folder}}, {}};
  NightFolders found;
  auto& nights = found.nights;
  std::vector<std::string> others;
  std::vector<std::string> later;  // than the last night
  for (const std::string& name : FoldersIn(folder)) {
    const std::string path = folder + "/" + name;
    if (IsNight(path)) {
      nights.emplace_back(name, path);
      later.clear();
    } else {
      others.push_back(name);
      later.push_back(name);
    }
  }
  if (nights.empty()) {
    throw UserError(folder + ": expected a folder of cells, or folders of cells, one a night; found no " +
                    kPlanName + " in it or in a folder in it");
  }
  for (const std::string& name : later) {
    if (ShapeOf(name) != ShapeOf(nights.back().first)) continue;
    const std::string path = folder + "/" + name;
    const std::string reason = LeadsNowhere(path)
                                   ? ": the link to the newest night leads nowhere"
                                   : ": expected " + std::string(kPlanName) +
                                         " in the folder of the newest night: nothing was begun";
    throw UserError(path + reason + ". Without it, " + nights.back().first + " is judged");
  }
  NoteOthers(folder, others, found.notes);
  if (nights.size() > kMostNights) {
    found.notes.push_back("the first " + std::to_string(nights.size() - kMostNights) +
                          " nights are left out");
    nights.erase(nights.begin(), nights.end() - static_cast<std::ptrdiff_t>(kMostNights));
  }
  return found;
}

}  // namespace scope
