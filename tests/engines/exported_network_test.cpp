// SPDX-License-Identifier: Apache-2.0

// Networks that people have exported and packages carry: detection, recognition and classification of text,
// and of speech.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "model_test.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

class ExportedNetworkTest : public ModelTest {
 protected:
  /// Copies the network into the test's folder, with a file of inputs beside it if there is text for one.
  std::string Take(const std::string& name, const std::string& inputs = {}) {
    fs::copy_file(fs::path(EXPORTED_NETWORKS) / name, folder_ / "model.onnx",
                  fs::copy_options::overwrite_existing);
    fs::remove(folder_ / "model.inputs.yaml");
    if (!inputs.empty()) std::ofstream(folder_ / "model.inputs.yaml") << inputs;
    return folder_ / "model.onnx";
  }

  struct Run {
    std::vector<std::size_t> inputFloats;
    std::vector<std::size_t> outputFloats;
    std::vector<Bytes> outputs;
  };
  static Run RunOnce(const std::string& path) {
    Ormis::QetDNNHandle handle;
    EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
    Run run;
    for (const auto& input : handle.inputs) run.inputFloats.push_back(input.sizeBytes / sizeof(float));
    for (const auto& output : handle.outputs) {
      run.outputFloats.push_back(output.sizeBytes / sizeof(float));
      const auto* const bytes = static_cast<const std::uint8_t*>(output.data);
      run.outputs.emplace_back(bytes, bytes + output.sizeBytes);
    }
    EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
    return run;
  }
};

TEST_F(ExportedNetworkTest, TheyRunWithoutAFileOfInputs) {
  const Run detector = RunOnce(Take("ch_PP-OCRv4_det_infer.onnx"));
  EXPECT_THAT(detector.inputFloats, ElementsAre(3 * 640 * 640));
  EXPECT_THAT(detector.outputFloats, ElementsAre(640 * 640));
  const Run recogniser = RunOnce(Take("ch_PP-OCRv4_rec_infer.onnx"));
  EXPECT_THAT(recogniser.inputFloats, ElementsAre(3 * 48 * 320));
  EXPECT_THAT(recogniser.outputFloats, ElementsAre(40 * 6625));
  const Run classifier = RunOnce(Take("ch_ppocr_mobile_v2.0_cls_infer.onnx"));
  EXPECT_THAT(classifier.outputFloats, ElementsAre(2));
}

TEST_F(ExportedNetworkTest, TheyRunAsTheirFileOfInputsSays) {
  const Run detector =
      RunOnce(Take("ch_PP-OCRv4_det_infer.onnx", "inputs: {x: {shape: [2, 3, 64, 96], fill: random}}"));
  EXPECT_THAT(detector.inputFloats, ElementsAre(2 * 3 * 64 * 96));
  EXPECT_THAT(detector.outputFloats, ElementsAre(2 * 64 * 96));
  const std::string atRate = "inputs: {input: {shape: [1, 512], fill: random}, sr: {value: 16000}}";
  const Run speech = RunOnce(Take("silero_vad_v5.onnx", atRate));
  EXPECT_THAT(speech.inputFloats, ElementsAre(512, 2 * 128, 2)) << "the last one is one 64-bit number";
  EXPECT_THAT(speech.outputFloats, ElementsAre(1, 2 * 128));
  EXPECT_NE(speech.outputs, RunOnce(Take("silero_vad_v5.onnx", "inputs: {sr: {value: 16000}}")).outputs);
  EXPECT_EQ(speech.outputs, RunOnce(Take("silero_vad_v5.onnx", atRate)).outputs);
}

TEST_F(ExportedNetworkTest, ASamplingRateOfZeroIsAFailureWithTheEnginesWords) {
  Ormis::QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, Take("silero_vad_v5.onnx")), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  std::int32_t code = 0;
  const std::string log = StandardErrorOf([&] { code = Ormis::QetDNNModelCreateOutput(handle); });
  EXPECT_EQ(code, Ormis::kQetInferenceFailure);
  EXPECT_THAT(log, testing::HasSubstr("the first inference failed: Non-zero status code"));
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_F(ExportedNetworkTest, TheResultsAreTheSameWithAndWithoutTheCaches) {
  std::vector<std::vector<Bytes>> results;
  for (const std::string memory : {"device", "cached"}) {
    ReleasePlatform();
    std::ofstream(folder_ / "host.yaml") << "memory: " << memory << '\n';
    StartPlatform(folder_ / "host.yaml");
    results.push_back(
        RunOnce(Take("ch_PP-OCRv4_rec_infer.onnx", "inputs: {x: {shape: [1, 3, 48, 64], fill: random}}"))
            .outputs);
  }
  EXPECT_GT(results[0].at(0).size(), 100'000U);
  EXPECT_TRUE(results[0] == results[1]);
}

}  // namespace
