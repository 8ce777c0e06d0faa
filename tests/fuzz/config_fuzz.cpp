// SPDX-License-Identifier: Apache-2.0

// The input is a configuration file. It goes to the YAML reader alone, then to the configuration's rules.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>

#include "fake_log.h"
#include "limited_memory.h"
#include "require.h"
#include "stress_bencmark.h"

namespace {

using ara::log::LogLevel;

constexpr std::size_t kMaxNodes = 10'000;
constexpr std::size_t kMaxDepth = 64;

/// A file in memory that holds the input.
class InputFile {
 public:
  InputFile(const std::uint8_t* data, std::size_t size) {
    FUZZ_REQUIRE(file_ >= 0, "memfd_create");
    for (std::size_t done = 0; done < size;) {
      const ssize_t written = write(file_, data + done, size - done);
      FUZZ_REQUIRE(written > 0, "write to a file in memory");
      done += static_cast<std::size_t>(written);
    }
  }
  ~InputFile() { close(file_); }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  const int file_ = memfd_create("input", MFD_CLOEXEC);
};

struct Tree {
  std::size_t values = 0;
  std::size_t depth = 0;
};

Tree Measure(const Ormis::QetYamlNode& node) {
  Tree tree{1, 1};
  for (const auto& [key, child] : node.children) {
    const Tree below = Measure(child);
    tree.values += 1 + below.values;  // 1 for the key, which is a node, too
    tree.depth = std::max(tree.depth, 1 + below.depth);
  }
  return tree;
}

/// Returns whether the reader accepts the file.
bool CheckReader(const std::string& path) {
  try {
    const Ormis::QetYamlNode root(path);
    const Tree tree = Measure(root);
    FUZZ_REQUIRE(tree.values <= kMaxNodes && tree.depth <= kMaxDepth, "limits of a document");
    for (const auto& [key, child] : root.children) {
      const unsigned int before = 4711;
      unsigned int number = before;
      const bool converts = child.AsIf(number);
      FUZZ_REQUIRE(converts || number == before, key);
      unsigned int same = before;
      FUZZ_REQUIRE(root.GetValue(key, same) == converts && same == number, key);
      std::string text = "before";
      FUZZ_REQUIRE(root.GetValue(key, text) || text == "before", key);
      FUZZ_REQUIRE(root[key].children.size() == child.children.size(), key);
    }
    return true;
  } catch (const std::runtime_error& error) {
    const std::string message = error.what();
    FUZZ_REQUIRE(message.rfind(path + ":", 0) == 0, message);
    return false;
  }
}

void CheckRecords(const StressMap& stresses) {
  static const std::map<std::string, std::uint32_t> sleepUsOf = {
      {"kivuVpcStress", 100}, {"kivuVencStress", 100}, {"cpuStress", 1000}, {"aicStress", 1000}};
  for (const auto& [name, record] : stresses) {
    const auto known = sleepUsOf.find(name);
    FUZZ_REQUIRE(known != sleepUsOf.end(), name);
    FUZZ_REQUIRE(record->sleepUs == known->second, name);
    FUZZ_REQUIRE(record->threadNum <= 10, name);
    FUZZ_REQUIRE(record->threadFps.size() == record->threadNum, name);
    FUZZ_REQUIRE(std::all_of(record->threadFps.begin(), record->threadFps.end(),
                             [](double fps) { return fps == 0.0; }),
                 name);
    FUZZ_REQUIRE(name == "aicStress" || record->file.empty(), name);
  }
}

int CheckParse(const std::string& path, bool readable) {
  fakeLog::Reset();
  StressBenchmark benchmark(path);
  const int status = benchmark.Parse();
  const std::vector<std::string> errors = fakeLog::Texts(LogLevel::kError);
  FUZZ_REQUIRE(status == 0 || status == 10, std::to_string(status));
  FUZZ_REQUIRE(readable || status == 10, "parsed what the reader refuses");
  FUZZ_REQUIRE(errors.size() == (status == 0 ? 0 : 1), std::to_string(errors.size()) + " errors");
  if (status == 0) {
    CheckRecords(benchmark.stressMap);
  } else {
    FUZZ_REQUIRE(errors[0].rfind("Parse() | ", 0) == 0 || errors[0].rfind("Load() | Load " + path, 0) == 0,
                 errors[0]);
  }
  return status;
}

void CheckInit(const std::string& path, bool readable, int parseStatus) {
  fakeLog::Reset();
  StressBenchmark benchmark(path);
  bool success = false;
  bool thrown = false;
  try {
    success = benchmark.Init();
  } catch (const std::exception&) {
    thrown = true;
  }
  FUZZ_REQUIRE(thrown == !readable, "Init throws what the reader throws, and nothing else");
  if (thrown) return;
  FUZZ_REQUIRE(success == (parseStatus == 0), "Init fails as Parse does");
  FUZZ_REQUIRE(benchmark.runTimes >= 40, std::to_string(benchmark.runTimes));
  const std::vector<fakeLog::Start> starts = fakeLog::Starts();
  FUZZ_REQUIRE(starts.size() == 1, std::to_string(starts.size()));
  FUZZ_REQUIRE(static_cast<std::uint32_t>(starts[0].level) == std::min(benchmark.logLevel, 6U), "level");
  FUZZ_REQUIRE(static_cast<std::uint32_t>(starts[0].mode) == (benchmark.logMode & 7U), "mode");
  FUZZ_REQUIRE(benchmark.Release(), "the platform had started");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const LimitedMemory limit;
  struct sigaction interrupt{};  // the fuzzer's, which Init replaces
  sigaction(SIGINT, nullptr, &interrupt);
  // The log level that a file asks for does not matter here.
  Ormis::OrmisLogger::GetInstance().logger = &ara::log::CreateLogger("TPW", "TPW", LogLevel::kVerbose);

  const InputFile file(data, size);
  const bool readable = CheckReader(file.Path());
  const int status = CheckParse(file.Path(), readable);
  CheckInit(file.Path(), readable, status);

  sigaction(SIGINT, &interrupt, nullptr);
  return 0;
}
