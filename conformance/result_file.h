// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

// What a check's process leaves for the kit: a file in the working directory, its kind of result in the first
// line and a text behind it.
namespace conformance {

constexpr const char* kResultFile = ".result";
constexpr const char* kPassed = "passed";
constexpr const char* kFailed = "failed";
constexpr const char* kSkipped = "skipped";

void WriteResult(const char* kind, const std::string& text);

/// The kind and the text in `folder`; both are empty without a result. A text beyond 1 MiB is cut.
void ReadResult(const std::string& folder, std::string& kind, std::string& text);

}  // namespace conformance
