// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "durable_file.h"
#include "folder_lock.h"
#include "run_tables.h"

namespace scope {

/// Writes a run folder during the run. When a call returns, its data is in the files, so a recorder that is
/// killed loses nothing of it. run.json and the histogram are replaced as a whole. Every operation throws
/// UserError, which names the file and the reason, if the file system fails. The other files stay usable.
/// Threads: one.
class RunWriter {
 public:
  /// Makes the folder and its parents. Refuses an existing folder that is not empty. With `force` it removes
  /// the files of an earlier run from such a folder, and nothing else. Refuses a folder in which another
  /// recorder is at work. No other one can use the folder while this object exists.
  RunWriter(const std::string& folder, bool force);

  const std::string& Folder() const { return folder_; }

  void WriteInfo(const RunInfo& info);
  /// Adds the rows to their table. The first call makes it, also without rows.
  template <typename Row>
  void Add(const std::vector<Row>& rows) {
    Append(kTableName<Row>, TableHeader<Row>() + '\n', TableText(rows));
  }
  /// Adds lines as they were printed, each with its line feed. One call for many: each is a write.
  void AddRateLines(const std::string& lines);
  /// Adds complete lines of the benchmark's log.
  void AddLog(const std::string& lines) { Append(kLogName, "", lines); }
  void WriteHistogram(const std::vector<HistogramRow>& rows);

 private:
  // Makes the file with `header` where it is not open yet.
  void Append(const std::string& name, const std::string& header, const std::string& text);

  std::string folder_;
  std::unique_ptr<FolderLock> lock_;
  std::map<std::string, OutputFile> files_;  ///< by name
};

}  // namespace scope
