// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <ctime>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace Ormis::host {

/// Identifies a file and its present content: changes when the file is replaced or written. Device, inode,
/// size, and the times of the last change of content and of the file. All zero: there is no such file.
using FileState = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long>;

/// The files with weights that the model file `path` names, as it names them: relative to its folder. From
/// a damaged file it returns the names that it could read.
std::set<std::string> ExternalWeights(const std::string& path);

bool IsRegularFile(const std::string& path);

/// The states of all files that the model consists of: the model file, its file of inputs, its weights.
std::vector<FileState> StatesOfModel(const std::string& path);

}  // namespace Ormis::host
