// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

namespace Ormis::test {

/// The features of an x86 processor as the kernel reports them.
inline std::set<std::string> ProcessorFlags() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.compare(0, 5, "flags") != 0) continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
  }
  return {};
}

}  // namespace Ormis::test
