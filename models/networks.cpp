// SPDX-License-Identifier: Apache-2.0
#include "networks.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using onnx_writer::Graph;
using onnx_writer::Tensor;

constexpr float kBiasLimit = 0.1f;

/// The limit of a layer's uniform weights that keeps the size of the values, where each output has `inputs`
/// inputs and is rectified.
float RectifiedLimit(std::int64_t inputs) {
  return std::sqrt(6.0f / static_cast<float>(inputs));
}

/// Adds layers to a graph. Each takes the value that the layer before returned.
class Builder {
 public:
  explicit Builder(const char* name) { graph_.name = name; }

  std::string Input(const std::string& name, const std::vector<std::int64_t>& shape) {
    graph_.inputs.push_back({name, shape});
    return name;
  }

  std::string Conv(const std::string& name, const std::string& from, std::int64_t inChannels,
                   std::int64_t outChannels, std::int64_t kernel, std::int64_t stride, float gain = 1) {
    Weights(name + "Weight", {outChannels, inChannels, kernel, kernel},
            RectifiedLimit(inChannels * kernel * kernel) * gain);
    Weights(name + "Bias", {outChannels}, kBiasLimit);
    const std::int64_t pad = kernel / 2;
    graph_.nodes.push_back(
        {"Conv",
         {from, name + "Weight", name + "Bias"},
         {name},
         {{"kernel_shape", {kernel, kernel}}, {"pads", {pad, pad, pad, pad}}, {"strides", {stride, stride}}},
         {}});
    return name;
  }

  std::string Relu(const std::string& from) { return Node("Relu", {from}, from + "Relu"); }

  std::string Add(const std::string& a, const std::string& b) { return Node("Add", {a, b}, a + "Sum"); }

  std::string MaxPoolHalf(const std::string& from) {
    const std::string to = Node("MaxPool", {from}, from + "Pool");
    graph_.nodes.back().lists = {{"kernel_shape", {3, 3}}, {"pads", {1, 1, 1, 1}}, {"strides", {2, 2}}};
    return to;
  }

  /// Two convolutions, and a shortcut past them; where the shape changes, the shortcut has a convolution,
  /// too. The second convolution has small weights: each of the 8 blocks adds to its input, and the values
  /// would otherwise grow too large.
  std::string ResidualBlock(const std::string& name, const std::string& from, std::int64_t inChannels,
                            std::int64_t outChannels, std::int64_t stride) {
    const std::string inner = Relu(Conv(name + "Conv1", from, inChannels, outChannels, 3, stride));
    const std::string outer = Conv(name + "Conv2", inner, outChannels, outChannels, 3, 1, 0.5f);
    const std::string shortcut =
        stride == 1 && inChannels == outChannels
            ? from
            : Conv(name + "Shortcut", from, inChannels, outChannels, 1, stride, 0.7f);
    return Relu(Add(outer, shortcut));
  }

  /// A fully connected layer. Its weights have the prefix `weights`.
  std::string Dense(const std::string& name, const std::string& weights, const std::string& from,
                    std::int64_t inputs, std::int64_t outputs) {
    Weights(weights + "Weight", {outputs, inputs}, RectifiedLimit(inputs));
    Weights(weights + "Bias", {outputs}, kBiasLimit);
    Node("Gemm", {from, weights + "Weight", weights + "Bias"}, name);
    graph_.nodes.back().numbers = {{"transB", 1}};
    return name;
  }

  /// Ends the network: the mean of each channel, then a fully connected layer.
  Graph Classify(const std::string& from, std::int64_t channels, std::int64_t classes) {
    const std::string means = Node("Flatten", {Node("GlobalAveragePool", {from}, "means")}, "features");
    return End(Dense("scores", "dense", means, channels, classes), classes);
  }

  Graph End(const std::string& output, std::int64_t size) {
    graph_.outputs.push_back({output, {1, size}});
    return std::move(graph_);
  }

 private:
  std::string Node(const char* operation, const std::vector<std::string>& from, const std::string& to) {
    graph_.nodes.push_back({operation, from, {to}, {}, {}});
    return to;
  }

  /// Adds weights that are uniform between -limit and limit.
  void Weights(const std::string& name, const std::vector<std::int64_t>& shape, float limit) {
    std::size_t count = 1;
    for (const std::int64_t dimension : shape) count *= static_cast<std::size_t>(dimension);
    Tensor tensor{name, shape, std::vector<float>(count)};
    for (float& value : tensor.values) {
      // Without a standard distribution: the numbers of the generator are the same everywhere, a
      // distribution's are not.
      value = (static_cast<float>(random_() >> 8) / 0x800000 - 1.0f) * limit;
    }
    graph_.initializers.push_back(std::move(tensor));
  }

  Graph graph_;
  std::mt19937 random_{20240229};  // the same network each time
};

}  // namespace

onnx_writer::Graph ExampleNetwork() {
  Builder builder("example");
  std::string top = builder.Input("image", {1, 3, 224, 224});
  top = builder.MaxPoolHalf(builder.Relu(builder.Conv("stem", top, 3, 64, 7, 2)));
  std::int64_t channels = 64;
  for (int stage = 0; stage < 4; ++stage) {
    const std::int64_t outChannels = std::int64_t{64} << stage;
    for (int block = 0; block < 2; ++block) {
      const std::string name = "stage" + std::to_string(stage) + "Block" + std::to_string(block);
      top = builder.ResidualBlock(name, top, channels, outChannels, stage > 0 && block == 0 ? 2 : 1);
      channels = outChannels;
    }
  }
  return builder.Classify(top, channels, 1000);
}

onnx_writer::Graph TinyNetwork() {
  Builder builder("tiny");
  std::string top = builder.Input("image", {1, 3, 8, 8});
  top = builder.Relu(builder.Conv("conv1", top, 3, 4, 3, 2));
  top = builder.Relu(builder.Add(builder.Conv("conv2", top, 4, 4, 3, 1), top));
  return builder.Classify(top, 4, 5);
}

onnx_writer::Graph MemoryNetwork(std::int64_t megabytes) {
  // Layers of about 2000 x 2000, and no fewer than four: several layers, as in real networks, and each too
  // large for the caches of a core.
  constexpr std::int64_t kLayerMegabytes = 16;
  constexpr std::int64_t kFewestLayers = 4;
  constexpr std::int64_t kWidthStep = 16;  // floats in a cache line
  const std::int64_t layers = std::max(kFewestLayers, (megabytes + kLayerMegabytes - 1) / kLayerMegabytes);
  const double weights = static_cast<double>(megabytes) * 1e6 / sizeof(float) / static_cast<double>(layers);
  const auto least = static_cast<std::int64_t>(std::ceil(std::sqrt(weights)));
  const std::int64_t width = (least + kWidthStep - 1) / kWidthStep * kWidthStep;

  Builder builder("memory");
  std::string top = builder.Input("features", {1, width});
  for (std::int64_t layer = 0; layer < layers; ++layer) {
    const std::string name = "dense" + std::to_string(layer);
    top = builder.Relu(builder.Dense(name, name, top, width, width));
  }
  return builder.End(top, width);
}
