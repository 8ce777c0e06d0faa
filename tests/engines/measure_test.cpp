// SPDX-License-Identifier: Apache-2.0

// How many bytes tensors may take. Uses a part of the host platform directly: through the public headers a
// test of the limit would have to take so much memory.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "ara/log/logging.h"
#include "diagnostics.h"
#include "onnx_tensors.h"

namespace Ormis::host {

// The part that the test is about needs it.
ara::log::Logger& Log() {
  return ara::log::CreateLogger("MEAS", "", ara::log::LogLevel::kOff);
}

}  // namespace Ormis::host

namespace {

using Ormis::host::MayBeOpen;
using Ormis::host::Measure;
using Ormis::host::TensorType;

TensorType Tensor(const std::string& name, const std::vector<std::int64_t>& shape,
                  ONNXTensorElementDataType element = ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8) {
  TensorType type;
  type.item = name;
  type.element = element;
  type.declared.shape = shape;
  return type;
}

constexpr std::int64_t kGiB = std::int64_t{1} << 30;

TEST(MeasureTest, TensorsOfAKindTakeTwoGibibytesAtMost) {
  const auto floats = ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
  const std::vector<std::vector<TensorType>> fit = {
      {},
      {Tensor("a", {2 * kGiB})},
      {Tensor("a", {kGiB / 2}, floats)},
      {Tensor("a", {2, kGiB})},
      {Tensor("a", {kGiB}), Tensor("b", {kGiB})},
      {Tensor("a", {2 * kGiB}), Tensor("b", {0, kGiB * 4})},
      {Tensor("a", {kGiB - 1}), Tensor("b", {}), Tensor("c", {kGiB})},
  };
  for (std::vector<TensorType> types : fit) {
    const Ormis::host::Outcome outcome = Measure(types);
    EXPECT_TRUE(outcome.Ok()) << outcome.reason;
    for (const TensorType& type : types) {
      std::size_t bytes = type.element == floats ? 4 : 1;
      for (const std::int64_t size : type.declared.shape) bytes *= static_cast<std::size_t>(size);
      EXPECT_EQ(type.bytes, bytes) << type.item;
    }
  }
  const std::vector<std::vector<TensorType>> tooLarge = {
      {Tensor("b", {2 * kGiB + 1})},
      {Tensor("b", {kGiB / 2 + 1}, floats)},
      {Tensor("b", {kGiB * 8, kGiB * 8})},                  // 0 where the product wraps
      {Tensor("b", {kGiB * 8 - 1, INT64_MAX - kGiB + 1})},  // 1 GiB where it wraps
      {Tensor("b", {kGiB * 4, 0})},
      {Tensor("a", {kGiB}), Tensor("b", {kGiB + 1})},
      {Tensor("a", {1}), Tensor("a", {kGiB}), Tensor("b", {kGiB}), Tensor("c", {1})},
  };
  for (std::vector<TensorType> types : tooLarge) {
    const Ormis::host::Outcome outcome = Measure(types);
    EXPECT_EQ(outcome.code, Ormis::kQetInvalidSize) << testing::PrintToString(types.back().declared.shape);
    EXPECT_EQ(outcome.reason, "b is too large, expected at most 2 GiB for all of its kind");
  }
}

TEST(MeasureTest, OnlyAnOpenShapeIsLearnt) {
  EXPECT_TRUE(MayBeOpen(Tensor("a", {})));
  EXPECT_TRUE(MayBeOpen(Tensor("a", {-1})));
  EXPECT_TRUE(MayBeOpen(Tensor("a", {3, -1})));
  EXPECT_FALSE(MayBeOpen(Tensor("a", {0})));
  EXPECT_FALSE(MayBeOpen(Tensor("a", {1, 2})));
}

}  // namespace
