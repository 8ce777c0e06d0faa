// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// Writes a run folder during the run. When a call returns, its data is in the files, so a recorder that is
/// killed loses nothing of it. run.json and the histogram are replaced as a whole. Every operation throws
/// UserError, which names the file and the reason, if the file system fails. The other files stay usable.
/// Threads: one.
class RunWriter {
 public:
  /// Makes the folder and its parents. Refuses an existing folder that is not empty. With `force` it removes
  /// the files of an earlier run from such a folder, and nothing else.
  RunWriter(const std::string& folder, bool force);
  ~RunWriter();
  RunWriter(const RunWriter&) = delete;
  RunWriter& operator=(const RunWriter&) = delete;

  const std::string& Folder() const { return folder_; }

  void WriteInfo(const RunInfo& info);
  void Add(const std::vector<Sample>& samples);
  void Add(const std::vector<Rate>& rates);
  void Add(const std::vector<CounterValue>& counters);
  /// Adds one line as it was printed, without its line feed.
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
