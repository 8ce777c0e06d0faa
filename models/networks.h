#pragma once

#include "onnx_writer.h"

/// The example network: a residual convolutional network of 18 weighted layers over 1x3x224x224 floats
/// ("image"), with 1000 outputs ("scores") and 47 MB of weights. The weights are pseudo-random and always the
/// same.
onnx_writer::Graph ExampleNetwork();

/// The same kinds of layers, small enough to be computed by hand: 1x3x8x8 ("image") to 5 outputs ("scores").
/// Weights "conv1", "conv2", "dense", each with "...Weight" and "...Bias".
onnx_writer::Graph TinyNetwork();
