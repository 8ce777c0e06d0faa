// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "printable.h"
#include "rate_line.h"
#include "run_writer.h"
#include "text_format.h"

namespace scope {
namespace {

struct RatesOptions {
  std::string file = "-";
  std::string folder;
  bool force = false;
  std::string label;
  bool quiet = false;
};

// The next line, without its line feed. A line without an end, such as /dev/zero has, is cut: it is no rate
// line whatever follows.
bool GetLine(std::istream& input, std::string& line) {
  constexpr std::size_t kMostLetters = 4096;
  line.clear();
  for (int letter = input.get(); letter != std::istream::traits_type::eof(); letter = input.get()) {
    if (letter == '\n' || line.size() == kMostLetters) return true;
    line += static_cast<char>(letter);
  }
  return !line.empty();
}

// The rate lines of `input`, each with the time when it came.
class RateLines {
 public:
  RateLines(std::istream& input, bool isPipe) : input_(input), isPipe_(isPipe) {}

  // False at the end of the input.
  bool Next() {
    if (!GetLine(input_, line_)) return false;
    ++number_;
    if (!line_.empty() && line_.back() == '\r') line_.pop_back();  // a terminal adds it
    // Lines from standard input have a time of arrival. In a file, each line counts as one second.
    timeS_ = isPipe_ ? std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count()
                     : static_cast<double>(number_);
    return true;
  }

  const std::string& Line() const { return line_; }
  std::size_t Number() const { return number_; }
  double TimeS() const { return timeS_; }

 private:
  std::istream& input_;
  bool isPipe_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::string line_;
  std::size_t number_ = 0;
  double timeS_ = 0;
};

// Saves the lines up to the first one that is not a rate line. Returns an error about that one, or the empty
// string.
std::string SaveLines(const RatesOptions& options, const std::string& name, RateLines& lines) {
  const auto parse = [&] {
    try {
      return ParseRateLine(lines.Line(), lines.TimeS());
    } catch (const UserError& error) {
      throw UserError(name + ":" + std::to_string(lines.Number()) + ": " + error.what());
    }
  };
  // Without a rate line, no folder is made.
  if (!lines.Next()) throw UserError(name + " has no rate line, expected lines that the benchmark printed");
  (void)parse();

  RunWriter writer(options.folder, options.force);
  RunInfo info;
  info.tool = kToolVersion;
  info.kind = "rates";
  info.started = UtcNow();
  info.label = options.label;
  info.incompleteReason = "the input was not read to its end";
  writer.WriteInfo(info);
  info.incompleteReason.clear();
  do {
    info.durationS = lines.TimeS();
    try {
      const std::vector<Rate> rates = parse();
      writer.AddRateLines(lines.Line() + '\n');
      writer.Add(rates);
    } catch (const UserError& error) {
      info.incompleteReason = error.what();
      break;
    }
  } while (lines.Next());
  info.complete = info.incompleteReason.empty();
  writer.WriteInfo(info);
  return info.incompleteReason;
}

int SaveRates(const RatesOptions& options) {
  const bool standardInput = options.file == "-";
  const std::string name = standardInput ? "standard input" : options.file;
  std::ifstream file;
  if (!standardInput) {
    errno = 0;
    file.open(options.file, std::ios::binary);
    // Opening a folder succeeds, so test for it.
    if (!file || (file.peek() == std::ifstream::traits_type::eof() && errno != 0)) {
      throw UserError("cannot read rate lines from " + name + ": " + std::strerror(errno));
    }
    file.clear();
  }
  RateLines lines(standardInput ? std::cin : file, standardInput);
  const std::string wrong = SaveLines(options, name, lines);
  if (!wrong.empty()) {
    throw UserError(wrong + ". " + Counted(lines.Number() - 1, "line") + " before it " +
                    (lines.Number() == 2 ? "is" : "are") + " saved in " + options.folder);
  }
  if (!options.quiet)
    Print(Counted(lines.Number(), "line") + " saved in " + Printable(options.folder) + "\n");
  return kExitOk;
}

}  // namespace

void AddRates(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("rates", "Save rate lines from a pipe or a file as a run folder");
  const auto options = std::make_shared<RatesOptions>();
  command->add_option("FILE", options->file, "File with rate lines; - for standard input")
      ->capture_default_str();
  command->add_option("-o,--output", options->folder, "Run folder to make (default: rates-TIME)")
      ->type_name("DIR");
  command->add_flag("--force", options->force, "Replace an existing run in the folder");
  command->add_option("--label", options->label, "Text to save with the run")->type_name("WORDS");
  command->add_flag("--quiet", options->quiet, "Print nothing but errors");
  command->footer(
      "Examples:\n"
      "  ssh board ./stress_benchmark config.yaml | stress_scope rates -o board\n"
      "  stress_scope rates old-log.txt -o old");
  command->callback([options, &status] {
    if (options->folder.empty()) options->folder = TimedFolder("rates-");
    status = SaveRates(*options);
  });
}

}  // namespace scope
