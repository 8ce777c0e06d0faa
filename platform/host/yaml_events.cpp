// SPDX-License-Identifier: Apache-2.0
#include "yaml_events.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>

namespace Ormis::host {

YamlEvents::YamlEvents(const std::string& path, std::FILE* file) : path_(path), file_(file) {
  if (yaml_parser_initialize(&parser_) == 0) throw std::bad_alloc();
  yaml_parser_set_input_file(&parser_, file);
}

YamlEvents::~YamlEvents() {
  yaml_event_delete(&event_);
  yaml_parser_delete(&parser_);
}

void YamlEvents::ReadDocument(const std::function<void()>& readPair) {
  (void)Next();  // the start of the stream
  if (Next() == YAML_STREAM_END_EVENT) return;
  const yaml_event_type_t top = Next();
  const bool empty = top == YAML_SCALAR_EVENT && Text().empty();
  if (!empty && top != YAML_MAPPING_START_EVENT) Fail("expected lines of KEY: VALUE");
  if (!empty) ReadMapping(readPair);
  (void)Next();  // the end of the document
  if (Next() != YAML_STREAM_END_EVENT) Fail("a second document, expected one");
}

void YamlEvents::ReadMapping(const std::function<void()>& readPair) {
  while (Next() != YAML_MAPPING_END_EVENT) {
    if (event_.type != YAML_SCALAR_EVENT) Fail("expected KEY: VALUE");
    readPair();
  }
}

yaml_event_type_t YamlEvents::Next() {
  yaml_event_delete(&event_);
  if (yaml_parser_parse(&parser_, &event_) != 0) return event_.type;
  if (parser_.error == YAML_MEMORY_ERROR) throw std::bad_alloc();
  if (std::ferror(file_) != 0) {
    throw std::runtime_error("cannot read " + path_ + ": " + std::generic_category().message(errno));
  }
  event_.start_mark = parser_.problem_mark;
  if (parser_.error == YAML_READER_ERROR) event_.start_mark.line = LinesBefore(parser_.problem_offset);
  Fail(parser_.problem == nullptr ? "not YAML" : parser_.problem);
}

// The parser counts the lines of what it could decode later than it finds what it cannot.
std::size_t YamlEvents::LinesBefore(std::size_t offset) const {
  std::string before(offset, '\0');
  (void)std::ifstream(path_).read(before.data(), static_cast<std::streamsize>(offset));
  return static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
}

std::string YamlEvents::Text() const {
  return {reinterpret_cast<const char*>(event_.data.scalar.value), event_.data.scalar.length};
}

void YamlEvents::Fail(const std::string& message) const {
  throw std::runtime_error(path_ + ":" + std::to_string(Line()) + ": " + message);
}

std::string ReadYamlFile(const std::string& path, const std::function<void(YamlEvents&)>& read) {
  // A pipe would wait for somebody who writes to it, and a device may never end.
  struct stat status{};
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return path + ": not a regular file";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
  if (file == nullptr) return "cannot read " + path + ": " + std::generic_category().message(errno);
  try {
    YamlEvents events(path, file.get());
    read(events);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return {};
}

}  // namespace Ormis::host
