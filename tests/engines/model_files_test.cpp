// SPDX-License-Identifier: Apache-2.0

// Which files a model consists of. Uses a part of the host platform directly: loads only show that a change
// of one of them is noticed.
#include "model_files.h"

#include <gmock/gmock.h>

#include <fstream>

#include "model_bytes.h"
#include "model_test.h"

namespace {

using Ormis::host::ExternalWeights;
using Ormis::host::StatesOfModel;
using testing::ElementsAre;
using testing::IsEmpty;

class ModelFilesTest : public ModelTest {};

TEST_F(ModelFilesTest, AModelWithItsWeightsInsideHasOneFile) {
  EXPECT_THAT(ExternalWeights(Write(TinyNetwork())), IsEmpty());
  EXPECT_EQ(StatesOfModel(Write(TinyNetwork())).size(), 2U);
}

TEST_F(ModelFilesTest, WeightsAreFoundWhereverTensorsStand) {
  const auto node = [](const std::string& attribute) { return Field(1, Field(5, attribute)); };
  const std::string inner = Field(1, Field(5, Field(6, Field(5, ExternalTensor("nested.bin")))));
  EXPECT_THAT(
      ExternalWeights(
          Write(onnx_writer::Serialize(TinyNetwork()) +                  //
                Field(7, Field(5, ExternalTensor("initializer.bin"))) +  //
                Field(7, node(Field(5, ExternalTensor("constant.bin")))) +
                Field(7, node(Field(10, ExternalTensor("list.bin")))) + Field(7, node(Field(6, inner))) +
                Field(7, node(Field(11, Field(5, ExternalTensor("graphs.bin"))))) +
                Field(7, Field(15, Field(1, ExternalTensor("sparse.bin")))) +
                Field(7, Field(15, Field(2, ExternalTensor("indices.bin")))) +
                Field(25, Field(7, Field(5, Field(5, ExternalTensor("function.bin")))) + Field(1, "name")))),
      ElementsAre("constant.bin", "function.bin", "graphs.bin", "indices.bin", "initializer.bin", "list.bin",
                  "nested.bin", "sparse.bin"));
}

TEST_F(ModelFilesTest, FieldsOfOtherKindsAreSkippedByTheirLength) {
  const std::string weights = Field(7, Field(5, ExternalTensor("w.bin")));
  const std::string number = "\x08\x96\x01";
  const std::string minusOne = "\x08\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x01";
  const std::string eightBytes = '\x11' + std::string(8, '\xFF');
  const std::string fourBytes = '\x1D' + std::string(4, '\xFF');
  EXPECT_THAT(ExternalWeights(Write(number + minusOne + eightBytes + fourBytes + weights)),
              ElementsAre("w.bin"));
  for (const char unknown : {'\x1B', '\x1C', '\x1E', '\x1F'}) {
    EXPECT_THAT(ExternalWeights(Write(unknown + std::string(4, '\0') + weights)), IsEmpty());
  }
}

TEST_F(ModelFilesTest, ADamagedModelNamesWhatPrecedesTheDamage) {
  const std::string good = Field(7, Field(5, ExternalTensor("w.bin")));
  const std::string named = good + Field(7, Field(5, ExternalTensor("more.bin")));
  for (std::size_t size = 0; size < named.size(); ++size) {
    const std::set<std::string> names = ExternalWeights(Write(named.substr(0, size)));
    EXPECT_EQ(names.count("w.bin"), size >= good.size() ? 1U : 0U) << size;
    EXPECT_EQ(names.count("more.bin"), 0U) << size;
  }
  EXPECT_THAT(ExternalWeights(Write(good + std::string(1000, '\xFF'))), ElementsAre("w.bin"));
  EXPECT_THAT(ExternalWeights(Write(std::string("\x3A\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F"))), IsEmpty());
}

// A length of 127 is the last of one byte. 128 is written as 0x80 0x01: the first byte has nothing but the
// sign that another one follows.
TEST_F(ModelFilesTest, ALengthMayEndABytesRange) {
  for (const std::size_t length : {127U, 128U}) {
    std::string graph = Field(5, ExternalTensor("w.bin"));
    graph = Field(2, std::string(length - 2 - graph.size(), 'n')) + graph;
    ASSERT_EQ(graph.size(), length);
    EXPECT_THAT(ExternalWeights(Write(Field(7, graph))), ElementsAre("w.bin"));
  }
}

TEST_F(ModelFilesTest, ANumberHasTenBytesAtMost) {
  const std::string weights = Field(7, Field(5, ExternalTensor("w.bin")));
  for (const auto& [bytes, readable] : {std::pair{9, true}, {10, false}}) {
    const std::string number = '\x08' + std::string(static_cast<std::size_t>(bytes), '\x81');
    EXPECT_EQ(ExternalWeights(Write(number + '\x01' + weights)).size(), readable ? 1U : 0U) << bytes;
    EXPECT_EQ(ExternalWeights(Write(number + weights)).size(), 0U) << bytes;
  }
}

TEST_F(ModelFilesTest, ValuesOfEveryLengthAreSkipped) {
  const std::string weights = Field(7, Field(5, ExternalTensor("w.bin")));
  for (const std::size_t length : {0U, 1U, 2U, 100000U}) {
    EXPECT_THAT(ExternalWeights(Write(Field(2, std::string(length, 'n')) + weights)), ElementsAre("w.bin"));
  }
}

TEST_F(ModelFilesTest, ANameHas4096BytesAtMost) {
  const std::string longest(4096, 'w');
  EXPECT_THAT(
      ExternalWeights(Write(Field(
          7, Field(5, ExternalTensor(longest) + ExternalTensor(longest + 'w') + ExternalTensor("w.bin"))))),
      ElementsAre("w.bin", longest));
  EXPECT_THAT(ExternalWeights(Write(Field(7, Field(5, ExternalTensor(""))))), IsEmpty());
}

// Where a message is damaged, it is not known where what follows begins.
TEST_F(ModelFilesTest, NothingBehindADamagedMessageIsRead) {
  const std::string good = Field(5, ExternalTensor("w.bin"));
  const std::string damage = "\x1B";
  for (const std::string& graph :
       {damage, Field(5, damage), Field(5, Field(13, damage)), std::string("\x80")}) {
    EXPECT_THAT(
        ExternalWeights(Write(Field(7, good) + Field(7, graph) + Field(7, Field(5, ExternalTensor("x"))))),
        ElementsAre("w.bin"));
  }
}

TEST_F(ModelFilesTest, AFileThatIsMissingNamesNothing) {
  EXPECT_THAT(ExternalWeights(folder_ / "none.onnx"), IsEmpty());
  EXPECT_EQ(StatesOfModel(folder_ / "none.onnx"), std::vector<Ormis::host::FileState>(2));
  EXPECT_FALSE(Ormis::host::IsRegularFile(folder_ / "none.onnx"));
  EXPECT_FALSE(Ormis::host::IsRegularFile(folder_));
  EXPECT_TRUE(Ormis::host::IsRegularFile(Write(std::string())));
}

// Of 64 messages one in the other, and no deeper.
TEST_F(ModelFilesTest, DeepGraphsAreReadToALimit) {
  const auto inGraphs = [this](int count, std::string content) {
    for (int i = 0; i < count; ++i) content = Field(1, Field(5, Field(6, content)));
    return Write(Field(7, content));
  };
  const std::string initializer = Field(5, ExternalTensor("w.bin"));                    // 2 messages
  const std::string sparse = Field(15, Field(1, ExternalTensor("w.bin")));              // 3
  const std::string attribute = Field(1, Field(5, Field(5, ExternalTensor("w.bin"))));  // 4
  EXPECT_THAT(ExternalWeights(inGraphs(20, sparse)), ElementsAre("w.bin")) << 1 + 20 * 3 + 3;
  EXPECT_THAT(ExternalWeights(inGraphs(20, attribute)), IsEmpty()) << 1 + 20 * 3 + 4;
  EXPECT_THAT(ExternalWeights(inGraphs(2000, initializer)), IsEmpty());
}

TEST_F(ModelFilesTest, WeightsLieInTheFolderOfTheModel) {
  const std::string path = Write(Field(7, Field(5, ExternalTensor("w.bin"))));
  const auto missing = StatesOfModel(path);
  ASSERT_EQ(missing.size(), 3U);
  EXPECT_EQ(missing[2], Ormis::host::FileState{});
  std::ofstream(folder_ / "w.bin") << "weights";
  const auto present = StatesOfModel(path);
  EXPECT_EQ(present[0], missing[0]);
  EXPECT_NE(present[2], missing[2]);
  std::ofstream(folder_ / "w.bin") << "more weights";
  EXPECT_NE(StatesOfModel(path)[2], present[2]);
}

}  // namespace
