// SPDX-License-Identifier: Apache-2.0
#include "log_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

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

// Not character by character, which takes long with a sanitizer.
std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  for (char bytes[4096]; file;) {
    file.read(bytes, sizeof bytes);
    text.append(bytes, static_cast<std::size_t>(file.gcount()));
  }
  return text;
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
  std::size_t begin = 0;
  for (std::string* const column :
       {&parsed.time, &parsed.level, &parsed.appId, &parsed.contextId, &parsed.threadId}) {
    begin = std::min(line.find_first_not_of(' ', begin), line.size());
    const std::size_t end = std::min(line.find(' ', begin), line.size());
    *column = line.substr(begin, end - begin);
    begin = end;
  }
  const bool separated = begin != line.size();
  if (separated) parsed.text = line.substr(begin + 1);
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
