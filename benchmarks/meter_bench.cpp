// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "engines.h"
#include "measure.h"
#include "meter_reader.h"
#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"
#include "program.h"
#include "protocol.h"

namespace {

constexpr int kCallsARound = 20'000;
// What is measured, in this order, and the engine whose operation it is.
struct MeasuredOperation {
  const char* name;
  scope::Engine engine;
};
constexpr MeasuredOperation kOperations[] = {{"memcpy_s", scope::Engine::kCpu},
                                             {"QetImageResize", scope::Engine::kVpc},
                                             {"encode (3 calls)", scope::Engine::kVenc},
                                             {"QetDNNModelProcess", scope::Engine::kAic}};
constexpr std::size_t kLoads = 0
#define ENGINE(symbol, id, load, ...) +(load ? 1 : 0)
#include "engines.inc"
#undef ENGINE
    ;
static_assert(std::size(kOperations) == kLoads, "an engine of the table has no operation here");
constexpr std::chrono::seconds kMeasured{10};

// The least disturbed round, ns a call.
template <typename Operation>
double Best(int rounds, Operation operation) {
  double best = 1e18;
  for (int round = 0; round < rounds; ++round) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCallsARound; ++i) {
      if (operation() != 0) std::abort();
    }
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    best = std::min(best, took.count() / kCallsARound);
  }
  return best;
}

int MeasureCalls(int rounds) {
  char from[64] = {};
  char to[64] = {};
  Ormis::ImageData image;
  image.width = 1920;
  image.height = 1080;
  image.imageType = Ormis::kQetImageBgr888;
  Ormis::QetVenc encoder;
  ux_venc_stream stream{};
  Ormis::QetDNNHandle handle;
  (void)Ormis::QetDNNModelInitialize(handle, "/proc/self/exe");
  (void)std::printf("%f\n", Best(rounds, [&] { return memcpy_s(to, sizeof(to), from, sizeof(from)); }));
  (void)std::printf("%f\n", Best(rounds, [&] {
                      return Ormis::QetImageResize(0, image, image, Ormis::kQetInterpolationArea, -1);
                    }));
  (void)std::printf("%f\n", Best(rounds, [&] {
                      return encoder.SendFrame(image) + encoder.GetStream(stream) +
                             encoder.ReleaseStream(stream);
                    }));
  (void)std::printf("%f\n", Best(rounds, [&] { return Ormis::QetDNNModelProcess(handle); }));
  return 0;
}

std::vector<double> Run(const std::string& self, const std::string& rounds, bool meter, bool withReader) {
  scope::MeterReader reader(0);
  scope::ChildProcess::Options options;
  options.program = self;
  options.arguments = {"calls", rounds};
  if (meter) options.environment.emplace_back("LD_PRELOAD", METER);
  if (withReader) {
    options.environment.emplace_back(scope::kDescriptorVariable, std::to_string(reader.ChildEnd()));
    options.inherit = reader.ChildEnd();
  }
  scope::ChildProcess child(options);
  reader.CloseChildEnd();
  std::vector<scope::MeterSecond> seconds;
  while (!child.HasEnded()) {
    reader.Read(seconds);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  scope::LineReader output;
  std::vector<std::string> lines;
  output.Read(child.Output(), lines);
  if (child.ExitStatus() != 0 || lines.size() != std::size(kOperations) || reader.SaidHello() != withReader) {
    (void)std::fprintf(stderr, "meter_bench: the measuring child failed\n");
    std::exit(1);
  }
  std::vector<double> values;
  for (const std::string& line : lines) values.push_back(std::strtod(line.c_str(), nullptr));
  return values;
}

struct Busy {
  std::uint64_t operations = 0;
  std::uint64_t ns = 0;
};

// What each engine did while the benchmark ran on `config` for some seconds.
std::map<std::string, Busy> RunEngines(const std::string& config) {
  scope::MeterReader reader(0);
  scope::ChildProcess::Options options;
  options.program = BENCHMARK;
  options.arguments = {config};
  options.environment = {{"LD_PRELOAD", METER},
                         {scope::kDescriptorVariable, std::to_string(reader.ChildEnd())}};
  options.inherit = reader.ChildEnd();
  options.takeErrors = true;
  scope::ChildProcess child(options);
  reader.CloseChildEnd();
  scope::LineReader output;
  scope::LineReader errors;
  std::vector<std::string> lines;
  std::vector<scope::MeterSecond> seconds;
  const auto end = std::chrono::steady_clock::now() + kMeasured;
  for (bool stopped = false; !child.HasEnded();) {
    if (!stopped && std::chrono::steady_clock::now() >= end) {
      child.Signal(SIGINT);
      stopped = true;
    }
    reader.Read(seconds);
    output.Read(child.Output(), lines);
    errors.Read(child.Errors(), lines);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  reader.Read(seconds);
  std::map<std::string, Busy> engines;
  for (const scope::MeterSecond& second : seconds) {
    for (const scope::Sample& sample : second.samples) {
      engines[sample.engine].operations += sample.operations;
      engines[sample.engine].ns += sample.busyNs;
    }
  }
  if (!reader.SaidLast() || engines.empty()) {
    (void)std::fprintf(stderr, "meter_bench: the benchmark did not run on %s under the meter\n",
                       config.c_str());
    std::exit(1);
  }
  return engines;
}

const char* const kUsage = R"(usage: meter_bench [ROUNDS [CONFIG]]
Measures what the meter adds to a call, in ns: operations that do nothing are called without the meter, under
the meter without a reader, and under the meter with one. Each is a run of this program as a child.

With a configuration, it also runs the benchmark on it under the meter. The time that the meter adds, divided by
the time of an operation there, is the share of the engine's rate that the meter costs.
)";

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "meter_bench", kUsage);
  if (argc > 2 && std::strcmp(argv[1], "calls") == 0) {
    return MeasureCalls(static_cast<int>(std::strtol(argv[2], nullptr, 10)));
  }
  const std::string rounds = std::to_string(measure::CountArgument(argc, argv, 1, "ROUNDS", 100));
  const std::vector<double> plain = Run("/proc/self/exe", rounds, false, false);
  const std::vector<double> silent = Run("/proc/self/exe", rounds, true, false);
  const std::vector<double> metered = Run("/proc/self/exe", rounds, true, true);
  (void)std::printf("%-20s %10s %12s %12s %14s\n", "ns, best of rounds", "no meter", "no reader",
                    "with reader", "meter adds");
  for (std::size_t i = 0; i < std::size(kOperations); ++i) {
    (void)std::printf("%-20s %10.1f %12.1f %12.1f %14.1f\n", kOperations[i].name, plain[i], silent[i],
                      metered[i], metered[i] - plain[i]);
  }
  if (argc < 3) return 0;
  const std::map<std::string, Busy> engines = RunEngines(argv[2]);
  (void)std::printf("\n%-20s %10s %16s %14s %14s\n", "engine", "operations", "ns an operation", "meter adds",
                    "of its rate");
  for (std::size_t row = 0; row < scope::Engines().size(); ++row) {
    const scope::EngineInfo& engine = scope::Engines()[row];
    if (!engine.load) continue;
    const auto* const measured = std::find_if(
        std::begin(kOperations), std::end(kOperations),
        [row](const MeasuredOperation& one) { return static_cast<std::size_t>(one.engine) == row; });
    if (measured == std::end(kOperations)) {
      (void)std::fprintf(stderr, "meter_bench: no operation of %s is measured\n", engine.id);
      return 1;
    }
    const auto i = static_cast<std::size_t>(measured - std::begin(kOperations));
    const double added = metered[i] - plain[i];
    const auto at = engines.find(engine.id);
    if (at == engines.end() || at->second.operations == 0) continue;
    const double ns = static_cast<double>(at->second.ns) / static_cast<double>(at->second.operations);
    (void)std::printf("%-20s %10llu %16.0f %14.1f %12.4f %%\n", engine.id,
                      static_cast<unsigned long long>(at->second.operations), ns, added, added / ns * 100);
  }
  return 0;
}
