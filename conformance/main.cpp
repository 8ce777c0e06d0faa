// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "apart.h"
#include "check_text.h"
#include "loader.h"
#include "options.h"
#include "prepare_process.h"
#include "printable_text.h"
#include "report.h"
#include "runner.h"

namespace {

constexpr int kAllHold = 0;
constexpr int kSomeFailed = 1;
constexpr int kBadUsage = 2;

int Wrong(const std::string& what) {
  std::cerr << "platform_conformance: " << what << '\n';
  return kBadUsage;
}

const char* const kLoads = "interface.loads";

void EndIfInterrupted(const conformance::CheckText& check, conformance::TapReport& report) {
  const int signal = conformance::Interrupted();
  if (signal == 0) return;
  report.BailOut("interrupted while checking " + check.name);
  std::cerr << "platform_conformance: interrupted while checking "
            << stress::PrintableText(check.name + ": " + check.expected) << '\n';
  conformance::EndBy(signal);
}

int RunAll(const conformance::Description& description, const std::vector<conformance::CheckText>& checks,
           const conformance::Options& options) {
  conformance::TapReport report(std::cout, checks.size());
  for (const std::string& library : description.libraries) report.Comment(library);
  std::vector<conformance::Result> results;
  for (const conformance::CheckText& check : checks) {
    results.push_back({check, conformance::RunCheck(check, options.settings, options.timeoutS)});
    EndIfInterrupted(check, report);
    report.Result(check, results.back().outcome, options.allowSkip);
  }
  const auto count = [&results](conformance::Outcome::Kind kind) {
    return std::to_string(std::count_if(results.begin(), results.end(),
                                        [kind](const auto& result) { return result.outcome.kind == kind; }));
  };
  report.Comment(count(conformance::Outcome::Kind::kPassed) + " passed, " +
                 count(conformance::Outcome::Kind::kFailed) + " failed, " +
                 count(conformance::Outcome::Kind::kSkipped) + " skipped");
  std::cout.flush();
  if (!options.junitFile.empty() && !conformance::WriteJunit(options.junitFile, results, options.allowSkip)) {
    return Wrong("cannot write " + options.junitFile);
  }
  if (!std::cout) return Wrong("cannot write to standard output");
  return std::any_of(results.begin(), results.end(),
                     [&](const auto& result) { return Fails(result.outcome, options.allowSkip); })
             ? kSomeFailed
             : kAllHold;
}

/// The one result of a library that cannot be loaded.
int TellThatNothingLoads(const conformance::Outcome& outcome, const conformance::Options& options) {
  const conformance::CheckText loads{
      kLoads,
      "the loader finds the platform's libraries, and loading them neither ends nor "
      "stops the process"};
  conformance::TapReport report(std::cout, 1);
  EndIfInterrupted(loads, report);
  report.Result(loads, outcome, false);
  if (!options.junitFile.empty() && !conformance::WriteJunit(options.junitFile, {{loads, outcome}}, false)) {
    return Wrong("cannot write " + options.junitFile);
  }
  return std::cout.flush() ? kSomeFailed : Wrong("cannot write to standard output");
}

int Run(const conformance::Options& options) {
  conformance::AdoptLeftovers();
  conformance::CatchInterrupts();
  conformance::Outcome outcome;
  const conformance::Description description = conformance::Describe(options.timeoutS, outcome);
  if (outcome.kind != conformance::Outcome::Kind::kPassed) return TellThatNothingLoads(outcome, options);
  const std::vector<conformance::CheckText> chosen = conformance::Chosen(description.checks, options.only);
  if (chosen.empty()) return Wrong("no check matches the pattern of --only: --list prints all names");
  if (!options.list) return RunAll(description, chosen, options);
  for (const conformance::CheckText& check : chosen)
    std::cout << stress::PrintableText(check.name + '\t' + check.expected) << '\n';
  return std::cout.flush() ? kAllHold : Wrong("cannot write to standard output");
}

}  // namespace

int main(int argc, char** argv) {
  stress::PrepareProcess();
  conformance::Options options;
  if (const std::string wrong = conformance::ReadOptions(argc, argv, options); !wrong.empty())
    return Wrong(wrong);
  if (options.help) {
    std::cout << conformance::kUsage;
    return kAllHold;
  }
  if (options.version) {
    std::cout << "platform_conformance " STRESS_VERSION "\n";
    return kAllHold;
  }
  if (!options.runOne.empty()) return conformance::RunHere(options.runOne, options.settings);
  return Run(options);
}
