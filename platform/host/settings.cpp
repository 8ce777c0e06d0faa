// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <yaml.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "cache_flush.h"

namespace Ormis::host {

namespace {

Settings inUse;

bool ToNumber(const std::string& text, unsigned int most, unsigned int& number) {
  unsigned int value = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end || value == 0 || value > most) return false;
  number = value;
  return true;
}

bool SetMemory(const std::string& value, Settings& settings) {
  settings.flushCaches = value == "device";
  return settings.flushCaches || value == "cached";
}

bool SetEncoder(const std::string& value, Settings& settings) {
  constexpr std::array kEncoders = {"auto", "libx264", "h264_nvenc", "h264_vaapi", "h264_v4l2m2m"};
  settings.encoder = value;
  return std::find(kEncoders.begin(), kEncoders.end(), value) != kEncoders.end();
}

bool SetTrialProcessor(const std::string& value, Settings& settings) {
  return ToNumber(value, 86400, settings.trialProcessorS);
}

bool SetTrialWall(const std::string& value, Settings& settings) {
  return ToNumber(value, 86400, settings.trialWallS);
}

bool SetTrialMemory(const std::string& value, Settings& settings) {
  return ToNumber(value, 100, settings.trialMemoryPercent);
}

struct SettingKey {
  const char* name;
  const char* expected;
  bool (*set)(const std::string& value, Settings& settings);
};

constexpr SettingKey kSettingKeys[] = {
    {"memory", "device or cached", SetMemory},
    {"encoder", "auto, libx264, h264_nvenc, h264_vaapi or h264_v4l2m2m", SetEncoder},
    {"trial_processor_s", "a whole number of seconds from 1 to 86400", SetTrialProcessor},
    {"trial_wall_s", "a whole number of seconds from 1 to 86400", SetTrialWall},
    {"trial_memory_percent", "a whole number from 1 to 100", SetTrialMemory},
};

std::string KeyNames() {
  std::string names;
  for (const SettingKey& key : kSettingKeys) {
    if (!names.empty()) names += &key == std::end(kSettingKeys) - 1 ? " or " : ", ";
    names += key.name;
  }
  return names;
}

/// Reads a mapping of scalars from the parser's events. Anything else is refused where it begins, so nothing
/// can be nested.
class SettingsReader {
 public:
  SettingsReader(const std::string& path, std::FILE* file) : path_(path), file_(file) {
    if (yaml_parser_initialize(&parser_) == 0) throw std::bad_alloc();
    yaml_parser_set_input_file(&parser_, file);
  }
  ~SettingsReader() {
    yaml_event_delete(&event_);
    yaml_parser_delete(&parser_);
  }
  SettingsReader(const SettingsReader&) = delete;
  SettingsReader& operator=(const SettingsReader&) = delete;

  /// Throws std::runtime_error with the message.
  void Read(Settings& settings) {
    (void)Next();  // the start of the stream
    if (Next() == YAML_STREAM_END_EVENT) return;
    const yaml_event_type_t top = Next();
    const bool empty = top == YAML_SCALAR_EVENT && Text().empty();
    if (!empty && top != YAML_MAPPING_START_EVENT) Fail("expected lines of KEY: VALUE");
    while (!empty && Next() != YAML_MAPPING_END_EVENT) ReadPair(settings);
    (void)Next();  // the end of the document
    if (Next() != YAML_STREAM_END_EVENT) Fail("a second document, expected one");
  }

 private:
  void ReadPair(Settings& settings) {
    if (event_.type != YAML_SCALAR_EVENT) Fail("expected KEY: VALUE");
    const std::string name = Text();
    const SettingKey* const key = std::find_if(std::begin(kSettingKeys), std::end(kSettingKeys),
                                               [&](const SettingKey& one) { return one.name == name; });
    if (key == std::end(kSettingKeys)) Fail("unknown key '" + name + "', expected " + KeyNames());
    if (!seen_.insert(name).second) Fail("'" + name + "' stands there twice, expected it once");
    if (Next() != YAML_SCALAR_EVENT) Fail(name + " has no plain value, expected " + key->expected);
    if (!key->set(Text(), settings)) Fail(name + " is '" + Text() + "', expected " + key->expected);
  }

  yaml_event_type_t Next() {
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

  /// The parser counts the lines of what it could decode later than it finds what it cannot.
  std::size_t LinesBefore(std::size_t offset) const {
    if (std::fseek(file_, 0, SEEK_SET) != 0) return 0;
    std::size_t lines = 0;
    for (std::size_t at = 0; at < offset; ++at) lines += std::fgetc(file_) == '\n' ? 1 : 0;
    return lines;
  }

  std::string Text() const {
    return {reinterpret_cast<const char*>(event_.data.scalar.value), event_.data.scalar.length};
  }

  [[noreturn]] void Fail(const std::string& message) const {
    throw std::runtime_error(path_ + ":" + std::to_string(event_.start_mark.line + 1) + ": " + message);
  }

  const std::string& path_;
  std::FILE* file_;
  yaml_parser_t parser_{};
  yaml_event_t event_{};
  std::set<std::string> seen_;
};

}  // namespace

std::string ReadSettings(const std::string& path, Settings& settings) {
  struct Close {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
  };
  // A pipe would wait for somebody who writes to it, and a device may never end.
  struct stat status{};
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return path + ": not a regular file";
  const std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "rbe"));
  if (file == nullptr) return "cannot read " + path + ": " + std::generic_category().message(errno);
  try {
    SettingsReader(path, file.get()).Read(settings);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return {};
}

std::string SettingsText(const Settings& settings) {
  return std::string(" memory=") + (settings.flushCaches ? "device" : "cached") +
         " flush=" + (settings.flushCaches ? portable::FlushRoutines().back().name : "none") +
         " encoder=" + settings.encoder + " trial_processor_s=" + std::to_string(settings.trialProcessorS) +
         " trial_wall_s=" + std::to_string(settings.trialWallS) +
         " trial_memory_percent=" + std::to_string(settings.trialMemoryPercent);
}

const Settings& CurrentSettings() {
  return inUse;
}

void UseSettings(Settings&& settings) noexcept {
  inUse = std::move(settings);
  portable::FlushCaches(inUse.flushCaches);
}

std::string PathBesideLibrary(const std::string& file) {
  Dl_info library{};
  if (dladdr(&inUse, &library) == 0 || library.dli_fname == nullptr) return file;
  const std::string path = library.dli_fname;
  return path.substr(0, path.rfind('/') + 1) + file;
}

}  // namespace Ormis::host
