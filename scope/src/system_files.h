#pragma once

#include <optional>
#include <string>
#include <vector>

/// Reading the small files of sys and proc. Absent and unreadable ones are no values, never errors.
namespace scope {

/// The file's text without the white space at its end; errno says why there is none.
std::optional<std::string> ReadText(const std::string& path);

/// The file's text as a number; none where it is something else.
std::optional<double> ReadNumber(const std::string& path);

/// Names in the folder, sorted; those of numbered things in the order of their numbers. Empty where it is
/// missing.
std::vector<std::string> ListFolder(const std::string& path);

}  // namespace scope
