// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "onnx_writer.h"

/// The example network: a residual convolutional network with 18 weighted layers, 1x3x224x224 floats as input
/// ("image"), 1000 outputs ("scores") and 47 MB of weights. The weights are pseudo-random and the same every
/// time.
onnx_writer::Graph ExampleNetwork();

/// A network with the same kinds of layers, small enough for tests to compute: 1x3x8x8 floats ("image"), 5
/// outputs ("scores"). Its tensors are "conv1", "conv2" and "dense", each with "Weight" or "Bias" behind it.
onnx_writer::Graph TinyNetwork();

/// The sizes that MemoryNetwork takes. A model file cannot be larger than 2 GiB.
constexpr std::int64_t kMinMemoryMegabytes = 1;
constexpr std::int64_t kMaxMemoryMegabytes = 2000;

/// A network that reads each of its weights once an inference and computes little with them, as large
/// networks do that serve one request at a time: fully connected layers of equal width, each with biases and
/// rectified, batch 1. Its weights have `megabytes` x 10^6 bytes or, because the width is rounded up, some
/// more: at most 13 %, and 2 % from 64 MB on. Input "features" and the last output have the width of a layer.
/// Its tensors are "dense0Weight", "dense0Bias" and so on.
onnx_writer::Graph MemoryNetwork(std::int64_t megabytes);
