// SPDX-License-Identifier: Apache-2.0
#include "program_test.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>

std::string ProgramTest::Write(const std::string& name, const std::string& content) const {
  std::ofstream file(Directory() / name, std::ios::binary);
  file << content;
  file.close();
  EXPECT_TRUE(file.good()) << name;
  return name;
}

std::string ProgramTest::Read(const std::string& name) const {
  std::ostringstream content;
  content << std::ifstream(Directory() / name, std::ios::binary).rdbuf();
  return content.str();
}

bool ProgramTest::Exists(const std::string& name) const {
  return std::filesystem::exists(std::filesystem::symlink_status(Directory() / name));
}

std::vector<std::string> ProgramTest::Files() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(Directory())) {
    names.push_back(std::filesystem::relative(entry.path(), Directory()).string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

Launch ProgramTest::With(std::vector<std::string> arguments) const {
  Launch launch;
  launch.arguments = std::move(arguments);
  launch.directory = Directory();
  return launch;
}

Launch ProgramTest::Configured(const std::string& configuration) const {
  return With({Write("c.yaml", configuration)});
}

Ending ProgramTest::Run(Launch launch) {
  Program program(std::move(launch));
  return program.Wait();
}

Ending ProgramTest::RunLines(Launch launch, int lines) {
  Program program(std::move(launch));
  for (int i = 0; i < lines; ++i) {
    const auto line = program.ReadLine();
    EXPECT_TRUE(line.has_value()) << "line " << i + 1 << " did not come";
    if (!line) break;
  }
  program.Signal(SIGINT);
  return program.Wait();
}

bool ProgramTest::RunAsAnother(Launch& launch) const {
  if (geteuid() != 0) return false;
  using std::filesystem::perms;
  std::filesystem::permissions(Directory(), perms::owner_all | perms::group_exec | perms::group_read |
                                                perms::others_exec | perms::others_read);
  launch.user = 20000 + static_cast<uid_t>(getpid()) % 40000;
  Launch usage = With({});
  usage.user = launch.user;
  return Run(usage).status == 0;
}

std::map<std::string, std::string> Rates(const std::string& line) {
  static const std::regex entry(R"(^(\w+) : (\d+\.\d{6}) fps\. )");
  std::map<std::string, std::string> rates;
  std::string rest = line;
  std::smatch parts;
  while (std::regex_search(rest, parts, entry)) {
    EXPECT_TRUE(rates.emplace(parts[1], parts[2]).second) << parts[1] << " twice in: " << line;
    rest = parts.suffix();
  }
  EXPECT_EQ(rest, "ispStress : 30.0 fps.") << "in: " << line;
  return rates;
}

void ExpectRateLines(const std::vector<std::string>& lines, const std::vector<std::string>& stresses) {
  for (const std::string& line : lines) {
    std::vector<std::string> names;
    for (const auto& [name, rate] : Rates(line)) names.push_back(name);
    EXPECT_THAT(names, testing::UnorderedElementsAreArray(stresses)) << line;
  }
}
