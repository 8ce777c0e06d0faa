// SPDX-License-Identifier: Apache-2.0

// What a model's inputs are: sizes and values from the file of inputs, and the usual ones without it. The
// sizes are chosen in a part of the host platform that is used directly; the rest goes through the public
// headers.
#include "model_inputs.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "expect_failure.h"
#include "model_bytes.h"
#include "model_test.h"
#include "spawn_calls.h"

namespace {

using onnx_writer::ElementType;
using Ormis::QetDNNHandle;
using Ormis::host::ChooseShapes;
using Ormis::host::DeclaredInput;
using Ormis::host::InputChoices;
using Ormis::test::ExpectFailure;
using testing::ElementsAre;

constexpr std::int64_t kOpen = onnx_writer::kOpenDimension;
using Shape = std::vector<std::int64_t>;

DeclaredInput Declared(const std::string& name, const Shape& shape, bool whole = false) {
  return {name, whole, shape, std::vector<std::string>(shape.size())};
}

/// The shape of a lone input without a file of inputs.
Shape Usual(const Shape& shape, bool whole = false) {
  std::vector<DeclaredInput> inputs = {Declared("in", shape, whole)};
  EXPECT_EQ(ChooseShapes(inputs, {}, "f.yaml"), "");
  return inputs[0].shape;
}

TEST(UsualShapeTest, PicturesOfDetectorsAndClassifiers) {
  EXPECT_THAT(Usual({kOpen, 3, kOpen, kOpen}), ElementsAre(1, 3, 640, 640));
  EXPECT_THAT(Usual({1, 1, kOpen, kOpen}), ElementsAre(1, 1, 640, 640));
  EXPECT_THAT(Usual({kOpen, kOpen, kOpen, 3}), ElementsAre(1, 640, 640, 3));
  EXPECT_THAT(Usual({kOpen, kOpen, kOpen, kOpen}), ElementsAre(1, 3, 640, 640));
  EXPECT_THAT(Usual({kOpen, 3, 224, 224}), ElementsAre(1, 3, 224, 224));
  EXPECT_THAT(Usual({kOpen, 3, kOpen, 224}), ElementsAre(1, 3, 224, 224));
  EXPECT_THAT(Usual({kOpen, 3, 224, kOpen}), ElementsAre(1, 3, 224, 224));
  EXPECT_THAT(Usual({3, kOpen, kOpen}), ElementsAre(3, 640, 640));
  EXPECT_THAT(Usual({kOpen, kOpen, 3}), ElementsAre(640, 640, 3));
}

TEST(UsualShapeTest, LinesOfRecognisers) {
  EXPECT_THAT(Usual({kOpen, 3, 48, kOpen}), ElementsAre(1, 3, 48, 320));
  EXPECT_THAT(Usual({kOpen, 1, 32, kOpen}), ElementsAre(1, 1, 32, 320));
  EXPECT_THAT(Usual({kOpen, 48, kOpen, 3}), ElementsAre(1, 48, 320, 3));
}

TEST(UsualShapeTest, Sequences) {
  EXPECT_THAT(Usual({kOpen, kOpen}, true), ElementsAre(1, 64)) << "tokens";
  EXPECT_THAT(Usual({kOpen, kOpen}), ElementsAre(1, 512)) << "samples";
  EXPECT_THAT(Usual({kOpen}), ElementsAre(512)) << "samples without a batch";
  EXPECT_THAT(Usual({kOpen, kOpen, 3}, true), ElementsAre(1, 64, 3))
      << "only fractions of rank 3 are pictures";
  EXPECT_THAT(Usual({1, kOpen, 80}), ElementsAre(1, 64, 80));
  EXPECT_THAT(Usual({kOpen, 80, kOpen}), ElementsAre(1, 80, 64));
  EXPECT_THAT(Usual({2, kOpen, 128}), ElementsAre(2, 1, 128)) << "a state of two layers";
}

TEST(UsualShapeTest, WhatIsNotUsualIsOne) {
  EXPECT_THAT(Usual({}), ElementsAre());
  EXPECT_THAT(Usual({kOpen}, true), ElementsAre(1));
  EXPECT_THAT(Usual({kOpen, 8, kOpen, 64}), ElementsAre(1, 8, 1, 64));
  EXPECT_THAT(Usual({kOpen, 2, kOpen, 3, kOpen}), ElementsAre(1, 2, 1, 3, 1));
}

TEST(UsualShapeTest, DimensionsOfOneNameHaveOneSize) {
  DeclaredInput ids = Declared("ids", {kOpen, kOpen}, true);
  ids.symbols = {"batch", "sequence"};
  DeclaredInput bias = Declared("bias", {kOpen, kOpen});
  bias.symbols = {"sequence", ""};
  std::vector<DeclaredInput> inputs = {ids, bias};
  EXPECT_EQ(ChooseShapes(inputs, {}, "f.yaml"), "");
  EXPECT_THAT(inputs[1].shape, ElementsAre(64, 512));
  InputChoices choices;
  choices["bias"].shape = Shape{9, 2};
  inputs = {ids, bias};
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"), "");
  EXPECT_THAT(inputs[0].shape, ElementsAre(1, 9)) << "what the file says goes before what is usual";
  EXPECT_THAT(inputs[1].shape, ElementsAre(9, 2));
}

DeclaredInput Named(const std::string& name, const std::vector<std::string>& symbols, bool whole = false) {
  return {name, whole, Shape(symbols.size(), kOpen), symbols};
}

TEST(UsualShapeTest, TheKindOfAnInputIsThatOfItsDeclaredShape) {
  const DeclaredInput ids = Named("ids", {"batch", "sequence"}, true);
  std::vector<DeclaredInput> inputs = {ids, Named("features", {"batch", "", ""})};
  EXPECT_EQ(ChooseShapes(inputs, {}, "f.yaml"), "");
  EXPECT_THAT(inputs[1].shape, ElementsAre(1, 64, 64)) << "a batch of 1 is not the depth of a picture";
  InputChoices choices;
  choices["ids"].shape = Shape{2, 64};
  DeclaredInput features = Named("features", {"batch", "frames", ""});
  features.shape[2] = 80;
  inputs = {ids, features};
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"), "");
  EXPECT_THAT(inputs[1].shape, ElementsAre(2, 64, 80)) << "a batch of 2 makes no state";
  choices["ids"].shape = Shape{1, 32};
  inputs = {ids, Named("lines", {"", "", "sequence", ""})};
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"), "");
  EXPECT_THAT(inputs[1].shape, ElementsAre(1, 3, 32, 320)) << "a known height counts for the width";
}

TEST(UsualShapeTest, ASizeThatStandsAloneMayBeTheBatchOfALaterInput) {
  std::vector<DeclaredInput> inputs = {Named("time", {"batch"}), Named("ids", {"batch", "sequence"}, true)};
  EXPECT_EQ(ChooseShapes(inputs, {}, "f.yaml"), "");
  EXPECT_THAT(inputs[0].shape, ElementsAre(1));
  EXPECT_THAT(inputs[1].shape, ElementsAre(1, 64));
}

TEST(UsualShapeTest, ShapesThatGiveOneNameTwoSizesAreRefused) {
  const std::vector<DeclaredInput> declared = {Named("ids", {"batch", "sequence"}, true),
                                               Named("mask", {"batch", "sequence"}, true)};
  InputChoices choices;
  choices["ids"].shape = Shape{1, 9};
  choices["mask"].shape = Shape{1, 8};
  choices["mask"].shapeLine = 3;
  std::vector<DeclaredInput> inputs = declared;
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"),
            "f.yaml:3: 'sequence' is 8 in the shape of 'mask' and 9 in that of 'ids', expected one size");
  choices["mask"].shape = Shape{1, 9};
  inputs = declared;
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"), "");
  // The name stands for any size where one input has it for two.
  inputs = {Named("ids", {"n", "n"}, true), Named("mask", {"n"}, true)};
  choices["mask"].shape = Shape{9};
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"), "");
  EXPECT_THAT(inputs[0].shape, ElementsAre(1, 9));
}

TEST(UsualShapeTest, TheFileOfInputsIsBesideTheModel) {
  EXPECT_EQ(Ormis::host::InputsPath("models/detector.onnx"), "models/detector.inputs.yaml");
  EXPECT_EQ(Ormis::host::InputsPath("detector.ort"), "detector.ort.inputs.yaml");
  EXPECT_EQ(Ormis::host::InputsPath(".onnx"), ".onnx.inputs.yaml");
}

class ModelInputsTest : public ModelTest {
 protected:
  std::string WriteInputs(const std::string& text) {
    std::string path = folder_ / "model.inputs.yaml";
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  /// A model with an output of its own for each input.
  static onnx_writer::Graph Copies(const std::vector<onnx_writer::ValueInfo>& inputs) {
    onnx_writer::Graph graph;
    graph.name = "copies";
    graph.inputs = inputs;
    for (const auto& input : inputs) {
      graph.outputs.push_back({input.name + "Out", input.shape, input.type});
      graph.nodes.push_back({"Identity", {input.name}, {input.name + "Out"}, {}, {}});
    }
    return graph;
  }

  /// A graph's input (field 11) or output (field 12) without a shape, behind the bytes of a whole model.
  static std::string WithoutShape(std::uint32_t field, const std::string& name) {
    const std::string floats = Field(1, std::string("\x08\x01", 2));
    return Field(7, Field(field, Field(1, name) + Field(2, floats)));
  }

  /// Expects that the inputs are refused with this file. `where`: what follows the name of the file.
  void ExpectRefused(const std::string& text, const std::string& where, bool realTrial = false) {
    SCOPED_TRACE(text);
    const std::string model = Write(Copies({{"image", {kOpen, 3, kOpen, kOpen}},
                                            {"flag", {2}, ElementType::kInt8},
                                            {"half", {}, ElementType::kFloat16},
                                            {"whether", {1}, ElementType::kBool}}));
    const std::string file = WriteInputs(text);
    const spawn_calls::Watch watch;
    if (!realTrial) spawn_calls::ReplaceByScript("echo loaded 0; echo ran 0");  // takes less time
    QetDNNHandle handle;
    ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, model), Ormis::kQetOk);
    ExpectFailure(Ormis::kQetInvalidArgument, "QetDNNModelCreateInput",
                  "model " + model + ": " + file + where, [&] { return QetDNNModelCreateInput(handle); });
    EXPECT_TRUE(handle.inputs.empty());
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }

  void Run(QetDNNHandle& handle, const std::string& path) {
    ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
  }
};

template <typename Number>
std::vector<Number> NumbersOf(const Ormis::QetDNNBuffer& buffer) {
  std::vector<Number> values(buffer.sizeBytes / sizeof(Number));
  std::memcpy(values.data(), buffer.data, values.size() * sizeof(Number));
  return values;
}

TEST_F(ModelInputsTest, AnUnknownInputIsNamedWithThoseOfTheModel) {
  ExpectRefused("inputs:\n  imag: {fill: random}\n",
                ":2: unknown input 'imag', the model has 'image' (open x 3 x open x open), 'flag' (2), "
                "'half' (one number, or any shape), 'whether' (1)",
                true);
}

TEST_F(ModelInputsTest, AShapeThatDoesNotFitIsNamedWithTheModels) {
  ExpectRefused("inputs:\n  image:\n    shape: [1, 3, 640]\n",
                ":3: the shape of 'image' is 1 x 3 x 640, the model says open x 3 x open x open");
  ExpectRefused("inputs: {image: {shape: [1, 4, 640, 640]}}",
                ":1: the shape of 'image' is 1 x 4 x 640 x 640, the model says open x 3 x open x open");
  ExpectRefused("inputs: {flag: {shape: [3]}}", ":1: the shape of 'flag' is 3, the model says 2");
}

TEST_F(ModelInputsTest, KeysAndValuesThatAreNoneAreNamed) {
  ExpectRefused("input: {}", ":1: unknown key 'input', expected inputs");
  ExpectRefused("- inputs", ":1: expected lines of KEY: VALUE");
  ExpectRefused("inputs: image", ":1: inputs has no keys, expected names of inputs");
  ExpectRefused("inputs: {}\ninputs: {}", ":2: 'inputs' stands there twice, expected it once");
  ExpectRefused("inputs: {image: {}, image: {}}", ":1: 'image' stands there twice, expected it once");
  ExpectRefused("inputs: {image: {shape: [1], shape: [1]}}",
                ":1: 'shape' stands there twice, expected it once");
  ExpectRefused("inputs: {image: random}", ":1: image has no keys, expected shape, fill or value");
  ExpectRefused("inputs:\n  image:\n    shap: [1]\n",
                ":3: unknown key 'shap', expected shape, fill or value");
  ExpectRefused("inputs: {image: {fill: ones}}", ":1: fill is 'ones', expected zeros or random");
  ExpectRefused("inputs: {image: {fill: zeros, value: 1}}",
                ":1: 'value' beside another fill or value, expected one of them");
  ExpectRefused("inputs: {image: {value: [1]}}", ":1: value has no plain value");
  const std::string shape = ", expected a shape, such as [1, 3, 640, 640]";
  ExpectRefused("inputs: {image: {shape: 1}}", ":1: shape is no list" + shape);
  for (const std::string size : {"0", "-1", "x", "1.5", "[1]", "99999999999999999999"}) {
    ExpectRefused("inputs: {image: {shape: [1, " + size + "]}}",
                  ":1: a size of the shape is no whole number from 1" + shape);
  }
  ExpectRefused("inputs: {image: {value: big}}", ":1: image: value is 'big', expected a number");
  for (const std::string value : {"128", "-129", "1.5", "''"}) {
    const std::string text = value == "''" ? "" : value;
    ExpectRefused("inputs:\n  flag: {value: " + value + "}",
                  ":2: flag: value is '" + text + "', expected a whole number from -128 to 127");
  }
  for (const std::string value : {"2", "no"}) {
    ExpectRefused("inputs: {whether: {value: " + value + "}}",
                  ":1: whether: value is '" + value + "', expected 0 or 1");
  }
  ExpectRefused("inputs: {half: {value: 100000}}",
                ":1: half: value is '100000', expected a number from -65504 to 65504");
  ExpectRefused("inputs: {\n", ":2: did not find expected node content");
}

TEST_F(ModelInputsTest, ALinkToAFileThatIsMissingIsRefused) {
  const std::string path = Write(TinyNetwork());
  const std::string file = folder_ / "model.inputs.yaml";
  std::filesystem::create_symlink(folder_ / "none.yaml", file);
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetInvalidArgument, "QetDNNModelCreateInput",
                "model " + path + ": cannot read " + file + ": No such file or directory",
                [&] { return Ormis::QetDNNModelCreateInput(handle); });
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(ModelInputsTest, AnEmptyFileAndNoFileAreTheSame) {
  const std::string path = Write(Copies({{"image", {kOpen, 1, 32, kOpen}}}));
  for (const char* const text : {static_cast<const char*>(nullptr), "", "inputs: {}", "# nothing"}) {
    if (text != nullptr) WriteInputs(text);
    QetDNNHandle handle;
    Run(handle, path);
    EXPECT_EQ(handle.inputs.at(0).sizeBytes, std::size_t{32} * 320 * sizeof(float));
    EXPECT_EQ(NumbersOf<float>(handle.outputs.at(0)), std::vector<float>(std::size_t{32} * 320));
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }
}

TEST_F(ModelInputsTest, ValuesOfEveryTypeReachTheModel) {
  const std::string path = Write(Copies({{"float", {2}},
                                         {"double", {2}, ElementType::kDouble},
                                         {"int8", {2}, ElementType::kInt8},
                                         {"uint16", {2}, ElementType::kUint16},
                                         {"int64", {}, ElementType::kInt64},
                                         {"uint64", {1}, ElementType::kUint64},
                                         {"bool", {2}, ElementType::kBool},
                                         {"half", {2}, ElementType::kFloat16},
                                         {"brain", {2}, ElementType::kBfloat16},
                                         {"uint8", {2}, ElementType::kUint8},
                                         {"int16", {2}, ElementType::kInt16},
                                         {"int32", {2}, ElementType::kInt32},
                                         {"uint32", {2}, ElementType::kUint32},
                                         {"one", {1}, ElementType::kBool},
                                         {"zero", {1}, ElementType::kBool},
                                         {"not", {1}, ElementType::kBool}}));
  WriteInputs(
      "inputs: {float: {value: 1.5}, double: {value: -2e3}, int8: {value: -7}, uint16: {value: 65535},\n"
      "  int64: {value: 16000}, uint64: {value: 18446744073709551615}, bool: {value: true},\n"
      "  half: {value: 1.5}, brain: {value: 1.5}, uint8: {value: 255}, int16: {value: -32768},\n"
      "  int32: {value: -2147483648}, uint32: {value: 4294967295}, one: {value: 1}, zero: {value: 0},\n"
      "  not: {value: false}}\n");
  QetDNNHandle handle;
  Run(handle, path);
  EXPECT_THAT(NumbersOf<float>(handle.outputs.at(0)), ElementsAre(1.5F, 1.5F));
  EXPECT_THAT(NumbersOf<double>(handle.outputs.at(1)), ElementsAre(-2000.0, -2000.0));
  EXPECT_THAT(NumbersOf<std::int8_t>(handle.outputs.at(2)), ElementsAre(-7, -7));
  EXPECT_THAT(NumbersOf<std::uint16_t>(handle.outputs.at(3)), ElementsAre(65535, 65535));
  EXPECT_THAT(NumbersOf<std::int64_t>(handle.outputs.at(4)), ElementsAre(16000));
  EXPECT_THAT(NumbersOf<std::uint64_t>(handle.outputs.at(5)), ElementsAre(18446744073709551615U));
  EXPECT_THAT(NumbersOf<std::uint8_t>(handle.outputs.at(6)), ElementsAre(1, 1));
  EXPECT_THAT(NumbersOf<std::uint16_t>(handle.outputs.at(7)), ElementsAre(0x3E00, 0x3E00));
  EXPECT_THAT(NumbersOf<std::uint16_t>(handle.outputs.at(8)), ElementsAre(0x3FC0, 0x3FC0));
  EXPECT_THAT(NumbersOf<std::uint8_t>(handle.outputs.at(9)), ElementsAre(255, 255));
  EXPECT_THAT(NumbersOf<std::int16_t>(handle.outputs.at(10)), ElementsAre(-32768, -32768));
  EXPECT_THAT(NumbersOf<std::int32_t>(handle.outputs.at(11)), ElementsAre(INT32_MIN, INT32_MIN));
  EXPECT_THAT(NumbersOf<std::uint32_t>(handle.outputs.at(12)), ElementsAre(4294967295U, 4294967295U));
  EXPECT_THAT(NumbersOf<std::uint8_t>(handle.outputs.at(13)), ElementsAre(1));
  EXPECT_THAT(NumbersOf<std::uint8_t>(handle.outputs.at(14)), ElementsAre(0));
  EXPECT_THAT(NumbersOf<std::uint8_t>(handle.outputs.at(15)), ElementsAre(0));
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(ModelInputsTest, RandomFillsAreTheSameEachTime) {
  const std::string path = Write(Copies({{"float", {1000}},
                                         {"more", {1000}},
                                         {"byte", {1000}, ElementType::kUint8},
                                         {"token", {1000}, ElementType::kInt64},
                                         {"half", {100'000}, ElementType::kFloat16}}));
  WriteInputs(
      "inputs: {float: {fill: random}, more: {fill: random}, byte: {fill: random}, token: {fill: random},\n"
      "  half: {fill: random}}");
  QetDNNHandle first;
  QetDNNHandle second;
  Run(first, path);
  Run(second, path);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(NumbersOf<std::uint8_t>(first.outputs.at(i)), NumbersOf<std::uint8_t>(second.outputs.at(i)))
        << i;
  }
  const std::vector<float> fractions = NumbersOf<float>(first.outputs.at(0));
  EXPECT_THAT(fractions, testing::Each(testing::AllOf(testing::Ge(0.0F), testing::Lt(1.0F))));
  EXPECT_GT(*std::max_element(fractions.begin(), fractions.end()), 0.9F);
  EXPECT_NE(fractions, NumbersOf<float>(first.outputs.at(1))) << "each input has its own";
  const auto bytes = NumbersOf<std::uint8_t>(first.outputs.at(2));
  EXPECT_GT(*std::max_element(bytes.begin(), bytes.end()), 250);
  const auto tokens = NumbersOf<std::int64_t>(first.outputs.at(3));
  EXPECT_THAT(tokens, testing::Each(testing::AnyOf(0, 1)));
  EXPECT_THAT(tokens, testing::Contains(1));
  const auto halves = NumbersOf<std::uint16_t>(first.outputs.at(4));
  EXPECT_EQ(*std::max_element(halves.begin(), halves.end()), 0x3BFF) << "the last half below 1";
  EXPECT_EQ(Ormis::QetDNNRelease(first), Ormis::kQetOk);
  EXPECT_EQ(Ormis::QetDNNRelease(second), Ormis::kQetOk);
}

/// Numbers from "start" up to "limit" in steps of "step". A step of 0 is a failure.
onnx_writer::Graph RangeNetwork() {
  onnx_writer::Graph graph;
  graph.name = "range";
  graph.inputs = {{"start", {}}, {"limit", {}}, {"step", {}}};
  graph.outputs = {{"numbers", {kOpen}}};
  graph.nodes = {{"Range", {"start", "limit", "step"}, {"numbers"}, {}, {}}};
  return graph;
}

TEST_F(ModelInputsTest, OpenOutputsAreLearntFromAFirstInference) {
  const std::string path = Write(RangeNetwork());
  WriteInputs("inputs: {limit: {value: 5}, step: {value: 1}}");
  for (const bool outputsFirst : {false, true}) {
    QetDNNHandle handle;
    ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    if (outputsFirst) ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    if (!outputsFirst) ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
    ASSERT_EQ(handle.outputs.at(0).sizeBytes, 5 * sizeof(float));
    ASSERT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
    EXPECT_THAT(NumbersOf<float>(handle.outputs.at(0)), ElementsAre(0.0F, 1.0F, 2.0F, 3.0F, 4.0F));
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }
}

TEST_F(ModelInputsTest, AModelThatFailsOverZerosIsTriedWithItsFill) {
  const std::string path = Write(RangeNetwork());
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  std::int32_t code = 0;
  const std::string log = StandardErrorOf([&] { code = Ormis::QetDNNModelCreateOutput(handle); });
  EXPECT_EQ(code, Ormis::kQetInferenceFailure);
  EXPECT_THAT(log, testing::HasSubstr("the first inference failed: "));
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  WriteInputs("inputs: {limit: {value: 5}, step: {value: 1}}");
  const std::string again = StandardErrorOf([&] { Run(handle, path); });
  EXPECT_THAT(again, testing::HasSubstr("trying model ")) << "another fill is another trial";
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(ModelInputsTest, AFirstInferenceThatFailsInTheTrialIsNotRepeated) {
  const std::string path = Write(RangeNetwork());
  const auto expectRefusal = [&](QetDNNHandle& handle, std::int32_t expected, const std::string& reason) {
    ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    std::int32_t code = 0;
    const std::string log = StandardErrorOf([&] { code = Ormis::QetDNNModelCreateOutput(handle); });
    EXPECT_EQ(code, expected);
    EXPECT_THAT(log, testing::HasSubstr("QetDNNModelCreateOutput: model " + path + ": " + reason));
    EXPECT_TRUE(handle.outputs.empty());
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  };
  const std::string runs = "inputs: {limit: {value: 5}, step: {value: 1}}";
  QetDNNHandle tried;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(tried, path), Ormis::kQetOk);
  WriteInputs(runs);  // an inference would now pass
  expectRefusal(tried, Ormis::kQetInferenceFailure, "the first inference failed: Non-zero status code");

  const spawn_calls::Watch watch;
  spawn_calls::ReplaceByScript("echo loaded 0; echo ran 1010 no memory");
  WriteInputs(runs + " # another trial");
  ASSERT_EQ(Ormis::QetDNNModelInitialize(tried, path), Ormis::kQetOk);
  expectRefusal(tried, Ormis::kQetOutOfMemory, "no memory");
  EXPECT_EQ(watch.Count(), 1);
}

TEST_F(ModelInputsTest, AnOutputOfUndeclaredRankIsLearnt) {
  onnx_writer::Graph graph;
  graph.name = "reshape";
  graph.inputs = {{"data", {4}}, {"sizes", {kOpen}, ElementType::kInt64}};
  graph.nodes = {{"Reshape", {"data", "sizes"}, {"out"}, {}, {}}};
  const std::string path = Write(onnx_writer::Serialize(graph) + WithoutShape(12, "out"));
  WriteInputs("inputs: {data: {value: 3}, sizes: {shape: [2], value: 2}}");
  QetDNNHandle handle;
  Run(handle, path);
  EXPECT_THAT(NumbersOf<float>(handle.outputs.at(0)), ElementsAre(3.0F, 3.0F, 3.0F, 3.0F));
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(ModelInputsTest, AnInputOfUndeclaredRankIsOneNumberOrHasTheShapeOfTheFile) {
  onnx_writer::Graph graph;
  graph.name = "copy";
  graph.nodes = {{"Identity", {"in"}, {"out"}, {}, {}}};
  const std::string path =
      Write(onnx_writer::Serialize(graph) + WithoutShape(11, "in") + WithoutShape(12, "out"));
  for (const auto& [text, count] : {std::pair{"inputs: {in: {value: 7}}", std::size_t{1}},
                                    {"inputs: {in: {value: 7, shape: [2, 3]}}", std::size_t{6}}}) {
    WriteInputs(text);
    QetDNNHandle handle;
    Run(handle, path);
    EXPECT_EQ(NumbersOf<float>(handle.outputs.at(0)), std::vector<float>(count, 7.0F));
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }
  const std::string file = WriteInputs("inputs: {on: {value: 7}}");
  QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ExpectFailure(
      Ormis::kQetInvalidArgument, "QetDNNModelCreateInput",
      "model " + path + ": " + file + ":1: unknown input 'on', the model has 'in' (one number, or any shape)",
      [&] { return Ormis::QetDNNModelCreateInput(handle); });
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(ModelInputsTest, SequencesAndMapsAreRefused) {
  const std::string floats = Field(1, std::string("\x08\x01", 2));  // tensor_type: FLOAT
  const std::string sequence = Field(4, Field(1, floats));
  const std::string map = Field(5, std::string("\x08\x07", 2) + Field(2, floats));
  for (const auto& [type, kind] : {std::pair{sequence, "a sequence"}, {map, "a map"}}) {
    const std::string path =
        Write(onnx_writer::Serialize(TinyNetwork()) + Field(7, Field(11, Field(1, "more") + Field(2, type))));
    QetDNNHandle handle;
    ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    ExpectFailure(Ormis::kQetUnsupported, "QetDNNModelCreateInput",
                  "model " + path + ": input 'more' is " + kind + ", expected a tensor of numbers",
                  [&] { return Ormis::QetDNNModelCreateInput(handle); });
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  }
}

}  // namespace
