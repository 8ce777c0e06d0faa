#pragma once

#include <memory>
#include <string>
#include <vector>

#include "errors.h"
#include "run.h"

/// The run folder of format version 1: what `record` and `rates` save and everything else reads. The files
/// and their columns are described in scope/FORMAT.md.
namespace scope {

constexpr int kRunFormat = 1;

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
