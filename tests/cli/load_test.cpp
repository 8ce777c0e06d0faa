// SPDX-License-Identifier: Apache-2.0

// The stresses on the real engines: each of them works, and each stops.

#include <csignal>
#include <fstream>
#include <iostream>

#include "endless_network.h"
#include "program_test.h"

namespace {

class Load : public ProgramTest {
 protected:
  static std::string EveryStress(int level, const std::string& model) {
    const std::string number = std::to_string(level);
    return "runTimes: 600\nlogLevel: 5\nVPC: {Level: " + number + "}\nVENC: {Level: " + number +
           "}\nCPU: {Level: " + number + "}\nAIC: {Level: " + number + ", File: " + model + "}\n";
  }

  /// How many threads a run without stresses has: main, reporter, limiter and those of a sanitizer.
  int ThreadsWithoutStress() const {
    Program program(With({Write("nothing.yaml", "")}));
    EXPECT_TRUE(program.ReadLine().has_value());
    return program.ThreadCount();
  }

  /// Runs all four stresses until the encoder and the model have each published a rate, then ends the run.
  void RunEveryStress(int level) {
    const int threads = ThreadsWithoutStress() + 4 * (level + 1);
    std::filesystem::remove_all(Directory() / "log");

    Program program(Configured(EveryStress(level, EXAMPLE_NETWORK)));
    bool encoded = false;
    bool inferred = false;
    // The other two may have the rate 0 on a fast machine, because operations below one millisecond count as
    // no time. Only their entries in the line are checked.
    while (!encoded || !inferred) {
      const auto line = program.ReadLine();
      if (!line) FAIL() << program.Wait(std::chrono::seconds(0));
      EXPECT_EQ(program.ThreadCount(), threads) << *line;
      const auto rates = Rates(*line);
      ASSERT_THAT(rates, SizeIs(4U));
      encoded = encoded || rates.at("kivuVencStress") != "0.000000";
      inferred = inferred || rates.at("aicStress") != "0.000000";
      ASSERT_LT(program.Seconds(), 240.0) << *line;
    }

    const double interrupted = program.Seconds();
    program.Signal(SIGINT);
    const Ending ending = program.Wait();
    EXPECT_THAT(ending, Exited(0));
    const double stopSeconds = ending.seconds - interrupted;
    RecordProperty("stopSeconds", std::to_string(stopSeconds));
    std::cout << "stopped " << stopSeconds << " s after SIGINT\n";
    EXPECT_LT(stopSeconds, 60.0) << "it takes 2 s on an idle machine";

    ExpectRateLines(ending.OutputLines(), {"kivuVpcStress", "kivuVencStress", "cpuStress", "aicStress"});
    const std::vector<std::string> texts = Texts(LogFile(), "");
    EXPECT_THAT(texts, Not(Contains(testing::StartsWith("ERROR"))));
    EXPECT_THAT(texts, Not(Contains(HasSubstr("gave back"))))
        << "the platform had to free what a worker had left";
    EXPECT_THAT(texts, Contains("DEBUG AICoreInit() | [AicoreStress] Initialize AicStress finished.")
                           .Times(static_cast<std::size_t>(level)));
  }
};

TEST_F(Load, EveryStressAtLevel2WorksAndStops) {
  RunEveryStress(2);
}

TEST_F(Load, EveryStressAtLevel10WorksAndStops) {
  if (kSanitized) GTEST_SKIP() << "level 2 has every pair of threads already, and this takes minutes";
  RunEveryStress(10);
}

// An endless model with ten workers. If a failed trial were not remembered, the run would last ten trials.
TEST_F(Load, ARunEndsOneTrialAfterSigintAtMost) {
  if (kSanitized) GTEST_SKIP() << "the trial is a process of its own, which the program only waits for";
  std::ofstream(Directory() / "endless.onnx", std::ios::binary) << onnx_writer::Serialize(EndlessNetwork());
  Launch launch = Configured("runTimes: 600\nlogLevel: 5\nAIC: {Level: 10, File: endless.onnx}\n");
  // The same libraries, beside settings of this test.
  const std::filesystem::path built = launch.program.parent_path() / "../lib";
  std::filesystem::create_directories(Directory() / "lib/ormis");
  for (const std::string file : {"libormis.so.1", "libonnxruntime.so.1", "ormis/model_trial"}) {
    if (std::filesystem::exists(built / file)) {
      std::filesystem::create_symlink(std::filesystem::canonical(built) / file, Directory() / "lib" / file);
    }
  }
  Write("lib/ormis/host.yaml", "trial_processor_s: 1\n");
  launch.environment["LD_LIBRARY_PATH"] = Directory() / "lib";
  Program program(launch);
  ASSERT_TRUE(program.WaitForError("trying model endless.onnx")) << program.Wait(std::chrono::seconds(0));
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
  const std::vector<std::string> texts = Texts(LogFile(), "");
  EXPECT_THAT(texts, Contains(HasSubstr(" for at most 1 s of processor time ")).Times(1));
  EXPECT_THAT(texts,
              Contains("DEBUG AICoreInit() | [AicoreStress] Initialize AicStress finished.").Times(10));
}

TEST_F(Load, AMissingModelEndsOnlyItsWorkers) {
  const Ending ending = RunLines(Configured("AIC: {Level: 1, File: none.onnx}\nVPC: {Level: 1}\n"), 3);
  EXPECT_THAT(ending, Exited(0));
  for (const std::string& line : ending.OutputLines()) EXPECT_EQ(Rates(line)["aicStress"], "0.000000");
  ExpectRateLines(ending.OutputLines(), {"aicStress", "kivuVpcStress"});

  std::vector<std::string> errors;
  for (const LogRecord& record : LogFile()) {
    if (record.level == "ERROR") errors.push_back(record.context + " " + record.text);
  }
  EXPECT_THAT(errors,
              ElementsAre("QET QetDNNModelInitialize: cannot read model none.onnx: No such file or directory",
                          "STBM AICoreInit() | [AicoreStress] Init dnn model failed!",
                          "QET QetDNNRelease: the handle holds no model",
                          "STBM AICoreRelease() | [AicoreStress] NNProcessPipeline QetDNNRelease failed.",
                          "STBM AICoreStressNode() | [AicoreStress] AICore stress node initialize failed."));
  EXPECT_THAT(Read("log/STBM.log"), Not(HasSubstr("gave back")));
}

TEST_F(Load, AFileThatIsNotAModelEndsOnlyItsWorkers) {
  Write("m.onnx", "not a network\n");
  const Ending ending = RunLines(Configured("AIC: {Level: 2, File: m.onnx}\n"), 2);
  EXPECT_THAT(ending, Exited(0));
  for (const std::string& line : ending.OutputLines()) EXPECT_EQ(Rates(line)["aicStress"], "0.000000");
  const std::vector<std::string> texts = Texts(LogFile(), "");
  EXPECT_THAT(texts, Contains(HasSubstr("QetDNNModelInitialize: cannot load model m.onnx: ")).Times(2));
  EXPECT_THAT(
      texts,
      Contains("ERROR AICoreStressNode() | [AicoreStress] AICore stress node initialize failed.").Times(2));
}

// The only test of a whole run. The configuration asks for 10 seconds, which becomes 40; the limiter adds
// one.
TEST_F(Load, AWholeRunEndsByItself) {
  // With a sanitizer a worker would only cost time: it shows nothing that other tests do not show.
  const std::string level = kSanitized ? "0" : "1";
  const Ending ending = Run(Configured("runTimes: 10\nCPU: {Level: " + level +
                                       "}\nVPC: {Level: 0}\nVENC: {Level: 0}\nAIC: {Level: 0, "
                                       "File: none.onnx}\n"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_GE(ending.seconds, 41.0);
  EXPECT_LE(ending.seconds, 80.0) << "a busy machine takes longer, but not twice as long";
  const std::vector<std::string> lines = ending.OutputLines();
  EXPECT_THAT(lines, SizeIs(AllOf(testing::Ge(30U), testing::Le(50U))));
  ExpectRateLines(lines, {"kivuVpcStress", "kivuVencStress", "cpuStress", "aicStress"});
  for (const std::string& line : lines) {
    for (const auto& [name, rate] : Rates(line)) {
      if (name != "cpuStress") EXPECT_EQ(rate, "0.000000") << name;
    }
  }
  EXPECT_THAT(Texts(LogFile()), Contains("WARN Init() | RunTimes should be larger 40 , now is: 10. runTimes "
                                         "will be set to 40"));
}

}  // namespace
