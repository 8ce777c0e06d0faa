// SPDX-License-Identifier: Apache-2.0
#include "checks_library.h"

#include <map>

#include "imports.h"
#include "result_file.h"

namespace {

using conformance::Check;

void RunAndWriteResult(const Check& check, const conformance::Settings& settings) {
  conformance::Session session{settings, {}};
  try {
    check.run(session);
    conformance::WriteResult(conformance::kPassed, session.note);
  } catch (const conformance::Skip& skip) {
    conformance::WriteResult(conformance::kSkipped, skip.what());
  } catch (const conformance::Failure& failure) {
    conformance::WriteResult(conformance::kFailed, failure.what());
  } catch (const std::exception& error) {
    conformance::WriteResult(conformance::kFailed, std::string("an exception: ") + error.what());
  } catch (...) {
    conformance::WriteResult(conformance::kFailed, "an exception of an unknown kind");
  }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void ConformanceDescribe(std::string& text) {
  std::map<std::string, int> operations;
  for (const conformance::Import& import : conformance::PlatformImports()) ++operations[import.library];
  for (const auto& [library, count] : operations) {
    text += '\t' + std::to_string(count) + " operations " +
            (library.empty() ? "missing" : "from " + library) + '\n';
  }
  for (const Check& check : conformance::AllChecks()) {
    text += std::string(check.name) + '\t' + check.expected + '\n';
  }
}

extern "C" __attribute__((visibility("default"))) int ConformanceRun(const char* name,
                                                                     const conformance::Settings& settings) {
  for (const Check& check : conformance::AllChecks()) {
    if (std::string(name) == check.name) RunAndWriteResult(check, settings);
  }
  return 0;
}
