// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <algorithm>
#include <fstream>

#include "printable_text.h"
#include "xml_text.h"

namespace conformance {

namespace {

/// On one line, and without what could control a terminal: texts come from the platform's library.
std::string OneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char letter) { return letter == '\n' || letter == '\t'; }, ' ');
  return stress::PrintableText(text);
}

/// A scalar of YAML in double quotes, on one line.
std::string Quoted(const std::string& text) {
  std::string quoted;
  for (const char letter : text) {
    if (letter == '"' || letter == '\\') quoted += '\\';
    quoted += letter;
  }
  return '"' + OneLine(quoted) + '"';
}

std::string Found(const Outcome& outcome) {
  return outcome.kind == Outcome::Kind::kSkipped ? "skipped: " + outcome.text : outcome.text;
}

}  // namespace

bool Fails(const Outcome& outcome, bool allowSkip) {
  return outcome.kind == Outcome::Kind::kFailed || (!allowSkip && outcome.kind == Outcome::Kind::kSkipped);
}

TapReport::TapReport(std::ostream& out, std::size_t count) : out_(out) {
  out_ << "TAP version 14\n1.." << count << '\n';
}

void TapReport::Comment(const std::string& text) {
  out_ << "# " << OneLine(text) << '\n';
}

void TapReport::BailOut(const std::string& why) {
  out_ << "Bail out! " << OneLine(why) << '\n' << std::flush;
}

void TapReport::Result(const CheckText& check, const Outcome& outcome, bool allowSkip) {
  const bool fails = Fails(outcome, allowSkip);
  out_ << (fails ? "not ok " : "ok ") << ++number_ << " - " << OneLine(check.name);
  if (!fails && outcome.kind == Outcome::Kind::kSkipped) out_ << " # SKIP " << OneLine(outcome.text);
  out_ << "\n  ---\n  expected: " << Quoted(check.expected) << '\n';
  if (fails) {
    out_ << "  found: " << Quoted(Found(outcome)) << '\n';
    if (!outcome.output.empty()) out_ << "  output:\n";
    for (const std::string& line : outcome.output) out_ << "    - " << Quoted(line) << '\n';
  } else if (outcome.kind == Outcome::Kind::kPassed && !outcome.text.empty()) {
    out_ << "  note: " << Quoted(outcome.text) << '\n';
  }
  out_ << "  seconds: " << outcome.seconds << "\n  ...\n" << std::flush;
}

bool WriteJunit(const std::string& file, const std::vector<struct Result>& results, bool allowSkip) {
  const auto failures = std::count_if(results.begin(), results.end(), [allowSkip](const auto& result) {
    return Fails(result.outcome, allowSkip);
  });
  const auto skips = std::count_if(results.begin(), results.end(), [allowSkip](const auto& result) {
    return result.outcome.kind == Outcome::Kind::kSkipped && !Fails(result.outcome, allowSkip);
  });
  double seconds = 0;
  for (const auto& result : results) seconds += result.outcome.seconds;

  std::ofstream out(file, std::ios::trunc);
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"platform_conformance\" tests=\""
      << results.size() << "\" failures=\"" << failures << "\" errors=\"0\" skipped=\"" << skips
      << "\" time=\"" << seconds << "\">\n";
  for (const auto& [check, outcome] : results) {
    const std::string& name = check.name;
    const std::size_t point = name.find('.');
    out << "  <testcase classname=\"" << stress::XmlText(name.substr(0, point)) << "\" name=\""
        << stress::XmlText(name.substr(point + 1)) << "\" time=\"" << outcome.seconds << "\">\n";
    if (Fails(outcome, allowSkip)) {
      out << "    <failure message=\"" << stress::XmlText(Found(outcome))
          << "\">expected: " << stress::XmlText(check.expected) << "</failure>\n";
      out << "    <system-err>";
      for (const std::string& line : outcome.output) out << stress::XmlText(line) << '\n';
      out << "</system-err>\n";
    } else if (outcome.kind == Outcome::Kind::kSkipped) {
      out << "    <skipped message=\"" << stress::XmlText(outcome.text) << "\"/>\n";
    }
    out << "  </testcase>\n";
  }
  out << "</testsuite>\n";
  out.close();
  return out.good();
}

}  // namespace conformance
