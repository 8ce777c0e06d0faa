// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Writes networks in the ONNX model format, a protocol buffer. Varints and length-delimited fields are
/// enough for them. Field numbers and enumerators are those of onnx.proto3.
namespace onnx_writer {

/// TensorProto.DataType
enum class ElementType : std::uint8_t {
  kFloat = 1,
  kUint8 = 2,
  kInt8 = 3,
  kUint16 = 4,
  kInt16 = 5,
  kInt32 = 6,
  kInt64 = 7,
  kString = 8,
  kBool = 9,
  kFloat16 = 10,
  kDouble = 11,
  kUint32 = 12,
  kUint64 = 13,
  kBfloat16 = 16,
};

constexpr std::int64_t kOpenDimension = -1;  ///< a dimension that the model leaves open

/// A tensor of floats that is part of the model.
struct Tensor {
  std::string name;
  std::vector<std::int64_t> shape;
  std::vector<float> values;  ///< row-major
};

/// Name and type of an input or an output of the graph.
struct ValueInfo {
  std::string name;
  std::vector<std::int64_t> shape;
  ElementType type = ElementType::kFloat;
};

struct Node {
  std::string operation;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
  std::map<std::string, std::vector<std::int64_t>> lists;  ///< attributes of type INTS
  std::map<std::string, std::int64_t> numbers;             ///< attributes of type INT
};

struct Graph {
  std::string name;
  std::vector<ValueInfo> inputs;
  std::vector<ValueInfo> outputs;
  std::vector<Tensor> initializers;
  std::vector<Node> nodes;  ///< every node after those whose outputs it reads
};

/// Returns the bytes of the model file: IR version 8, operator set 13.
std::string Serialize(const Graph& graph);

}  // namespace onnx_writer
