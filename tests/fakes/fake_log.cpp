// SPDX-License-Identifier: Apache-2.0
#include "fake_log.h"

#include <map>
#include <mutex>

namespace fakeLog {
namespace {

std::mutex& Mutex() {
  static std::mutex mutex;
  return mutex;
}

struct State {
  std::map<const void*, Record> open;
  std::vector<Record> closed;
  std::vector<LoggerCreation> creations;
  std::vector<Start> starts;
  std::vector<std::string> calls;
  std::function<void()> hook;
};

// Never destroyed: threads of a failed test may still log at exit.
State& TheState() {
  static State& state = *new State;
  return state;
}

void Note(const std::string& call) {
  std::function<void()> hook;
  {
    const std::lock_guard<std::mutex> lock(Mutex());
    hook = TheState().hook;
  }
  if (hook) hook();
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState().calls.push_back(call);
}

void Insert(const void* stream, char kind, Piece piece) {
  const std::lock_guard<std::mutex> lock(Mutex());
  Record& record = TheState().open.at(stream);
  record.kinds.push_back(kind);
  record.pieces.push_back(std::move(piece));
}

constexpr std::size_t kMaxLoggers = 16;
ara::log::Logger loggers[kMaxLoggers];
std::string contextIds[kMaxLoggers];
std::size_t loggerCount = 0;

const std::string& ContextIdOf(const ara::log::Logger& logger) {
  return contextIds[&logger - loggers];
}

}  // namespace

std::string Record::Text() const {
  std::string text;
  for (const Piece& piece : pieces) {
    std::visit(
        [&text](const auto& value) {
          if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::string>) {
            text += value;
          } else {
            text += std::to_string(value);
          }
        },
        piece);
  }
  return text;
}

void Reset() {
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState().open.clear();
  TheState().closed.clear();
  TheState().creations.clear();
  TheState().starts.clear();
  TheState().calls.clear();
  TheState().hook = nullptr;
}

std::vector<Record> Records() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().closed;
}

std::vector<std::string> Texts(ara::log::LogLevel level) {
  std::vector<std::string> texts;
  for (const Record& record : Records()) {
    if (record.level == level && !record.Text().empty()) texts.push_back(record.Text());
  }
  return texts;
}

std::vector<LoggerCreation> Creations() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().creations;
}

std::vector<Start> Starts() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().starts;
}

void OnCall(std::function<void()> hook) {
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState().hook = std::move(hook);
}

std::vector<std::string> Calls() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().calls;
}

}  // namespace fakeLog

namespace ara::log {

LogStream::LogStream(const Logger& logger, LogLevel level, const SourceLocation& location)
    : logger_(logger), location_(location), level_(level), enabled_(true) {
  const std::lock_guard<std::mutex> lock(fakeLog::Mutex());
  fakeLog::TheState().open[this] = fakeLog::Record{
      fakeLog::ContextIdOf(logger_), level_, location_.file, location_.function, location_.line, {}, {}};
}

LogStream::~LogStream() {
  const std::lock_guard<std::mutex> lock(fakeLog::Mutex());
  auto& open = fakeLog::TheState().open;
  const auto found = open.find(this);
  if (found == open.end()) return;
  fakeLog::TheState().closed.push_back(std::move(found->second));
  open.erase(found);
}

LogStream& LogStream::operator<<(const char* text) {
  fakeLog::Insert(this, 'c', std::string(text));
  return *this;
}
LogStream& LogStream::operator<<(ara::core::internal::StringView<char> text) {
  fakeLog::Insert(this, 'v', std::string(text.data(), text.size()));
  return *this;
}
LogStream& LogStream::operator<<(const std::string& text) {
  fakeLog::Insert(this, 's', text);
  return *this;
}
LogStream& LogStream::operator<<(int number) {
  fakeLog::Insert(this, 'i', number);
  return *this;
}
LogStream& LogStream::operator<<(unsigned int number) {
  fakeLog::Insert(this, 'u', number);
  return *this;
}

bool Logger::IsEnabled(LogLevel level) const {
  fakeLog::Note("IsEnabled " + std::to_string(static_cast<int>(level)));
  return level <= level_.load();
}

LogStream Logger::LogError(const SourceLocation& location) const {
  fakeLog::Note("LogError");
  return {*this, LogLevel::kError, location};
}
LogStream Logger::LogWarn(const SourceLocation& location) const {
  fakeLog::Note("LogWarn");
  return {*this, LogLevel::kWarn, location};
}
LogStream Logger::LogInfo(const SourceLocation& location) const {
  fakeLog::Note("LogInfo");
  return {*this, LogLevel::kInfo, location};
}
LogStream Logger::LogDebug(const SourceLocation& location) const {
  fakeLog::Note("LogDebug");
  return {*this, LogLevel::kDebug, location};
}

void InitLogging(const std::string& appId, const std::string& appDescription, LogLevel level, LogMode mode,
                 const std::string& directory) {
  fakeLog::Note("InitLogging");
  const std::lock_guard<std::mutex> lock(fakeLog::Mutex());
  fakeLog::TheState().starts.push_back({appId, appDescription, level, mode, directory});
}

Logger& CreateLogger(ara::core::internal::StringView<char> contextId,
                     ara::core::internal::StringView<char> contextDescription, LogLevel level) {
  const std::string id(contextId.data(), contextId.size());
  fakeLog::Note("CreateLogger " + id);
  const std::lock_guard<std::mutex> lock(fakeLog::Mutex());
  fakeLog::TheState().creations.push_back(
      {id, std::string(contextDescription.data(), contextDescription.size()), level});
  Logger* logger = nullptr;
  for (std::size_t i = 0; i < fakeLog::loggerCount; ++i) {
    if (id == fakeLog::contextIds[i]) logger = &fakeLog::loggers[i];
  }
  if (logger == nullptr) {
    fakeLog::contextIds[fakeLog::loggerCount] = id;
    logger = &fakeLog::loggers[fakeLog::loggerCount++];
  }
  logger->level_ = level;
  return *logger;
}

}  // namespace ara::log
