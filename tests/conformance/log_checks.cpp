#include <string>

#include "check.h"
#include "worker.h"

namespace conformance {

namespace {

constexpr std::uint32_t kDefaultLevel = 4;
constexpr std::uint32_t kDefaultMode = 6;

ara::log::LogLevel Level(std::uint32_t number) {
  return Ormis::ParseLogLevel(static_cast<Ormis::QetLogLevelType>(number));
}

ara::log::LogMode Mode(std::uint32_t number) {
  return Ormis::ParseLogMode(static_cast<Ormis::QetLogModeType>(number));
}

// The numbers come from a file and are handed over as they are.
constexpr std::uint32_t kNumbers[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 255, 256, 4294967295U};

void LevelConverter(Session&) {
  for (const std::uint32_t number : kNumbers) {
    const auto level = static_cast<unsigned int>(Level(number));
    Require(level <= static_cast<unsigned int>(ara::log::LogLevel::kVerbose),
            "ParseLogLevel of " + std::to_string(number) + " gave " + std::to_string(level) +
                ", which is no level of ara::log");
  }
  const ara::log::Logger& logger = ara::log::CreateLogger("KIT", "conformance", Level(kDefaultLevel));
  Require(logger.IsEnabled(ara::log::LogLevel::kError),
          "a logger of the default level, ParseLogLevel(4), lets no errors through");
}

void ModeConverter(Session&) {
  constexpr auto kKnown = static_cast<unsigned int>(ara::log::LogMode::kRemote | ara::log::LogMode::kFile |
                                                    ara::log::LogMode::kConsole);
  for (const std::uint32_t number : kNumbers) {
    const auto mode = static_cast<unsigned int>(Mode(number));
    Require((mode & ~kKnown) == 0, "ParseLogMode of " + std::to_string(number) + " gave " +
                                       std::to_string(mode) +
                                       ", which has bits that are no mode of ara::log");
  }
  Require(static_cast<unsigned int>(Mode(kDefaultMode)) != 0,
          "ParseLogMode of the default, 6, sends nothing");
}

void AcceptsRecords(Session&) {
  constexpr unsigned int kThreads = 8;
  constexpr unsigned int kRecords = 50;
  (void)ara::log::CreateLogger("TPW", "TPW", ara::log::LogLevel::kVerbose);
  ara::log::InitLogging("KIT", "conformance kit", Level(kDefaultLevel), Mode(kDefaultMode), "./log");
  const ara::log::Logger& logger = ara::log::CreateLogger("KIT", "KIT", Level(kDefaultLevel));
  Require(logger.IsEnabled(ara::log::LogLevel::kError), "error records are not enabled after InitLogging");
  const std::string text = "a string";
  RunThreads(kThreads, [&logger, &text](unsigned int index, Barrier& barrier) {
    const ara::log::SourceLocation here{__FILE__, "AcceptsRecords", __LINE__};
    Wait(barrier);
    for (unsigned int number = 0; number < kRecords; ++number) {
      logger.LogError(here) << ara::core::internal::StringView<char>("AcceptsRecords", 14) << "() | " << text
                            << number << -1;
      logger.LogWarn(here) << index;
      logger.LogInfo(here) << "";
      logger.LogDebug(here) << "";
    }
  });
}

}  // namespace

std::vector<Check> LogChecks() {
  return {
      {"log.level-converter",
       "ParseLogLevel gives a level of ara::log for any number, and for the default one that lets errors "
       "through",
       LevelConverter},
      {"log.mode-converter",
       "ParseLogMode gives a mode of ara::log for any number, and for the default one that is not empty",
       ModeConverter},
      {"log.accepts-records",
       "logging starts with the converted defaults, and loggers take records of every level from many "
       "threads",
       AcceptsRecords},
  };
}

}  // namespace conformance
