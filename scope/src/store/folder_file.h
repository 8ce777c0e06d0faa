// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// Reads files of run folders and sweep folders. Such a folder may come from anywhere, so nothing in it is
/// trusted.
namespace scope {

/// No description of a run or a sweep is larger.
constexpr std::uint64_t kMostJsonBytes = 64ULL << 20;
/// No table is larger. A day of forty threads is a quarter of it.
constexpr std::uint64_t kMostTableBytes = 1ULL << 30;

/// The content of the file `path`; none if there is no such file. Throws DamagedFolder if it is no regular
/// file (a pipe would wait for its writer, a device has no end), if it has more than `mostBytes`, and if it
/// cannot be read.
std::optional<std::string> ReadFolderFile(const std::string& path, std::uint64_t mostBytes);

/// The last line of the text file `path` that is not empty, at most its last `mostBytes`. Empty if there is
/// none, or no such regular file.
std::string LastLine(const std::string& path, std::size_t mostBytes);

/// HashOf the file's content, which is not kept in memory. Otherwise as ReadFolderFile.
std::optional<std::string> HashFolderFile(const std::string& path, std::uint64_t mostBytes);

}  // namespace scope
