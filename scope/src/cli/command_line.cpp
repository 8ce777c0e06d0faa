// SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <utility>

#include "similar_word.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr std::size_t kHelpWidth = 100;
constexpr std::size_t kHelpColumn = 26;

// A row of the help: a name, and a description that is broken into lines.
std::string HelpRow(const std::string& name, const std::string& description) {
  std::string text = "  " + name;
  if (text.size() >= kHelpColumn)
    text += "\n" + std::string(kHelpColumn - 1, ' ');
  else
    text.append(kHelpColumn - 1 - text.size(), ' ');
  std::size_t column = kHelpColumn - 1;
  std::istringstream words(description);
  for (std::string word; words >> word;) {
    if (column + 1 + word.size() > kHelpWidth) {
      text += "\n" + std::string(kHelpColumn - 1, ' ');
      column = kHelpColumn - 1;
    }
    text += " " + word;
    column += 1 + word.size();
  }
  return text + '\n';
}

class HelpLayout : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode /*mode*/) const override {
    const auto positionals = Options(*app, true);
    const auto options = Options(*app, false);
    const auto commands = app->get_subcommands([](const CLI::App*) { return true; });
    std::string text = "Usage: " + name + (commands.empty() ? "" : " COMMAND") + " [OPTION]...";
    for (const CLI::Option* option : positionals) text += " " + UsageOf(*option);
    text += "\n" + app->get_description() + ".\n";
    if (!commands.empty()) text += "\nCommands:\n";
    for (const CLI::App* command : commands) text += HelpRow(command->get_name(), command->get_description());
    if (!positionals.empty()) text += "\nArguments:\n";
    for (const CLI::Option* option : positionals)
      text += HelpRow(option->get_name(true), DescriptionOf(*option));
    text += "\nOptions:\n";
    for (const CLI::Option* option : options) text += HelpRow(NameOf(*option), DescriptionOf(*option));
    if (!app->get_footer().empty()) text += "\n" + app->get_footer() + "\n";
    return text;
  }

 private:
  static std::vector<const CLI::Option*> Options(const CLI::App& app, bool positional) {
    return app.get_options([positional](const CLI::Option* option) {
      return option->get_positional() == positional && !option->get_group().empty();
    });
  }

  static std::string UsageOf(const CLI::Option& option) {
    const bool many = option.get_expected_max() >= CLI::detail::expected_max_vector_size;
    const std::string name = option.get_name(true) + (many ? "..." : "");
    return option.get_required() ? name : "[" + name + "]";
  }

  static std::string NameOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames()) names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
    const bool flag = option.get_type_size() == 0;
    return Joined(names, ", ") + (flag ? "" : " " + option.get_type_name());
  }

  static std::string DescriptionOf(const CLI::Option& option) {
    const std::string given = option.get_default_str();
    return option.get_description() + (given.empty() ? "" : " (default: " + given + ")");
  }
};

std::string DidYouMean(const std::string& word, const std::vector<std::string>& words) {
  const std::string similar = Similar(word, words);
  return similar.empty() ? "" : ". Did you mean " + similar + "?";
}

std::vector<std::string> CommandsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(command->get_name());
  return names;
}

std::vector<std::string> OptionsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

// Without the hint where to read on.
std::string WhatIsWrong(const CLI::App& command, bool isTop, const std::vector<std::string>& unknown,
                        const CLI::ParseError& error) {
  const auto option = std::find_if(unknown.begin(), unknown.end(), [](const std::string& word) {
    return word.size() > 1 && word.front() == '-' && word != "--";
  });
  if (option != unknown.end()) {
    const std::string name = option->substr(0, option->find('='));
    return "there is no option " + name + DidYouMean(name, OptionsOf(command));
  }
  if (isTop && !unknown.empty()) {
    return "there is no command \"" + unknown.front() + "\"" +
           DidYouMean(unknown.front(), CommandsOf(command));
  }
  if (isTop) return "a command is missing: expected one of " + Joined(CommandsOf(command), ", ");
  if (!unknown.empty()) return "unexpected argument \"" + unknown.front() + "\"";
  const std::string text = error.what();
  const std::string kind = error.get_name();
  if (kind == "RequiredError") return text.substr(0, text.find(" is required")) + " is missing";
  if (kind == "ArgumentMismatch") {
    const bool isTooOften = text.find("At Most") != std::string::npos;
    return text.substr(0, text.find(':')) +
           (isTooOften ? " is given more than once" : ": the value is missing");
  }
  const std::size_t excludes = text.find(" excludes ");
  if (kind == "ExcludesError" && excludes != std::string::npos) {
    return text.substr(0, excludes) + " cannot be used together with " +
           text.substr(excludes + std::string(" excludes ").size());
  }
  return text;
}

}  // namespace

void AddOutput(CLI::App& command, Output& output) {
  CLI::Option* const json = command.add_flag_callback(
      "--json", [&output] { output = Output::kJson; }, "Print JSON instead of text");
  command.add_flag_callback(
             "--quiet", [&output] { output = Output::kQuiet; }, "Print nothing but errors")
      ->excludes(json);
}

void AddColour(CLI::App& command, TextStyle& style) {
  style = OutputStyle(ColourMode::kAuto);
  const auto set = [&style](const std::string& when) {
    style = OutputStyle(when == "always"  ? ColourMode::kAlways
                        : when == "never" ? ColourMode::kNever
                                          : ColourMode::kAuto);
  };
  command.add_option_function<std::string>("--color", set, "Colour verdicts: auto, always or never")
      ->type_name("WHEN")
      ->check(OneOf({"auto", "always", "never"}));
}

void Print(const std::string& text) {
  std::cout << text << std::flush;
}

void SetHelpLayout(CLI::App& app) {
  app.formatter(std::make_shared<HelpLayout>());
  app.get_help_ptr()->description("Print this help");
}

CLI::Validator NumberFrom(double least, double most) {
  return {[least, most](const std::string& text) {
            char* end = nullptr;
            errno = 0;
            const double value = std::strtod(text.c_str(), &end);
            const bool decimal = !text.empty() && *end == '\0' &&
                                 text.find_first_not_of("0123456789.eE+-") == std::string::npos;
            const bool fits = errno == 0 && (value == 0 || std::isnormal(value));
            if (decimal && fits && value >= least && value <= most) return std::string();
            return Format("expected a number from %.15g to %.15g, found \"", least, most) + text + "\"";
          },
          ""};
}

CLI::Validator WholeNumberFrom(std::uint64_t least, std::uint64_t most) {
  return {[least, most](std::string& text) {
            errno = 0;
            const std::uint64_t value = std::strtoull(text.c_str(), nullptr, 10);
            const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
            if (digits && errno == 0 && value >= least && value <= most) {
              text = std::to_string(value);
              return std::string();
            }
            return "expected a whole number from " + std::to_string(least) + " to " + std::to_string(most) +
                   ", found \"" + text + "\"";
          },
          ""};
}

CLI::Validator OneOf(std::vector<std::string> words) {
  return {[words = std::move(words)](const std::string& text) {
            if (std::count(words.begin(), words.end(), text) != 0) return std::string();
            return "expected one of " + Joined(words, ", ") + ", found \"" + text + "\"" +
                   DidYouMean(text, words);
          },
          ""};
}

std::string UsageError(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const CLI::App& command = chosen.empty() ? app : *chosen.front();
  const std::string name = app.get_name() + (chosen.empty() ? "" : " " + command.get_name());
  const std::string wrong = WhatIsWrong(command, chosen.empty(), app.remaining(true), error);
  return wrong + (wrong.back() == '?' ? " See " : ". See ") + name + " --help.";
}

}  // namespace scope
