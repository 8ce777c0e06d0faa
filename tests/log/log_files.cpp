// SPDX-License-Identifier: Apache-2.0
#include "log_files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace log_test {

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "log_test.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    ADD_FAILURE() << "cannot make " << name;
    return;
  }
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  EXPECT_EQ(begin, text.size()) << "the last line is not ended: " << text.substr(begin);
  return lines;
}

Line ParseLine(const std::string& line) {
  Line parsed;
  std::istringstream columns(line);
  columns >> parsed.time >> parsed.level >> parsed.appId >> parsed.contextId >> parsed.threadId;
  const bool separated = columns.get() == ' ';
  std::getline(columns, parsed.text);
  EXPECT_TRUE(separated && parsed.time.size() == 27 && parsed.time.back() == 'Z') << line;
  EXPECT_EQ(parsed.threadId.find_first_not_of("0123456789"), std::string::npos) << line;
  return parsed;
}

std::vector<Line> ReadLog(const std::string& path) {
  std::vector<Line> lines;
  for (const std::string& line : SplitLines(ReadFile(path))) lines.push_back(ParseLine(line));
  return lines;
}

}  // namespace log_test
