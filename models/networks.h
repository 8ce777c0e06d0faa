// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "onnx_writer.h"

/// The example network: a residual convolutional network with 18 weighted layers, 1x3x224x224 floats as input
/// ("image"), 1000 outputs ("scores") and 47 MB of weights. The weights are pseudo-random and the same every
/// time.
onnx_writer::Graph ExampleNetwork();

/// A network with the same kinds of layers, small enough for tests to compute: 1x3x8x8 floats ("image"), 5
/// outputs ("scores"). Its tensors are "conv1", "conv2" and "dense", each with "Weight" or "Bias" behind it.
onnx_writer::Graph TinyNetwork();
