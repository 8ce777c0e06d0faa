// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace scope {

/// The folders of cells of a fleet.
struct NightFolders {
  std::vector<std::pair<std::string, std::string>> nights;  ///< names and folders, in their order
  std::vector<std::string> notes;                           ///< what was left out
};

/// Finds the nights in `folder`, which is one itself, or has folders of cells in it. Throws UserError if
/// there is none, if a folder cannot be read, and if the newest one has no plan.
NightFolders FindNights(const std::string& folder);

}  // namespace scope
