// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/perf_event.h>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "run.h"

/// Counters of the memory system and the machine. Each source is looked for where the kernel has it. An
/// absent source is listed with the reason, and no other value replaces it.
namespace scope {

/// The part of the kernel's perf events that is used here. Tests replace it.
class PerfEvents {
 public:
  virtual ~PerfEvents() = default;
  /// Starts counting `attributes` on `cpu`, for all processes. Returns a descriptor, or -1 and sets errno.
  virtual int Open(const perf_event_attr& attributes, int cpu) = 0;
  /// The count so far, scaled up if the counter was shared; none if it cannot be read.
  virtual std::optional<double> Read(int descriptor) = 0;
  virtual void Close(int descriptor) = 0;
};

/// The count of an event that shares a hardware counter: it was counted part of the time and is scaled up.
class ScaledCount {
 public:
  /// The count so far, from the kernel's values. Each interval is scaled by the share of it in which the
  /// event was counted, so a later share does not change earlier counts. None if the event was not counted in
  /// an interval; the next interval then includes it.
  std::optional<double> Next(std::uint64_t value, std::uint64_t enabledNs, std::uint64_t runningNs);

 private:
  double count_ = 0;
  std::uint64_t value_ = 0;
  std::uint64_t enabledNs_ = 0;
  std::uint64_t runningNs_ = 0;
};

/// The events of the running kernel.
std::unique_ptr<PerfEvents> KernelPerfEvents();

/// Fills `attributes` (type, config, config1, config2) for the event `text` ("event=0x04,umask=0x03") of the
/// counting unit in `folder`, which has the format files. False if the event needs values from the user or
/// has a field without a format file.
bool ParsePerfEvent(const std::string& folder, const std::string& text, perf_event_attr& attributes);

class Counters {
 public:
  /// Looks for every source under `root` ("/", or a recorded tree).
  Counters(const std::string& root, std::unique_ptr<PerfEvents> perf);
  ~Counters();
  Counters(const Counters&) = delete;
  Counters& operator=(const Counters&) = delete;

  /// Every source that was looked for, in a fixed order.
  const std::vector<CounterSource>& Sources() const { return sources_; }

  /// The values of all present sources at `timeS`. Rates are over the time since the previous call, so the
  /// first call returns none.
  std::vector<CounterValue> Read(double timeS);

 private:
  /// A file with one number.
  struct File {
    std::string source;
    std::string name;
    std::string path;
    std::string unit;
    double scale;
    bool rate;  ///< the number is a growing count, and its rate is reported
  };
  struct PerfCounter {
    std::string name;
    std::string unit;
    double scale;
    std::vector<int> descriptors;  ///< one for each CPU in the unit's mask, that is, for each package
  };

  /// Adds the file if it has a number or will have one. Otherwise sets `reason`, unless it is set already.
  void Add(File file, std::string& reason);
  /// Adds the numbers in `files` of each entry of the folder `kind.path` whose name has one of the `parts`;
  /// no parts: of all entries. Lists the source as present if there are any, else as absent with the reason.
  void FindFiles(const File& kind, std::initializer_list<const char*> parts,
                 std::initializer_list<const char*> files, const std::string& otherwise);
  void FindPerf(const std::string& root);
  void OpenPerf(const std::string& unit, const std::string& folder, std::string& reason);
  std::vector<int> OpenOnAll(const std::vector<int>& cpus, const perf_event_attr& attributes,
                             const std::string& event, std::string& reason);
  std::optional<double> PerSecond(const std::string& key, double count, double timeS);

  std::unique_ptr<PerfEvents> perf_;
  std::vector<CounterSource> sources_;
  std::vector<File> files_;
  std::vector<PerfCounter> perfCounters_;
  std::map<std::string, std::pair<double, double>> before_;  ///< key to time and count
};

}  // namespace scope
