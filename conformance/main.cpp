// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "check.h"
#include "imports.h"
#include "options.h"
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

void CommentOnLibraries(conformance::TapReport& report) {
  std::map<std::string, int> operations;
  for (const conformance::Import& import : conformance::PlatformImports()) ++operations[import.library];
  for (const auto& [library, count] : operations) {
    report.Comment(std::to_string(count) + " operations " +
                   (library.empty() ? "missing" : "from " + library));
  }
}

int RunAll(const std::vector<conformance::Check>& checks, const conformance::Options& options) {
  conformance::TapReport report(std::cout, checks.size());
  CommentOnLibraries(report);
  std::vector<conformance::Result> results;
  conformance::CatchInterrupts();
  for (const conformance::Check& check : checks) {
    results.push_back({check, conformance::RunApart(check, options.settings, options.timeoutS)});
    if (const int signal = conformance::Interrupted(); signal != 0) {
      report.BailOut("interrupted while checking " + std::string(check.name));
      std::cerr << "platform_conformance: interrupted while checking " << check.name << ": " << check.expected
                << '\n';
      conformance::EndBy(signal);
    }
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

}  // namespace

int main(int argc, char** argv) {
  conformance::Options options;
  if (const std::string wrong = conformance::ReadOptions(argc, argv, options); !wrong.empty())
    return Wrong(wrong);
  const std::vector<conformance::Check> all = conformance::AllChecks();
  if (options.help) {
    std::cout << conformance::kUsage;
    return kAllHold;
  }
  if (options.version) {
    std::cout << "platform_conformance " STRESS_VERSION "\n";
    return kAllHold;
  }
  if (!options.runOne.empty()) {
    for (const conformance::Check& check : all) {
      if (options.runOne == check.name) return conformance::RunHere(check, options.settings);
    }
    return Wrong("no check " + options.runOne);
  }
  const std::vector<conformance::Check> chosen = conformance::Chosen(all, options.only);
  if (chosen.empty()) return Wrong("no check matches the pattern of --only: --list prints all names");
  if (options.list) {
    for (const conformance::Check& check : chosen) std::cout << check.name << '\t' << check.expected << '\n';
    return std::cout.flush() ? kAllHold : Wrong("cannot write to standard output");
  }
  return RunAll(chosen, options);
}
