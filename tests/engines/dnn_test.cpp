// SPDX-License-Identifier: Apache-2.0
#include <malloc.h>
#include <onnxruntime_c_api.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "expect_failure.h"
#include "failing_memory.h"
#include "model_bytes.h"
#include "model_test.h"
#include "sanitizers.h"
#include "spawn_calls.h"

namespace {

using onnx_writer::ElementType;
using Ormis::QetDNNHandle;
using Ormis::test::ExpectFailure;
using Ormis::test::kNoContextMessage;

class DnnTest : public ModelTest {};
class DnnBasicsTest : public ModelTest {};  // what runs under emulation, too

/// A model that copies its input to its output.
onnx_writer::Graph Identity(const std::vector<std::int64_t>& shape, ElementType type) {
  onnx_writer::Graph graph;
  graph.name = "identity";
  graph.inputs = {{"in", shape, type}};
  graph.outputs = {{"out", shape, type}};
  graph.nodes = {{"Identity", {"in"}, {"out"}, {}, {}}};
  return graph;
}

/// Loads a model and creates its buffers. Releases both at its end.
struct Loaded {
  explicit Loaded(const std::string& path) {
    EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
  }
  ~Loaded() { EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk); }

  float* Input() { return static_cast<float*>(handle.inputs.at(0).data); }
  std::vector<float> Output() const {
    const Ormis::QetDNNBuffer& buffer = handle.outputs.at(0);
    const auto* values = static_cast<const float*>(buffer.data);
    return {values, values + buffer.sizeBytes / sizeof(float)};
  }

  QetDNNHandle handle;
};

// --- The tiny network, computed by plain loops ---

using Values = std::vector<float>;

const Values& Weights(const onnx_writer::Graph& graph, const std::string& name) {
  const auto found = std::find_if(graph.initializers.begin(), graph.initializers.end(),
                                  [&](const onnx_writer::Tensor& tensor) { return tensor.name == name; });
  if (found == graph.initializers.end()) throw std::runtime_error("no weights " + name);
  return found->values;
}

/// A convolution of 3x3 with a border of zeros, over planes of `size` x `size`.
Values Conv3x3(const Values& in, std::size_t inPlanes, std::size_t size, const Values& weight,
               const Values& bias, std::size_t stride) {
  const std::size_t outSize = (size + stride - 1) / stride;
  Values out;
  for (std::size_t o = 0; o < bias.size(); ++o) {
    for (std::size_t y = 0; y < outSize; ++y) {
      for (std::size_t x = 0; x < outSize; ++x) {
        double sum = bias[o];
        for (std::size_t i = 0; i < inPlanes; ++i) {
          for (std::size_t ky = 0; ky < 3; ++ky) {
            for (std::size_t kx = 0; kx < 3; ++kx) {
              const std::size_t row = y * stride + ky;  // of the plane with its border
              const std::size_t column = x * stride + kx;
              if (row < 1 || row > size || column < 1 || column > size) continue;
              sum += double{in[(i * size + row - 1) * size + column - 1]} *
                     double{weight[((o * inPlanes + i) * 3 + ky) * 3 + kx]};
            }
          }
        }
        out.push_back(static_cast<float>(sum));
      }
    }
  }
  return out;
}

void Rectify(Values& values) {
  for (float& value : values) value = std::max(value, 0.0f);
}

Values ComputeTiny(const Values& image) {
  const onnx_writer::Graph graph = TinyNetwork();
  Values first = Conv3x3(image, 3, 8, Weights(graph, "conv1Weight"), Weights(graph, "conv1Bias"), 2);
  Rectify(first);
  Values sum = Conv3x3(first, 4, 4, Weights(graph, "conv2Weight"), Weights(graph, "conv2Bias"), 1);
  for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += first[i];
  Rectify(sum);
  const Values& weight = Weights(graph, "denseWeight");
  Values scores = Weights(graph, "denseBias");
  for (std::size_t channel = 0; channel < 4; ++channel) {
    double mean = 0;
    for (std::size_t i = 0; i < 16; ++i) mean += double{sum[channel * 16 + i]} / 16;
    for (std::size_t score = 0; score < scores.size(); ++score) {
      scores[score] += weight[score * 4 + channel] * static_cast<float>(mean);
    }
  }
  return scores;
}

Values SomeImage(std::size_t count, std::uint32_t seed) {
  Values image(count);
  for (float& value : image) {
    seed = seed * 1664525U + 1013904223U;
    value = static_cast<float>(seed >> 8) / 0x800000 - 1.0f;
  }
  return image;
}

constexpr std::size_t kTinyInputs = std::size_t{3} * 8 * 8;

TEST_F(DnnBasicsTest, OutputsAreThoseComputedIndependently) {
  Loaded model(Write(TinyNetwork()));
  ASSERT_EQ(model.handle.inputs.at(0).sizeBytes, kTinyInputs * sizeof(float));
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    const Values image = SomeImage(kTinyInputs, seed);
    std::copy(image.begin(), image.end(), model.Input());
    ASSERT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
    const Values expected = ComputeTiny(image);
    const Values output = model.Output();
    ASSERT_EQ(output.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(output[i], expected[i], 1e-5f) << i;
  }
}

Values ComputeMemory(const onnx_writer::Graph& graph, Values values) {
  for (std::size_t layer = 0; layer * 2 < graph.initializers.size(); ++layer) {
    const std::string name = "dense" + std::to_string(layer);
    const Values& weight = Weights(graph, (name + "Weight").c_str());
    Values sums = Weights(graph, (name + "Bias").c_str());
    for (std::size_t output = 0; output < sums.size(); ++output) {
      double sum = 0;
      for (std::size_t i = 0; i < values.size(); ++i) {
        sum += double{weight[output * values.size() + i]} * double{values[i]};
      }
      sums[output] += static_cast<float>(sum);
    }
    Rectify(sums);
    values = sums;
  }
  return values;
}

TEST_F(DnnTest, TheNetworkThatLoadsMemoryUsesAllItsWeights) {
  const onnx_writer::Graph graph = MemoryNetwork(1);
  std::size_t weights = 0;
  for (const onnx_writer::Tensor& tensor : graph.initializers) {
    if (tensor.shape.size() == 2) weights += tensor.values.size() * sizeof(float);
  }
  EXPECT_GE(weights, 1'000'000U);
  EXPECT_LE(weights, 1'130'000U);
  Loaded model(Write(graph));
  const std::size_t width = model.handle.inputs.at(0).sizeBytes / sizeof(float);
  const Values features = SomeImage(width, 1);
  std::copy(features.begin(), features.end(), model.Input());
  ASSERT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
  const Values expected = ComputeMemory(graph, features);
  const Values output = model.Output();
  ASSERT_EQ(output.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(output[i], expected[i], 1e-4f) << i;
  EXPECT_GT(*std::max_element(output.begin(), output.end()), 0.1f) << "the values vanish";
}

TEST_F(DnnTest, UntouchedInputsAreZeros) {
  Loaded model(Write(TinyNetwork()));
  ASSERT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
  const Values expected = ComputeTiny(Values(kTinyInputs, 0.0f));
  const Values output = model.Output();
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(output[i], expected[i], 1e-5f) << i;
}

TEST_F(DnnTest, TheHandleListsItsTensors) {
  Loaded model(Write(TinyNetwork()));
  const QetDNNHandle& handle = model.handle;
  EXPECT_NE(handle.modelId, 0U);
  EXPECT_EQ(handle.modelPath, (folder_ / "model.onnx").string());
  ASSERT_EQ(handle.inputs.size(), 1U);
  ASSERT_EQ(handle.outputs.size(), 1U);
  EXPECT_EQ(handle.outputs[0].sizeBytes, 5 * sizeof(float));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(handle.inputs[0].data) % 4096, 0U);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(handle.outputs[0].data) % 4096, 0U);
  EXPECT_EQ(handle.inputIndex.at(handle.inputs[0].data), 0U);
  EXPECT_EQ(handle.outputIndex.at(handle.outputs[0].data), 0U);
  EXPECT_EQ(handle.bufferOf.at(0), handle.inputs[0].data);
  EXPECT_EQ(handle.bufferOf.at(1), handle.outputs[0].data);
  EXPECT_EQ(handle.bufferOf.size(), 2U);
}

/// Three inputs, each of which is copied to an output of its own.
onnx_writer::Graph Threefold() {
  onnx_writer::Graph graph;
  graph.name = "threefold";
  for (const char* const name : {"a", "b", "c"}) {
    graph.inputs.push_back({name, {2, 3}, ElementType::kFloat});
    graph.outputs.push_back({std::string("out_") + name, {2, 3}, ElementType::kFloat});
    graph.nodes.push_back({"Identity", {name}, {std::string("out_") + name}, {}, {}});
  }
  return graph;
}

void ExpectThreefold(const QetDNNHandle& handle) {
  ASSERT_EQ(handle.inputs.size(), 3U);
  ASSERT_EQ(handle.outputs.size(), 3U);
  EXPECT_EQ(handle.inputIndex.size(), 3U);
  EXPECT_EQ(handle.outputIndex.size(), 3U);
  EXPECT_EQ(handle.bufferOf.size(), 6U);
  for (std::uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(handle.inputIndex.at(handle.inputs[i].data), i);
    EXPECT_EQ(handle.outputIndex.at(handle.outputs[i].data), i);
    EXPECT_EQ(handle.bufferOf.at(i), handle.inputs[i].data);
    EXPECT_EQ(handle.bufferOf.at(3 + i), handle.outputs[i].data);
  }
}

TEST_F(DnnTest, TheHandleListsInputsBeforeOutputsWhicheverCameFirst) {
  const std::string path = Write(Threefold());
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  ExpectThreefold(handle);
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(DnnTest, BuffersAreBackedByPagesOfTheirOwn) {
  constexpr std::size_t kBytes = std::size_t{16} << 20;
  const auto residentPages = [] {
    std::size_t total = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident;
  };
  const std::string path = Write(Identity({kBytes}, ElementType::kUint8));
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  const std::size_t before = residentPages();
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  EXPECT_GE((residentPages() - before) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), kBytes * 9 / 10);
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(DnnTest, EveryTypeOfWholeBytesHasBuffersOfItsSize) {
  const std::pair<ElementType, std::size_t> types[] = {
      {ElementType::kFloat, 4},   {ElementType::kUint8, 1},  {ElementType::kInt8, 1},
      {ElementType::kUint16, 2},  {ElementType::kInt16, 2},  {ElementType::kInt32, 4},
      {ElementType::kInt64, 8},   {ElementType::kBool, 1},   {ElementType::kFloat16, 2},
      {ElementType::kDouble, 8},  {ElementType::kUint32, 4}, {ElementType::kUint64, 8},
      {ElementType::kBfloat16, 2}};
  for (const auto& [type, bytes] : types) {
    SCOPED_TRACE(static_cast<int>(type));
    Loaded model(Write(Identity({2, 3}, type)));
    ASSERT_EQ(model.handle.inputs.at(0).sizeBytes, 6 * bytes);
    ASSERT_EQ(model.handle.outputs.at(0).sizeBytes, 6 * bytes);
    std::memset(model.handle.inputs[0].data, 1, 6 * bytes);
    ASSERT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
    EXPECT_EQ(std::memcmp(model.handle.inputs[0].data, model.handle.outputs[0].data, 6 * bytes), 0);
  }
}

TEST_F(DnnTest, TextTensorsAreUnsupported) {
  const std::string path = Write(Identity({2}, ElementType::kString));
  const std::string reason = "is a tensor of texts, expected a tensor of numbers";
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetUnsupported, "QetDNNModelCreateInput", "model " + path + ": input 'in' " + reason,
                [&] { return Ormis::QetDNNModelCreateInput(handle); });
  ExpectFailure(Ormis::kQetUnsupported, "QetDNNModelCreateOutput",
                "model " + path + ": output 'out' " + reason,
                [&] { return Ormis::QetDNNModelCreateOutput(handle); });
  EXPECT_TRUE(handle.inputs.empty());
  EXPECT_TRUE(handle.outputs.empty());
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelProcess", "model " + path + " has no inputs yet",
                [&] { return Ormis::QetDNNModelProcess(handle); });
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(DnnBasicsTest, OpenDimensionsHaveUsualSizes) {
  Loaded model(
      Write(Identity({onnx_writer::kOpenDimension, 3, onnx_writer::kOpenDimension}, ElementType::kFloat)));
  EXPECT_EQ(model.handle.inputs.at(0).sizeBytes, 3 * 64 * sizeof(float));
  EXPECT_EQ(model.handle.outputs.at(0).sizeBytes, 3 * 64 * sizeof(float));
  EXPECT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
}

TEST_F(DnnTest, ScalarsAndEmptyTensorsWork) {
  {
    Loaded model(Write(Identity({}, ElementType::kFloat)));
  }
  Loaded model(Write(Identity({0, 3}, ElementType::kFloat)));
  EXPECT_EQ(model.handle.inputs.at(0).sizeBytes, 0U);
  EXPECT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
}

TEST_F(DnnTest, ASizeThatOverflowsAnswersACode) {
  const std::string path = Write(Identity({1LL << 40, 1LL << 40}, ElementType::kFloat));
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetInvalidSize, "QetDNNModelCreateInput",
                "model " + path + ": input 'in' is too large, expected at most 2 GiB for all of its kind",
                [&] { return Ormis::QetDNNModelCreateInput(handle); });
  ExpectFailure(Ormis::kQetInvalidSize, "QetDNNModelCreateOutput",
                "model " + path + ": output 'out' is too large, expected at most 2 GiB for all of its kind",
                [&] { return Ormis::QetDNNModelCreateOutput(handle); });
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(DnnTest, AnInferenceThatFailsSaysWhy) {
  // The output has two rows, and the model declares one. The engine does not know how many the input has.
  onnx_writer::Graph graph = Identity({onnx_writer::kOpenDimension, 3}, ElementType::kFloat);
  graph.outputs[0].shape = {1, 3};
  graph.nodes = {{"Concat", {"in", "in"}, {"out"}, {}, {{"axis", 0}}}};
  Loaded model(Write(graph));
  std::int32_t code = 0;
  const std::string log = StandardErrorOf([&] { code = Ormis::QetDNNModelProcess(model.handle); });
  EXPECT_EQ(code, Ormis::kQetInferenceFailure);
  const std::string line = "QetDNNModelProcess: model " + model.handle.modelPath + ": ";
  ASSERT_NE(log.find(line), std::string::npos) << log;
  EXPECT_EQ(log.find(line), log.rfind(line)) << "the reason has to be logged once";
}

TEST_F(DnnTest, AFileThatCannotBeReadIsNamedWithTheReason) {
  const auto expectLine = [](const std::string& path, const std::string& line) {
    QetDNNHandle handle;
    std::int32_t code = 0;
    const std::string log = StandardErrorOf([&] { code = Ormis::QetDNNModelInitialize(handle, path); });
    EXPECT_EQ(code, Ormis::kQetModelUnreadable);
    EXPECT_NE(log.find("QetDNNModelInitialize: " + line), std::string::npos) << log;
    EXPECT_EQ(LineCount(Ormis::test::WithoutTrials(log)), 1U) << log;
    EXPECT_EQ(handle.modelId, 0U);
  };
  expectLine("none.onnx", "cannot read model none.onnx: No such file or directory");
  expectLine("", "cannot read model : No such file or directory");
  expectLine(folder_.string(), "cannot read model " + folder_.string() + ": Is a directory");
  expectLine("/dev/null", "cannot read model /dev/null: not a regular file");
  const std::string empty = Write(std::string());
  expectLine(empty, "cannot load model " + empty + ": ");
  const std::string garbage = Write(std::string(5000, '\x7e'));
  expectLine(garbage, "cannot load model " + garbage + ": ");
}

TEST_F(DnnTest, ATruncatedFileAnswersACode) {
  const std::string whole = onnx_writer::Serialize(TinyNetwork());
  for (std::size_t size = 1; size < whole.size(); size += 61) {
    QetDNNHandle handle;
    EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, Write(whole.substr(0, size))), Ormis::kQetModelUnreadable)
        << size;
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetModelNotReady);
  }
}

TEST_F(DnnTest, AModelOfAnUnknownOperationAnswersACode) {
  onnx_writer::Graph graph = Identity({2}, ElementType::kFloat);
  graph.nodes[0].operation = "NoSuchOperation";
  QetDNNHandle handle;
  EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, Write(graph)), Ormis::kQetModelUnreadable);
}

TEST_F(DnnTest, StepsOutOfOrderAreRefused) {
  const std::string path = Write(TinyNetwork());
  QetDNNHandle handle;
  const auto input = [&] { return Ormis::QetDNNModelCreateInput(handle); };
  const auto output = [&] { return Ormis::QetDNNModelCreateOutput(handle); };
  const auto process = [&] { return Ormis::QetDNNModelProcess(handle); };
  const auto initialize = [&] { return Ormis::QetDNNModelInitialize(handle, path); };
  const auto release = [&] { return Ormis::QetDNNRelease(handle); };
  const std::string noModel = "no model is loaded: call QetDNNModelInitialize first";
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelCreateInput", noModel, input);
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelCreateOutput", noModel, output);
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelProcess", noModel, process);
  ASSERT_EQ(initialize(), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetAlreadyInitialized, "QetDNNModelInitialize",
                "the handle holds model " + path + " already, expected an empty one", initialize);
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelProcess", "model " + path + " has no inputs yet",
                process);
  ASSERT_EQ(input(), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetAlreadyInitialized, "QetDNNModelCreateInput",
                "model " + path + " has its inputs already", input);
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelProcess", "model " + path + " has no outputs yet",
                process);
  ASSERT_EQ(output(), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetAlreadyInitialized, "QetDNNModelCreateOutput",
                "model " + path + " has its outputs already", output);
  EXPECT_EQ(process(), Ormis::kQetOk);
  EXPECT_EQ(release(), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelProcess", noModel, process);
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNRelease", "the handle holds no model", release);
}

TEST_F(DnnTest, OutputsMayBeCreatedBeforeInputs) {
  Loaded loaded(Write(TinyNetwork()));
  ASSERT_EQ(Ormis::QetDNNModelProcess(loaded.handle), Ormis::kQetOk);
  const std::string path = loaded.handle.modelPath;
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetModelNotReady, "QetDNNModelProcess", "model " + path + " has no inputs yet",
                [&] { return Ormis::QetDNNModelProcess(handle); });
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
  EXPECT_EQ(std::memcmp(handle.outputs.at(0).data, loaded.handle.outputs.at(0).data,
                        handle.outputs.at(0).sizeBytes),
            0);
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(DnnBasicsTest, OperationsWithoutAContextAreRefused) {
  const std::string path = Write(TinyNetwork());
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  std::thread([&] {
    QetDNNHandle other;
    ExpectFailure(Ormis::kQetNoContext, "QetDNNModelInitialize", kNoContextMessage,
                  [&] { return Ormis::QetDNNModelInitialize(other, path); });
    ExpectFailure(Ormis::kQetNoContext, "QetDNNModelCreateInput", kNoContextMessage,
                  [&] { return Ormis::QetDNNModelCreateInput(handle); });
    ExpectFailure(Ormis::kQetNoContext, "QetDNNModelCreateOutput", kNoContextMessage,
                  [&] { return Ormis::QetDNNModelCreateOutput(handle); });
    ExpectFailure(Ormis::kQetNoContext, "QetDNNModelProcess", kNoContextMessage,
                  [&] { return Ormis::QetDNNModelProcess(handle); });
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk) << "a release needs no context";
  }).join();
}

TEST_F(DnnTest, ReleaseAcceptsEveryPartialState) {
  const std::string path = Write(TinyNetwork());
  QetDNNHandle handle;
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetModelNotReady) << "never used";
  EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, "none.onnx"), Ormis::kQetModelUnreadable);
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetModelNotReady) << "failed to load";
  for (int steps = 0; steps < 3; ++steps) {
    ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    if (steps > 0) ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    if (steps > 1) ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk) << steps;
    EXPECT_EQ(handle.modelId, 0U);
    EXPECT_TRUE(handle.modelPath.empty() && handle.inputs.empty() && handle.outputs.empty() &&
                handle.inputIndex.empty() && handle.outputIndex.empty() && handle.bufferOf.empty());
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetModelNotReady) << "twice";
  }
  EXPECT_EQ(StandardErrorOf([&] { ReleasePlatform(); }).find("model"), std::string::npos);
}

TEST_F(DnnTest, ReleasingThePlatformFreesModelsAndSaysSo) {
  const std::string path = Write(TinyNetwork());
  QetDNNHandle forgotten;
  QetDNNHandle halfMade;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(forgotten, path), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(forgotten), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateOutput(forgotten), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelInitialize(halfMade, path), Ormis::kQetOk);
  const std::string log = StandardErrorOf([&] { ReleasePlatform(); });
  EXPECT_EQ(Ormis::test::MessageOf(log), "QetRelease: gave back what was left: 2 models, 1 context");
  EXPECT_EQ(Ormis::QetDNNModelProcess(forgotten), Ormis::kQetNotInitialized);
  EXPECT_EQ(Ormis::QetDNNRelease(forgotten), Ormis::kQetModelNotReady);
  EXPECT_TRUE(forgotten.inputs.empty());
  // The engine starts again with the platform.
  StartPlatform();
  EXPECT_EQ(Ormis::QetDNNModelProcess(halfMade), Ormis::kQetModelNotReady);
  Loaded model(path);
  EXPECT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
}

/// Bytes that are allocated. Zeros under a sanitizer, which finds leaks itself.
std::size_t BytesInUse() {
  const struct mallinfo2 all = mallinfo2();
  return all.uordblks + all.hblkhd;
}

TEST_F(DnnTest, LoadsKeepNoNamesOfTensors) {
  constexpr std::size_t kBytes = 1 << 20;
  onnx_writer::Graph graph = Identity({2}, ElementType::kFloat);
  graph.inputs[0].name.assign(kBytes, 'n');
  graph.nodes[0].inputs[0] = graph.inputs[0].name;
  const std::string path = Write(graph);
  std::size_t before = 0;
  for (int i = 0; i < 4; ++i) {
    const Loaded model(path);
    if (i == 1) before = BytesInUse();
    if (i == 3) EXPECT_LT(BytesInUse(), before + kBytes);
  }
}

TEST_F(DnnTest, ReleasedModelsLeaveNoTensors) {
  // Of many small tensors, and of one large output that a first inference makes.
  onnx_writer::Graph graph = Identity({2}, ElementType::kFloat);
  for (int i = 0; i < 300; ++i) {
    const std::string name = "more" + std::to_string(i);
    graph.inputs.push_back({name, {1}, ElementType::kFloat});
    graph.outputs.push_back({name + "Out", {1}, ElementType::kFloat});
    graph.nodes.push_back({"Identity", {name}, {name + "Out"}, {}, {}});
  }
  graph.inputs.push_back({"shape", {1}, ElementType::kInt64});
  graph.outputs.push_back({"large", {onnx_writer::kOpenDimension}, ElementType::kFloat});
  graph.nodes.push_back({"ConstantOfShape", {"shape"}, {"large"}, {}, {}});
  const std::string path = Write(graph);
  std::ofstream(folder_ / "model.inputs.yaml") << "inputs: {shape: {value: 1000000}}";
  std::size_t before = 0;
  for (int i = 0; i < 4; ++i) {
    // In a thread of its own: what the allocator keeps for a thread counts as in use until the thread ends.
    WithContext([&path] {
      const Loaded model(path);
      EXPECT_EQ(model.handle.outputs.back().sizeBytes, 4'000'000U);
      EXPECT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
    }).join();
    if (i == 1) before = BytesInUse();
  }
  EXPECT_LT(BytesInUse(), before + 2 * 300 * 50) << "less than 300 values of each load take";
}

TEST_F(DnnTest, AModelStartsNoThread) {
  const auto threads = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
  };
  const auto before = threads();
  const Loaded model(Write(TinyNetwork()));
  EXPECT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
  EXPECT_EQ(threads(), before);
}

TEST_F(DnnTest, WarningsOfTheEngineAreWarnings) {
  onnx_writer::Graph graph = TinyNetwork();
  graph.initializers.push_back({"nobodyReadsIt", {1}, {0.5F}});
  const std::string path = Write(graph);
  QetDNNHandle handle;
  const std::string log = Ormis::test::WithoutTrials(
      StandardErrorOf([&] { EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk); }));
  EXPECT_EQ(LineCount(log), 1U) << log;
  EXPECT_THAT(log, testing::HasSubstr("Z WARN - QET "));
  EXPECT_THAT(log, testing::EndsWith(" LogMessage)\n"));
  EXPECT_THAT(Ormis::test::MessageOf(log),
              testing::MatchesRegex("ONNX Runtime: onnxruntime: [^:]*'nobodyReadsIt'.* \\([^()]+\\)"));
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

int messagesOfTheEngine = 0;

void ORT_API_CALL CountMessage(void*, OrtLoggingLevel, const char*, const char*, const char*, const char*) {
  ++messagesOfTheEngine;
}

// The engine has one environment for the whole process. The first who asks for it chooses where messages go.
TEST_F(DnnTest, TheEngineEndsWithThePlatform) {
  const std::string path = Write(TinyNetwork());
  const OrtApi& api = *OrtGetApiBase()->GetApi(ORT_API_VERSION);
  const auto messagesOfALoad = [&] {
    messagesOfTheEngine = 0;
    OrtEnv* environment = nullptr;
    OrtSessionOptions* options = nullptr;
    OrtSession* session = nullptr;
    EXPECT_EQ(
        api.CreateEnvWithCustomLogger(CountMessage, nullptr, ORT_LOGGING_LEVEL_INFO, "test", &environment),
        nullptr);
    EXPECT_EQ(api.CreateSessionOptions(&options), nullptr);
    EXPECT_EQ(api.CreateSession(environment, path.c_str(), options, &session), nullptr);
    api.ReleaseSession(session);
    api.ReleaseSessionOptions(options);
    api.ReleaseEnv(environment);
    return messagesOfTheEngine;
  };
  {
    const Loaded model(path);
    EXPECT_EQ(messagesOfALoad(), 0) << "the platform's environment is in use";
  }
  EXPECT_EQ(messagesOfALoad(), 0) << "it stays for the next model";
  ReleasePlatform();
  EXPECT_GT(messagesOfALoad(), 0);
}

TEST_F(DnnTest, InputsThatAreNoTensorsOfNumbersAreNamed) {
  const std::string floats = Field(1, std::string("\x08\x01", 2));  // tensor_type: FLOAT
  const auto tensor = [](char element) { return Field(1, std::string("\x08") + element); };
  const std::string kind = ", expected a tensor of numbers";
  const std::string bytes = ", expected a numeric one of whole bytes";
  for (const auto& [type, fault] : {
           std::pair{Field(8, std::string("\x08\x01", 2)), "is a sparse tensor" + kind},
           {Field(9, Field(1, floats)), "is an optional value" + kind},
           {tensor(22), "has element type 22" + bytes},
       }) {
    SCOPED_TRACE(fault);
    const std::string path =
        Write(onnx_writer::Serialize(TinyNetwork()) + Field(7, Field(11, Field(1, "more") + Field(2, type))));
    const spawn_calls::Watch watch;
    spawn_calls::ReplaceByScript("echo loaded 0; echo ran 0");  // takes less time
    QetDNNHandle handle;
    EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    ExpectFailure(Ormis::kQetUnsupported, "QetDNNModelCreateInput",
                  "model " + path + ": input 'more' " + fault,
                  [&] { return Ormis::QetDNNModelCreateInput(handle); });
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }
}

// A shape of the file of inputs that fails is none: the next attempt has the same answer.
TEST_F(DnnTest, InputsThatWereRefusedMayBeCreatedLater) {
  const std::string path = Write(Identity({2}, ElementType::kInt8));
  const std::string file = folder_ / "model.inputs.yaml";
  std::ofstream(file) << "inputs: {in: {value: 128}}";
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  for (int i = 0; i < 2; ++i) {
    ExpectFailure(
        Ormis::kQetInvalidArgument, "QetDNNModelCreateInput",
        "model " + path + ": " + file + ":1: in: value is '128', expected a whole number from -128 to 127",
        [&] { return Ormis::QetDNNModelCreateInput(handle); });
  }
  std::ofstream(file) << "inputs: {in: {value: 127}}";
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  EXPECT_EQ(*static_cast<const char*>(handle.inputs.at(0).data), 127);
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

// A size below 0 is as good as none.
TEST_F(DnnTest, NegativeSizesAreOpen) {
  const Loaded model(Write(Identity({-5, 3}, ElementType::kFloat)));
  EXPECT_EQ(model.handle.inputs.at(0).sizeBytes, 3 * sizeof(float));
}

TEST_F(DnnTest, AHandleMayBeLoadedAgainFromItsOwnPath) {
  const std::string path = Write(TinyNetwork());
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
  ReleasePlatform();
  StartPlatform();
  ASSERT_EQ(handle.modelPath, path);
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, handle.modelPath), Ormis::kQetOk);
  EXPECT_EQ(handle.modelPath, path);
  EXPECT_TRUE(handle.inputs.empty() && handle.outputs.empty() && handle.inputIndex.empty() &&
              handle.outputIndex.empty() && handle.bufferOf.empty())
      << "buffers of the model before";
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

/// Calls `step` once for each of its `last` allocations and makes that one fail. `prepare` makes a new handle
/// each time, and `check` sees it after the failure. Earlier allocations belong to the engine.
template <typename Prepare, typename Step, typename Check>
void FailLastAllocations(std::size_t last, Prepare prepare, Step step, Check check) {
  std::size_t count = 0;
  for (int i = 0; i < 2; ++i) {  // the first call allocates more than later ones
    QetDNNHandle handle;
    prepare(handle);
    const FailingMemory memory(0);
    ASSERT_EQ(step(handle), Ormis::kQetOk);
    count = memory.Count();
  }
  ASSERT_GT(count, last);
  for (std::size_t failAt = count - last + 1; failAt <= count; ++failAt) {
    SCOPED_TRACE("allocation " + std::to_string(failAt) + " of " + std::to_string(count));
    QetDNNHandle handle;
    prepare(handle);
    {
      const FailingMemory memory(failAt);
      ASSERT_EQ(step(handle), Ormis::kQetOutOfMemory);
      ASSERT_TRUE(memory.Fired());
    }
    check(handle);
  }
}

TEST_F(DnnTest, BuffersThatCannotBeListedAreNotMade) {
  if (!FailingMemory::kWorks) GTEST_SKIP() << FailingMemory::kWhyNot;
  const std::string path = Write(Threefold());
  FailLastAllocations(
      8, [&](QetDNNHandle& handle) { ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk); },
      [](QetDNNHandle& handle) { return Ormis::QetDNNModelCreateInput(handle); },
      [](QetDNNHandle& handle) {
        EXPECT_TRUE(handle.inputs.empty() && handle.inputIndex.empty() && handle.bufferOf.empty());
        EXPECT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
        EXPECT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
        ExpectThreefold(handle);
        EXPECT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
        EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
      });
  FailLastAllocations(
      8,
      [&](QetDNNHandle& handle) {
        ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
        ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
      },
      [](QetDNNHandle& handle) { return Ormis::QetDNNModelCreateOutput(handle); },
      [](QetDNNHandle& handle) {
        EXPECT_TRUE(handle.outputs.empty() && handle.outputIndex.empty());
        EXPECT_EQ(handle.bufferOf.size(), 3U);
        EXPECT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
        ExpectThreefold(handle);
        EXPECT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
        EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
      });
}

TEST_F(DnnTest, AModelThatCannotBeListedLeavesTheHandleAsItWas) {
  if (!FailingMemory::kWorks) GTEST_SKIP() << FailingMemory::kWhyNot;
  const std::string path = Write(TinyNetwork());
  const std::string before(100, 'x');
  FailLastAllocations(
      2,
      [&](QetDNNHandle& handle) {
        handle.modelId = 123456789;
        handle.modelPath = before;
      },
      [&](QetDNNHandle& handle) { return Ormis::QetDNNModelInitialize(handle, path); },
      [&](QetDNNHandle& handle) {
        EXPECT_EQ(handle.modelId, 123456789U);
        EXPECT_EQ(handle.modelPath, before);
      });
  // These two were loaded to count allocations. The platform lists no other.
  EXPECT_NE(StandardErrorOf([&] { ReleasePlatform(); }).find("2 models"), std::string::npos);
}

TEST_F(DnnTest, TwoHandlesOfOneModelTakeTurns) {
  const std::string path = Write(TinyNetwork());
  for (int round = 0; round < 20; ++round) {
    QetDNNHandle first;
    QetDNNHandle second;
    ASSERT_EQ(Ormis::QetDNNModelInitialize(first, path), Ormis::kQetOk);
    second.modelId = first.modelId;
    const auto use = [](QetDNNHandle& handle) {
      for (int i = 0; i < 3; ++i) {
        const std::int32_t input = Ormis::QetDNNModelCreateInput(handle);
        EXPECT_TRUE(input == Ormis::kQetOk || input == Ormis::kQetAlreadyInitialized) << input;
        const std::int32_t output = Ormis::QetDNNModelCreateOutput(handle);
        EXPECT_TRUE(output == Ormis::kQetOk || output == Ormis::kQetAlreadyInitialized) << output;
        EXPECT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
      }
    };
    (void)StandardErrorOf([&] {
      std::thread other = WithContext([&] { use(second); });
      use(first);
      other.join();
    });
    EXPECT_EQ(first.inputs.size() + second.inputs.size(), 1U);
    EXPECT_EQ(first.outputs.size() + second.outputs.size(), 1U);
    EXPECT_EQ(Ormis::QetDNNRelease(first), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNRelease(second), Ormis::kQetModelNotReady);
  }
}

TEST_F(DnnTest, TenModelsInTenThreadsAgreeToTheBit) {
  constexpr std::size_t kThreads = 10;
  std::vector<Values> outputs(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (std::size_t index = 0; index < kThreads; ++index) {
    threads.push_back(WithContext([&outputs, index] {
      Loaded model(EXAMPLE_NETWORK);
      const Values image = SomeImage(std::size_t{3} * 224 * 224, 1);
      ASSERT_EQ(model.handle.inputs.at(0).sizeBytes, image.size() * sizeof(float));
      std::copy(image.begin(), image.end(), model.Input());
      for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Ormis::QetDNNModelProcess(model.handle), Ormis::kQetOk);
        if (i == 0) outputs[index] = model.Output();
        ASSERT_EQ(model.Output(), outputs[index]) << "inference " << i;
      }
    }));
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(outputs[0].size(), 1000U);
  for (const Values& output : outputs) {
    EXPECT_EQ(std::memcmp(output.data(), outputs[0].data(), outputs[0].size() * sizeof(float)), 0);
  }
  // Values that all became 0 or infinite would be equal, too.
  const auto [least, most] = std::minmax_element(outputs[0].begin(), outputs[0].end());
  EXPECT_GT(*most - *least, 0.1f);
  EXPECT_LT(*most - *least, 1000.0f);
}

}  // namespace
