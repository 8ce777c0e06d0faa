// SPDX-License-Identifier: Apache-2.0

// How the elements of a model's inputs are made: a part of the host platform that is used directly. Also what
// a release says of models.
#include "tensor_elements.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "model_test.h"
#include "spawn_calls.h"

namespace {

using Ormis::host::ElementBytes;
using Ormis::host::Fill;
using Ormis::host::InputChoice;
using Ormis::host::IsWhole;

using Type = ONNXTensorElementDataType;

TEST(TensorElementsTest, EachTypeHasItsSizeAndKind) {
  struct Row {
    Type type;
    std::size_t bytes;
    bool whole;
  };
  for (const Row& row : {Row{ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED, 0, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, 4, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8, 1, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8, 1, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16, 2, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16, 2, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32, 4, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64, 8, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_STRING, 0, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL, 1, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16, 2, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE, 8, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32, 4, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64, 8, true},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_COMPLEX64, 8, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_COMPLEX128, 16, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_BFLOAT16, 2, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E4M3FN, 1, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E4M3FNUZ, 1, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E5M2, 1, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E5M2FNUZ, 1, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT4, 0, false},
                         {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT4, 0, false}}) {
    EXPECT_EQ(ElementBytes(row.type), row.bytes) << row.type;
    EXPECT_EQ(IsWhole(row.type), row.whole) << row.type;
  }
}

constexpr std::size_t kCount = 200;
constexpr std::uint32_t kSeed = 5;

/// The elements of a random fill, with a zero behind them.
template <typename Element>
std::vector<Element> RandomFill(Type type) {
  InputChoice choice;
  choice.random = true;
  std::vector<Element> elements(kCount + 1);
  EXPECT_EQ(Fill(choice, type, kCount, kSeed, elements.data()), "");
  return elements;
}

/// The numbers of the generator, as `toElement` makes elements of them, with a zero behind them.
template <typename Element, typename ToElement>
std::vector<Element> Generated(ToElement toElement) {
  std::mt19937 random(kSeed);
  std::vector<Element> elements(kCount + 1);
  for (std::size_t i = 0; i < kCount; ++i) {
    elements[i] = static_cast<Element>(toElement(static_cast<std::uint32_t>(random())));
  }
  return elements;
}

std::uint32_t TopBit(std::uint32_t bits) {
  return bits >> 31;
}
std::uint32_t TopByte(std::uint32_t bits) {
  return bits >> 24;
}
float Fraction(std::uint32_t bits) {
  return static_cast<float>(bits >> 8) / 16777216.0F;
}

TEST(TensorElementsTest, RandomFillsAreTheNumbersOfTheGenerator) {
  EXPECT_EQ(RandomFill<std::uint8_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL), Generated<std::uint8_t>(TopBit));
  EXPECT_EQ(RandomFill<std::uint8_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8), Generated<std::uint8_t>(TopByte));
  EXPECT_EQ(RandomFill<std::int8_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8), Generated<std::int8_t>(TopByte));
  EXPECT_EQ(RandomFill<std::uint16_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16),
            Generated<std::uint16_t>(TopBit));
  EXPECT_EQ(RandomFill<std::int16_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16), Generated<std::int16_t>(TopBit));
  EXPECT_EQ(RandomFill<std::uint32_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32),
            Generated<std::uint32_t>(TopBit));
  EXPECT_EQ(RandomFill<std::int32_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32), Generated<std::int32_t>(TopBit));
  EXPECT_EQ(RandomFill<std::uint64_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64),
            Generated<std::uint64_t>(TopBit));
  EXPECT_EQ(RandomFill<std::int64_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64), Generated<std::int64_t>(TopBit));
  EXPECT_EQ(RandomFill<float>(ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT), Generated<float>(Fraction));
  EXPECT_EQ(RandomFill<double>(ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE), Generated<double>(Fraction));
  const auto half = [](std::uint32_t bits) { return static_cast<float>(bits >> 21) / 2048.0F; };
  EXPECT_TRUE(RandomFill<_Float16>(ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16) == Generated<_Float16>(half));
  const auto brain = [](std::uint32_t bits) {
    return __builtin_bit_cast(std::uint32_t, Fraction(bits)) >> 16;
  };
  EXPECT_EQ(RandomFill<std::uint16_t>(ONNX_TENSOR_ELEMENT_DATA_TYPE_BFLOAT16),
            Generated<std::uint16_t>(brain));
}

TEST(TensorElementsTest, TruthValuesAreNumbersOrWords) {
  for (const auto& [text, value] : {std::pair{"1", 1}, {"true", 1}, {"0", 0}, {"false", 0}}) {
    InputChoice choice;
    choice.value = text;
    std::uint8_t elements[3] = {7, 7, 7};
    EXPECT_EQ(Fill(choice, ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL, 2, kSeed, elements), "");
    EXPECT_THAT(elements, testing::ElementsAre(value, value, 7)) << text;
  }
}

TEST(TensorElementsTest, ValuesThatAreNoneOfTheTypeAreNamed) {
  struct Row {
    Type type;
    const char* value;
    const char* expected;
  };
  for (const Row& row :
       {Row{ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, "x", "a number"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, "", "a number"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, "1 ", "a number"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, "1e39", "a number"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE, "1e309", "a number"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE, "nan", "a number"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_BFLOAT16, "inf", "a number"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16, "65520", "a number from -65504 to 65504"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL, "2", "0 or 1"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL, "", "0 or 1"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8, "256", "a whole number from 0 to 255"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8, "-129", "a whole number from -128 to 127"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16, "-1", "a whole number from 0 to 65535"},
        {ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64, "1.5", "a whole number from 0 to 18446744073709551615"}}) {
    InputChoice choice;
    choice.value = row.value;
    std::uint64_t element = 7;
    EXPECT_EQ(Fill(choice, row.type, 1, kSeed, &element),
              std::string("value is '") + row.value + "', expected " + row.expected);
    EXPECT_EQ(element, 7U);
  }
}

TEST(TensorElementsTest, TypesOfOtherKindsCannotBeFilled) {
  for (const Type type : {ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT8E4M3FN, ONNX_TENSOR_ELEMENT_DATA_TYPE_COMPLEX64,
                          ONNX_TENSOR_ELEMENT_DATA_TYPE_STRING}) {
    std::uint64_t element = 7;
    EXPECT_EQ(Fill({}, type, 1, kSeed, &element), "") << "nothing is to be filled";
    InputChoice random;
    random.random = true;
    InputChoice value;
    value.value = "1";
    for (const InputChoice& choice : {random, value}) {
      EXPECT_EQ(Fill(choice, type, 1, kSeed, &element),
                "fill or value for an input of 8-bit fractions or complex numbers, expected none");
    }
    EXPECT_EQ(element, 7U);
  }
}

class LeftModelTest : public ModelTest {};

TEST_F(LeftModelTest, TheReleaseNamesTheModelsThatAreLeft) {
  const spawn_calls::Watch watch;
  spawn_calls::ReplaceByScript("echo loaded 0; echo ran 0");
  Ormis::QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, Write(TinyNetwork())), Ormis::kQetOk);
  const std::string log = StandardErrorOf([this] { ReleasePlatform(); });
  EXPECT_THAT(log, testing::HasSubstr("QetRelease: gave back what was left: 1 model, 1 context ("));
}

}  // namespace
