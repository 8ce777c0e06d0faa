// SPDX-License-Identifier: Apache-2.0
#include "tensor_elements.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <type_traits>

#include "whole_number.h"

namespace Ormis::host {

namespace {

/// The 16 bits of a float of that kind. Cut, not rounded: a fill need not be exact.
std::uint16_t ToBfloat16(float value) {
  return static_cast<std::uint16_t>(__builtin_bit_cast(std::uint32_t, value) >> 16U);
}

template <typename Number>
constexpr bool kHalf = std::is_same_v<Number, _Float16>;

/// Reads a number of the type. libc++ 19 has no from_chars for fractions.
template <typename Number>
bool Parse(const std::string& text, Number& number) {
  if constexpr (std::is_same_v<Number, bool>) {
    number = text == "1" || text == "true";
    return number || text == "0" || text == "false";
  } else if constexpr (std::is_integral_v<Number>) {
    return ReadWholeNumber(text, number);
  } else {
    char* end = nullptr;
    number = static_cast<Number>(std::strtod(text.c_str(), &end));
    return !text.empty() && end == text.c_str() + text.size() && std::isfinite(static_cast<double>(number));
  }
}

template <typename Number>
Number Random(std::mt19937& random) {
  // Without a standard distribution: the numbers of the generator are the same everywhere.
  const auto bits = static_cast<std::uint32_t>(random());
  if constexpr (std::is_same_v<Number, bool>) {
    return bits >> 31U != 0;
  } else if constexpr (std::is_integral_v<Number>) {
    return static_cast<Number>(sizeof(Number) == 1 ? bits >> 24U : bits >> 31U);
  } else {
    constexpr std::uint32_t kBits = kHalf<Number> ? 11 : 24;  // what a half, or a float, holds exactly
    return static_cast<Number>(bits >> (32U - kBits)) / static_cast<Number>(1U << kBits);
  }
}

/// `toElement` makes what is stored of a number.
template <typename Number, typename ToElement>
std::string FillWith(const InputChoice& choice, std::size_t count, std::uint32_t seed, void* data,
                     const char* expected, ToElement toElement) {
  using Element = decltype(toElement(Number{}));
  auto* const elements = static_cast<Element*>(data);
  Number value{};
  if (choice.value && !Parse(*choice.value, value)) {
    return "value is '" + *choice.value + "', expected " + expected;
  }
  std::mt19937 random(seed);  // the same input each time
  for (std::size_t i = 0; i < count; ++i) {
    elements[i] = toElement(choice.random ? Random<Number>(random) : value);
  }
  return {};
}

/// What a value must be, for messages.
template <typename Number>
std::string Expected() {
  if constexpr (std::is_same_v<Number, bool>) return "0 or 1";
  if constexpr (std::is_integral_v<Number>) {
    return "a whole number from " + std::to_string(std::numeric_limits<Number>::min()) + " to " +
           std::to_string(std::numeric_limits<Number>::max());
  }
  return kHalf<Number> ? "a number from -65504 to 65504" : "a number";
}

template <typename Number>
std::string FillNumbers(const InputChoice& choice, std::size_t count, std::uint32_t seed, void* data) {
  return FillWith<Number>(choice, count, seed, data, Expected<Number>().c_str(),
                          [](Number number) { return number; });
}

}  // namespace

std::size_t ElementBytes(ONNXTensorElementDataType type) {
  switch (type) {
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E4M3FN:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E4M3FNUZ:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E5M2:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E5M2FNUZ:
      return 1;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BFLOAT16:
      return 2;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32:
      return 4;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_COMPLEX64:
      return 8;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_COMPLEX128:
      return 16;
    default:
      return 0;
  }
}

bool IsWhole(ONNXTensorElementDataType type) {
  switch (type) {
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL:
      return true;
    default:
      return false;
  }
}

std::string Fill(const InputChoice& choice, ONNXTensorElementDataType type, std::size_t count,
                 std::uint32_t seed, void* data) {
  if (!choice.random && !choice.value) return {};
  switch (type) {
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL:
      return FillNumbers<bool>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
      return FillNumbers<std::uint8_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
      return FillNumbers<std::int8_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16:
      return FillNumbers<std::uint16_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16:
      return FillNumbers<std::int16_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32:
      return FillNumbers<std::uint32_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
      return FillNumbers<std::int32_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64:
      return FillNumbers<std::uint64_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
      return FillNumbers<std::int64_t>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT:
      return FillNumbers<float>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE:
      return FillNumbers<double>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16:
      return FillNumbers<_Float16>(choice, count, seed, data);
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BFLOAT16:
      return FillWith<float>(choice, count, seed, data, "a number", ToBfloat16);
    default:
      return "fill or value for an input of 8-bit fractions or complex numbers, expected none";
  }
}

}  // namespace Ormis::host
