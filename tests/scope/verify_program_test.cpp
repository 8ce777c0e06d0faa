// SPDX-License-Identifier: Apache-2.0

// --verify and --fill with the real benchmark. Each test that expects an error makes it, and asserts that it
// was made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "run_reader.h"
#include "run_tool.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

/// A bit that the fault shim has changed.
struct Change {
  std::string operation;
  std::uint64_t bit = 0;
};

class VerifyProgramTest : public ::testing::Test {
 protected:
  /// From an operation to how many calls a run needs.
  using Calls = std::map<std::string, int>;

  // Ends the run as soon as it has all calls: a fast machine needs a moment, a busy one some seconds.
  ToolResult Record(const std::string& config, const std::string& fault, const Calls& needed,
                    const std::vector<std::string>& more) {
    // The shim stands between the meter and the platform.
    const std::string path = folder_.Put(
        "benchmark", "#!/bin/sh\nexport " + (fault.empty() ? "" : "FAULT=" + fault + " ") +
                         "FAULT_TOTALS=" + (folder_ / "totals") + " FAULT_CALLS=" + (folder_ / "calls") +
                         "\nLD_PRELOAD=\"$LD_PRELOAD:" FAULT_SHIM "\" exec " STRESS_BENCHMARK " \"$@\"\n");
    (void)chmod(path.c_str(), 0755);
    std::vector<std::string> arguments = {"record",      folder_.Put("c.yaml", "logMode: 4\n" + config),
                                          "-o",          folder_ / "run",
                                          "--benchmark", path,
                                          "--run-time",  "120"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    scope::ChildProcess tool(ProgramOptions(STRESS_SCOPE, arguments));
    while (!tool.HasEnded() && !HasCalls(needed)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    tool.Signal(SIGINT);
    ToolResult result = WaitFor(tool);
    run_ = scope::ReadRun(folder_ / "run");
    return result;
  }

  bool HasCalls(Calls needed) const {
    std::istringstream lines(folder_.Get("calls"));
    std::string thread;
    std::string operation;
    for (std::string status; lines >> thread >> operation >> status;) --needed[operation];
    return std::all_of(needed.begin(), needed.end(), [](const auto& left) { return left.second <= 0; });
  }

  std::vector<Change> Changes() const {
    std::vector<Change> changes;
    std::istringstream lines(folder_.Get("totals"));
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string skipped;
      Change change;
      words >> skipped >> skipped >> skipped >> change.operation >> skipped >> change.bit;
      changes.push_back(change);
    }
    return changes;
  }

  const scope::EngineCheck& CheckOf(const std::string& engine) const {
    static const scope::EngineCheck kNone;
    for (const scope::EngineCheck& check : run_.info.verification) {
      if (check.engine == engine) return check;
    }
    ADD_FAILURE() << engine << " was not checked";
    return kNone;
  }

  // The error is the changed bit: its word, its place in the word, and nothing else.
  static void ExpectIs(const scope::RunError& error, const Change& change) {
    EXPECT_EQ(error.offset, change.bit / 64 * 8);
    EXPECT_EQ(error.bits, 1U);
    const std::uint64_t expected = std::stoull(error.expected, nullptr, 16);
    const std::uint64_t found = std::stoull(error.found, nullptr, 16);
    EXPECT_EQ(expected ^ found, std::uint64_t{1} << change.bit % 64);
  }

  TemporaryFolder folder_;
  scope::Run run_;
};

TEST_F(VerifyProgramTest, RightResultsAreNoErrorsAndTheShareIsTold) {
  const ToolResult result =
      Record("CPU: {Level: 1}\nVPC: {Level: 1}\nAIC: {Level: 1, File: " TINY_NETWORK "}\n", "",
             {{"memcpy_s", 5}, {"QetImageResize", 12}, {"QetDNNModelProcess", 12}},
             {"--verify", "--fill", "random"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(run_.errors, IsEmpty());
  for (const char* engine : {"cpu", "vpc", "aic"}) {
    const scope::EngineCheck& check = CheckOf(engine);
    EXPECT_EQ(check.state, "judged") << engine;
    EXPECT_GT(check.whole, 0U) << engine;
    EXPECT_EQ(check.errors, 0U) << engine;
    EXPECT_LE(check.checked, check.operations) << engine;
    EXPECT_LE(check.bytes, check.allBytes) << engine;
    EXPECT_THAT(result.output, HasSubstr(std::string("checked ") + engine + ": "));
    EXPECT_EQ(check.threads, 1U) << engine;
  }
  for (const char* engine : {"vpc", "aic"}) {
    EXPECT_THAT(result.output, ContainsRegex(std::string("checked ") + engine + ": [^\n]* one thread only"));
  }
  EXPECT_TRUE(run_.info.conditions.verify);
  EXPECT_EQ(run_.info.conditions.fill, "random");
  EXPECT_THAT(result.errors, Not(HasSubstr("fill:")));
  std::vector<std::string> filled;
  for (const scope::EngineFill& fill : run_.info.filling) {
    filled.push_back(fill.engine);
    EXPECT_GT(fill.buffers, 0U) << fill.engine;
    EXPECT_GT(fill.bytes, 0U) << fill.engine;
    EXPECT_THAT(result.output, HasSubstr("filled " + fill.engine + ": "));
  }
  EXPECT_THAT(filled, ElementsAre("cpu", "vpc", "vpc_copy")) << "inputs of networks are not filled";
}

// The first copy of a source is compared whole. A result from which a thread learns is one of eight, and its
// place is not known. The network's outputs are small, so that most of them are checked: one right one after
// those from which the thread learns, and one of the wrong ones.
TEST_F(VerifyProgramTest, AWrongBitOfEachEngineIsFound) {
  const ToolResult result = Record(
      "CPU: {Level: 1}\nVPC: {Level: 1}\nVENC: {Level: 2}\nAIC: {Level: 1, File: " TINY_NETWORK "}\n",
      "memcpy_s:1:flip=4123457,QetImageResize:3:flip=70001,QetVenc::GetStream:4:flip=777,"
      "QetDNNModelProcess:100-:flip=9",
      {{"memcpy_s", 2}, {"QetImageResize", 12}, {"QetVenc::GetStream", 60}, {"QetDNNModelProcess", 300}},
      {"--verify"});
  EXPECT_EQ(result.status, 3) << result.errors;
  EXPECT_TRUE(run_.info.complete) << "the benchmark did what it had to";
  EXPECT_THAT(result.output, HasSubstr("ERRORS: "));
  std::map<std::string, Change> changed;
  for (const Change& change : Changes()) changed[change.operation] = change;
  ASSERT_EQ(changed.size(), 4U) << "every fault was made";
  std::map<std::string, scope::RunError> errors;
  for (const scope::RunError& error : run_.errors) errors[error.source] = error;
  ASSERT_EQ(errors.size(), 4U);
  EXPECT_EQ(errors["cpu"].what, "copy");
  EXPECT_EQ(errors["vpc"].what, "result");
  EXPECT_EQ(errors["venc"].what, "threads");
  EXPECT_EQ(errors["aic"].what, "result");
  ExpectIs(errors["cpu"], changed["memcpy_s"]);
  ExpectIs(errors["venc"], changed["QetVenc::GetStream"]);
  ExpectIs(errors["aic"], changed["QetDNNModelProcess"]);
  const nlohmann::json page = nlohmann::json::parse(RunTool({"report", folder_ / "run", "--json"}).output);
  EXPECT_EQ(page["runs"][0]["error_list"].size(), run_.errors.size());
  EXPECT_EQ(page["runs"][0]["error_list"][0]["source"], run_.errors[0].source);
  EXPECT_EQ(page["runs"][0]["errors"].size(), 4U);
}

// A bit of every result is wrong. Outputs of a network may differ so by nature; pixels do not.
TEST_F(VerifyProgramTest, WhatIsNotJudgedIsNamed) {
  const ToolResult result =
      Record("VENC: {Level: 1}\nVPC: {Level: 1}\nAIC: {Level: 1, File: " TINY_NETWORK "}\n",
             "QetImageResize:1/1:flip=0,QetDNNModelProcess:1/1:flip=0",
             {{"QetImageResize", 40}, {"QetVenc::GetStream", 17}, {"QetDNNModelProcess", 40}}, {"--verify"});
  std::map<std::string, int> changes;
  for (const Change& change : Changes()) ++changes[change.operation];
  ASSERT_GE(changes["QetImageResize"], 40);
  ASSERT_GE(changes["QetDNNModelProcess"], 40);
  EXPECT_EQ(result.status, 3) << result.errors;
  EXPECT_EQ(CheckOf("venc").state, "alone");
  ASSERT_THAT(run_.info.streams, SizeIs(1)) << "another run tells whether its streams are right";
  EXPECT_THAT(run_.info.streams[0].groups, Not(IsEmpty()));
  EXPECT_EQ(CheckOf("aic").state, "not deterministic");
  EXPECT_EQ(CheckOf("vpc").state, "judged");
  EXPECT_GE(CheckOf("vpc").errors, 7U);
  EXPECT_EQ(run_.info.errors, (scope::SourceErrors{{"vpc", CheckOf("vpc").errors}}));
  EXPECT_THAT(result.output, AllOf(HasSubstr("checked venc: not judged: one channel alone"),
                                   HasSubstr("checked aic: not judged: the same source gives different")));
}

TEST_F(VerifyProgramTest, NeedsTheMeter) {
  for (const char* option : {"--verify", "--fill=ones"}) {
    const ToolResult result = RunTool({"record", "c.yaml", "--no-meter", option});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, HasSubstr("--no-meter"));
  }
  EXPECT_THAT(RunTool({"record", "c.yaml", "--fill", "noise"}).errors,
              HasSubstr("expected one of zeros, ones, random, checker, walking, worst, found \"noise\""));
}

TEST_F(VerifyProgramTest, RefusesToGuardMoreThanThereIs) {
  const std::string config = folder_.Put("c.yaml", "CPU: {Level: 1}\n");
  const ToolResult result = RunTool({"record", config, "-o", folder_ / "run", "--guard", "900000G"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors,
              AllOf(HasSubstr("--guard 900000G: only "), HasSubstr("MiB of memory are available")));
  EXPECT_EQ(RunTool({"record", config, "--guard-rate", "5"}).status, 2) << "a rate of nothing";
}

}  // namespace
