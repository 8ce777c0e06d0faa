// SPDX-License-Identifier: Apache-2.0
#include "run_writer.h"

#include <filesystem>
#include <system_error>

#include "cell_file.h"
#include "errors.h"
#include "run_json.h"

namespace scope {

namespace fs = std::filesystem;

RunWriter::RunWriter(const std::string& folder, bool force) : folder_(folder) {
  std::error_code error;
  const bool isFolder = fs::is_directory(folder, error);
  if (isFolder) lock_ = std::make_unique<FolderLock>(folder);
  if (IsTaken(folder)) {
    if (!force || !isFolder) {
      throw UserError(folder + " exists and is not an empty folder" +
                      (force ? "" : ": choose another one, or add --force to replace the run in it"));
    }
    // Format 1 had samples.jsonl. cell.json describes the run that is replaced.
    for (const char* name :
         {kInfoName, kTableName<Sample>, kTableName<EngineSample>, "samples.jsonl", kTableName<HistogramRow>,
          kTableName<Rate>, kRatesTextName, kLogName, kTableName<CounterValue>, kTableName<RunError>,
          kTableName<LatencySecond>, kReportName, kCellName}) {
      fs::remove(fs::path(folder) / name, error);
      if (error) throw UserError("cannot remove " + folder + "/" + name + ": " + error.message());
    }
  }
  MakeFolder(folder);
  if (lock_ == nullptr) lock_ = std::make_unique<FolderLock>(folder);
}

void RunWriter::WriteInfo(const RunInfo& info) {
  ReplaceFile(folder_ + "/" + kInfoName, RunInfoText(info));
}

void RunWriter::AddRateLines(const std::string& lines) {
  if (!lines.empty()) Append(kRatesTextName, "", lines);
}

void RunWriter::WriteHistogram(const std::vector<HistogramRow>& rows) {
  ReplaceFile(folder_ + "/" + kTableName<HistogramRow>, TableHeader<HistogramRow>() + '\n' + TableText(rows));
}

void RunWriter::Append(const std::string& name, const std::string& header, const std::string& text) {
  const auto [file, isNew] = files_.try_emplace(name, folder_ + "/" + name);
  file->second.Write(isNew ? header + text : text);
}

}  // namespace scope
