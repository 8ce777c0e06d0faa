// SPDX-License-Identifier: Apache-2.0
#include "clock.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace scope {

std::string UtcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  (void)gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  (void)std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

std::string TimedFolder(const std::string& prefix) {
  std::string time = UtcNow();
  time.erase(std::remove(time.begin(), time.end(), ':'), time.end());
  return prefix + time;
}

}  // namespace scope
