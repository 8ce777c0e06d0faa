// SPDX-License-Identifier: Apache-2.0
#include "onnx_writer.h"

#include <cstring>

namespace onnx_writer {

namespace {

constexpr std::uint64_t kIrVersion = 8;
constexpr std::uint64_t kOperatorSet = 13;

class Message {
 public:
  void Number(std::uint32_t field, std::uint64_t value) {
    Varint(field << 3);
    Varint(value);
  }
  void Bytes(std::uint32_t field, const std::string& value) {
    Varint(field << 3 | 2);
    Varint(value.size());
    bytes_ += value;
  }
  void Nested(std::uint32_t field, const Message& message) { Bytes(field, message.bytes_); }
  std::string TakeBytes() { return std::move(bytes_); }

 private:
  void Varint(std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) bytes_.push_back(static_cast<char>(value | 0x80));
    bytes_.push_back(static_cast<char>(value));
  }

  std::string bytes_;
};

Message ToMessage(const Tensor& tensor) {
  Message message;
  for (const std::int64_t dimension : tensor.shape) message.Number(1, static_cast<std::uint64_t>(dimension));
  message.Number(2, static_cast<std::uint64_t>(ElementType::kFloat));
  message.Bytes(8, tensor.name);
  std::string raw(tensor.values.size() * sizeof(float),
                  '\0');  // the format is little-endian, as is every target
  std::memcpy(raw.data(), tensor.values.data(), raw.size());
  message.Bytes(9, raw);
  return message;
}

Message ToMessage(const ValueInfo& value) {
  Message shape;
  for (const std::int64_t size : value.shape) {
    Message dimension;
    if (size == kOpenDimension) {
      dimension.Bytes(2, "open");
    } else {
      dimension.Number(1, static_cast<std::uint64_t>(size));
    }
    shape.Nested(1, dimension);
  }
  Message tensorType;
  tensorType.Number(1, static_cast<std::uint64_t>(value.type));
  tensorType.Nested(2, shape);
  Message type;
  type.Nested(1, tensorType);
  Message message;
  message.Bytes(1, value.name);
  message.Nested(2, type);
  return message;
}

Message ToMessage(const Node& node) {
  constexpr std::uint64_t kInt = 2;
  constexpr std::uint64_t kInts = 7;
  Message message;
  for (const std::string& input : node.inputs) message.Bytes(1, input);
  for (const std::string& output : node.outputs) message.Bytes(2, output);
  message.Bytes(4, node.operation);
  for (const auto& [name, number] : node.numbers) {
    Message attribute;
    attribute.Bytes(1, name);
    attribute.Number(3, static_cast<std::uint64_t>(number));
    attribute.Number(20, kInt);
    message.Nested(5, attribute);
  }
  for (const auto& [name, list] : node.lists) {
    Message attribute;
    attribute.Bytes(1, name);
    for (const std::int64_t number : list) attribute.Number(8, static_cast<std::uint64_t>(number));
    attribute.Number(20, kInts);
    message.Nested(5, attribute);
  }
  return message;
}

}  // namespace

std::string Serialize(const Graph& graph) {
  Message body;
  for (const Node& node : graph.nodes) body.Nested(1, ToMessage(node));
  body.Bytes(2, graph.name);
  for (const Tensor& tensor : graph.initializers) body.Nested(5, ToMessage(tensor));
  for (const ValueInfo& input : graph.inputs) body.Nested(11, ToMessage(input));
  for (const ValueInfo& output : graph.outputs) body.Nested(12, ToMessage(output));

  Message operatorSet;
  operatorSet.Bytes(1, "");
  operatorSet.Number(2, kOperatorSet);
  Message model;
  model.Number(1, kIrVersion);
  model.Bytes(2, "make_network");
  model.Nested(7, body);
  model.Nested(8, operatorSet);
  return model.TakeBytes();
}

}  // namespace onnx_writer
