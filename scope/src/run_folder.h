#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// The run folder of format version 1: what `record` and `rates` save and everything else reads. The files
/// and their columns are described in scope/FORMAT.md.
namespace scope {

constexpr int kRunFormat = 1;

/// Has rows for the seconds alone in which it worked.
constexpr const char* kSetUpEngine = "vpc_copy";

/// Seconds between two samples of a thread from which on the reader speaks of a gap.
constexpr double kGapS = 1.75;

/// A run folder, or another input, that cannot be used or written; what() is a sentence for the user, with
/// the file and the line where there is one.
class RunFolderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Cache {
  int level = 0;
  std::string type;  ///< "Data", "Instruction" or "Unified", as the kernel says
  std::uint64_t bytes = 0;
  int instances = 0;  ///< how many of this cache the machine has
};

/// The machine and the program, as found when the run started. An empty text, or 0, is something that the
/// machine does not tell.
struct Conditions {
  std::string cpuModel;
  int cpuCount = 0;
  std::vector<Cache> caches;
  std::string governor;
  double cpuMhzMin = 0;
  double cpuMhzMax = 0;
  std::uint64_t memTotalBytes = 0;
  std::string kernel;
  std::string hostnameHash;  ///< tells machines apart without naming them
  std::string buildType;     ///< of the benchmark, empty where it is not of this tool's own build
  std::vector<std::pair<std::string, std::string>> libraryVersions;  ///< name to version, sorted by name
  std::vector<double> loadAverage;                                   ///< three values, empty where unknown
  bool meter = false;                                                ///< false: no samples, rate lines alone
};

struct Configuration {
  std::string path;
  std::string text;
  /// Engine ("cpu", "vpc", "venc", "aic") to its level, for the sections that the file has.
  std::vector<std::pair<std::string, int>> levels;
  /// Its other values, by name: "runTimes", "AIC.File".
  std::vector<std::pair<std::string, std::string>> settings;
};

/// A source of counters that was looked for.
struct CounterSource {
  std::string source;
  bool present = false;
  std::string reason;  ///< why it is absent; empty where it is present
};

/// run.json.
struct RunInfo {
  std::string tool;
  std::string kind;     ///< "record" or "rates"
  std::string started;  ///< UTC, ISO 8601
  bool complete = false;
  std::string incompleteReason;
  double durationS = 0;
  int exitStatus = 0;
  int signal = 0;  ///< the one that ended the benchmark, 0 where none did
  std::string label;
  Configuration config;
  Conditions conditions;
  std::vector<CounterSource> counters;
};

/// What one worker thread did on one engine in one second. Operations are calls that succeeded; busy time,
/// bytes and latencies are theirs alone.
struct Sample {
  double timeS = 0;  ///< end of the second, from the benchmark's start
  std::string engine;
  int thread = 0;
  std::uint64_t operations = 0;
  std::uint64_t busyNs = 0;
  std::optional<std::uint64_t> bytes;  ///< none where unknown
  std::uint64_t failures = 0;
  std::uint64_t p50Ns = 0;  ///< these three are 0 where operations is
  std::uint64_t p99Ns = 0;
  std::uint64_t maxNs = 0;
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

struct CounterValue {
  double timeS = 0;
  std::string source;
  std::string name;
  std::string unit;
  double value = 0;
};

struct Run {
  std::string folder;
  RunInfo info;
  std::vector<Sample> samples;
  std::vector<HistogramRow> histogram;
  std::vector<Rate> rates;
  std::vector<CounterValue> counters;
  /// What the reader noticed and went on with, a sentence each: an incomplete run, a cut last line, seconds
  /// without a sample.
  std::vector<std::string> notes;
};

/// Reads the run folder `folder`. A last line that was cut (the recorder was killed) is left out and noted,
/// and so is a file that an incomplete run does not have; anything else that is wrong throws RunFolderError,
/// which names the file, the line and what was expected there.
Run ReadRun(const std::string& folder);

/// run.json alone, of the folder `folder`. Throws RunFolderError.
RunInfo ReadRunInfo(const std::string& folder);

/// True where `folder` has a run.json, whatever is in it. Throws RunFolderError where that cannot be told.
bool IsRunFolder(const std::string& folder);

/// Writes a run folder while the run goes on: everything handed over is in the files when the call returns,
/// so that a recorder that is killed leaves what it had. run.json and the histogram are replaced as a whole.
/// Every operation throws RunFolderError where the file system refuses, naming the file and the reason; the
/// other files stay usable. Threads: one.
class RunWriter {
 public:
  /// Makes the folder and its parents. One that exists and is not empty is refused, unless `force`: then the
  /// files of an earlier run in it are removed, and nothing else.
  RunWriter(const std::string& folder, bool force);
  ~RunWriter();
  RunWriter(const RunWriter&) = delete;
  RunWriter& operator=(const RunWriter&) = delete;

  const std::string& Folder() const { return folder_; }

  void WriteInfo(const RunInfo& info);
  void Add(const std::vector<Sample>& samples);
  void Add(const std::vector<Rate>& rates);
  void Add(const std::vector<CounterValue>& counters);
  /// One line as it came, without its line feed.
  void AddRateLine(const std::string& line);
  void WriteHistogram(const std::vector<HistogramRow>& rows);

 private:
  class File;
  File& Open(std::unique_ptr<File>& file, const char* name, const char* header);

  std::string folder_;
  std::unique_ptr<File> samplesCsv_;
  std::unique_ptr<File> samplesJson_;
  std::unique_ptr<File> ratesCsv_;
  std::unique_ptr<File> ratesText_;
  std::unique_ptr<File> countersCsv_;
};

/// Puts `text` in the place of the file as a whole or not at all: where the disk is full, the file that was
/// there stays. Throws RunFolderError.
void ReplaceFile(const std::string& path, const std::string& text);

/// Now in UTC, ISO 8601, to the second.
std::string UtcNow();

/// A name for a run folder in the current one: `prefix` and the time.
std::string TimedFolder(const std::string& prefix);

}  // namespace scope
