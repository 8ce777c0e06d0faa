// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "onnx_writer.h"

/// A network whose inference takes much longer than the limits of tests that use it: 400 products of 1024 x
/// 1024 matrices, some 10 s of processor time.
inline onnx_writer::Graph EndlessNetwork() {
  onnx_writer::Graph graph;
  graph.name = "endless";
  graph.inputs = {{"in", {1024, 1024}}};
  graph.outputs = {{"out", {1024, 1024}}};
  std::string from = "in";
  for (int i = 0; i < 400; ++i) {
    const std::string to = "product" + std::to_string(i);
    graph.nodes.push_back({"MatMul", {from, "in"}, {to}, {}, {}});
    from = to;
  }
  graph.nodes.back().outputs = {"out"};
  return graph;
}
