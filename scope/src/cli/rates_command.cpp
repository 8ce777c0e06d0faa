// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "commands.h"
#include "errors.h"
#include "printable.h"
#include "rate_line.h"
#include "run_writer.h"

namespace scope {
namespace {

struct RatesOptions {
  std::string file = "-";
  std::string folder;
  bool force = false;
  std::string label;
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

int SaveRates(const RatesOptions& options) {
  const bool standardInput = options.file == "-";
  std::ifstream file;
  if (!standardInput) {
    errno = 0;
    file.open(options.file, std::ios::binary);
    // Opening a folder succeeds, so test for it.
    if (!file || file.peek() == std::ifstream::traits_type::eof()) {
      const std::string reason = errno == 0 ? "it is empty" : std::strerror(errno);
      throw UserError("cannot read rate lines from " + options.file + ": " + reason);
    }
  }
  std::istream& input = standardInput ? std::cin : file;

  RunWriter writer(options.folder, options.force);
  RunInfo info;
  info.tool = kToolVersion;
  info.kind = "rates";
  info.started = UtcNow();
  info.label = options.label;
  info.incompleteReason = "the input was not read to its end";
  writer.WriteInfo(info);
  writer.Add(std::vector<Rate>());

  const std::string name = standardInput ? "standard input" : options.file;
  const auto start = std::chrono::steady_clock::now();
  std::size_t number = 0;
  std::string reason;
  for (std::string line; GetLine(input, line);) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();  // a terminal adds it
    // Lines from standard input have a time of arrival. In a file, each line counts as one second.
    const double timeS = standardInput
                             ? std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()
                             : static_cast<double>(number);
    info.durationS = timeS;
    try {
      const std::vector<Rate> rates = ParseRateLine(line, timeS);
      writer.AddRateLines(line + '\n');
      writer.Add(rates);
    } catch (const UserError& error) {
      reason = name + ":" + std::to_string(number) + ": " + error.what();
      break;
    }
  }
  if (reason.empty() && number == 0) reason = name + " has no rate line";
  info.complete = reason.empty();
  info.incompleteReason = reason;
  writer.WriteInfo(info);
  if (!reason.empty()) {
    std::cerr << "stress_scope: " << Printable(reason) << "\nstress_scope: the "
              << (number == 0 ? 0 : number - 1) << " lines before it are saved in " << options.folder << '\n';
    return kExitBadUsage;
  }
  std::cout << number << " lines saved in " << options.folder << '\n';
  return kExitOk;
}

}  // namespace

void AddRates(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "rates", "Save rate lines from a pipe or a file as a run folder, if the meter cannot run there");
  const auto options = std::make_shared<RatesOptions>();
  command->add_option("FILE", options->file, "File with rate lines; - for standard input")
      ->capture_default_str();
  command->add_option("-o,--output", options->folder, "Run folder to make (default: rates-TIME)");
  command->add_flag("--force", options->force, "Replace an existing run in the folder");
  command->add_option("--label", options->label, "Text to save with the run");
  command->callback([options, &status] {
    if (options->folder.empty()) options->folder = TimedFolder("rates-");
    status = SaveRates(*options);
  });
}

}  // namespace scope
