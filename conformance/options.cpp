// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <fnmatch.h>
#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>

namespace conformance {

const char* const kUsage =
    R"(usage: platform_conformance [OPTION...]
Checks the contracts of the accelerator platform's library that the loader puts under this program, each in a
process of its own. To check another one:
  LD_LIBRARY_PATH=DIR platform_conformance

  --model FILE           a model that the library loads; without it the checks that need one are skipped
  --rounds N             rounds of making and ending in the growth checks (1000); encoders and models take a tenth
  --interpolation KIND   what the library means by interpolation 1: any, nearest, bilinear or area (any)
  --row-alignment BYTES  the library pads the rows of a packed image to this (1: no padding)
  --timeout SECONDS      time that one check may take (120)
  --only PATTERN         only the checks whose name matches the shell pattern; may be given more than once
  --allow-skip           a skipped check does not fail the run
  --junit FILE           write the results as JUnit XML, too
  --list                 print name and contract of each check and end
  --help                 print this and end
  --version              print the version and end

Results go to standard output in TAP, version 14. Exit status: 0 when every check passed, 1 when one failed or
was skipped (--allow-skip: failed), 2 when the command line is wrong or a result could not be written. An interrupt
(Ctrl-C) ends the check that is running and tells which one it was; the status is the signal's, 130.
)";

namespace {

enum Option : int {
  kModel = 256,
  kRounds,
  kInterpolation,
  kRowAlignment,
  kTimeout,
  kOnly,
  kAllowSkip,
  kJunit,
  kList,
  kHelp,
  kVersion,
  kRunOne,
};

struct InterpolationName {
  const char* name;
  Interpolation kind;
};
constexpr InterpolationName kInterpolations[] = {{"any", Interpolation::kAny},
                                                 {"nearest", Interpolation::kNearest},
                                                 {"bilinear", Interpolation::kBilinear},
                                                 {"area", Interpolation::kArea}};

bool ReadNumber(const char* text, unsigned int least, unsigned int most, unsigned int& number) {
  unsigned int value = 0;
  const char* const end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, value);
  if (error != std::errc{} || stop != end || value < least || value > most) return false;
  number = value;
  return true;
}

std::string ReadModel(const char* file, std::string& path) {
  // Checks run in folders of their own.
  const std::unique_ptr<char, decltype(&std::free)> absolute(realpath(file, nullptr), &std::free);
  if (absolute == nullptr) return std::string("cannot read model ") + file + ": " + std::strerror(errno);
  path = absolute.get();
  return {};
}

std::string ReadInterpolation(const char* name, Interpolation& interpolation) {
  for (const InterpolationName& known : kInterpolations) {
    if (std::strcmp(name, known.name) == 0) {
      interpolation = known.kind;
      return {};
    }
  }
  return std::string("unknown interpolation ") + name + ", expected any, nearest, bilinear or area";
}

/// Takes over the option that getopt_long has found. Returns the empty string, or what is wrong with it.
std::string TakeOption(int found, Options& options) {
  constexpr unsigned int kMost = 1'000'000;
  switch (found) {
    case kModel:
      return ReadModel(optarg, options.settings.modelFile);
    case kRounds:
      if (!ReadNumber(optarg, 1, kMost, options.settings.rounds)) return "--rounds takes 1 to 1000000";
      break;
    case kInterpolation:
      return ReadInterpolation(optarg, options.settings.interpolation);
    case kRowAlignment:
      if (ReadNumber(optarg, 1, kMost, options.settings.rowAlignment)) break;
      return "--row-alignment takes 1 to 1000000 bytes";
    case kTimeout:
      if (!ReadNumber(optarg, 1, kMost, options.timeoutS)) return "--timeout takes 1 to 1000000 seconds";
      break;
    case kOnly:
      options.only.emplace_back(optarg);
      break;
    case kAllowSkip:
      options.allowSkip = true;
      break;
    case kJunit:
      options.junitFile = optarg;
      break;
    case kList:
      options.list = true;
      break;
    case kHelp:
      options.help = true;
      break;
    case kVersion:
      options.version = true;
      break;
    case kRunOne:
      options.runOne = optarg;
      break;
    default:
      return "see --help";  // getopt_long has said the rest
  }
  return {};
}

}  // namespace

std::string ReadOptions(int argc, char** argv, Options& options) {
  const option known[] = {{"model", required_argument, nullptr, kModel},
                          {"rounds", required_argument, nullptr, kRounds},
                          {"interpolation", required_argument, nullptr, kInterpolation},
                          {"row-alignment", required_argument, nullptr, kRowAlignment},
                          {"timeout", required_argument, nullptr, kTimeout},
                          {"only", required_argument, nullptr, kOnly},
                          {"allow-skip", no_argument, nullptr, kAllowSkip},
                          {"junit", required_argument, nullptr, kJunit},
                          {"list", no_argument, nullptr, kList},
                          {"help", no_argument, nullptr, kHelp},
                          {"version", no_argument, nullptr, kVersion},
                          {"run-one", required_argument, nullptr, kRunOne},
                          {nullptr, 0, nullptr, 0}};
  for (int found = 0; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    if (std::string wrong = TakeOption(found, options); !wrong.empty()) return wrong;
  }
  if (optind < argc) return std::string("unexpected argument ") + argv[optind];
  return {};
}

std::vector<std::string> ArgumentsFor(const Check& check, const Settings& settings) {
  const char* const interpolation =
      std::find_if(std::begin(kInterpolations), std::end(kInterpolations), [&](const InterpolationName& one) {
        return one.kind == settings.interpolation;
      })->name;
  std::vector<std::string> arguments = {
      "--run-one",       check.name,    "--rounds",        std::to_string(settings.rounds),
      "--interpolation", interpolation, "--row-alignment", std::to_string(settings.rowAlignment)};
  if (!settings.modelFile.empty()) arguments.insert(arguments.end(), {"--model", settings.modelFile});
  return arguments;
}

std::vector<Check> Chosen(const std::vector<Check>& all, const std::vector<std::string>& only) {
  if (only.empty()) return all;
  std::vector<Check> chosen;
  std::copy_if(all.begin(), all.end(), std::back_inserter(chosen), [&only](const Check& check) {
    return std::any_of(only.begin(), only.end(), [&check](const std::string& pattern) {
      return fnmatch(pattern.c_str(), check.name, 0) == 0;
    });
  });
  return chosen;
}

}  // namespace conformance
