// SPDX-License-Identifier: Apache-2.0
#include <onnxruntime_c_api.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "measure.h"
#include "ormis/ormis.h"
#include "program.h"

namespace {

using measure::Require;

const OrtApi& Api() {
  static const OrtApi* const api = OrtGetApiBase()->GetApi(ORT_API_VERSION);
  Require(api != nullptr, "finding ONNX Runtime's interface");
  return *api;
}

void Check(OrtStatus* status, const char* what) {
  Require(status == nullptr, what);
}

/// One environment for all sessions: the runtime allows no more.
OrtEnv* Environment() {
  static OrtEnv* const environment = [] {
    OrtEnv* made = nullptr;
    Check(Api().CreateEnv(ORT_LOGGING_LEVEL_WARNING, "bench", &made), "CreateEnv");
    return made;
  }();
  return environment;
}

struct BareTensors {
  std::vector<std::string> names;
  std::vector<const char*> namePointers;
  std::vector<std::vector<float>> memory;
  std::vector<OrtValue*> values;
};

/// A session with its tensors, made once. It lives as long as the process.
class BareSession {
 public:
  explicit BareSession(const std::string& model) {
    OrtSessionOptions* options = nullptr;
    Check(Api().CreateSessionOptions(&options), "CreateSessionOptions");
    Check(Api().SetIntraOpNumThreads(options, 1), "SetIntraOpNumThreads");
    Check(Api().SetInterOpNumThreads(options, 1), "SetInterOpNumThreads");
    Check(Api().SetSessionExecutionMode(options, ORT_SEQUENTIAL), "SetSessionExecutionMode");
    Check(Api().SetSessionGraphOptimizationLevel(options, ORT_ENABLE_ALL),
          "SetSessionGraphOptimizationLevel");
    Check(Api().AddSessionConfigEntry(options, "session.intra_op.allow_spinning", "0"),
          "AddSessionConfigEntry");
    Check(Api().AddSessionConfigEntry(options, "session.inter_op.allow_spinning", "0"),
          "AddSessionConfigEntry");
    Check(Api().CreateSession(Environment(), model.c_str(), options, &session_), "CreateSession");
    Api().ReleaseSessionOptions(options);
    Make(&OrtApi::SessionGetInputCount, &OrtApi::SessionGetInputName, &OrtApi::SessionGetInputTypeInfo,
         inputs_);
    Make(&OrtApi::SessionGetOutputCount, &OrtApi::SessionGetOutputName, &OrtApi::SessionGetOutputTypeInfo,
         outputs_);
  }
  BareSession(const BareSession&) = delete;
  BareSession& operator=(const BareSession&) = delete;

  void Run() {
    Check(Api().Run(session_, nullptr, inputs_.namePointers.data(), inputs_.values.data(),
                    inputs_.values.size(), outputs_.namePointers.data(), outputs_.values.size(),
                    outputs_.values.data()),
          "Run");
  }

  const std::vector<float>& FirstOutput() const { return outputs_.memory.front(); }

 private:
  template <typename Count, typename Name, typename Type>
  void Make(Count count, Name name, Type type, BareTensors& tensors) {
    OrtAllocator* allocator = nullptr;
    Check(Api().GetAllocatorWithDefaultOptions(&allocator), "GetAllocatorWithDefaultOptions");
    OrtMemoryInfo* memoryInfo = nullptr;
    Check(Api().CreateCpuMemoryInfo(OrtDeviceAllocator, OrtMemTypeDefault, &memoryInfo),
          "CreateCpuMemoryInfo");
    std::size_t number = 0;
    Check((Api().*count)(session_, &number), "counting tensors");
    for (std::size_t i = 0; i < number; ++i) {
      char* text = nullptr;
      Check((Api().*name)(session_, i, allocator, &text), "naming a tensor");
      tensors.names.emplace_back(text);
      Check(Api().AllocatorFree(allocator, text), "AllocatorFree");
      OrtTypeInfo* info = nullptr;
      Check((Api().*type)(session_, i, &info), "describing a tensor");
      const OrtTensorTypeAndShapeInfo* shapeInfo = nullptr;
      Check(Api().CastTypeInfoToTensorInfo(info, &shapeInfo), "CastTypeInfoToTensorInfo");
      ONNXTensorElementDataType element = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED;
      Check(Api().GetTensorElementType(shapeInfo, &element), "GetTensorElementType");
      Require(element == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT,
              "finding tensors of 32-bit floats, expected by this program,");
      std::size_t dimensions = 0;
      Check(Api().GetDimensionsCount(shapeInfo, &dimensions), "GetDimensionsCount");
      std::vector<std::int64_t> shape(dimensions);
      Check(Api().GetDimensions(shapeInfo, shape.data(), dimensions), "GetDimensions");
      std::size_t elements = 1;
      for (std::int64_t& size : shape) {
        if (size < 0) size = 1;
        elements *= static_cast<std::size_t>(size);
      }
      Api().ReleaseTypeInfo(info);
      tensors.memory.emplace_back(elements);
      OrtValue* value = nullptr;
      Check(Api().CreateTensorWithDataAsOrtValue(memoryInfo, tensors.memory.back().data(),
                                                 elements * sizeof(float), shape.data(), shape.size(),
                                                 element, &value),
            "CreateTensorWithDataAsOrtValue");
      tensors.values.push_back(value);
    }
    Api().ReleaseMemoryInfo(memoryInfo);
    for (const std::string& one : tensors.names) tensors.namePointers.push_back(one.c_str());
  }

  OrtSession* session_ = nullptr;
  BareTensors inputs_;
  BareTensors outputs_;
};

/// Starts the platform on this thread. It stays until the process ends.
void StartPlatform() {
  static Ormis::QetContext process;
  static Ormis::QetContext context;
  Require(Ormis::QetInitialize(process, {}) == 0 && Ormis::QetCreateContext(context) == 0 &&
              Ormis::QetSetCurrentContext(context) == 0,
          "starting the platform");
}

void Load(Ormis::QetDNNHandle& handle, const std::string& model) {
  Require(Ormis::QetDNNModelInitialize(handle, model) == 0 && Ormis::QetDNNModelCreateInput(handle) == 0 &&
              Ormis::QetDNNModelCreateOutput(handle) == 0,
          "loading the model");
}

double AnonymousMegabytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("RssAnon:", 0) == 0) return std::stod(line.substr(8)) * 1024.0 / 1e6;
  }
  Require(false, "reading RssAnon of /proc/self/status");
  return 0.0;
}

/// Runs `body` in a child process.
template <typename Body>
void Apart(Body&& body) {
  (void)std::fflush(stdout);
  const pid_t child = fork();
  Require(child >= 0, "fork");
  if (child == 0) {
    body();
    (void)std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  Require(waitpid(child, &status, 0) == child && status == 0, "measuring ten instances");
}

constexpr int kInstances = 10;

template <typename LoadOne, typename RunOne>
void MeasureInstances(const char* name, LoadOne&& loadOne, RunOne&& runOne) {
  const double before = AnonymousMegabytes();
  std::vector<double> loadMs;
  for (int i = 0; i < kInstances; ++i) loadMs.push_back(measure::Milliseconds([&] { loadOne(i); }));
  const double loaded = AnonymousMegabytes() - before;
  for (int i = 0; i < kInstances; ++i) runOne(i);
  const double used = AnonymousMegabytes() - before;
  const double first = loadMs.front();
  loadMs.erase(loadMs.begin());
  (void)std::printf("| %s | %.1f | %.1f | %.1f | %.1f |\n", name, first, measure::Median(loadMs), loaded,
                    used);
}

/// What ten instances of the model cost, on each side in a process of its own.
void MeasureMemory(const std::string& model) {
  (void)std::printf(
      "| ten instances | loading the first, ms | each other, ms | memory, MB | memory after one inference of "
      "each, MB |\n|---|---|---|---|---|\n");
  Apart([&] {
    StartPlatform();
    std::vector<std::unique_ptr<Ormis::QetDNNHandle>> handles(kInstances);
    MeasureInstances(
        "QetDNN",
        [&](int i) {
          auto& handle = handles[static_cast<std::size_t>(i)];
          handle = std::make_unique<Ormis::QetDNNHandle>();
          Load(*handle, model);
        },
        [&](int i) {
          Require(Ormis::QetDNNModelProcess(*handles[static_cast<std::size_t>(i)]) == 0,
                  "QetDNNModelProcess");
        });
  });
  Apart([&] {
    (void)Environment();
    std::vector<std::unique_ptr<BareSession>> sessions(kInstances);
    MeasureInstances(
        "bare sessions",
        [&](int i) { sessions[static_cast<std::size_t>(i)] = std::make_unique<BareSession>(model); },
        [&](int i) { sessions[static_cast<std::size_t>(i)]->Run(); });
  });
}

/// Inference in turns. Starts the platform on this thread.
void MeasureInference(const std::string& model, int rounds) {
  StartPlatform();
  Ormis::QetDNNHandle handle;
  Load(handle, model);
  BareSession bare(model);
  constexpr int kRunsATurn = 5;
  const auto ownTurn = [&] {
    for (int i = 0; i < kRunsATurn; ++i)
      Require(Ormis::QetDNNModelProcess(handle) == 0, "QetDNNModelProcess");
  };
  const auto bareTurn = [&] {
    for (int i = 0; i < kRunsATurn; ++i) bare.Run();
  };
  std::vector<double> ownMs;
  std::vector<double> bareMs;
  for (int round = -1; round < rounds; ++round) {  // the first one warms up
    const bool ownFirst = round % 2 == 0;
    double own = ownFirst ? measure::Milliseconds(ownTurn) : 0.0;
    const double other = measure::Milliseconds(bareTurn);
    if (!ownFirst) own = measure::Milliseconds(ownTurn);
    if (round < 0) continue;
    ownMs.push_back(own / kRunsATurn);
    bareMs.push_back(other / kRunsATurn);
  }
  const Ormis::QetDNNBuffer& output = handle.outputs.front();
  Require(output.sizeBytes == bare.FirstOutput().size() * sizeof(float) &&
              std::equal(bare.FirstOutput().begin(), bare.FirstOutput().end(),
                         static_cast<const float*>(output.data)),
          "computing the same: the outputs differ, so this comparison");
  (void)std::printf("\n| inference | ms | a second | rate / bare session |\n|---|---|---|---|\n");
  (void)std::printf("| QetDNNModelProcess | %.3f | %.2f | %.4f |\n", measure::Median(ownMs),
                    1000.0 / measure::Median(ownMs), measure::MedianRatio(bareMs, ownMs));
  (void)std::printf("| bare session | %.3f | %.2f | 1 |\n", measure::Median(bareMs),
                    1000.0 / measure::Median(bareMs));
  Require(Ormis::QetDNNRelease(handle) == 0, "QetDNNRelease");
}

const char* const kUsage = R"(usage: inference_bench [MODEL [ROUNDS]]
Compares QetDNN with a bare session of the same runtime and options: inference in turns within one run, and what
ten instances of the model cost to load and to keep.

Memory is the growth of the process's anonymous memory. Each side runs in its own process, because the second
one would use again what the first one gave back.
)";

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "inference_bench", kUsage);
  const std::string model = argc > 1 ? argv[1] : "build/models/example.onnx";
  const int rounds = measure::CountArgument(argc, argv, 2, "ROUNDS", 31);
  MeasureMemory(model);
  MeasureInference(model, rounds);
}
