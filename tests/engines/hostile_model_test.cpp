// SPDX-License-Identifier: Apache-2.0

// Model files that are cut off, damaged or hostile. Each must end in a status with a reason, and the process
// goes on.
#include <array>
#include <functional>
#include <random>

#include "model_fields.h"
#include "model_test.h"
#include "sanitizers.h"

namespace {

using Ormis::QetDNNHandle;

const std::string& GoodModel() {
  static const std::string model = onnx_writer::Serialize(TinyNetwork());
  return model;
}

class HostileModelTest : public ModelTest {
 protected:
  /// The results of the four steps, up to the first that fails.
  struct Answers {
    const char* failedStep = nullptr;  ///< null: the model runs
    std::int32_t code = 0;
    std::string log;
  };

  /// Loads the file and runs it. Expects that a failing step logs the reason in its own name.
  Answers LoadAndRun(const std::string& bytes) {
    const std::string path = Write(bytes);
    const std::array<std::pair<const char*, std::function<std::int32_t(QetDNNHandle&)>>, 4> steps = {{
        {"QetDNNModelInitialize", [&](QetDNNHandle& handle) { return QetDNNModelInitialize(handle, path); }},
        {"QetDNNModelCreateInput", Ormis::QetDNNModelCreateInput},
        {"QetDNNModelCreateOutput", Ormis::QetDNNModelCreateOutput},
        {"QetDNNModelProcess", Ormis::QetDNNModelProcess},
    }};
    QetDNNHandle handle;
    Answers answers;
    answers.log = StandardErrorOf([&] {
      for (const auto& [name, step] : steps) {
        answers.code = step(handle);
        if (answers.code == Ormis::kQetOk) continue;
        answers.failedStep = name;
        break;
      }
    });
    const bool loaded = handle.modelId != 0;
    EXPECT_EQ(StandardErrorOf([&] {
                EXPECT_EQ(QetDNNRelease(handle), loaded ? Ormis::kQetOk : Ormis::kQetModelNotReady);
              }).empty(),
              loaded);
    if (answers.failedStep != nullptr) {
      EXPECT_GE(answers.code, Ormis::kQetInvalidArgument);
      EXPECT_LE(answers.code, Ormis::kQetInternal);
      const std::string head = std::string(" ERROR - QET ");
      const std::size_t name = answers.log.find(std::string(answers.failedStep) + ": ");
      EXPECT_NE(answers.log.find(head), std::string::npos) << answers.log;
      EXPECT_NE(name, std::string::npos) << answers.log;
    }
    return answers;
  }

  /// Loads and runs `count` variants of the good model; fewer under AddressSanitizer, where the trial of each
  /// takes ten times as long. Expects that some fail and, where `someRun`, that some run.
  void Try(int count, bool someRun, const std::function<std::string(int)>& variant) {
    constexpr int kStep = kAddressSanitized ? 4 : 1;
    int tried = 0;
    int failed = 0;
    for (int i = 0; i < count; i += kStep) {
      SCOPED_TRACE(i);
      ++tried;
      if (LoadAndRun(variant(i)).failedStep != nullptr) ++failed;
    }
    EXPECT_GT(failed, tried / 4);
    EXPECT_EQ(failed < tried, someRun);
  }
};

TEST_F(HostileModelTest, TheGoodModelRuns) {
  EXPECT_EQ(LoadAndRun(GoodModel()).failedStep, nullptr);
  EXPECT_EQ(WriteFields(ReadFields(GoodModel())), GoodModel())
      << "the tests below change a model that has to be good";
}

TEST_F(HostileModelTest, CutOffAnywhere) {
  constexpr int kCount = 60;
  Try(kCount, false,
      [](int i) { return GoodModel().substr(0, GoodModel().size() * static_cast<std::size_t>(i) / kCount); });
}

TEST_F(HostileModelTest, DamagedBytes) {
  Try(60, true, [](int i) {
    std::mt19937 random(static_cast<unsigned int>(i));  // the same files each time
    std::string model = GoodModel();
    for (auto changes = 1 + random() % 4; changes > 0; --changes) {
      model[random() % model.size()] = static_cast<char>(random());
    }
    return model;
  });
}

TEST_F(HostileModelTest, MissingAndRepeatedParts) {
  Try(40, false, [](int i) {
    std::mt19937 random(static_cast<unsigned int>(i));  // the same files each time
    std::string model = GoodModel();
    const std::string part = model.substr(random() % model.size(), 1 + random() % 100);
    if (i % 2 == 0) {
      model.insert(random() % model.size(), part);
    } else {
      model.erase(random() % model.size(), part.size());
    }
    return model;
  });
}

TEST_F(HostileModelTest, ChangedFields) {
  Try(100, true, [](int i) {
    std::mt19937 random(static_cast<unsigned int>(i));  // the same files each time
    std::vector<ModelField> fields = ReadFields(GoodModel());
    ChangeFields(fields, random);
    return WriteFields(fields);
  });
}

#ifdef __x86_64__
/// The good model with one attribute of its first convolution changed.
std::string WithAttribute(const char* name, const std::vector<std::int64_t>& values) {
  onnx_writer::Graph graph = TinyNetwork();
  graph.nodes.at(0).lists[name] = values;
  return onnx_writer::Serialize(graph);
}

// The engine crashes on these models: it divides by zero, or reads invalid memory. On other processors a
// division by zero is no fault.
TEST_F(HostileModelTest, TheEngineCrashesInAnotherProcess) {
  for (const std::string& model : {WithAttribute("strides", {0, 2}), WithAttribute("strides", {2, 0}),
                                   WithAttribute("pads", {1, 1, 1, -2})}) {
    const Answers answers = LoadAndRun(model);
    ASSERT_NE(answers.failedStep, nullptr);
    EXPECT_NE(answers.log.find("the engine died of "), std::string::npos) << answers.log;
  }
  EXPECT_EQ(LoadAndRun(GoodModel()).failedStep, nullptr) << "a good model has to run after the bad ones";
}

TEST_F(HostileModelTest, AFileThatChangesIsTriedAgain) {
  EXPECT_EQ(LoadAndRun(GoodModel()).failedStep, nullptr);
  EXPECT_STREQ(LoadAndRun(WithAttribute("strides", {0, 2})).failedStep, "QetDNNModelInitialize");
  EXPECT_EQ(LoadAndRun(GoodModel()).failedStep, nullptr);
}
#endif

TEST_F(HostileModelTest, BuffersTakeTwoGibibytesAtMost) {
  onnx_writer::Graph graph;
  graph.name = "large";
  graph.inputs = {{"in", {(1LL << 29) + 1}, onnx_writer::ElementType::kFloat}};
  graph.outputs = {{"out", {1}, onnx_writer::ElementType::kInt64}};
  graph.nodes = {{"Shape", {"in"}, {"out"}, {}, {}}};
  const Answers one = LoadAndRun(onnx_writer::Serialize(graph));
  EXPECT_STREQ(one.failedStep, "QetDNNModelCreateInput");
  EXPECT_EQ(one.code, Ormis::kQetInvalidSize);
  // Each input alone is small enough.
  graph.inputs = {{"in", {1}}, {"more", {1LL << 28}}, {"yetMore", {1LL << 28}}};
  const Answers sum = LoadAndRun(onnx_writer::Serialize(graph));
  EXPECT_STREQ(sum.failedStep, "QetDNNModelCreateInput");
  EXPECT_EQ(sum.code, Ormis::kQetInvalidSize);
  EXPECT_NE(sum.log.find("'yetMore'"), std::string::npos) << sum.log;
}

}  // namespace
