// SPDX-License-Identifier: Apache-2.0
#include "deadline.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "engines.h"
#include "errors.h"
#include "number_text.h"
#include "text_format.h"

namespace scope {
namespace {

struct Unit {
  const char* name;
  double ns;
};
// In this order: "ms" ends in "s" as well.
constexpr std::array<Unit, 4> kUnits{{{"ns", 1}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}}};
constexpr double kLongestNs = 3600e9;
constexpr double kPerCent = 100;

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// None if `text` is not a time from 1 ns to an hour.
std::optional<std::uint64_t> ParseTime(const std::string& text) {
  for (const Unit& unit : kUnits) {
    const std::string name = unit.name;
    if (!EndsWith(text, name)) continue;
    const std::optional<double> number = ParseNumber(text.substr(0, text.size() - name.size()));
    if (!number || !(*number * unit.ns >= 1 && *number * unit.ns <= kLongestNs)) return std::nullopt;
    return static_cast<std::uint64_t>(std::llround(*number * unit.ns));
  }
  return std::nullopt;
}

std::string LoadIds() {
  std::vector<std::string> ids;
  for (const EngineInfo& engine : Engines()) {
    if (engine.load) ids.emplace_back(engine.id);
  }
  return Joined(ids, ", ");
}

}  // namespace

Deadline ParseDeadline(const std::string& text) {
  const std::size_t equals = text.find('=');
  const std::string engine = text.substr(0, equals);
  const EngineInfo* const known = FindEngine(&EngineInfo::id, engine);
  if (known == nullptr || !known->load || equals == std::string::npos) {
    throw UserError("--deadline: expected ENGINE=TIME with one of " + LoadIds() +
                    ", as vpc=16.7ms, found \"" + text + "\"");
  }
  const std::optional<std::uint64_t> ns = ParseTime(text.substr(equals + 1));
  if (!ns) {
    throw UserError("--deadline " + engine +
                    ": expected a time from 1ns to 3600s, as 16.7ms or 900us, found \"" +
                    text.substr(equals + 1) + "\"");
  }
  return {engine, *ns};
}

double ParseMissedShare(const std::string& text) {
  const bool perCent = EndsWith(text, "%");
  const std::optional<double> number = ParseNumber(perCent ? text.substr(0, text.size() - 1) : text);
  const double share = number ? *number / (perCent ? kPerCent : 1) : -1;
  if (!(share >= 0 && share < 1)) {
    throw UserError("--fail-over: expected a share of the operations below 1, as 0.1% or 0.001, found \"" +
                    text + "\"");
  }
  return share;
}

void RequireDeadlines(const std::vector<Deadline>& deadlines,
                      const std::vector<std::pair<std::string, int>>& levels) {
  for (auto at = deadlines.begin(); at != deadlines.end(); ++at) {
    const auto same = [at](const Deadline& other) { return other.engine == at->engine; };
    if (std::any_of(deadlines.begin(), at, same)) {
      throw UserError("--deadline: " + at->engine + " has two, expected one for each engine");
    }
    const auto works = [at](const auto& level) { return level.first == at->engine && level.second > 0; };
    if (std::none_of(levels.begin(), levels.end(), works)) {
      throw UserError("--deadline: " + at->engine +
                      " does nothing in this configuration: expected its section with a Level above 0");
    }
  }
}

std::string DeadlinesText(const std::vector<Deadline>& deadlines) {
  std::vector<std::string> texts;
  for (const Deadline& deadline : deadlines) {
    texts.push_back(deadline.engine + "=" + std::to_string(deadline.ns));
  }
  return Joined(texts, ",");
}

double MissedShare(const EngineDeadline& deadline) {
  return deadline.operations == 0
             ? 0
             : static_cast<double>(deadline.missed) / static_cast<double>(deadline.operations);
}

std::string DeadlineText(const EngineDeadline& deadline) {
  std::string text = deadline.engine + " " + Latency(deadline.deadlineNs) + ": ";
  if (deadline.missed == 0) {
    text += "none of " + Counted(deadline.operations, "operation") + " late";
  } else {
    text += Format("%.3g %% of ", MissedShare(deadline) * kPerCent) +
            Counted(deadline.operations, "operation") + " late (" + std::to_string(deadline.missed) +
            "), at most " + std::to_string(deadline.longestRun) + " in a row";
  }
  // With fewer operations, the 99.9th percentile is the longest one.
  constexpr std::uint64_t kLeastForTail = 1000;
  return text + (deadline.operations < kLeastForTail ? ", longest " : ", p99.9 ") + Latency(deadline.p999Ns);
}

std::vector<std::string> MissedTooOften(const std::vector<EngineDeadline>& deadlines, double failOver) {
  std::vector<std::string> sentences;
  for (const EngineDeadline& deadline : deadlines) {
    if (MissedShare(deadline) <= failOver) continue;
    sentences.push_back("deadline missed too often (--fail-over " + Format("%g %%", failOver * kPerCent) +
                        "): " + DeadlineText(deadline));
  }
  return sentences;
}

}  // namespace scope
