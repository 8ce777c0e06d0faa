// SPDX-License-Identifier: Apache-2.0

// The input is a script of log records. The real back end writes them to a log file, which is compared with
// what the contract of ara/log/logging.h asks for. A step is one letter and its arguments:
//
//   x ID LEVEL         the following records go to this context, with this threshold
//   f TEXT  g TEXT     file and function of the following records' location; F, G: none
//   l NUMBER           its line
//   E W I D            hands over the record before, and opens one of that level
//   c TEXT  v TEXT  s TEXT  i NUMBER  u NUMBER   inserts const char*, view, std::string, int, unsigned int
//   n                  inserts a null pointer
//   r BYTE             inserts the last text BYTE times
//
// ID and TEXT are a byte with the length, then the bytes. NUMBER is 4 bytes, little-endian. Other bytes are
// skipped.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ara/log/logging.h"
#include "fuzz_input.h"
#include "require.h"

namespace {

using ara::core::internal::StringView;
using ara::log::CreateLogger;
using ara::log::Logger;
using ara::log::LogLevel;
using ara::log::LogStream;

constexpr std::size_t kMaxLineBytes = 4096;
constexpr std::size_t kMaxFileBytes = 512;
constexpr std::size_t kMaxFunctionBytes = 256;
constexpr std::size_t kMaxContexts = 64;
// A cut leaves at most so many bytes free: it removes a begun UTF-8 sequence of four bytes.
constexpr std::size_t kMaxCutLoss = 4;
constexpr std::size_t kMaxRecords = 64;

/// The log file of this process, which the back end appends to.
class LogFile {
 public:
  LogFile() {
    std::string folder = std::filesystem::temp_directory_path() / "log_fuzz_XXXXXX";
    FUZZ_REQUIRE(mkdtemp(folder.data()) != nullptr, folder);
    folder_ = folder;
    // At the most verbose level each line has its location, and so the greatest length.
    ara::log::InitLogging("fuzz", "", LogLevel::kVerbose, ara::log::LogMode::kFile, folder);
    file_ = open((folder + "/fuzz.log").c_str(), O_RDWR | O_CLOEXEC);
    FUZZ_REQUIRE(file_ >= 0, folder);
  }
  ~LogFile() {
    close(file_);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Returns what was logged since the last call.
  std::string Take() {
    struct stat status{};
    FUZZ_REQUIRE(fstat(file_, &status) == 0, "fstat");
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    FUZZ_REQUIRE(pread(file_, text.data(), text.size(), 0) == status.st_size, "pread");
    FUZZ_REQUIRE(ftruncate(file_, 0) == 0, "ftruncate");
    return text;
  }

 private:
  std::filesystem::path folder_;
  int file_ = -1;
};

LogFile& TheLogFile() {
  static LogFile file;
  return file;
}

/// A text with its control characters escaped, and the places where it may be cut.
struct Escaped {
  std::string text;
  std::vector<std::size_t> ends{0};  ///< where each source character ends within `text`

  void Add(const std::string& source) {
    for (const char c : source) {
      const auto byte = static_cast<unsigned char>(c);
      char hex[8];
      if (c == '\n') {
        text += "\\n";
      } else if (c == '\r') {
        text += "\\r";
      } else if (c == '\t') {
        text += "\\t";
      } else if (byte < 32 || byte == 127) {
        (void)std::snprintf(hex, sizeof hex, "\\x%02x", byte);
        text += hex;
      } else {
        text += c;
      }
      ends.push_back(text.size());
    }
  }

  /// True where a begun UTF-8 sequence goes on.
  bool SplitsCharacter(std::size_t at) const {
    const auto byteAt = [this](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto continues = [&](std::size_t i) { return (byteAt(i) & 0xc0) == 0x80; };
    if (at >= text.size() || !continues(at)) return false;
    std::size_t lead = at;
    for (int i = 0; i < 3 && lead > 0 && continues(lead); ++i) --lead;
    const unsigned char byte = byteAt(lead);
    const std::size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
    return lead + length > at;
  }

  /// The texts that may be logged for it where there is room for `limit` bytes.
  std::vector<std::string> Fitting(std::size_t limit, const char* mark) const {
    if (text.size() <= limit) return {text};
    std::vector<std::string> cuts;
    for (const std::size_t end : ends) {
      if (end <= limit && end + kMaxCutLoss >= limit && !SplitsCharacter(end)) {
        cuts.push_back(text.substr(0, end) + mark);
      }
    }
    return cuts;
  }
};

struct Location {
  std::optional<std::string> file = "a.cpp";
  std::optional<std::string> function = "Main";
  std::int32_t line = 1;
};

/// The expected line of the log.
struct Expected {
  std::string head;  ///< the part between the time and the text
  Escaped text;
  Location location;
};

const char* NameOf(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return "ERROR";
    case LogLevel::kWarn:
      return "WARN";
    case LogLevel::kInfo:
      return "INFO";
    default:
      return "DEBUG";
  }
}

std::string ContextIdOf(const std::string& id) {
  if (id.empty()) return "-";
  std::string field;
  for (const char c : id.substr(0, 8)) field += c > ' ' && c < 127 ? c : '_';
  return field;
}

void CheckTime(const std::string& line) {
  const std::string form = "0000-00-00T00:00:00.000000Z ";
  FUZZ_REQUIRE(line.size() > form.size(), line);
  for (std::size_t i = 0; i < form.size(); ++i) {
    const bool holds =
        form[i] == '0' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == form[i];
    FUZZ_REQUIRE(holds, line);
  }
}

/// What a const char* to `text` shows.
std::string UpToNull(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

/// `line` without its newline.
void CheckLine(const std::string& line, const Expected& expected) {
  FUZZ_REQUIRE(line.size() < kMaxLineBytes, line);
  for (const char c : line) FUZZ_REQUIRE(static_cast<unsigned char>(c) >= 32 && c != 127, line);
  CheckTime(line);
  const std::size_t timeSize = line.find(' ') + 1;
  FUZZ_REQUIRE(line.compare(timeSize, expected.head.size(), expected.head) == 0,
               expected.head + "\n  " + line);
  const std::string rest = line.substr(timeSize + expected.head.size());

  Escaped file;
  file.Add(UpToNull(expected.location.file.value_or("?")));
  Escaped function;
  function.Add(UpToNull(expected.location.function.value_or("?")));
  const std::string number = ":" + std::to_string(expected.location.line) + " ";
  for (const std::string& text : expected.text.Fitting(LogStream::kTextCapacity, " [cut]")) {
    if (rest.compare(0, text.size(), text) != 0) continue;
    const std::string tail = rest.substr(text.size());
    for (const std::string& fileText : file.Fitting(kMaxFileBytes, "")) {
      for (const std::string& functionText : function.Fitting(kMaxFunctionBytes, "")) {
        std::string location = " (";
        location.append(fileText).append(number).append(functionText).append(")");
        if (tail == location) return;
      }
    }
  }
  const bool isOneOfThoseExpected = false;
  FUZZ_REQUIRE(isOneOfThoseExpected, line);
}

/// Plays a script, and keeps the lines that the log has to hold afterwards.
class Script {
 public:
  Script(const std::uint8_t* data, std::size_t size) : input_(data, size) {
    SelectContext("STBM", LogLevel::kVerbose);
  }

  void Play() {
    while (!input_.Empty() && expected_.size() < kMaxRecords) {
      const std::uint8_t step = input_.Byte();
      switch (step) {
        case 'x': {
          const std::string id = input_.Text();
          SelectContext(id, static_cast<LogLevel>(input_.Byte() % 7));
          break;
        }
        case 'f':
          location_.file = input_.Text();
          break;
        case 'g':
          location_.function = input_.Text();
          break;
        case 'F':
          location_.file.reset();
          break;
        case 'G':
          location_.function.reset();
          break;
        case 'l':
          location_.line = static_cast<std::int32_t>(input_.Number() & INT32_MAX);
          break;
        case 'E':
          PlayRecord(LogLevel::kError, &Logger::LogError);
          break;
        case 'W':
          PlayRecord(LogLevel::kWarn, &Logger::LogWarn);
          break;
        case 'I':
          PlayRecord(LogLevel::kInfo, &Logger::LogInfo);
          break;
        case 'D':
          PlayRecord(LogLevel::kDebug, &Logger::LogDebug);
          break;
        default:
          break;
      }
    }
  }

  void Check(const std::string& log) const {
    std::size_t begin = 0;
    for (const Expected& expected : expected_) {
      const std::size_t end = log.find('\n', begin);
      FUZZ_REQUIRE(end != std::string::npos, "a record is missing");
      CheckLine(log.substr(begin, end - begin), expected);
      begin = end + 1;
    }
    FUZZ_REQUIRE(begin == log.size(), "more lines than records: " + log.substr(begin));
  }

 private:
  struct Context {
    std::string id;
    LogLevel threshold;
  };

  // Static, because loggers live as long as the process.
  static std::map<const Logger*, Context>& Contexts() {
    static std::map<const Logger*, Context> contexts;
    return contexts;
  }

  void SelectContext(const std::string& id, LogLevel threshold) {
    logger_ = &CreateLogger(id, "", threshold);
    const auto [known, isNew] = Contexts().insert({logger_, {ContextIdOf(id), threshold}});
    known->second.threshold = threshold;
    FUZZ_REQUIRE(isNew || known->second.id == ContextIdOf(id) || Contexts().size() == kMaxContexts,
                 "two contexts share a logger, though there is room");
    for (const LogLevel level : {LogLevel::kOff, LogLevel::kError, LogLevel::kDebug, LogLevel::kVerbose}) {
      FUZZ_REQUIRE(logger_->IsEnabled(level) == (level != LogLevel::kOff && level <= threshold), id);
    }
  }

  void PlayRecord(LogLevel level, LogStream (Logger::*open)(const ara::log::SourceLocation&) const) {
    const Context& context = Contexts().at(logger_);
    Expected record{std::string(NameOf(level)) + " fuzz " + context.id + " " + std::to_string(gettid()) + " ",
                    {},
                    location_};
    const auto textOf = [](const std::optional<std::string>& text) { return text ? text->c_str() : nullptr; };
    errno = E2BIG;
    {
      LogStream stream =
          (logger_->*open)({textOf(location_.file), textOf(location_.function), location_.line});
      while (!input_.Empty() && Insert(stream, record.text)) {
      }
    }
    FUZZ_REQUIRE(errno == E2BIG, "errno is kept");
    if (level <= context.threshold) expected_.push_back(std::move(record));
  }

  /// Returns false, and reads nothing, where the next step is another one.
  bool Insert(LogStream& stream, Escaped& text) {
    FuzzInput before = input_;
    switch (input_.Byte()) {
      case 'c':
        lastText_ = input_.Text();
        stream << lastText_.c_str();
        text.Add(UpToNull(lastText_));
        return true;
      case 'v':
        lastText_ = input_.Text();
        stream << StringView<char>(lastText_.data(), lastText_.size());
        text.Add(lastText_);
        return true;
      case 's':
        lastText_ = input_.Text();
        stream << lastText_;
        text.Add(lastText_);
        return true;
      case 'i': {
        const auto number = static_cast<int>(input_.Number());
        stream << number;
        text.Add(std::to_string(number));
        return true;
      }
      case 'u': {
        const unsigned int number = input_.Number();
        stream << number;
        text.Add(std::to_string(number));
        return true;
      }
      case 'n':
        stream << static_cast<const char*>(nullptr);
        return true;
      case 'r':
        for (std::uint8_t count = input_.Byte(); count > 0; --count) {
          stream << lastText_;
          text.Add(lastText_);
        }
        return true;
      default:
        input_ = before;
        return false;
    }
  }

  FuzzInput input_;
  const Logger* logger_ = nullptr;
  Location location_;
  std::string lastText_;
  std::vector<Expected> expected_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  LogFile& file = TheLogFile();
  Script script(data, size);
  script.Play();
  script.Check(file.Take());
  return 0;
}
