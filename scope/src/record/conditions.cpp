// SPDX-License-Identifier: Apache-2.0
#include "conditions.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

#include "system_files.h"
#include "text_hash.h"

namespace scope {
namespace {

// The value of "key : value" in a text such as proc/cpuinfo; empty if there is none.
std::string Field(const std::string& text, const std::string& key) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    name.erase(name.find_last_not_of(" \t") + 1);
    if (name != key) continue;
    const std::size_t value = line.find_first_not_of(" \t", colon + 1);
    return value == std::string::npos ? std::string() : line.substr(value);
  }
  return {};
}

std::string CpuModel(const std::string& root, const std::string& cpuinfo) {
  std::string model = Field(cpuinfo, "model name");
  if (!model.empty()) return model;
  // 64-bit Arm kernels give only the part's number. The device tree names the board.
  const std::optional<std::string> board = ReadText(root + "/proc/device-tree/model");
  if (board && !board->empty()) return board->substr(0, board->find('\0'));
  const std::string part = Field(cpuinfo, "CPU part");
  if (part.empty()) return {};
  return "implementer " + Field(cpuinfo, "CPU implementer") + " part " + part;
}

// The bytes of a size such as "32K" in sys.
std::uint64_t CacheBytes(const std::string& text) {
  char* end = nullptr;
  const std::uint64_t number = std::strtoull(text.c_str(), &end, 10);
  if (*end == 'K') return number << 10;
  if (*end == 'M') return number << 20;
  return number;
}

std::vector<Cache> Caches(const std::string& cpuFolder, const std::vector<std::string>& cpus) {
  std::map<std::tuple<int, std::string, std::uint64_t>, std::set<std::string>> found;
  for (const std::string& cpu : cpus) {
    const std::string folder = cpuFolder + "/" + cpu + "/cache";
    for (const std::string& index : ListFolder(folder)) {
      const std::string cache = folder + "/" + index;
      const std::optional<double> level = ReadNumber(cache + "/level");
      const std::optional<std::string> size = ReadText(cache + "/size");
      const std::optional<std::string> type = ReadText(cache + "/type");
      if (!level || !size || !type) continue;
      // The list of CPUs that share a cache identifies it. Without a list, each CPU has its own cache.
      const std::string instance = ReadText(cache + "/shared_cpu_list").value_or(cpu);
      found[{static_cast<int>(*level), *type, CacheBytes(*size)}].insert(instance);
    }
  }
  std::vector<Cache> caches;
  for (const auto& [key, instances] : found) {
    caches.push_back(
        {std::get<0>(key), std::get<1>(key), std::get<2>(key), static_cast<int>(instances.size())});
  }
  return caches;
}

bool IsCpu(const std::string& name) {
  return name.size() > 3 && name.compare(0, 3, "cpu") == 0 &&
         name.find_first_not_of("0123456789", 3) == std::string::npos;
}

}  // namespace

Conditions ReadConditions(const std::string& systemRoot) {
  const std::string root = systemRoot.substr(0, systemRoot.find_last_not_of('/') + 1);
  Conditions conditions;
  const std::string cpuinfo = ReadText(root + "/proc/cpuinfo").value_or("");
  conditions.cpuModel = CpuModel(root, cpuinfo);

  const std::string cpuFolder = root + "/sys/devices/system/cpu";
  std::vector<std::string> cpus = ListFolder(cpuFolder);
  cpus.erase(std::remove_if(cpus.begin(), cpus.end(), [](const std::string& name) { return !IsCpu(name); }),
             cpus.end());
  conditions.cpuCount = static_cast<int>(ParseList(ReadText(cpuFolder + "/online").value_or("")).size());
  if (conditions.cpuCount == 0) conditions.cpuCount = static_cast<int>(cpus.size());
  conditions.caches = Caches(cpuFolder, cpus);
  std::set<std::string> governors;
  for (const std::string& cpu : cpus) {
    const std::string folder = cpuFolder + "/" + cpu + "/cpufreq";
    if (const auto governor = ReadText(folder + "/scaling_governor")) governors.insert(*governor);
    if (const auto khz = ReadNumber(folder + "/cpuinfo_min_freq")) {
      const double mhz = *khz / 1000;
      conditions.cpuMhz.least = conditions.cpuMhz.least == 0 ? mhz : std::min(conditions.cpuMhz.least, mhz);
    }
    if (const auto khz = ReadNumber(folder + "/cpuinfo_max_freq")) {
      conditions.cpuMhz.most = std::max(conditions.cpuMhz.most, *khz / 1000);
    }
  }
  conditions.governor = Joined(governors, ",");

  const std::string memTotal = Field(ReadText(root + "/proc/meminfo").value_or(""), "MemTotal");
  conditions.memTotalBytes = std::strtoull(memTotal.c_str(), nullptr, 10) << 10;
  conditions.kernel = ReadText(root + "/proc/sys/kernel/osrelease").value_or("");
  const std::string machine = ReadText(root + "/etc/machine-id").value_or("") +
                              ReadText(root + "/proc/sys/kernel/hostname").value_or("");
  if (!machine.empty()) conditions.hostnameHash = HashOf(machine);
  std::istringstream loads(ReadText(root + "/proc/loadavg").value_or(""));
  for (double load = 0; conditions.loadAverage.size() < 3 && loads >> load;)
    conditions.loadAverage.push_back(load);
  if (conditions.loadAverage.size() != 3) conditions.loadAverage.clear();
  return conditions;
}

std::vector<std::pair<std::string, std::string>> LibraryVersions(const std::string& mapsPath,
                                                                 const std::string& platformPath) {
  static const std::set<std::string> kMatter = {"libc",       "libc++",    "libormis", "libara_log",
                                                "libavcodec", "libavutil", "libx264",  "libonnxruntime",
                                                "libyaml",    "libdlt"};
  const std::string platformFolder = platformPath.substr(0, platformPath.rfind('/') + 1);
  std::map<std::string, std::string> versions;
  std::map<std::string, std::string> neighbours;
  bool withSystem = false;  // a platform among the system's libraries: its neighbours are all of these
  std::ifstream maps(mapsPath);
  for (std::string line; std::getline(maps, line);) {
    const std::size_t path = line.find('/');
    if (path == std::string::npos) continue;
    const std::size_t name = line.rfind('/') + 1;
    const std::size_t suffix = line.find(".so", name);
    if (suffix == std::string::npos) continue;
    const std::string stem = line.substr(name, suffix - name);
    const bool ofPlatform = !platformFolder.empty() && line.substr(path, name - path) == platformFolder;
    withSystem = withSystem || (ofPlatform && stem == "libc");
    if (stem == "libstress_scope" || (kMatter.count(stem) == 0 && !ofPlatform)) continue;
    const std::size_t number = suffix + std::strlen(".so.");
    auto& found = kMatter.count(stem) != 0 ? versions : neighbours;
    found[stem] = number < line.size() ? line.substr(number) : line.substr(name);
  }
  if (!withSystem) versions.merge(neighbours);
  return {versions.begin(), versions.end()};
}

}  // namespace scope
