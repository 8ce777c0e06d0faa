#pragma once

#include <memory>
#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// Writes a run folder while the run goes on: everything handed over is in the files when the call returns,
/// so that a recorder that is killed leaves what it had. run.json and the histogram are replaced as a whole.
/// Every operation throws UserError where the file system refuses, naming the file and the reason; the
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

}  // namespace scope
