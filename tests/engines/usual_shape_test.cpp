// SPDX-License-Identifier: Apache-2.0

// The limits of the rules by which open sizes of inputs are chosen, from both sides, and which file of inputs
// is read. Uses a part of the host platform directly.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "model_inputs.h"

namespace {

using Ormis::host::ChooseShapes;
using Ormis::host::DeclaredInput;
using Ormis::host::InputChoices;
using Ormis::host::ReadInputs;
using Ormis::host::ShapeText;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr std::int64_t kNotSaid = -1;
using Sizes = std::vector<std::int64_t>;

DeclaredInput Unnamed(const std::string& name, const Sizes& shape, bool whole) {
  return {name, whole, shape, std::vector<std::string>(shape.size())};
}

TEST(UsualShapeTest, EachRuleHasItsLimits) {
  struct Case {
    Sizes declared, expected;
    bool whole = false;
  };
  const Case cases[] = {
      // The height of a line is 64 at most.
      {{kNotSaid, 3, 64, kNotSaid}, {1, 3, 64, 320}},
      {{kNotSaid, 3, 65, kNotSaid}, {1, 3, 65, 65}},
      // The depth of a picture is 1, 3 or 4, in front of its sides.
      {{kNotSaid, 1, kNotSaid, kNotSaid}, {1, 1, 640, 640}},
      {{kNotSaid, 2, kNotSaid, kNotSaid}, {1, 2, 1, 1}},
      {{kNotSaid, 4, kNotSaid, kNotSaid}, {1, 4, 640, 640}},
      {{kNotSaid, 5, kNotSaid, kNotSaid}, {1, 5, 1, 1}},
      // Behind them.
      {{kNotSaid, kNotSaid, kNotSaid, 1}, {1, 640, 640, 1}},
      {{kNotSaid, kNotSaid, kNotSaid, 2}, {1, 1, 1, 2}},
      {{kNotSaid, kNotSaid, kNotSaid, 4}, {1, 640, 640, 4}},
      {{kNotSaid, kNotSaid, kNotSaid, 5}, {1, 1, 1, 5}},
      {{2, kNotSaid, kNotSaid, kNotSaid}, {2, 3, 640, 640}},
      {{kNotSaid, 2, 3, kNotSaid}, {1, 2, 3, 1}},
      // Without a batch, both sides are open.
      {{1, 80, kNotSaid}, {1, 80, 64}},
      {{1, kNotSaid, 80}, {1, 64, 80}},
      {{4, kNotSaid, kNotSaid}, {4, 640, 640}},
      {{5, kNotSaid, 3}, {5, 1, 3}},
      {{kNotSaid, 80, 3}, {1, 80, 3}},
      {{kNotSaid, kNotSaid, 80}, {1, 64, 80}},
      {{kNotSaid, kNotSaid, kNotSaid}, {1, 64, 64}},
      {{3, kNotSaid, kNotSaid}, {3, 1, 1}, true},
      // A state has more than one layer.
      {{1, kNotSaid, kNotSaid, 7}, {1, 1, 1, 7}},
      {{1, kNotSaid, 128}, {1, 64, 128}, true},
      {{2, kNotSaid, 128}, {2, 1, 128}, true},
      {{2, kNotSaid}, {2, 64}, true},
      {{2, kNotSaid}, {2, 512}},
      {{7}, {7}},
      {{7, 8}, {7, 8}},
  };
  for (const Case& one : cases) {
    std::vector<DeclaredInput> inputs = {Unnamed("in", one.declared, one.whole)};
    EXPECT_EQ(ChooseShapes(inputs, {}, "f.yaml"), "");
    EXPECT_THAT(inputs[0].shape, ElementsAreArray(one.expected)) << testing::PrintToString(one.declared);
  }
}

TEST(UsualShapeTest, DimensionsWithoutANameHaveSizesOfTheirOwn) {
  std::vector<DeclaredInput> inputs = {Unnamed("ids", {kNotSaid, kNotSaid}, true),
                                       Unnamed("sound", {kNotSaid, kNotSaid}, false),
                                       Unnamed("one", {kNotSaid, 9}, false)};
  inputs[2].symbols = {"", "n"};  // the engine names open dimensions alone; a name of another is nobody's
  inputs.push_back({"more", true, {kNotSaid, kNotSaid}, {"", "n"}});
  InputChoices choices;
  choices["ids"].value = "7";  // a choice need not have a shape
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"), "");
  EXPECT_THAT(inputs[0].shape, ElementsAre(1, 64));
  EXPECT_THAT(inputs[1].shape, ElementsAre(1, 512));
  EXPECT_THAT(inputs[2].shape, ElementsAre(1, 9));
  EXPECT_THAT(inputs[3].shape, ElementsAre(1, 64));
}

TEST(UsualShapeTest, AKnownSizeOfADepthIsKept) {
  InputChoices choices;
  choices["depth"].shape = Sizes{4, 1};
  std::vector<DeclaredInput> inputs = {{"depth", true, {kNotSaid, 1}, {"channels", ""}},
                                       {"image", false, Sizes(4, kNotSaid), {"", "channels", "", ""}}};
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"), "");
  EXPECT_THAT(inputs[1].shape, ElementsAre(1, 4, 640, 640));
}

TEST(UsualShapeTest, AShapeIsWrittenWithTheNamesOfItsDimensions) {
  EXPECT_EQ(ShapeText({"in", false, {}, {}}), "one number");
  EXPECT_EQ(ShapeText({"in", false, {7}, {""}}), "7");
  EXPECT_EQ(ShapeText({"in", false, {kNotSaid, 3, kNotSaid}, {"", "", "width"}}), "? x 3 x width");
  EXPECT_EQ(ShapeText({"in", false, {kNotSaid, 3}, {}}), "? x 3");
  InputChoices choices;
  choices["in"].shape = Sizes{};
  choices["in"].shapeLine = 4;
  std::vector<DeclaredInput> inputs = {Unnamed("in", {2, kNotSaid}, false)};
  EXPECT_EQ(ChooseShapes(inputs, choices, "f.yaml"),
            "f.yaml:4: the shape of 'in' is one number, the model says 2 x ?");
}

TEST(UsualShapeTest, OnlyAFileThatIsMissingIsNone) {
  InputChoices choices;
  EXPECT_EQ(ReadInputs("/none.inputs.yaml", choices), "");
  EXPECT_EQ(ReadInputs("/dev/null/f.yaml", choices), "cannot read /dev/null/f.yaml: Not a directory");
  const std::string path =
      std::filesystem::temp_directory_path() / ("usual_shape_test_" + std::to_string(getpid()) + ".yaml");
  std::ofstream(path) << "inputs: {in: {fill: zeros, shape: [1]}, more: {value: 3}}";
  errno = ENOENT;  // of an earlier call
  EXPECT_EQ(ReadInputs(path, choices), "");
  (void)std::remove(path.c_str());
  EXPECT_EQ(choices.size(), 2U);
  EXPECT_EQ(choices["in"].shape, Sizes{1});
  EXPECT_FALSE(choices["in"].random);
  EXPECT_EQ(choices["more"].value, "3");
}

}  // namespace
