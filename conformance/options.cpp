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
#include <memory>

namespace conformance {

const char* const kUsage =
    R"(usage: platform_conformance [OPTION...]
Checks that a library of the accelerator platform keeps its contracts. It checks the library that the loader finds
for this program, and runs each check in its own process. To check a library in another folder:
  LD_LIBRARY_PATH=DIR platform_conformance

  --model FILE           a model that the library can load; without it, checks that need one are skipped
  --rounds N             how often the growth checks create and destroy (1000); a tenth for encoders and models
  --interpolation KIND   what the library does for interpolation 1: any, nearest, bilinear or area (any)
  --row-alignment BYTES  the library pads the rows of a packed image to this (1: no padding)
  --timeout SECONDS      the longest time for one check (120)
  --only PATTERN         run only checks whose name matches the shell pattern; may be given more than once
  --allow-skip           do not count skipped checks as failures
  --junit FILE           also write the results as JUnit XML
  --list                 print name and contract of each check, and run none
  --help                 print this help
  --version              print the version

Results go to standard output in TAP, version 14. Exit status: 0 when every check passed, 1 when one failed or
was skipped (with --allow-skip: when one failed), 2 when the command line is wrong or a result could not be written.
Ctrl-C ends the running check, names it, and sets the status to 130.
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
  // Each check runs in another folder, so a relative path would not work there.
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

/// Stores the option that getopt_long has found. Returns the empty string, or what is wrong with it.
std::string TakeOption(int found, Options& options) {
  constexpr unsigned int kMost = 1'000'000;
  switch (found) {
    case kModel:
      return ReadModel(optarg, options.settings.modelFile);
    case kRounds:
      if (!ReadNumber(optarg, 1, kMost, options.settings.rounds))
        return "--rounds: expected a number from 1 to 1000000";
      break;
    case kInterpolation:
      return ReadInterpolation(optarg, options.settings.interpolation);
    case kRowAlignment:
      if (ReadNumber(optarg, 1, kMost, options.settings.rowAlignment)) break;
      return "--row-alignment: expected 1 to 1000000 bytes";
    case kTimeout:
      if (!ReadNumber(optarg, 1, kMost, options.timeoutS)) return "--timeout: expected 1 to 1000000 seconds";
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
      return "see --help";  // getopt_long has printed the reason
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

std::vector<std::string> ArgumentsFor(const CheckText& check, const Settings& settings) {
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

std::vector<CheckText> Chosen(const std::vector<CheckText>& all, const std::vector<std::string>& only) {
  if (only.empty()) return all;
  std::vector<CheckText> chosen;
  std::copy_if(all.begin(), all.end(), std::back_inserter(chosen), [&only](const CheckText& check) {
    return std::any_of(only.begin(), only.end(), [&check](const std::string& pattern) {
      return fnmatch(pattern.c_str(), check.name.c_str(), 0) == 0;
    });
  });
  return chosen;
}

}  // namespace conformance
