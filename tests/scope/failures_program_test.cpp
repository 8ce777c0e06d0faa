// SPDX-License-Identifier: Apache-2.0

// Failures of the real benchmark, which ends with status 0 all the same. Each test makes its failure and
// asserts that it was made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "report.h"
#include "run_reader.h"
#include "run_tool.h"
#include "sanitizers.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class FailuresProgramTest : public ::testing::Test {
 protected:
  /// Records the configuration for some seconds, in a folder of its own. `fault` is for the fault shim.
  ToolResult Record(const std::string& config, const std::string& fault = {}, const char* seconds = "4",
                    std::vector<std::string> more = {}) {
    const std::string path = folder_.Put("c.yaml", config);
    std::vector<std::string> arguments = {"record",  path,           "-o",   folder_ / "run",
                                          "--force", "--stop-after", seconds};
    arguments.insert(arguments.end(), more.begin(), more.end());
    if (!fault.empty()) {
      // The shim stands between the meter and the platform. The tool itself runs without it.
      arguments.insert(arguments.end(), {"--benchmark", Faulty(fault)});
    }
    ToolResult result = RunTool(arguments);
    run_ = scope::ReadRun(folder_ / "run");
    return result;
  }

  // Every place says it: exit status, standard error, run.json, and the report.
  void ExpectFailure(const ToolResult& result, const std::string& text) const {
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("stress_scope: " + text));
    EXPECT_FALSE(run_.info.complete);
    EXPECT_THAT(run_.info.incompleteReason, HasSubstr(text));
    EXPECT_EQ(run_.info.exitStatus, 0) << "the benchmark's own";
    EXPECT_THAT(scope::ReportText(scope::ReadRuns({folder_ / "run"})),
                HasSubstr("the run is incomplete: " + text));
  }

  std::string Faulty(const std::string& fault) const {
    const std::string path = folder_.Put(
        "benchmark", "#!/bin/sh\nexport FAULT=" + fault + " FAULT_TOTALS=" + (folder_ / "totals") +
                         "\nLD_PRELOAD=\"$LD_PRELOAD:" FAULT_SHIM "\" exec " STRESS_BENCHMARK " \"$@\"\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  TemporaryFolder folder_;
  scope::Run run_;
};

TEST_F(FailuresProgramTest, ARunWithoutAFailureIsComplete) {
  const ToolResult result = Record("logMode: 4\nlogLevel: 4\nCPU: {Level: 2}\nVPC: {Level: 0}\n");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_TRUE(run_.info.complete) << run_.info.incompleteReason;
  EXPECT_EQ(run_.info.incompleteReason, "");
  EXPECT_THAT(folder_.Get("run/log.txt"), HasSubstr("QetInitialize success"));
  EXPECT_THAT(result.errors + result.output, Not(HasSubstr("QetInitialize success")));
}

TEST_F(FailuresProgramTest, AModelThatDoesNotLoad) {
  const ToolResult result =
      Record("logMode: 4\nlogLevel: 4\nCPU: {Level: 1}\nAIC: {Level: 1, File: no_model.onnx}\n");
  ExpectFailure(result,
                "aic: 1 operation failed, not one operation succeeded at level 1; the log says: "
                "QetDNNModelInitialize: cannot read model no_model.onnx: No such file or directory");
  EXPECT_THAT(folder_.Get("run/log.txt"), HasSubstr("ERROR STBM QET"));
}

TEST_F(FailuresProgramTest, ASectionThatNoStressReads) {
  const ToolResult result = Record("logMode: 4\nVPC: {Level: 1}\ncpu: {Level: 1}\n");
  ExpectFailure(result, "nothing reads \"cpu\" in " + (folder_ / "c.yaml") + ": write CPU");
  for (const scope::Sample& sample : run_.samples) EXPECT_NE(sample.engine, "cpu") << "it was read";
}

TEST_F(FailuresProgramTest, AnOperationThatFailsEndsItsWorker) {
  if (kSanitized) GTEST_SKIP() << "the shell cannot load a meter that is built with a sanitizer";
  const ToolResult result = Record("logMode: 4\nVPC: {Level: 2}\n", "QetImageResize:200:fail=777", "8");
  // Late enough that each worker has begun, on a busy machine too.
  EXPECT_EQ(folder_.Get("totals"), "1 0 0 QetImageResize 200\n");
  ExpectFailure(result, "vpc: 1 operation failed, 1 of 2 workers ended early, the first after ");
  EXPECT_THAT(run_.info.incompleteReason,
              HasSubstr("the log says: VPCResize() | QetImageResize failed, ret = 777"));
}

TEST_F(FailuresProgramTest, AWorkerWhoseSetUpFails) {
  if (kSanitized) GTEST_SKIP() << "the shell cannot load a meter that is built with a sanitizer";
  const ToolResult result =
      Record("logMode: 4\nAIC: {Level: 2, File: " TINY_NETWORK "}\n", "QetDNNModelCreateInput:2:fail=777");
  EXPECT_EQ(folder_.Get("totals"), "1 0 0 QetDNNModelCreateInput 2\n");
  ExpectFailure(result, "aic: 1 of 2 workers did nothing; the log says: AICoreInit() | Create input failed!");
}

TEST_F(FailuresProgramTest, ATearDownThatFails) {
  if (kSanitized) GTEST_SKIP() << "the shell cannot load a meter that is built with a sanitizer";
  const ToolResult result = Record("logMode: 4\nVPC: {Level: 1}\n", "QetImageDestroy:1:fail=777");
  EXPECT_EQ(folder_.Get("totals"), "1 0 0 QetImageDestroy 1\n");
  ExpectFailure(result, "the log has an error: VPCResize() | QetImageDestroy(dstImage) failed, ret = 777");
}

TEST_F(FailuresProgramTest, WithoutTheMeterTheLogTells) {
  const ToolResult result =
      Record("logMode: 4\nVPC: {Level: 2}\n", "QetImageResize:9:fail=777", "4", {"--no-meter"});
  EXPECT_EQ(folder_.Get("totals"), "1 0 0 QetImageResize 9\n");
  ExpectFailure(result, "the log has an error: VPCResize() | QetImageResize failed, ret = 777");
}

TEST_F(FailuresProgramTest, ALogThatOnlyItsFileHasIsReadFromThere) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder_.Path());
  folder_.Put("log/STBM.log", "2026-11-22T05:31:16.821176Z ERROR STBM QET 1 of an earlier run\n");
  const ToolResult result = Record("logMode: 2\nCPU: {Level: 1}\nAIC: {Level: 1, File: no_model.onnx}\n");
  std::filesystem::current_path(before);
  ExpectFailure(result,
                "aic: 1 operation failed, not one operation succeeded at level 1; the log says: QetDNN");
  EXPECT_THAT(folder_.Get("run/log.txt"),
              AllOf(HasSubstr("cannot read model no_model.onnx"), Not(HasSubstr("of an earlier run"))));
}

TEST_F(FailuresProgramTest, ABenchmarkThatRefusesItsConfigurationSaysWhy) {
  const ToolResult result = Record("logMode: 4\nCPU: {level: 1}\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(run_.info.exitStatus, 255);
  EXPECT_THAT(result.errors, HasSubstr("the log says: Parse() | Cannot find CPU: Level in Config File!"));
  EXPECT_THAT(run_.info.incompleteReason,
              AllOf(StartsWith("the benchmark ended with status 255"), HasSubstr("Cannot find CPU: Level")));
}

TEST_F(FailuresProgramTest, EachFailureIsALine) {
  (void)Record("logMode: 4\nVPE: {Level: 1}\nAIC: {Level: 1, File: no_model.onnx}\n");
  EXPECT_THAT(run_.notes, Contains(HasSubstr("the run is incomplete: nothing reads \"VPE\"")));
  EXPECT_THAT(run_.notes, Contains(StartsWith("the run is incomplete: aic: 1 operation failed")));
}

}  // namespace
