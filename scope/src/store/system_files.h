// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

/// Reads files, mostly small ones of sys and proc. A missing or unreadable file gives no value and no error.
namespace scope {

/// The file's content. If there is none, errno says why. Throws std::bad_alloc.
std::optional<std::string> ReadFile(const std::string& path);

/// The file's text without white space at the end. If there is none, errno says why.
std::optional<std::string> ReadText(const std::string& path);

/// The file's text as a finite number; none if it is something else.
std::optional<double> ReadNumber(const std::string& path);

/// The numbers of a list such as "0-3,6"; empty if `text` is not such a list.
std::vector<int> ParseList(const std::string& text);

/// The names in the folder, sorted; numbers in names sort by value ("cpu2" before "cpu10"). Empty if the
/// folder is missing.
std::vector<std::string> ListFolder(const std::string& path);

}  // namespace scope
