// SPDX-License-Identifier: Apache-2.0

// The command line of stress_scope as a user meets it: help, errors, numbers, and what goes to standard
// output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "made_run.h"
#include "page_json.h"
#include "run_tool.h"
#include "similar_word.h"
#include "synthetic_run.h"
#include "system_files.h"
#include "temporary_folder.h"
#include "text_format.h"
#include "text_table.h"

namespace {

using scope::ChildProcess;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using Json = nlohmann::json;

constexpr const char* kCommands[] = {"record", "rates", "report",  "sweep", "compare", "ab",
                                     "plan",   "cell",  "collect", "fleet", "matrix",  "curve"};
constexpr const char* kOneLine = "cpuStress : 5.000000 fps. ispStress : 30.0 fps.";

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// In characters of UTF-8.
std::size_t LongestLine(const std::string& text) {
  std::size_t longest = 0;
  for (const std::string& line : LinesOf(text)) {
    const auto width = std::count_if(line.begin(), line.end(), [](char byte) {
      return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
    });
    longest = std::max(longest, static_cast<std::size_t>(width));
  }
  return longest;
}

class CommandLineTest : public ::testing::Test {
 protected:
  std::string Config() const { return folder_.Put("config.yaml", "CPU:\n  Level: 1\n"); }

  // A program that prints one rate line.
  std::string Benchmark() const {
    const std::string path = folder_.Put("benchmark", std::string("#!/bin/sh\necho '") + kOneLine + "'\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  std::string Run() const {
    if (!std::filesystem::exists(folder_ / "made")) made_run::Write(made_run::Run(), folder_ / "made");
    return folder_ / "made";
  }

  ToolResult Record(std::vector<std::string> more) const {
    std::vector<std::string> arguments = {"record",      Config(),    "-o",        folder_ / "run",
                                          "--benchmark", Benchmark(), "--no-meter"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunTool(arguments);
  }

  ToolResult Sweep(std::vector<std::string> more) const {
    std::vector<std::string> arguments = {
        "sweep",    Config(), "-o",       folder_ / "sweep", "--benchmark", Benchmark(), "--no-meter",
        "--warmup", "0",      "--levels", "CPU=1..3",        "--seed",      "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunTool(arguments);
  }

  // Four runs a side. Those of B do a fifth less.
  void MakeSides() const {
    for (int i = 0; i < 4; ++i) {
      SyntheticEngine engine;
      engine.operationsPerS = 500 + i;
      WriteRun(folder_ / ("a/" + std::to_string(i)), {engine});
      engine.operationsPerS = 400 + i;
      WriteRun(folder_ / ("b/" + std::to_string(i)), {engine});
    }
  }

  // Runs `command` in a shell on a terminal of this width. The terminal's output is the result's.
  static ToolResult OnTerminal(int width, const std::string& command) {
    ChildProcess::Options options = ProgramOptions(
        "/usr/bin/script", {"-qec", "stty cols " + std::to_string(width) + "; " + command, "/dev/null"});
    options.environment = {{"TERM", "xterm"}};
    ChildProcess child(options);
    ToolResult result = WaitFor(child);
    result.output.erase(std::remove(result.output.begin(), result.output.end(), '\r'), result.output.end());
    return result;
  }

  TemporaryFolder folder_;
};

TEST_F(CommandLineTest, EachHelpHasAnExampleAndFitsAHundredColumns) {
  for (const std::string command : kCommands) {
    const ToolResult result = RunTool({command, "--help"});
    EXPECT_EQ(result.status, 0) << command;
    EXPECT_THAT(result.output, StartsWith("Usage: stress_scope " + command + " [OPTION]...")) << command;
    EXPECT_THAT(result.output, HasSubstr("Example")) << command;
    EXPECT_THAT(result.output, HasSubstr("\n  stress_scope " + command + " ")) << command;
    EXPECT_LE(LongestLine(result.output), 100U) << command;
    for (const char* const word : {"TEXT", "FLOAT", " INT", "Excludes", "REQUIRED", ":[", "{"})
      EXPECT_THAT(result.output, Not(HasSubstr(word))) << command;
  }
  const ToolResult whole = RunTool({"--help"});
  EXPECT_LE(LongestLine(whole.output), 100U);
  for (const std::string command : kCommands) EXPECT_THAT(whole.output, HasSubstr("\n  " + command + " "));
}

// The options in the command's manual page, without its backslashes: it writes \- for -, and \fI before what
// an option takes.
std::string OptionsIn(const char* page) {
  std::string manual = scope::ReadText(page).value_or("");
  manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
  const std::size_t from = manual.find(".SH OPTIONS");
  if (from == std::string::npos) return {};
  return manual.substr(from, manual.find(".SH", from + 1) - from);
}

std::string OptionsInManual(const std::string& command) {
  const bool isOfPlans = command == "plan" || command == "cell" || command == "collect";
  const char* const page = command == "fleet"    ? SCOPE_FLEET_MANUAL
                           : command == "matrix" ? SCOPE_MATRIX_MANUAL
                           : isOfPlans           ? SCOPE_PLAN_MANUAL
                                                 : SCOPE_MANUAL;
  return OptionsIn(page) + (command == "record"  ? OptionsIn(SCOPE_RECORD_MANUAL)
                            : command == "sweep" ? OptionsIn(SCOPE_SWEEP_MANUAL)
                            : command == "curve" ? OptionsIn(SCOPE_CURVE_MANUAL)
                                                 : "");
}

TEST_F(CommandLineTest, TheManualHasEveryOption) {
  const std::regex option("(^|[ ,])(--?[a-z][a-z-]*)");
  std::size_t options = 0;
  for (const std::string command : kCommands) {
    const std::string manual = OptionsInManual(command);
    for (const std::string& line : LinesOf(RunTool({command, "--help"}).output)) {
      if (line.rfind("  -", 0) != 0) continue;
      const std::string names = line.substr(0, line.find("  ", 2));
      for (std::sregex_iterator at(names.begin(), names.end(), option), end; at != end; ++at) {
        ++options;
        EXPECT_TRUE(std::regex_search(manual, std::regex("[ \n]" + at->str(2) + "[^a-z-]")))
            << command << " " << at->str(2);
      }
    }
  }
  EXPECT_GT(options, 60U);
}

TEST_F(CommandLineTest, TheManualSaysLikeTheHelpWhatAnOptionTakes) {
  const std::regex option("^  (-[a-z], )?(--[a-z-]+) ([A-Z]+)");
  std::size_t options = 0;
  for (const std::string command : kCommands) {
    const std::vector<std::string> manual = LinesOf(OptionsInManual(command));
    for (const std::string& line : LinesOf(RunTool({command, "--help"}).output)) {
      std::smatch found;
      // One entry of the manual is about the --output of all commands: a folder or a page.
      if (!std::regex_search(line, found, option) || found.str(2) == "--output") continue;
      const std::regex entry("^[.]B.*[ \"]" + found.str(2) + "[ \"].*?fI([A-Z]+)");
      for (const std::string& text : manual) {
        std::smatch taken;
        if (!std::regex_search(text, taken, entry)) continue;
        ++options;
        EXPECT_EQ(taken.str(1), found.str(3)) << command << " " << found.str(2);
      }
    }
  }
  EXPECT_GT(options, 35U);
}

TEST_F(CommandLineTest, AnOptionSaysWhatItTakes) {
  const std::string help = RunTool({"record", "--help"}).output;
  EXPECT_THAT(help,
              AllOf(HasSubstr("  -o, --output DIR "), HasSubstr("  --benchmark FILE "),
                    HasSubstr("  --grace SECONDS "), HasSubstr("(default: 15)"), HasSubstr("  --force ")));
  EXPECT_THAT(RunTool({"compare", "--help"}).output, HasSubstr("  --tolerance PERCENT "));
}

TEST_F(CommandLineTest, SuggestsWhatWasMeant) {
  const auto error = [](std::vector<std::string> arguments) {
    const ToolResult result = RunTool(std::move(arguments));
    EXPECT_EQ(result.status, 2);
    return result.errors;
  };
  EXPECT_EQ(error({"rceord", "c.yaml"}),
            "stress_scope: there is no command \"rceord\". Did you mean record? See stress_scope --help.\n");
  EXPECT_THAT(error({"record", Config(), "--lable", "x"}),
              HasSubstr("there is no option --lable. Did you mean --label? See stress_scope record --help."));
  EXPECT_THAT(error({"record", "--stop-aftr=3"}),
              HasSubstr("no option --stop-aftr. Did you mean --stop-after?"));
  EXPECT_THAT(error({"compare", Run(), Run(), "--figure", "p9"}), HasSubstr("Did you mean p99?"));
  // Nothing is similar.
  EXPECT_THAT(error({"dance"}), AllOf(HasSubstr("no command \"dance\". See"), Not(HasSubstr("mean"))));
}

TEST_F(CommandLineTest, SimilarMeansATypingError) {
  const std::vector<std::string> words = {"record", "report", "rates"};
  EXPECT_EQ(scope::Similar("rceord", words), "record");
  EXPECT_EQ(scope::Similar("repot", words), "report");
  EXPECT_EQ(scope::Similar("rate", words), "rates");
  EXPECT_EQ(scope::Similar("", words), "");
  EXPECT_EQ(scope::Similar("sweep", words), "");
  EXPECT_EQ(scope::Similar("record", {}), "");
}

TEST_F(CommandLineTest, AnErrorBeginsWithTheProgramAndEndsWithWhatToDo) {
  const auto refused = [](std::vector<std::string> arguments, const std::string& wrong,
                          const std::string& end) {
    const ToolResult result = RunTool(std::move(arguments));
    EXPECT_EQ(result.status, 2) << wrong;
    EXPECT_EQ(result.output, "") << wrong;
    EXPECT_THAT(result.errors, AllOf(StartsWith("stress_scope: " + wrong), EndsWith(end + "\n")));
    EXPECT_EQ(LinesOf(result.errors).size(), 1U) << result.errors;
  };
  refused({}, "a command is missing: expected one of record, rates,", "See stress_scope --help.");
  refused({"record"}, "CONFIG is missing", "See stress_scope record --help.");
  refused({"record", Config(), "-o"}, "--output: the value is missing", "See stress_scope record --help.");
  refused({"record", Config(), "-o", "a", "--output", "b"}, "--output is given more than once",
          "See stress_scope record --help.");
  refused({"record", Config(), "--guard", ""}, "--guard: expected a size as 512M or 2G, or ",
          "found \"\". See stress_scope record --help.");
  refused({"report", Run(), "--json", "--quiet"}, "--json cannot be used together with --quiet",
          "See stress_scope report --help.");
  refused({"rates", "a", "b"}, "unexpected argument \"b\"", "See stress_scope rates --help.");
  refused({"sweep", Config(), "--repeat", "x"},
          "--repeat: expected a whole number from 1 to 1000, found \"x\"", "See stress_scope sweep --help.");
}

TEST_F(CommandLineTest, RefusesWhatIsNotAFiniteNumber) {
  const std::string run = Run();
  const std::vector<std::vector<std::string>> commands = {
      {"compare", run, run, "--tolerance"},  {"compare", run, run, "--skip"},
      {"compare", run, run, "--confidence"}, {"record", Config(), "--stop-after"},
      {"record", Config(), "--grace"},       {"record", Config(), "--run-time"},
      {"sweep", Config(), "--warmup"},       {"sweep", Config(), "--stop-after"},
      {"sweep", Config(), "--repeat"},       {"sweep", Config(), "--seed"}};
  for (std::vector<std::string> arguments : commands) {
    const std::string option = arguments.back();
    for (const std::string value : {"nan", "-inf", "1e-320", "1e400", "0x1", "12x", ""}) {
      arguments.push_back(value);
      const ToolResult result = RunTool(arguments);
      EXPECT_EQ(result.status, 2) << option << " " << value;
      EXPECT_THAT(result.errors, StartsWith("stress_scope: " + option + ": expected a ")) << value;
      EXPECT_THAT(result.errors, HasSubstr("found \"" + value + "\"")) << option;
      arguments.pop_back();
    }
  }
  EXPECT_EQ(RunTool({"compare", run, run, "--tolerance", "0", "--allow-unclear"}).status, 0);
  EXPECT_EQ(RunTool({"compare", run, run, "--tolerance", "2.5e1", "--allow-unclear"}).status, 0);
}

// The name of the folder of a cell has its number with zeros in front.
TEST_F(CommandLineTest, ZerosInFrontOfANumberMeanNothing) {
  const std::string plan = folder_ / "plan.json";
  const ToolResult made =
      RunTool({"plan", Config(), "--repeat", "010", "--seed", "0100", "-o", plan, "--json"});
  ASSERT_EQ(made.status, 0) << made.errors;
  const Json json = Json::parse(made.output);
  EXPECT_EQ(json.at("cells").size(), 10U);
  EXPECT_EQ(json.at("seed"), 100);
  for (const std::string number : {"0011", "0018"}) {
    EXPECT_THAT(RunTool({"cell", plan, number, "-o", folder_ / "cells"}).errors,
                HasSubstr("there is no cell " + number.substr(2) + " in "));
  }
  EXPECT_EQ(RunTool({"plan", Config(), "--repeat", "0x10"}).status, 2);
}

TEST_F(CommandLineTest, JsonOfARecordingIsItsReport) {
  const ToolResult result = Record({"--json"});
  EXPECT_EQ(result.status, 0) << result.errors;
  const Json json = Json::parse(result.output);
  EXPECT_EQ(json.at("format"), 1);
  EXPECT_EQ(json.at("kind"), "report");
  EXPECT_EQ(json.at("runs").at(0).at("folder"), folder_ / "run");
  EXPECT_EQ(json.at("runs").at(0).at("complete"), true);
  EXPECT_EQ(json.at("runs").at(0).at("printed").at(0).at("median_fps"), 5);
  EXPECT_EQ(RunTool({"report", folder_ / "run", "--json"}).output, result.output);
}

TEST_F(CommandLineTest, JsonOfAReportWritesNoPage) {
  const std::string run = Run();
  const ToolResult result = RunTool({"report", run, "--json"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(Json::parse(result.output).at("runs").at(0).at("engines").size(), 4U);
  EXPECT_FALSE(std::filesystem::exists(run + "/report.html"));
  EXPECT_EQ(RunTool({"report", run, "--json", "-o", folder_ / "page.html"}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(folder_ / "page.html"));
}

TEST_F(CommandLineTest, JsonOfASweepHasItsPoints) {
  const ToolResult result = Sweep({"--json"});
  EXPECT_EQ(result.status, 0) << result.errors;
  const Json json = Json::parse(result.output);
  EXPECT_EQ(json.at("format"), 1);
  EXPECT_EQ(json.at("kind"), "sweep");
  EXPECT_EQ(json.at("complete"), true);
  EXPECT_EQ(json.at("grid").at("CPU"), Json({1, 2, 3}));
  ASSERT_EQ(json.at("points").size(), 3U);
  const Json& point = json.at("points").at(2);
  EXPECT_EQ(point.at("levels").at("CPU"), 3);
  EXPECT_EQ(point.at("figures").at(0).at("figure"), "printed");
  EXPECT_EQ(point.at("figures").at(0).at("median"), 5);
  EXPECT_EQ(json.at("saturation"), nullptr);
  EXPECT_EQ(json.at("comparison"), nullptr);
  EXPECT_EQ(RunTool({"report", folder_ / "sweep", "--json"}).output, result.output);
}

// The names of all members, at any depth. Members that a run names itself (levels, libraries) are left out.
void AddKeys(const Json& json, std::set<std::string>& keys) {
  if (!json.is_structured()) return;
  for (const auto& [key, value] : json.items()) {
    if (json.is_object()) keys.insert(key);
    const bool named = key == "levels" || key == "grid" || key == "library_versions" || key == "settings";
    if (!named) AddKeys(value, keys);
  }
}

TEST_F(CommandLineTest, FormatDescribesEveryKeyOfTheJson) {
  const std::string format =
      scope::ReadFile(SCOPE_FORMAT).value_or("") + scope::ReadFile(SCOPE_FORMAT_BOARDS).value_or("");
  // As `key`, `group.key`, `key[]` or `key.member`, or as "name" of a figure.
  const auto describes = [&format](const std::string& key) {
    for (const char* const before : {"`", "."}) {
      for (const char* const after : {"`", ".", "["}) {
        if (format.find(before + key + after) != std::string::npos) return true;
      }
    }
    return format.find('"' + key + '"') != std::string::npos;
  };
  const std::string run = Run();
  std::set<std::string> keys;
  AddKeys(Json::parse(RunTool({"report", run, "--json"}).output), keys);
  AddKeys(Json::parse(Sweep({"--json"}).output), keys);
  AddKeys(Json::parse(RunTool({"compare", run, run, "--json", "-o", folder_ / "page.html"}).output), keys);
  AddKeys(DataOf(folder_.Get("page.html")), keys);
  AddKeys(
      Json::parse(RunTool({"plan", Config(), "--no-meter", "-o", folder_ / "plan.json", "--json"}).output),
      keys);
  AddKeys(Json::parse(RunTool({"cell", folder_ / "plan.json", "1", "-o", folder_ / "cells", "--benchmark",
                               Benchmark(), "--json"})
                          .output),
          keys);
  AddKeys(Json::parse(RunTool({"collect", folder_ / "cells", "--json"}).output), keys);
  AddKeys(
      Json::parse(
          RunTool({"fleet", folder_ / "cells", "--json", "--save-baseline", folder_ / "baseline"}).output),
      keys);
  AddKeys(Json::parse(folder_.Get("baseline")), keys);
  EXPECT_GT(keys.size(), 60U);
  for (const std::string& key : keys) EXPECT_TRUE(describes(key)) << key;
  EXPECT_FALSE(describes("no_such_key"));
}

TEST_F(CommandLineTest, QuietPrintsNothing) {
  EXPECT_THAT(Record({"--quiet"}).output, IsEmpty());
  EXPECT_TRUE(std::filesystem::exists(folder_ / "run/run.json"));
  const ToolResult sweep = Sweep({"--quiet"});
  EXPECT_EQ(sweep.status, 0);
  EXPECT_THAT(sweep.output + sweep.errors, IsEmpty());
  const std::string lines = folder_.Put("lines", std::string(kOneLine) + "\n");
  EXPECT_THAT(RunTool({"rates", lines, "-o", folder_ / "rates", "--quiet"}).output, IsEmpty());
  EXPECT_THAT(RunTool({"report", Run(), "--quiet"}).output, IsEmpty());
  EXPECT_TRUE(std::filesystem::exists(Run() + "/report.html"));
  const ToolResult compared = RunTool({"compare", Run(), Run(), "--quiet", "--allow-unclear"});
  EXPECT_EQ(compared.status, 0);
  EXPECT_THAT(compared.output + compared.errors, IsEmpty());
  // An error is printed.
  EXPECT_THAT(RunTool({"report", folder_ / "none", "--quiet"}).errors, HasSubstr("none"));
}

TEST_F(CommandLineTest, ReportOfASweepShowsItsFigures) {
  const ToolResult sweep = Sweep({});
  ASSERT_EQ(sweep.status, 0) << sweep.errors;
  const ToolResult report = RunTool({"report", folder_ / "sweep"});
  EXPECT_EQ(report.status, 0) << report.errors;
  EXPECT_THAT(report.output, HasSubstr("Medians after a warm-up of 0 s\nCPU  runs  cpu printed fps\n"));
  EXPECT_THAT(sweep.output, EndsWith(report.output));
  const ToolResult both = RunTool({"report", folder_ / "sweep", Run()});
  EXPECT_EQ(both.status, 2);
  EXPECT_THAT(both.errors, HasSubstr("sweep is a sweep"));
}

TEST_F(CommandLineTest, RatesOfNothingLeaveNoFolder) {
  const std::string run = folder_ / "run";
  const auto refused = [&](const std::string& file, const std::string& words) {
    const ToolResult result = RunTool({"rates", file, "-o", run});
    EXPECT_EQ(result.status, 2) << words;
    EXPECT_THAT(result.errors, AllOf(StartsWith("stress_scope: "), HasSubstr(words)));
    EXPECT_FALSE(std::filesystem::exists(run)) << words;
  };
  refused(folder_.Put("empty.txt", ""), "empty.txt has no rate line");
  refused("/dev/null", "/dev/null has no rate line");
  refused(folder_.Put("words.txt", "no rates here\n"), "words.txt:1: character 3: expected");
  refused(folder_.Path(), "Is a directory");
  EXPECT_THAT(
      RunProgram("/bin/sh", {"-c", std::string(STRESS_SCOPE) + " rates -o " + run + " </dev/null"}).errors,
      HasSubstr("standard input has no rate line"));
  EXPECT_FALSE(std::filesystem::exists(run));
}

TEST_F(CommandLineTest, CountsHaveASingular) {
  EXPECT_EQ(scope::Counted(0, "run"), "0 runs");
  EXPECT_EQ(scope::Counted(1, "run"), "1 run");
  EXPECT_EQ(scope::Counted(2, "run"), "2 runs");
  const std::string one = folder_.Put("one", std::string(kOneLine) + "\n");
  EXPECT_THAT(RunTool({"rates", one, "-o", folder_ / "one-run"}).output, StartsWith("1 line saved in "));
  const std::string two = folder_.Put("two", std::string(kOneLine) + "\n" + kOneLine + "\n");
  EXPECT_THAT(RunTool({"rates", two, "-o", folder_ / "two-runs"}).output, StartsWith("2 lines saved in "));
  const std::string cut = folder_.Put("cut", std::string(kOneLine) + "\nhello\n");
  EXPECT_THAT(RunTool({"rates", cut, "-o", folder_ / "cut-run"}).errors,
              HasSubstr(". 1 line before it is saved"));
}

TEST_F(CommandLineTest, TablesFitAHundredColumns) {
  const ToolResult report = RunTool({"report", Run(), "--text"});
  EXPECT_THAT(report.output, HasSubstr("exact fps\n"));
  EXPECT_LE(LongestLine(report.output.substr(0, report.output.find("warning"))), 100U) << report.output;
}

TEST_F(CommandLineTest, TablesFitTheTerminal) {
  const std::string command = std::string(STRESS_SCOPE) + " report " + Run() + " --text";
  const std::string wide = OnTerminal(140, command).output;
  EXPECT_THAT(wide, AllOf(HasSubstr("\n  engine  threads "), HasSubstr(" printed fps  exact fps\n")));
  const std::string narrow = OnTerminal(60, command).output;
  const std::string table =
      narrow.substr(narrow.find("  engine"), narrow.find("warning") - narrow.find("  engine"));
  EXPECT_LE(LongestLine(table), 60U) << narrow;
  // The columns that did not fit follow, each with its engine.
  EXPECT_THAT(table, ContainsRegex("\n\n  engine .*exact fps\n  cpu +"));
}

TEST_F(CommandLineTest, VerdictsHaveColoursOnATerminal) {
  MakeSides();
  const std::string compare =
      std::string(STRESS_SCOPE) + " compare " + (folder_ / "a") + " " + (folder_ / "b");
  constexpr const char* kRed = "\033[1;31m";
  constexpr const char* kColour = "\033[";
  EXPECT_THAT(OnTerminal(100, compare).output, HasSubstr(std::string(kRed) + "worse\033[0m"));
  EXPECT_THAT(OnTerminal(100, "NO_COLOR=1 " + compare).output,
              AllOf(HasSubstr("worse"), Not(HasSubstr(kColour))));
  EXPECT_THAT(OnTerminal(100, "NO_COLOR= " + compare).output, HasSubstr(kRed));
  EXPECT_THAT(OnTerminal(100, compare + " --color never").output, Not(HasSubstr(kColour)));
  EXPECT_THAT(OnTerminal(100, "TERM=dumb " + compare).output, Not(HasSubstr(kColour)));
  // Into a pipe.
  const std::vector<std::string> arguments = {"compare", folder_ / "a", folder_ / "b"};
  EXPECT_THAT(RunTool(arguments).output, AllOf(HasSubstr("worse"), Not(HasSubstr(kColour))));
  EXPECT_THAT(RunTool({"compare", folder_ / "a", folder_ / "b", "--color", "always"}).output,
              HasSubstr(kRed));
  EXPECT_THAT(RunTool({"compare", folder_ / "a", folder_ / "b", "--color", "alwayz"}).errors,
              HasSubstr("Did you mean always?"));
}

TEST(TextTableTest, ColumnsThatDoNotFitFollowBelow) {
  scope::TextTable table("ll");
  table.Add({"a", "key", "first", "second", "third"});
  table.Add({"1", "x", "111", "222222", "3"});
  EXPECT_EQ(table.Text(100, 2), "a  key  first  second  third\n1  x      111  222222      3\n");
  EXPECT_EQ(table.Text(21, 2),
            "a  key  first  second\n1  x      111  222222\n\na  key  third\n1  x        3\n");
  EXPECT_EQ(
      table.Text(20, 2),
      "a  key  first\n1  x      111\n\na  key  second\n1  x    222222\n\na  key  third\n1  x        3\n");
  // A column that is too wide alone has a block of its own.
  EXPECT_EQ(table.Text(3, 1),
            "a  key\n1  x\n\na  first\n1    111\n\na  second\n1  222222\n\na  third\n1      3\n");
}

TEST(TextTableTest, ColoursHaveNoWidth) {
  scope::TextTable table("ll");
  table.Add({"\033[31mworse\033[0m", "x"});
  table.Add({"better", "y"});
  EXPECT_EQ(table.Text(), "\033[31mworse\033[0m   x\nbetter  y\n");
}

}  // namespace
