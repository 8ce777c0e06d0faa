// SPDX-License-Identifier: Apache-2.0

// --verify and --fill with the real benchmark. Each test that expects an error makes it, and asserts that it
// was made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "report.h"
#include "run_reader.h"
#include "run_tool.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Ge;
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
  ToolResult Record(const std::string& config, const std::string& fault, const char* seconds,
                    const std::vector<std::string>& more) {
    std::vector<std::string> arguments = {"record",  folder_.Put("c.yaml", "logMode: 4\n" + config),
                                          "-o",      folder_ / "run",
                                          "--force", "--stop-after",
                                          seconds};
    arguments.insert(arguments.end(), more.begin(), more.end());
    if (!fault.empty()) {
      // The shim stands between the meter and the platform.
      const std::string path = folder_.Put(
          "benchmark", "#!/bin/sh\nexport FAULT=" + fault + " FAULT_TOTALS=" + (folder_ / "totals") +
                           "\nLD_PRELOAD=\"$LD_PRELOAD:" FAULT_SHIM "\" exec " STRESS_BENCHMARK " \"$@\"\n");
      (void)chmod(path.c_str(), 0755);
      arguments.insert(arguments.end(), {"--benchmark", path});
    }
    ToolResult result = RunTool(arguments);
    run_ = scope::ReadRun(folder_ / "run");
    return result;
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

const std::string kThree = "CPU: {Level: 1}\nVPC: {Level: 1}\nAIC: {Level: 1, File: " TINY_NETWORK "}\n";

TEST_F(VerifyProgramTest, RightResultsAreNoErrorsAndTheShareIsTold) {
  const ToolResult result = Record(kThree, "", "2", {"--verify", "--fill", "random"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(run_.errors, IsEmpty());
  for (const char* engine : {"cpu", "vpc", "aic"}) {
    const scope::EngineCheck& check = CheckOf(engine);
    // In two seconds of a busy machine there may be too few operations.
    EXPECT_THAT(check.state, AnyOf("judged", "learning", "alone")) << engine;
    EXPECT_EQ(check.errors, 0U) << engine;
    EXPECT_LE(check.checked, check.operations) << engine;
    EXPECT_LE(check.bytes, check.allBytes) << engine;
    EXPECT_THAT(result.output, HasSubstr(std::string("checked ") + engine + ": "));
  }
  EXPECT_EQ(CheckOf("cpu").state, "judged");
  EXPECT_GT(CheckOf("cpu").whole, 0U);
  EXPECT_TRUE(run_.info.conditions.verify);
  EXPECT_EQ(run_.info.conditions.fill, "random");
  EXPECT_THAT(result.errors, Not(HasSubstr("fill:")));
}

TEST_F(VerifyProgramTest, AWrongBitOfAStreamAndOfANetworkIsFoundWithItsPlace) {
  const ToolResult result =
      Record("VENC: {Level: 2}\nAIC: {Level: 1, File: " TINY_NETWORK "}\n",
             "QetVenc::GetStream:4:flip=777,QetDNNModelProcess:20-:flip=9", "3", {"--verify"});
  EXPECT_EQ(result.status, 3) << result.errors;
  EXPECT_TRUE(run_.info.complete) << "the benchmark did what it had to";
  EXPECT_THAT(result.output, HasSubstr("ERRORS: "));
  std::map<std::string, Change> changed;
  for (const Change& change : Changes()) {
    changed[change.operation == "QetVenc::GetStream" ? "venc" : "aic"] = change;
  }
  ASSERT_EQ(changed.size(), 2U) << "every fault was made";
  std::set<std::string> found;
  for (const scope::RunError& error : run_.errors) {
    ExpectIs(error, changed.at(error.source));
    found.insert(error.source);
  }
  EXPECT_EQ(found, (std::set<std::string>{"aic", "venc"}));
  const nlohmann::json page = nlohmann::json::parse(RunTool({"report", folder_ / "run", "--json"}).output);
  EXPECT_EQ(page["runs"][0]["error_list"].size(), run_.errors.size());
  EXPECT_EQ(page["runs"][0]["error_list"][0]["bits"], 1);
  EXPECT_EQ(page["runs"][0]["errors"].size(), 2U);
}

// The first copy of a source is compared whole. A result from which a thread learns is one of eight.
TEST_F(VerifyProgramTest, AWrongBitOfACopyAndOfAResizeIsFound) {
  const ToolResult result = Record("CPU: {Level: 1}\nVPC: {Level: 1}\n",
                                   "memcpy_s:1:flip=4123457,QetImageResize:3:flip=70001", "2", {"--verify"});
  ASSERT_THAT(Changes(), SizeIs(2));
  EXPECT_EQ(result.status, 3) << result.errors;
  std::map<std::string, scope::RunError> errors;
  for (const scope::RunError& error : run_.errors) errors[error.source] = error;
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(errors["vpc"].what, "result");
  EXPECT_EQ(errors["cpu"].what, "copy");
  ExpectIs(errors["cpu"], {"memcpy_s", 4123457});
}

TEST_F(VerifyProgramTest, WhatIsNotJudgedIsNamed) {
  const ToolResult result =
      Record("VENC: {Level: 1}\nVPC: {Level: 1}\n", "QetImageResize:1/1:flip=0", "2", {"--verify"});
  ASSERT_THAT(Changes(), SizeIs(Ge(8U)));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(CheckOf("venc").state, "alone");
  EXPECT_EQ(CheckOf("vpc").state, "not deterministic");
  EXPECT_THAT(result.output, AllOf(HasSubstr("checked venc: not judged: one channel alone"),
                                   HasSubstr("checked vpc: not judged: the same source gives different")));
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

}  // namespace
