// SPDX-License-Identifier: Apache-2.0
#include "memory_size.h"

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "errors.h"
#include "memory_amount.h"
#include "memory_limit.h"
#include "system_files.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kMebibyteBytes = 1 << 20;

}  // namespace

std::string MebibytesText(std::uint64_t bytes) {
  return Format("%.1f MiB", static_cast<double>(bytes) / kMebibyteBytes);
}

std::uint64_t AvailableBytes(const std::string& systemRoot) {
  const std::string root = systemRoot.substr(0, systemRoot.find_last_not_of('/') + 1);
  const std::string memory = ReadText(root + "/proc/meminfo").value_or("");
  const std::string key = "MemAvailable:";
  const std::size_t at = memory.find(key);
  if (at == std::string::npos) return 0;
  const std::uint64_t available = std::strtoull(memory.c_str() + at + key.size(), nullptr, 10) << 10;
  return std::min(available, Ormis::portable::MemoryLimit(root));
}

std::uint64_t MemoryBytes(const std::string& option, const std::string& size, std::uint64_t availableBytes,
                          std::uint64_t leastBytes) {
  const std::optional<MemoryAmount> share = ParseMemoryAmount(size);
  if (!share) throw UserError(option + ": " + kMemoryAmountWords + ", found \"" + size + "\"");
  const double bytes =
      share->isPercent ? share->number / 100 * static_cast<double>(availableBytes) : share->number;
  if (availableBytes == 0) throw UserError(option + ": the system does not say how much memory is available");
  if (bytes < static_cast<double>(leastBytes)) {
    throw UserError(option + " " + size + ": expected at least " + std::to_string(leastBytes >> 10) + "K");
  }
  if (bytes > static_cast<double>(availableBytes)) {
    throw UserError(option + " " + size + ": only " + MebibytesText(availableBytes) +
                    " of memory are available, and the benchmark needs some of it, too");
  }
  return static_cast<std::uint64_t>(bytes);
}

}  // namespace scope
