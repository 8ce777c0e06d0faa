// SPDX-License-Identifier: Apache-2.0
#include "run_error.h"

#include <algorithm>
#include <cstdlib>
#include <map>

#include "text_format.h"

namespace scope {
namespace {

constexpr const char* kJudged = "judged";

// "thread 0, operation 986: ".
std::string Who(const RunError& error) {
  std::string text;
  if (error.thread) text = "thread " + std::to_string(*error.thread);
  if (error.operation) text += (text.empty() ? "" : ", ") + ("operation " + std::to_string(*error.operation));
  return text.empty() ? text : text + ": ";
}

std::string Place(const RunError& error) {
  if (!error.offset) return {};
  return " at byte " + std::to_string(*error.offset) + ": expected " + error.expected + ", found " +
         error.found;
}

}  // namespace

std::uint64_t ErrorsIn(const RunError& error) {
  if (error.source != kMemoryController) return 1;
  return std::max<std::uint64_t>(1, std::strtoull(error.note.c_str(), nullptr, 10));
}

std::string ErrorText(const RunError& error) {
  static const std::map<std::string, std::string> kWords = {
      {"copy", "a copy differs from its source"},
      {"source", "a source is no longer what it was"},
      {"result", "a result differs from what the same source gave before"},
      {"threads", "a result differs from that of another thread"},
      {"passing", "a difference was gone when it was read again"},
      {"event", "guarded memory changed"},
      {"comes back", "guarded memory changed again, after it was repaired"},
      {"stays", "guarded memory stays wrong when it is repaired"},
      {"corrected", "the memory controller corrected errors"},
      {"uncorrected", "the memory controller found errors that it could not correct"}};
  const auto at = kWords.find(error.what);
  return error.source + ": " + Who(error) + (at == kWords.end() ? error.what : at->second) + Place(error) +
         (error.note.empty() ? "" : " (" + error.note + ")");
}

SourceErrors ErrorCounts(const Run& run) {
  std::map<std::string, std::uint64_t> rows;
  for (const RunError& error : run.errors) rows[error.source] += ErrorsIn(error);
  SourceErrors counts = run.info.errors;
  for (const auto& [name, listed] : rows) {
    const auto at =
        std::find_if(counts.begin(), counts.end(), [&id = name](const auto& one) { return one.first == id; });
    if (at == counts.end()) {
      counts.emplace_back(name, listed);
    } else {
      at->second = std::max(at->second, listed);
    }
  }
  return counts;
}

std::uint64_t ErrorsOf(const Run& run) {
  return AllErrors(ErrorCounts(run));
}

std::uint64_t AllErrors(const SourceErrors& counts) {
  std::uint64_t sum = 0;
  for (const auto& [source, count] : counts) sum += count;
  return sum;
}

void AddErrors(const SourceErrors& more, SourceErrors& counts) {
  if (more.empty()) return;
  std::map<std::string, std::uint64_t> sums(counts.begin(), counts.end());
  for (const auto& [source, count] : more) sums[source] += count;
  counts.assign(sums.begin(), sums.end());
}

std::string CountsText(const SourceErrors& counts) {
  std::vector<std::string> parts;
  for (const auto& [source, count] : counts) parts.push_back(source + " " + std::to_string(count));
  const std::uint64_t sum = AllErrors(counts);
  return sum == 0 ? "" : Counted(sum, "error") + " (" + Joined(parts, ", ") + ")";
}

std::optional<double> FirstErrorS(const Run& run) {
  const auto first = std::min_element(run.errors.begin(), run.errors.end(),
                                      [](const auto& a, const auto& b) { return a.timeS < b.timeS; });
  return first == run.errors.end() ? std::nullopt : std::optional(first->timeS);
}

bool AreResultsJudged(const RunInfo& info) {
  return !info.verification.empty() && NotJudged(info).empty();
}

bool LooksForErrors(const RunInfo& info) {
  if (info.conditions.verify) return AreResultsJudged(info);
  return info.guard.walks != 0 ||
         std::any_of(info.counters.begin(), info.counters.end(), [](const CounterSource& source) {
           return source.present && source.source == kMemoryController;
         });
}

namespace {

// "cpu: not judged: 1 of 3 threads: too few operations, ...".
std::string NotJudgedText(const EngineCheck& check) {
  static const std::map<std::string, std::string> kWhy = {
      {"learning", "too few operations, or none with the same source, to learn what is right"},
      {kPartlyJudged,
       "too few operations, none with the same source, or too different results, to learn what is right"},
      {"alone", "one channel alone: there is no other stream to compare with"},
      {"sources change", "the program writes its sources between operations"},
      {"not deterministic", "the same source gives different results, by nature or because most are wrong"},
      {"unreadable", "the processor cannot read the results"},
      {"unknown", "the records of this platform are not known"}};
  const bool isPartly = check.state == kPartlyJudged;
  const auto at = kWhy.find(check.state);
  const std::string why = at == kWhy.end() ? check.state : at->second;
  const std::uint64_t others = check.threads - std::min(check.judgedThreads, check.threads);
  std::vector<std::string> reasons;
  if (!isPartly) reasons.push_back(why);
  if (isPartly && others != 0) {
    reasons.push_back(std::to_string(others) + " of " + Counted(check.threads, "thread") + ": " + why);
  }
  if (check.leftOut)
    reasons.push_back("more different sources than the meter tells apart: some were left out");
  return check.engine + ": not judged: " + Joined(reasons, "; ");
}

}  // namespace

std::string CheckText(const EngineCheck& check) {
  const bool isPartly = check.state == kPartlyJudged;
  if (check.state != kJudged && !isPartly) return NotJudgedText(check);
  const double share =
      check.allBytes == 0 ? 0 : static_cast<double>(check.bytes) / static_cast<double>(check.allBytes);
  const std::string threads = isPartly ? " " + std::string(check.leftOut ? "" : "only ") +
                                             std::to_string(check.judgedThreads) + " of " +
                                             Counted(check.threads, "thread") + " judged:"
                                       : "";
  // Copies have their sources to compare with, the others nothing but another thread.
  const bool isAlone = check.judgedThreads == 1 && check.engine != "cpu";
  return check.engine + ":" + threads +
         Format(" %.3g %% of the results' bytes checked, in ", std::min(share, 1.0) * 100) +
         Format("%.3g %% of the operations, %llu whole results; ",
                check.operations == 0
                    ? 0
                    : static_cast<double>(check.checked) / static_cast<double>(check.operations) * 100,
                static_cast<unsigned long long>(check.whole)) +
         (check.errors != 0 ? Counted(check.errors, "error")
          : isPartly        ? "no error in what was judged"
                            : "no error") +
         (isAlone ? "; one thread only: what is wrong from its first operation on is not seen" : "") +
         (check.leftOut ? "; some sources left out: more different ones than the meter tells apart" : "");
}

std::vector<std::string> NotJudged(const RunInfo& info) {
  std::vector<std::string> texts;
  if (!info.conditions.verify && info.verification.empty()) return texts;
  for (const EngineCheck& check : info.verification) {
    if (check.state != kJudged) texts.push_back(NotJudgedText(check));
  }
  for (const auto& [engine, level] : info.config.levels) {
    const bool isKnown = std::any_of(info.verification.begin(), info.verification.end(),
                                     [&id = engine](const EngineCheck& check) { return check.engine == id; });
    if (level > 0 && !isKnown) texts.push_back(engine + ": not judged: the meter said nothing of it");
  }
  return texts;
}

std::vector<std::string> CheckTexts(const RunInfo& info) {
  std::vector<std::string> texts;
  for (const EngineCheck& check : info.verification) texts.push_back(CheckText(check));
  const GuardSummary& guard = info.guard;
  if (guard.bytes == 0) return texts;
  constexpr double kMebibyte = 1 << 20;
  const double seconds = std::max(guard.guardedS, 1e-3);
  const double gigabytes = static_cast<double>(guard.checkedBytes) / kBytesPerGigabyte;
  texts.push_back(Format("guard: %.4g MiB of memory", static_cast<double>(guard.bytes) / kMebibyte) +
                  (guard.locked ? "" : " (not locked: it may be swapped out)") +
                  Format(", %.3g GB/s checked, %.3g CPUs, ", gigabytes / seconds, guard.cpuS / seconds) +
                  Counted(guard.walks, "walk") + (guard.isCut ? ", and one cut short" : "") +
                  (guard.reads == "none" ? "; reads may come from a cache; " : "; ") +
                  (guard.errors == 0 ? "no error" : Counted(guard.errors, "error")));
  return texts;
}

}  // namespace scope
