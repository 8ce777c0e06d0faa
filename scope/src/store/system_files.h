#pragma once

#include <optional>
#include <string>
#include <vector>

/// Reading files, above all the small ones of sys and proc. Absent and unreadable ones are no values, never
/// errors.
namespace scope {

/// All that is in the file; errno says why there is none. Throws std::bad_alloc.
std::optional<std::string> ReadFile(const std::string& path);

/// The file's text without the white space at its end; errno says why there is none.
std::optional<std::string> ReadText(const std::string& path);

/// The file's text as a finite number; none where it is something else.
std::optional<double> ReadNumber(const std::string& path);

/// The CPUs of a list such as "0-3,6"; empty where it is none.
std::vector<int> ParseCpuList(const std::string& text);

/// Names in the folder, sorted; those of numbered things in the order of their numbers. Empty where it is
/// missing.
std::vector<std::string> ListFolder(const std::string& path);

}  // namespace scope
