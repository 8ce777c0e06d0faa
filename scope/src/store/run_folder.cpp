#include "run_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "system_files.h"
#include "text_format.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr const char* kInfoName = "run.json";
constexpr const char* kSamplesName = "samples.csv";
constexpr const char* kSamplesJsonName = "samples.jsonl";
constexpr const char* kHistogramName = "histogram.csv";
constexpr const char* kRatesName = "rates.csv";
constexpr const char* kRatesTextName = "rates.txt";
constexpr const char* kCountersName = "counters.csv";
constexpr const char* kReportName = "report.html";

constexpr const char* kSamplesHeader =
    "time_s,engine,thread,operations,busy_ns,bytes,failures,p50_ns,p99_ns,max_ns";
constexpr const char* kHistogramHeader = "engine,thread,low_ns,high_ns,count";
constexpr const char* kRatesHeader = "time_s,stress,fps";
constexpr const char* kCountersHeader = "time_s,source,name,unit,value";

std::string Seconds(double value) {
  std::array<char, 32> text{};
  (void)std::snprintf(text.data(), text.size(), "%.3f", value);
  return text.data();
}

// Fifteen digits: what a double holds, and no noise after them.
std::string Number(double value) {
  std::array<char, 40> text{};
  (void)std::snprintf(text.data(), text.size(), "%.15g", value);
  return text.data();
}

// --- run.json
// ------------------------------------------------------------------------------------------------

Json ToJson(const RunInfo& info) {
  Json levels = Json::object();
  for (const auto& [engine, level] : info.config.levels) levels[engine] = level;
  Json caches = Json::array();
  for (const Cache& cache : info.conditions.caches) {
    caches.push_back(Json{{"level", cache.level},
                          {"type", cache.type},
                          {"bytes", cache.bytes},
                          {"instances", cache.instances}});
  }
  Json settings = Json::object();
  for (const auto& [name, value] : info.config.settings) settings[name] = value;
  Json versions = Json::object();
  for (const auto& [name, version] : info.conditions.libraryVersions) versions[name] = version;
  Json counters = Json::array();
  for (const CounterSource& source : info.counters) {
    counters.push_back(
        Json{{"source", source.source}, {"present", source.present}, {"reason", source.reason}});
  }
  const Conditions& machine = info.conditions;
  return Json{
      {"format", kRunFormat},
      {"tool", info.tool},
      {"kind", info.kind},
      {"started", info.started},
      {"complete", info.complete},
      {"incomplete_reason", info.incompleteReason},
      {"duration_s", info.durationS},
      {"exit_status", info.exitStatus},
      {"signal", info.signal},
      {"label", info.label},
      {"config", Json{{"path", info.config.path},
                      {"text", info.config.text},
                      {"levels", levels},
                      {"settings", settings}}},
      {"conditions", Json{{"cpu_model", machine.cpuModel},
                          {"cpu_count", machine.cpuCount},
                          {"caches", caches},
                          {"governor", machine.governor},
                          {"cpu_mhz_min", machine.cpuMhzMin},
                          {"cpu_mhz_max", machine.cpuMhzMax},
                          {"mem_total_bytes", machine.memTotalBytes},
                          {"kernel", machine.kernel},
                          {"hostname_hash", machine.hostnameHash},
                          {"build_type", machine.buildType},
                          {"library_versions", versions},
                          {"load_average", machine.loadAverage},
                          {"meter", machine.meter}}},
      {"counters", counters},
  };
}

// What is missing keeps its default, so that a later format may add keys; what is there must have its type.
template <typename T>
void Take(const Json& object, const char* key, T& out) {
  const auto at = object.find(key);
  if (at != object.end()) at->get_to(out);
}

RunInfo FromJson(const Json& json) {
  RunInfo info;
  Take(json, "tool", info.tool);
  Take(json, "kind", info.kind);
  Take(json, "started", info.started);
  Take(json, "complete", info.complete);
  Take(json, "incomplete_reason", info.incompleteReason);
  Take(json, "duration_s", info.durationS);
  Take(json, "exit_status", info.exitStatus);
  Take(json, "signal", info.signal);
  Take(json, "label", info.label);
  const Json config = json.value("config", Json::object());
  Take(config, "path", info.config.path);
  Take(config, "text", info.config.text);
  const Json levels = config.value("levels", Json::object());
  for (const auto& [engine, level] : levels.items()) {
    info.config.levels.emplace_back(engine, level.get<int>());
  }
  const Json settings = config.value("settings", Json::object());
  for (const auto& [name, value] : settings.items()) {
    info.config.settings.emplace_back(name, value.get<std::string>());
  }
  const Json machine = json.value("conditions", Json::object());
  Conditions& conditions = info.conditions;
  Take(machine, "cpu_model", conditions.cpuModel);
  Take(machine, "cpu_count", conditions.cpuCount);
  const Json caches = machine.value("caches", Json::array());
  for (const Json& entry : caches) {
    Cache cache;
    Take(entry, "level", cache.level);
    Take(entry, "type", cache.type);
    Take(entry, "bytes", cache.bytes);
    Take(entry, "instances", cache.instances);
    conditions.caches.push_back(cache);
  }
  Take(machine, "governor", conditions.governor);
  Take(machine, "cpu_mhz_min", conditions.cpuMhzMin);
  Take(machine, "cpu_mhz_max", conditions.cpuMhzMax);
  Take(machine, "mem_total_bytes", conditions.memTotalBytes);
  Take(machine, "kernel", conditions.kernel);
  Take(machine, "hostname_hash", conditions.hostnameHash);
  Take(machine, "build_type", conditions.buildType);
  const Json versions = machine.value("library_versions", Json::object());
  for (const auto& [name, version] : versions.items()) {
    conditions.libraryVersions.emplace_back(name, version.get<std::string>());
  }
  Take(machine, "load_average", conditions.loadAverage);
  Take(machine, "meter", conditions.meter);
  const Json counters = json.value("counters", Json::array());
  for (const Json& entry : counters) {
    CounterSource source;
    Take(entry, "source", source.source);
    Take(entry, "present", source.present);
    Take(entry, "reason", source.reason);
    info.counters.push_back(source);
  }
  return info;
}

// --- reading tables
// ------------------------------------------------------------------------------------------

// A name of the machine's own as a field: in quotes where it has a comma or a quote, as is usual for CSV.
// A row is a line, so what would break it becomes a blank.
std::string CsvField(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char letter) { return static_cast<unsigned char>(letter) < ' '; }, ' ');
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char letter : text) quoted += letter == '"' ? std::string("\"\"") : std::string(1, letter);
  return quoted + '"';
}

// The fields of a row, out of their quotes. A quote within a field without quotes stands for itself.
std::vector<std::string> Fields(const std::string& row) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (std::size_t i = 0; i < row.size(); ++i) {
    std::string& field = fields.back();
    if (row[i] == '"' && (quoted || (field.empty() && (i == 0 || row[i - 1] == ',')))) {
      const bool doubled = quoted && i + 1 < row.size() && row[i + 1] == '"';
      if (doubled) {
        field += row[++i];
      } else {
        quoted = !quoted;
      }
    } else if (row[i] == ',' && !quoted) {
      fields.emplace_back();
    } else {
      field += row[i];
    }
  }
  return fields;
}

// One row of a table, with the words for what is wrong in it.
class CsvRow {
 public:
  CsvRow(const std::string& path, std::size_t line, const std::string& text, const char* header)
      : path_(path), line_(line), names_(Fields(header)), fields_(Fields(text)) {
    if (fields_.size() != names_.size()) {
      Fail("expected " + std::to_string(names_.size()) + " fields (" + header + "), found " +
           std::to_string(fields_.size()));
    }
  }

  const std::string& Text(std::size_t column) const { return fields_.at(column); }

  std::uint64_t Count(std::size_t column) const {
    const std::string& text = Text(column);
    char* end = nullptr;
    errno = 0;
    const std::uint64_t value = std::strtoull(text.c_str(), &end, 10);
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || errno != 0 || *end != '\0') Fail("expected a whole number as " + names_[column], column);
    return value;
  }

  int Index(std::size_t column) const {
    const std::uint64_t value = Count(column);
    if (value > 1'000'000) Fail("expected a thread's number as " + names_[column], column);
    return static_cast<int>(value);
  }

  double Real(std::size_t column) const {
    const std::string& text = Text(column);
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value)) {
      Fail("expected a number as " + names_[column], column);
    }
    return value;
  }

 private:
  [[noreturn]] void Fail(const std::string& what, std::size_t column) const {
    Fail(what + ", found \"" + fields_[column] + "\"");
  }
  [[noreturn]] void Fail(const std::string& what) const {
    throw RunFolderError(path_ + ":" + std::to_string(line_) + ": " + what);
  }

  const std::string& path_;
  std::size_t line_;
  std::vector<std::string> names_;
  std::vector<std::string> fields_;
};

// Calls `add` for every row of the table. A missing file is an error only where it is `required`.
template <typename AddRow>
void ReadTable(Run& run, const char* name, const char* header, bool required, AddRow add) {
  const std::string path = run.folder + "/" + name;
  const std::optional<std::string> text = ReadFile(path);
  if (!text) {
    const int error = errno;
    if (error != ENOENT) throw RunFolderError(path + ": " + std::strerror(error));
    if (!required) return;
    if (run.info.complete) throw RunFolderError(path + ": a complete run has this file, and it is missing");
    run.notes.push_back(std::string(name) + " is missing: the run is incomplete");
    return;
  }
  std::size_t number = 0;
  for (std::size_t from = 0; from < text->size();) {
    ++number;
    const std::size_t end = text->find('\n', from);
    if (end == std::string::npos) {
      // Every line is written with its line feed: one without was cut.
      run.notes.push_back(std::string(name) + ": line " + std::to_string(number) +
                          " is cut and was left out");
      return;
    }
    const std::string line = text->substr(from, end - from);
    from = end + 1;
    if (number > 1) {
      add(CsvRow(path, number, line, header));
    } else if (line != header) {
      throw RunFolderError(path + ":1: expected the header \"" + header + "\", found \"" + line + "\"");
    }
  }
  if (number == 0) run.notes.push_back(std::string(name) + " is empty");
}

// Samples come every second until the benchmark has ended: a folder that was copied in part has fewer.
void NoteMissingEnd(Run& run) {
  constexpr double kSlackS = 5;
  if (!run.info.complete || !run.info.conditions.meter || run.samples.empty()) return;
  double lastS = 0;
  for (const Sample& sample : run.samples) lastS = std::max(lastS, sample.timeS);
  if (run.info.durationS - lastS <= kSlackS) return;
  run.notes.push_back("no sample after " + Seconds(lastS) + " s of " + Seconds(run.info.durationS) + " s");
}

// The first gap of each thread; threads with the same one share a note.
void NoteGaps(Run& run) {
  std::map<std::pair<std::string, int>, double> last;
  std::set<std::pair<std::string, int>> noted;
  std::map<std::pair<double, double>, std::vector<std::string>> gaps;
  for (const Sample& sample : run.samples) {
    if (sample.engine == kSetUpEngine) continue;
    const auto key = std::make_pair(sample.engine, sample.thread);
    const auto before = last.find(key);
    if (before != last.end() && sample.timeS - before->second > kGapS && noted.insert(key).second) {
      gaps[{before->second, sample.timeS}].push_back(sample.engine + " thread " +
                                                     std::to_string(sample.thread));
    }
    last[key] = sample.timeS;
  }
  for (const auto& [between, threads] : gaps) {
    const std::string more =
        threads.size() == 1 ? std::string() : " and " + std::to_string(threads.size() - 1) + " more";
    run.notes.push_back("no sample of " + threads.front() + more + " between " + Seconds(between.first) +
                        " s and " + Seconds(between.second) + " s");
  }
}

}  // namespace

bool IsRunFolder(const std::string& folder) {
  std::error_code error;
  const bool exists = fs::exists(fs::path(folder) / kInfoName, error);
  if (error) throw RunFolderError(folder + ": cannot tell whether it is a run folder: " + error.message());
  return exists;
}

RunInfo ReadRunInfo(const std::string& folder) {
  const std::string path = folder + "/" + kInfoName;
  std::error_code ignored;
  if (!fs::is_directory(folder, ignored)) throw RunFolderError(folder + ": there is no such folder");
  const std::optional<std::string> text = ReadFile(path);
  if (!text)
    throw RunFolderError(folder + ": not a run folder: cannot read run.json: " + std::strerror(errno));
  try {
    const Json json = Json::parse(*text);
    if (!json.is_object() || json.find("format") == json.end() || !json["format"].is_number_integer()) {
      throw RunFolderError(path + ": not the description of a run: it has no \"format\" number");
    }
    const int format = json["format"].get<int>();
    if (format != kRunFormat) {
      throw RunFolderError(path + ": written in format " + std::to_string(format) +
                           ", this program reads format " + std::to_string(kRunFormat));
    }
    RunInfo info = FromJson(json);
    if (info.kind != "record" && info.kind != "rates") {
      throw RunFolderError(path + ": expected \"kind\" \"record\" or \"rates\", found \"" + info.kind + "\"");
    }
    return info;
  } catch (const Json::exception& error) {
    throw RunFolderError(path + ": " + error.what());
  }
}

Run ReadRun(const std::string& folder) {
  Run run;
  run.folder = folder;
  run.info = ReadRunInfo(folder);
  if (!run.info.complete) {
    run.notes.push_back("the run is incomplete" +
                        (run.info.incompleteReason.empty() ? "" : ": " + run.info.incompleteReason));
  }
  const bool meter = run.info.conditions.meter;
  ReadTable(run, kSamplesName, kSamplesHeader, meter, [&run](const CsvRow& row) {
    Sample sample;
    sample.timeS = row.Real(0);
    sample.engine = row.Text(1);
    sample.thread = row.Index(2);
    sample.operations = row.Count(3);
    sample.busyNs = row.Count(4);
    if (!row.Text(5).empty()) sample.bytes = row.Count(5);
    sample.failures = row.Count(6);
    sample.p50Ns = row.Count(7);
    sample.p99Ns = row.Count(8);
    sample.maxNs = row.Count(9);
    run.samples.push_back(sample);
  });
  ReadTable(run, kHistogramName, kHistogramHeader, meter, [&run](const CsvRow& row) {
    run.histogram.push_back({row.Text(0), row.Index(1), row.Count(2), row.Count(3), row.Count(4)});
  });
  ReadTable(run, kRatesName, kRatesHeader, true,
            [&run](const CsvRow& row) { run.rates.push_back({row.Real(0), row.Text(1), row.Real(2)}); });
  ReadTable(run, kCountersName, kCountersHeader, false, [&run](const CsvRow& row) {
    run.counters.push_back({row.Real(0), row.Text(1), row.Text(2), row.Text(3), row.Real(4)});
  });
  NoteGaps(run);
  NoteMissingEnd(run);
  return run;
}

// --- writing
// -------------------------------------------------------------------------------------------------

namespace {

// Everything that was written is in the file, and not in this program alone, when the call returns.
class OutputFile {
 public:
  explicit OutputFile(std::string path) : path_(std::move(path)), file_(std::fopen(path_.c_str(), "we")) {
    if (file_ == nullptr) Fail(errno);
  }
  ~OutputFile() {
    if (file_ != nullptr) (void)std::fclose(file_);
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void Write(const std::string& text) {
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() || std::fflush(file_) != 0) {
      const int error = errno;
      // What could not be written stays in the stream's buffer otherwise, and every later call fails on it.
      std::clearerr(file_);
      Fail(error);
    }
  }

  // What is on the disk then is all of it.
  void Close() {
    errno = 0;
    // Not every file system can tell.
    const bool saved = fsync(fileno(file_)) == 0 || errno == EINVAL;
    const int error = errno;
    std::FILE* const file = std::exchange(file_, nullptr);
    errno = 0;
    if (std::fclose(file) != 0 || !saved) Fail(saved ? errno : error);
  }

 private:
  [[noreturn]] void Fail(int error) const {
    throw RunFolderError("cannot write " + path_ + ": " + std::strerror(error));
  }

  std::string path_;
  std::FILE* file_;
};

}  // namespace

class RunWriter::File : public OutputFile {
  using OutputFile::OutputFile;
};

void ReplaceFile(const std::string& path, const std::string& text) {
  const std::string next = path + ".new";
  try {
    OutputFile file(next);
    file.Write(text);
    file.Close();
    if (std::rename(next.c_str(), path.c_str()) != 0) {
      throw RunFolderError("cannot write " + path + ": " + std::strerror(errno));
    }
  } catch (const RunFolderError&) {
    (void)std::remove(next.c_str());
    throw;
  }
}

RunWriter::RunWriter(const std::string& folder, bool force) : folder_(folder) {
  std::error_code error;
  if (fs::exists(folder, error) && (!fs::is_directory(folder, error) || !fs::is_empty(folder, error))) {
    if (!force || !fs::is_directory(folder, error)) {
      throw RunFolderError(folder + " exists and is not an empty folder" +
                           (force ? "" : ": choose another one, or add --force to replace the run in it"));
    }
    for (const char* name : {kInfoName, kSamplesName, kSamplesJsonName, kHistogramName, kRatesName,
                             kRatesTextName, kCountersName, kReportName}) {
      fs::remove(fs::path(folder) / name, error);
      if (error) throw RunFolderError("cannot remove " + folder + "/" + name + ": " + error.message());
    }
  }
  fs::create_directories(folder, error);
  if (error) throw RunFolderError("cannot make the folder " + folder + ": " + error.message());
}

RunWriter::~RunWriter() = default;

RunWriter::File& RunWriter::Open(std::unique_ptr<File>& file, const char* name, const char* header) {
  if (file == nullptr) {
    file = std::make_unique<File>(folder_ + "/" + name);
    if (header != nullptr) file->Write(std::string(header) + "\n");
  }
  return *file;
}

void RunWriter::WriteInfo(const RunInfo& info) {
  std::string text = ToJson(info).dump(2, ' ', false, Json::error_handler_t::replace);
  text += '\n';
  ReplaceFile(folder_ + "/" + kInfoName, text);
}

void RunWriter::Add(const std::vector<Sample>& samples) {
  std::string csv;
  std::string lines;
  for (const Sample& sample : samples) {
    const std::string bytes = sample.bytes ? std::to_string(*sample.bytes) : std::string();
    csv += Seconds(sample.timeS) + ',' + sample.engine + ',' + std::to_string(sample.thread) + ',' +
           std::to_string(sample.operations) + ',' + std::to_string(sample.busyNs) + ',' + bytes + ',' +
           std::to_string(sample.failures) + ',' + std::to_string(sample.p50Ns) + ',' +
           std::to_string(sample.p99Ns) + ',' + std::to_string(sample.maxNs) + '\n';
    Json json{{"time_s", std::round(sample.timeS * 1000) / 1000},
              {"engine", sample.engine},
              {"thread", sample.thread},
              {"operations", sample.operations},
              {"busy_ns", sample.busyNs},
              {"bytes", nullptr},
              {"failures", sample.failures},
              {"p50_ns", sample.p50Ns},
              {"p99_ns", sample.p99Ns},
              {"max_ns", sample.maxNs}};
    if (sample.bytes) json["bytes"] = *sample.bytes;
    lines += json.dump() + '\n';
  }
  Open(samplesCsv_, kSamplesName, kSamplesHeader).Write(csv);
  Open(samplesJson_, kSamplesJsonName, nullptr).Write(lines);
}

void RunWriter::Add(const std::vector<Rate>& rates) {
  std::string csv;
  for (const Rate& rate : rates) {
    csv += Seconds(rate.timeS) + ',' + rate.stress + ',' + Format("%.6f", rate.fps) + '\n';
  }
  Open(ratesCsv_, kRatesName, kRatesHeader).Write(csv);
}

void RunWriter::Add(const std::vector<CounterValue>& counters) {
  if (counters.empty()) return;
  std::string csv;
  for (const CounterValue& counter : counters) {
    csv += Seconds(counter.timeS) + ',' + counter.source + ',' + CsvField(counter.name) + ',' +
           CsvField(counter.unit) + ',' + Number(counter.value) + '\n';
  }
  Open(countersCsv_, kCountersName, kCountersHeader).Write(csv);
}

void RunWriter::AddRateLine(const std::string& line) {
  Open(ratesText_, kRatesTextName, nullptr).Write(line + '\n');
}

void RunWriter::WriteHistogram(const std::vector<HistogramRow>& rows) {
  std::string csv = std::string(kHistogramHeader) + '\n';
  for (const HistogramRow& row : rows) {
    csv += row.engine + ',' + std::to_string(row.thread) + ',' + std::to_string(row.lowNs) + ',' +
           std::to_string(row.highNs) + ',' + std::to_string(row.count) + '\n';
  }
  ReplaceFile(folder_ + "/" + kHistogramName, csv);
}

std::string UtcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  (void)gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  (void)std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

std::string TimedFolder(const std::string& prefix) {
  std::string time = UtcNow();
  time.erase(std::remove(time.begin(), time.end(), ':'), time.end());
  return prefix + time;
}

}  // namespace scope
