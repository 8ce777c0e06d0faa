// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// A recorded run as plain data. scope/FORMAT.md describes its files.
namespace scope {

constexpr const char* kToolVersion = "stress_scope " STRESS_VERSION;

/// A second that is longer than this is not one second: samples between are missing.
constexpr double kGapS = 1.75;

/// RunInfo::incompleteReason of a run that has begun and not ended.
constexpr const char* kRecorderEnded = "the recorder ended before the run did";

/// The number of the second that ends `spanS` after the end of the second `before`. A gap skips numbers.
inline int SecondAfter(int before, double spanS) {
  return before + (spanS > kGapS ? static_cast<int>(std::lround(spanS)) : 1);
}

struct Cache {
  int level = 0;
  std::string type;  ///< "Data", "Instruction" or "Unified", as in sysfs
  std::uint64_t bytes = 0;
  int instances = 0;  ///< how many of this cache the machine has
};

struct MhzRange {
  double least = 0;
  double most = 0;
};

/// The machine and the program when the run started. A text is empty, or a number 0, if the machine does not
/// provide it.
struct Conditions {
  std::string cpuModel;
  int cpuCount = 0;
  std::vector<Cache> caches;
  std::string governor;
  MhzRange cpuMhz;  ///< of all CPUs
  std::uint64_t memTotalBytes = 0;
  std::string kernel;
  std::string hostnameHash;  ///< tells machines apart without naming them
  std::string buildType;     ///< of the benchmark; empty if it is not from this tool's build
  std::vector<std::pair<std::string, std::string>> libraryVersions;  ///< name to version, sorted by name
  /// What this project's platform logs of its settings: name to value. Empty if unknown.
  std::vector<std::pair<std::string, std::string>> platformSettings;
  std::vector<std::pair<std::string, std::string>> encoderEngines;  ///< channel to engine; empty if unknown
  std::vector<double> loadAverage;                                  ///< three values; empty if unknown
  bool meter = false;                                               ///< false: no samples, only rate lines
  std::string fill;  ///< what sources and frames were to be filled with; see RunInfo::filling; empty: nothing
  bool verify = false;  ///< the meter checked results, which costs some of the rates
  std::string guard;    ///< memory that was guarded, as asked for: "512M at 100 MB/s"; empty: none
  /// What the latency of memory was measured over: "256 MiB in pages of 2 MiB, CPU 1"; empty: it was not
  /// measured.
  std::string latency;
  std::string
      control;  ///< threads that computed beside the benchmark: "2 x (4210 us of 5000 us)"; empty: none
  std::string ownCpus;  ///< an engine and the CPUs that it had to itself: "vpc: 3"; empty: none
  std::string duty;     ///< share of the time in which threads of engines work: "25 %"; empty: all of it
};

struct Configuration {
  std::string path;
  std::string text;
  /// Engine to its level, for the sections that the file has.
  std::vector<std::pair<std::string, int>> levels;
  /// Its other values, by name: "runTimes", "AIC.File".
  std::vector<std::pair<std::string, std::string>> settings;
};

/// A source of counters, whether it was found or not.
struct CounterSource {
  std::string source;
  bool present = false;
  std::string reason;  ///< why it is absent; empty if it is present
};

/// How the results of an engine were checked.
struct EngineCheck {
  std::string engine;
  std::string state;             ///< "judged", or why they were not; FORMAT.md has the words
  std::uint64_t operations = 0;  ///< that could have been checked
  std::uint64_t checked = 0;     ///< operations of whose results something was checked
  std::uint64_t whole = 0;       ///< operations whose whole result was checked
  std::uint64_t bytes = 0;       ///< of results that were checked
  std::uint64_t allBytes = 0;    ///< of all results
  std::uint64_t errors = 0;
  std::uint64_t unlisted = 0;       ///< errors that are not in the table: too many at once, or the same again
  double checkS = 0;                ///< time that the checks took, of all threads
  std::uint64_t threads = 0;        ///< that did operations; 0 in runs of earlier versions
  std::uint64_t judgedThreads = 0;  ///< those of them of whose results some were judged
  bool leftOut = false;             ///< some sources were not checked: the meter knew too many others
};

/// The streams of encoders with equal frames and settings. Equal programs make the same ones in each run.
struct StreamHashes {
  std::string key;                  ///< of frames and settings: the same in each run
  std::vector<std::string> groups;  ///< of each group of frames; empty: unknown, or channels differ
};

/// What the meter filled of an engine's sources.
struct EngineFill {
  std::string engine;
  std::uint64_t buffers = 0;  ///< that hold the pattern
  std::uint64_t bytes = 0;    ///< of these
  std::uint64_t refused = 0;  ///< that do not: they cannot be written, or an operation had written them
};

/// How often an engine missed its deadline.
struct EngineDeadline {
  std::string engine;
  std::uint64_t deadlineNs = 0;
  std::uint64_t operations = 0;  ///< that succeeded
  std::uint64_t missed = 0;      ///< those of them that took longer
  std::uint64_t longestRun = 0;  ///< of misses, one after the other on one thread
  std::uint64_t p999Ns = 0;      ///< 99.9th percentile of all of them
};

/// What the guard of memory did; see Guard. All is 0 without one.
struct GuardSummary {
  std::uint64_t bytes = 0;         ///< of guarded memory
  std::string reads;               ///< the instruction that keeps reads from the caches, or "none"
  bool locked = false;             ///< the memory could not be swapped out
  std::uint64_t walks = 0;         ///< through all of it, with the last one after the benchmark's end
  std::uint64_t checkedBytes = 0;  ///< of the guarded time
  double guardedS = 0;             ///< until the benchmark's end
  double cpuS = 0;                 ///< processor time in it
  std::uint64_t errors = 0;
  std::uint64_t unlisted = 0;  ///< errors that are not in the table: too many at once, or the same again
  bool isCut = false;          ///< a signal ended its last walk early
};

/// The latency over a part of the probe's memory, before the benchmark started.
struct LatencyGrowth {
  std::uint64_t bytes = 0;
  std::uint64_t p50Ns = 0;
};

/// What the latency probe measured; see LatencyProbe. All is 0 or empty without one.
struct LatencySummary {
  std::uint64_t bytes = 0;      ///< of the memory that it went through
  std::uint64_t lineBytes = 0;  ///< that an access takes from memory
  std::string pages;            ///< "2 MiB", "4 KiB", or "2 MiB and 4 KiB"
  std::uint64_t hugeBytes = 0;  ///< of `bytes`, in huge pages
  int cpu = -1;                 ///< -1: it had no CPU of its own
  std::string cpuNote;          ///< why it has none
  bool realTime = false;        ///< it ran before all programs without a real-time priority
  std::string realTimeNote;     ///< why it did not
  std::string timer;
  double timerNs = 0;      ///< what timing takes itself; it is not in the figures
  double timerStepNs = 0;  ///< the least difference that the timer shows
  std::uint64_t bursts = 0;
  std::uint64_t interrupted = 0;  ///< bursts that are in no figure
  std::uint64_t accesses = 0;     ///< of the whole run, timed one by one; so are the next figures
  std::uint64_t p50Ns = 0;
  std::uint64_t p99Ns = 0;
  std::uint64_t p999Ns = 0;
  std::uint64_t maxNs = 0;
  double meanNs = 0;     ///< of accesses in batches
  double bytesPerS = 0;  ///< lines that all accesses took
  std::vector<LatencyGrowth> growth;
};

/// What the latency probe measured in a second. Figures are 0 if all bursts were interrupted.
struct LatencySecond {
  int second = 0;
  double timeS = 0;  ///< its end
  std::uint64_t accesses = 0;
  double meanNs = 0;
  std::uint64_t p50Ns = 0;
  std::uint64_t p99Ns = 0;
  std::uint64_t p999Ns = 0;
  std::uint64_t maxNs = 0;
  std::uint64_t bursts = 0;
  std::uint64_t interrupted = 0;
  std::optional<std::uint64_t> stealMs;     ///< that the host took from its CPU
  std::optional<std::uint64_t> interrupts;  ///< of its CPU
  std::uint64_t switches = 0;               ///< how often it lost its CPU to others
};

/// MB of guarded memory that are checked in a second.
constexpr double kUsualGuardRate = 100;
constexpr double kLeastGuardRate = 1;
constexpr double kMostGuardRate = 1e6;

/// Threads of a control, which compute in registers and touch no memory, and do so as long as the threads of
/// an engine.
struct ControlThreads {
  int threads = 0;
  double computeUs = 0;  ///< processor time in each period
  double periodUs = 0;   ///< not less than that
};

/// CPUs that the threads of one engine have to themselves.
struct OwnCpus {
  std::string engine;     ///< its id; empty: no engine's threads work there
  std::vector<int> cpus;  ///< empty: threads work where the system puts them
};
/// RunSettings::dutyPercent without sleeps, and the least that is allowed.
constexpr double kWholeDuty = 100;
constexpr double kLeastDuty = 1;

/// How the benchmark is started and ended.
struct RunSettings {
  std::string benchmark;  ///< program; empty: stress_benchmark beside this program
  std::string meter;      ///< library; empty: libstress_scope.so in the lib folder beside this program's
  bool useMeter = true;   ///< false: only rate lines, counters and conditions
  std::vector<std::string> extra;  ///< further arguments of the benchmark
  std::string systemRoot = "/";    ///< folder that contains sys and proc
  double stopAfterS = 0;           ///< SIGINT ends the run after these seconds; 0: it ends by itself
  double graceS = 15;              ///< after its run time, a benchmark that is silent for so long has hung
  double hangAfterS = 0;           ///< the same at any time; 0: never before its end
  double deathS = 10;              ///< after SIGKILL, a process that has not ended in this time is given up
  std::string fill;                ///< of kFillNames; empty: sources and frames are as the program makes them
  bool verify = false;             ///< the meter checks results
  double dutyPercent = kWholeDuty;  ///< share of the time in which threads of engines work; then they sleep
  std::string guard;                ///< memory to guard; see GuardBytes; empty: none
  double guardRate = kUsualGuardRate;
  bool latency = false;     ///< measure the latency of memory during the run
  int latencyCpu = -1;      ///< its CPU; -1: the last one that is allowed
  std::string latencySize;  ///< memory to go through; see MemoryBytes; empty: as the caches ask for
  std::vector<ControlThreads> control;  ///< compute beside the benchmark; empty: nothing does
  OwnCpus own;                          ///< needs the meter
};

/// From each source of errors ("cpu", "edac") to how many there were.
using SourceErrors = std::vector<std::pair<std::string, std::uint64_t>>;

/// run.json.
struct RunInfo {
  std::string tool;
  std::string kind;     ///< "record" or "rates"
  std::string started;  ///< UTC, ISO 8601
  bool complete = false;
  std::string incompleteReason;
  double durationS = 0;
  int exitStatus = 0;
  int signal = 0;  ///< that ended the benchmark; 0 if it ended by itself
  std::string label;
  Configuration config;
  Conditions conditions;
  std::vector<CounterSource> counters;
  std::vector<EngineCheck> verification;  ///< of the engines that the meter checked
  std::vector<StreamHashes> streams;      ///< of encoders whose streams the meter checked
  std::vector<EngineFill> filling;        ///< of the engines whose sources the meter was to fill and has seen
  std::vector<EngineDeadline> deadlines;  ///< of the engines that had one
  GuardSummary guard;
  LatencySummary latency;
  SourceErrors errors;  ///< in the table or not
};

/// What an engine, or one of its threads, did in a second or in a whole run. Operations are calls that
/// succeeded. Busy time, bytes and latencies do not include failed calls.
struct Work {
  std::uint64_t operations = 0;
  std::uint64_t busyNs = 0;
  std::optional<std::uint64_t> bytes;  ///< none if unknown
  std::uint64_t failures = 0;
  std::uint64_t p50Ns =
      0;  ///< of all operations; this and the next two are 0 without operations, or if unknown
  std::uint64_t p99Ns = 0;
  std::uint64_t maxNs = 0;
  double operationsPerS = 0;            ///< this and the next two are computed, and not saved
  std::optional<double> gigabytesPerS;  ///< 10^9 bytes; none if unknown
  /// Operations per second of busy time: the rate that the benchmark would print if it counted exactly. For
  /// several threads it is their mean, like the printed rate. Only of a whole run. 0 without operations.
  double busyRate = 0;
};

/// The work of a second.
struct SecondWork : Work {
  int second = 0;    ///< its number. The first is 1. A missing second leaves out a number
  double timeS = 0;  ///< its exact end, from the benchmark's start
  std::string engine;
};

/// The work of one worker thread.
struct Sample : SecondWork {
  int thread = 0;
};

/// The work of all worker threads together.
struct EngineSample : SecondWork {
  int threads = 0;  ///< those that completed an operation
};

/// Operations of a whole run whose latency is in [lowNs, highNs).
struct HistogramRow {
  std::string engine;
  int thread = 0;
  std::uint64_t lowNs = 0;
  std::uint64_t highNs = 0;
  std::uint64_t count = 0;
};

/// One stress's part of one rate line.
struct Rate {
  double timeS = 0;  ///< when the line came
  std::string stress;
  double fps = 0;
};

/// Counters are read once in this time. A value is that of the time before it.
constexpr double kCounterPeriodS = 1;

struct CounterValue {
  double timeS = 0;
  std::string source;
  std::string name;
  std::string unit;
  double value = 0;
};

/// Memory, or a result, that is not what it has to be. What does not apply is absent or empty.
struct RunError {
  double timeS = 0;    ///< when it was found
  std::string source;  ///< an engine, "edac", or another watcher of memory
  std::optional<std::uint64_t> thread;
  std::optional<std::uint64_t> operation;  ///< on its thread, from 1
  std::string what;                        ///< FORMAT.md has the words
  std::optional<std::uint64_t> offset;     ///< bytes, in the result, the source or the watched memory
  std::string address;                     ///< virtual: "0x7f0000001000"
  std::string physical;                    ///< physical, where the system tells it
  std::string expected;                    ///< the word of 8 bytes there: "0x0000000000000000"
  std::string found;
  std::optional<std::uint64_t> bits;  ///< that differ, in all
  std::string note;                   ///< what else is known
};

struct Run {
  std::string folder;
  RunInfo info;
  std::vector<Sample> samples;
  std::vector<EngineSample> seconds;
  std::vector<HistogramRow> histogram;
  std::vector<Rate> rates;
  std::vector<CounterValue> counters;
  std::vector<RunError> errors;
  std::vector<LatencySecond> latency;  ///< empty without a latency probe
  /// Problems that did not stop the reader, one sentence each: an incomplete run, a cut last line, seconds
  /// without a sample.
  std::vector<std::string> notes;
};

}  // namespace scope
