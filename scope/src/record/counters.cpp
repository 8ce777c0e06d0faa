// SPDX-License-Identifier: Apache-2.0
#include "counters.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <utility>

#include "system_files.h"

namespace scope {

namespace {

constexpr const char* kPerf = "perf";
// What a resctrl file contains when it has no value at the moment.
constexpr const char* kNotYet = "Unavailable";

bool HasAny(const std::string& text, std::initializer_list<const char*> words) {
  return std::any_of(words.begin(), words.end(),
                     [&text](const char* word) { return text.find(word) != std::string::npos; });
}

// True for the counting units of memory controllers and of interconnects.
bool CountsMemory(const std::string& unit) {
  constexpr const char* kUnits[] = {"uncore_imc", "amd_umc", "amd_df",   "arm_cmn", "arm_dsu",
                                    "arm_dmc",    "dmc620",  "imx8_ddr", "imx9_ddr"};
  return std::any_of(std::begin(kUnits), std::end(kUnits),
                     [&unit](const char* name) { return unit.rfind(name, 0) == 0; });
}

class Kernel : public PerfEvents {
 public:
  int Open(const perf_event_attr& attributes, int cpu) override {
    return static_cast<int>(syscall(SYS_perf_event_open, &attributes, -1, cpu, -1, PERF_FLAG_FD_CLOEXEC));
  }

  std::optional<double> Read(int descriptor) override {
    struct {
      std::uint64_t value, enabledNs, runningNs;
    } count{};
    if (read(descriptor, &count, sizeof(count)) != static_cast<ssize_t>(sizeof(count))) return std::nullopt;
    return counts_[descriptor].Next(count.value, count.enabledNs, count.runningNs);
  }

  void Close(int descriptor) override { (void)close(descriptor); }

 private:
  std::map<int, ScaledCount> counts_;
};

// Writes `value`, lowest bit first, into the bits that `bits` ("config:0-7,32-35") names.
bool PutBits(const std::string& bits, std::uint64_t value, perf_event_attr& attributes) {
  const std::size_t colon = bits.find(':');
  if (colon == std::string::npos) return false;
  const std::string word = bits.substr(0, colon);
  const std::vector<int> places = ParseList(bits.substr(colon + 1));
  if (places.empty()) return false;
  std::uint64_t config = 0;
  for (const int place : places) {
    if (place > 63) return false;
    config |= (value & 1U) << static_cast<unsigned>(place);
    value >>= 1U;
  }
  // The value has more bits than its field.
  if (value != 0) return false;
  if (word == "config") attributes.config |= config;
  if (word == "config1") attributes.config1 |= config;
  if (word == "config2") attributes.config2 |= config;
  return word == "config" || word == "config1" || word == "config2";
}

std::string WhyNoResctrl(const std::string& folder) {
  std::error_code ignored;
  const auto there = [&ignored](const std::string& path) { return std::filesystem::exists(path, ignored); };
  const std::string mount = folder.substr(0, folder.rfind('/'));
  if (there(folder)) return "no domain in " + folder + " counts bandwidth (mbm_total_bytes)";
  if (there(mount + "/info")) return folder + " is missing: this resctrl has no monitoring";
  // The mount point exists if the CPU has resctrl. Its files exist after it is mounted.
  return there(mount) ? "resctrl is not mounted on " + mount
                      : mount + " is missing: the kernel offers no resctrl on this machine";
}

std::string WhyNoDevfreq(const std::string& folder) {
  const std::size_t devices = ListFolder(folder).size();
  return devices == 0 ? folder + " is missing or empty: the kernel scales no device's frequency"
                      : "none of the " + std::to_string(devices) + " devices in " + folder +
                            " has the name of a memory controller";
}

}  // namespace

std::optional<double> ScaledCount::Next(std::uint64_t value, std::uint64_t enabledNs,
                                        std::uint64_t runningNs) {
  if (runningNs <= runningNs_) return std::nullopt;
  count_ += static_cast<double>(value - value_) * static_cast<double>(enabledNs - enabledNs_) /
            static_cast<double>(runningNs - runningNs_);
  value_ = value;
  enabledNs_ = enabledNs;
  runningNs_ = runningNs;
  return count_;
}

std::unique_ptr<PerfEvents> KernelPerfEvents() {
  return std::make_unique<Kernel>();
}

bool ParsePerfEvent(const std::string& folder, const std::string& text, perf_event_attr& attributes) {
  attributes = {};
  attributes.size = sizeof(attributes);
  const std::optional<double> type = ReadNumber(folder + "/type");
  if (!type) return false;
  attributes.type = static_cast<std::uint32_t>(*type);
  std::size_t from = 0;
  while (from <= text.size()) {
    const std::size_t comma = std::min(text.find(',', from), text.size());
    const std::string term = text.substr(from, comma - from);
    from = comma + 1;
    const std::size_t equals = term.find('=');
    const std::string field = term.substr(0, equals);
    std::uint64_t value = 1;  // a field without a value is a flag
    if (equals != std::string::npos) {
      const std::string digits = term.substr(equals + 1);
      char* end = nullptr;
      value = std::strtoull(digits.c_str(), &end, 0);
      if (digits.empty() || *end != '\0') return false;  // "?": the user would have to give the value
    }
    if (field == "config") {
      attributes.config |= value;
      continue;
    }
    const std::optional<std::string> bits = ReadText(folder + "/format/" + field);
    if (!bits || !PutBits(*bits, value, attributes)) return false;
  }
  return true;
}

Counters::Counters(const std::string& systemRoot, std::unique_ptr<PerfEvents> perf) : perf_(std::move(perf)) {
  const std::string root = systemRoot.substr(0, systemRoot.find_last_not_of('/') + 1);
  FindPerf(root);
  const std::string cpus = root + "/sys/devices/system/cpu";
  const std::string domains = root + "/sys/fs/resctrl/mon_data";
  const std::string devices = root + "/sys/class/devfreq";
  const std::string controllers = root + "/sys/devices/system/edac/mc";
  const std::string zones = root + "/sys/class/thermal";
  FindFiles({"resctrl", "", domains, "B/s", 1, true}, {}, {"mbm_total_bytes", "mbm_local_bytes"},
            WhyNoResctrl(domains));
  FindFiles({"devfreq", "", devices, "Hz", 1, false},
            {"dmc", "ddr", "dram", "memory", "emc", "mif", "interconnect"}, {"cur_freq"},
            WhyNoDevfreq(devices));
  FindFiles({"edac", "", controllers, "errors", 1, false}, {}, {"ce_count", "ue_count"},
            "no memory controller in " + controllers);
  FindFiles({"thermal", "", zones, "degC", 1e-3, false}, {"thermal_zone"}, {"temp"},
            "no thermal zone with a temperature in " + zones);
  FindFiles({"cpufreq", "", cpus, "MHz", 1e-3, false}, {}, {"cpufreq/scaling_cur_freq"},
            "no CPU in " + cpus + " reports its frequency (cpufreq/scaling_cur_freq)");
  FindFiles({"throttle", "", cpus, "events", 1, false}, {}, {"thermal_throttle/core_throttle_count"},
            "no CPU in " + cpus + " counts its throttling (thermal_throttle/core_throttle_count)");
}

Counters::~Counters() {
  for (const PerfCounter& counter : perfCounters_) {
    for (const int descriptor : counter.descriptors) perf_->Close(descriptor);
  }
}

void Counters::Add(File file, std::string& reason) {
  std::string why;
  if (const std::optional<std::string> text = ReadText(file.path); !text) {
    // Missing files are expected.
    if (errno != ENOENT && errno != ENOTDIR) why = "cannot read " + file.path + ": " + std::strerror(errno);
  } else if (!ReadNumber(file.path) && *text != kNotYet) {
    why = file.path + " contains \"" + *text + "\", expected a number";
  } else {
    files_.push_back(std::move(file));
    return;
  }
  if (reason.empty()) reason = why;
}

void Counters::FindPerf(const std::string& root) {
  const std::string folder = root + "/sys/bus/event_source/devices";
  std::string reason;
  for (const std::string& unit : ListFolder(folder)) {
    if (CountsMemory(unit)) OpenPerf(unit, folder + "/" + unit, reason);
  }
  const bool present = !perfCounters_.empty();
  if (reason.empty()) reason = "the kernel has no counters of a memory controller in " + folder;
  sources_.push_back({kPerf, present, present ? std::string() : reason});
}

std::vector<int> Counters::OpenOnAll(const std::vector<int>& cpus, const perf_event_attr& attributes,
                                     const std::string& event, std::string& reason) {
  std::vector<int> descriptors;
  for (const int cpu : cpus) {
    const int descriptor = perf_->Open(attributes, cpu);
    if (descriptor >= 0) {
      descriptors.push_back(descriptor);
      continue;
    }
    const int error = errno;
    reason = event + ": perf_event_open: " + std::strerror(error);
    if (error == EACCES || error == EPERM) {
      reason += " (needs CAP_PERFMON, or kernel.perf_event_paranoid 0 or less)";
    }
    // A sum over some of the packages would look like the sum over all of them.
    for (const int opened : descriptors) perf_->Close(opened);
    return {};
  }
  return descriptors;
}

void Counters::OpenPerf(const std::string& unit, const std::string& folder, std::string& reason) {
  const std::vector<int> cpus = ParseList(ReadText(folder + "/cpumask").value_or("0"));
  if (cpus.empty()) {
    reason = folder + "/cpumask names no CPU";
    return;
  }
  bool understood = false;
  for (const std::string& event : ListFolder(folder + "/events")) {
    // Only reads and writes of memory: a unit has few counters, and more events would have to share them.
    if (event.find('.') != std::string::npos || !HasAny(event, {"read", "write", "_rd", "_wr"})) continue;
    const std::string path = folder + "/events/" + event;
    perf_event_attr attributes{};
    if (!ParsePerfEvent(folder, ReadText(path).value_or(""), attributes)) continue;
    understood = true;
    double scale = 1;
    if (const std::optional<std::string> text = ReadText(path + ".scale"); text) {
      const std::optional<double> number = ReadNumber(path + ".scale");
      if (!number) {
        // Without its scale, the value would not be in the event's unit.
        reason = path + ".scale contains \"" + *text + "\", expected a number";
        continue;
      }
      scale = *number;
    }
    attributes.read_format = PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
    std::string name = unit;
    name += '/' + event;
    const std::vector<int> descriptors = OpenOnAll(cpus, attributes, name, reason);
    if (descriptors.empty()) continue;
    const std::string unitOfEvent = ReadText(path + ".unit").value_or("events");
    perfCounters_.push_back({name, unitOfEvent + "/s", scale, descriptors});
  }
  if (!understood && reason.empty()) reason = unit + " has no event for reads or writes of memory";
}

void Counters::FindFiles(const File& kind, std::initializer_list<const char*> parts,
                         std::initializer_list<const char*> files, const std::string& otherwise) {
  const std::size_t before = files_.size();
  std::string reason;
  for (const std::string& entry : ListFolder(kind.path)) {
    if (parts.size() != 0 && !HasAny(entry, parts)) continue;
    const std::string folder = kind.path + "/" + entry + "/";
    // A thermal zone says what it measures. The other entries have no such file.
    const std::string type = ReadText(folder + "type").value_or("");
    for (const char* const file : files) {
      File found = kind;
      found.name =
          entry + (type.empty() ? "" : "/" + type) + (files.size() == 1 ? "" : std::string("/") + file);
      found.path = folder + file;
      Add(found, reason);
    }
  }
  const bool present = files_.size() > before;
  sources_.push_back({kind.source, present, present ? std::string() : reason.empty() ? otherwise : reason});
}

std::optional<double> Counters::PerSecond(const std::string& key, double count, double timeS) {
  const auto before = before_.find(key);
  std::optional<double> rate;
  // A counter that decreased was restarted.
  if (before != before_.end() && timeS > before->second.first && count >= before->second.second) {
    rate = (count - before->second.second) / (timeS - before->second.first);
  }
  before_[key] = {timeS, count};
  return rate;
}

std::vector<CounterValue> Counters::Read(double timeS) {
  std::vector<CounterValue> values;
  for (const PerfCounter& counter : perfCounters_) {
    std::optional<double> count = 0;
    for (const int descriptor : counter.descriptors) {
      const std::optional<double> ofPackage = perf_->Read(descriptor);
      count = count && ofPackage ? std::optional(*count + *ofPackage) : std::nullopt;
    }
    if (!count) continue;
    const std::optional<double> rate = PerSecond(counter.name, *count * counter.scale, timeS);
    if (rate) values.push_back({timeS, kPerf, counter.name, counter.unit, *rate});
  }
  for (const File& file : files_) {
    const std::optional<double> number = ReadNumber(file.path);
    if (!number) continue;
    std::optional<double> value = *number * file.scale;
    if (file.rate) value = PerSecond(file.source + "/" + file.name, *value, timeS);
    if (value) values.push_back({timeS, file.source, file.name, file.unit, *value});
  }
  return values;
}

}  // namespace scope
