// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <yaml.h>

#include <cstdio>
#include <functional>
#include <string>

namespace Ormis::host {

/// The events of a YAML file, one after another. Messages name the file and the line of the present event.
class YamlEvents {
 public:
  YamlEvents(const std::string& path, std::FILE* file);
  ~YamlEvents();
  YamlEvents(const YamlEvents&) = delete;
  YamlEvents& operator=(const YamlEvents&) = delete;

  /// Reads the only document of the file: `readPair` is called for each key of its mapping. An empty document
  /// has none.
  void ReadDocument(const std::function<void()>& readPair);

  /// Calls `readPair` for each key of the mapping that begins with the present event. The key is then the
  /// present event, a scalar, and `readPair` reads the value.
  void ReadMapping(const std::function<void()>& readPair);

  /// Reads the next event. Throws std::runtime_error where the file is not YAML or cannot be read.
  yaml_event_type_t Next();

  /// The text of the present event, a scalar.
  std::string Text() const;
  /// The number of the present event's line.
  std::size_t Line() const { return event_.start_mark.line + 1; }

  /// Throws std::runtime_error: the file, the line of the present event, and the message.
  [[noreturn]] void Fail(const std::string& message) const;

 private:
  std::size_t LinesBefore(std::size_t offset) const;

  const std::string path_;
  std::FILE* file_;
  yaml_parser_t parser_{};
  yaml_event_t event_{};
};

/// Opens the file and calls `read` with its events. Returns the empty string, or what is wrong: what `read`
/// throws as std::runtime_error, or why the file cannot be read. Throws std::bad_alloc.
std::string ReadYamlFile(const std::string& path, const std::function<void(YamlEvents&)>& read);

}  // namespace Ormis::host
