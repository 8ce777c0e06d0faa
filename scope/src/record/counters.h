#pragma once

#include <linux/perf_event.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "run.h"

/// Counters of the memory system and the machine, beside what the meter measures. Each source is looked for
/// where the kernel keeps it; one that is not there is listed with the reason, and nothing stands in for it.
namespace scope {

/// The kernel's counting of hardware events, as far as it is used here; a test puts another one in its place.
class PerfEvents {
 public:
  virtual ~PerfEvents() = default;
  /// Starts counting `attributes` on `cpu`, for all processes. Returns a descriptor, or -1 and sets errno.
  virtual int Open(const perf_event_attr& attributes, int cpu) = 0;
  /// The count so far, scaled up where the counter was shared; none when it cannot be read.
  virtual std::optional<double> Read(int descriptor) = 0;
  virtual void Close(int descriptor) = 0;
};

/// A count that took turns with others on the hardware: it ran for a part of the time and is scaled up.
class ScaledCount {
 public:
  /// The count so far, from what the kernel says. Each interval is scaled for itself: the share that an event
  /// ran changes, and all that was counted before is not to change with it. None for an interval in which it
  /// did not run; the next one has it.
  std::optional<double> Next(std::uint64_t value, std::uint64_t enabledNs, std::uint64_t runningNs);

 private:
  double count_ = 0;
  std::uint64_t value_ = 0;
  std::uint64_t enabledNs_ = 0;
  std::uint64_t runningNs_ = 0;
};

/// The running kernel's.
std::unique_ptr<PerfEvents> KernelPerfEvents();

/// Fills `attributes` (type, config, config1, config2) for the event `text` ("event=0x04,umask=0x03") of the
/// counting unit in `folder`, by its format files. False for an event that needs values from the user, or has
/// a field that the unit does not describe.
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

  /// What the present ones say at `timeS`. Rates are over the time since the call before, and absent in the
  /// first one.
  std::vector<CounterValue> Read(double timeS);

 private:
  /// A file with one number.
  struct File {
    std::string source;
    std::string name;
    std::string path;
    std::string unit;
    double scale;
    bool rate;  ///< a count that only grows, reported per second
  };
  struct PerfCounter {
    std::string name;
    std::string unit;
    double scale;
    std::vector<int> descriptors;  ///< one for each CPU of the unit's mask: a package each
  };

  /// Takes the file where it has a number, or will have one; otherwise notes why not as the first `reason`.
  void Add(File file, std::string& reason);
  /// Lists `source` as present where files were added since; else with `reason`, or with `otherwise`.
  void Conclude(const char* source, std::size_t filesBefore, const std::string& reason,
                const std::string& otherwise);
  void FindResctrl(const std::string& root);
  void FindDevfreq(const std::string& root);
  void FindEdac(const std::string& root);
  void FindThermal(const std::string& root);
  void FindCpu(const std::string& root);
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
