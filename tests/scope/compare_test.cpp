// SPDX-License-Identifier: Apache-2.0
#include "compare.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "compare_conditions.h"
#include "error_of.h"
#include "errors.h"
#include "number_text.h"
#include "page_json.h"
#include "ratio.h"
#include "run_summary.h"
#include "run_tool.h"
#include "sanitizers.h"
#include "synthetic_run.h"
#include "temporary_folder.h"
#include "text_format.h"
#include "text_table.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace scope;

class CompareTest : public ::testing::Test {
 protected:
  // A folder of repeats with the given rates of copies. The latencies follow from the rates.
  std::string Repeats(const std::string& name, const std::vector<double>& rates) const {
    int number = 0;
    for (const double rate : rates) {
      SyntheticEngine cpu;
      cpu.operationsPerS = rate;
      cpu.p50Ns = static_cast<std::uint64_t>(1e9 / rate);
      cpu.p99Ns = 2 * cpu.p50Ns;
      cpu.fps = rate;
      WriteRun(folder_ / (name + "/" + std::to_string(++number)), {cpu});
    }
    return folder_ / name;
  }

  static const ComparedFigure& Find(const Comparison& comparison, const std::string& engine, Figure figure) {
    for (const ComparedFigure& compared : comparison.figures) {
      if (compared.key.engine == engine && compared.key.figure == figure) return compared;
    }
    throw std::runtime_error("no figure of " + engine);
  }

  std::string One(const std::string& name, const std::function<void(RunInfo&)>& change = {},
                  SyntheticEngine engine = {}) const {
    RunInfo info = SyntheticInfo();
    if (change) change(info);
    WriteRun(folder_ / name, {std::move(engine)}, info);
    return folder_ / name;
  }

  static std::string ErrorOf(const std::string& argument) {
    return ::ErrorOf([&] { (void)ReadSide(argument); });
  }

  TemporaryFolder folder_;
};

TEST_F(CompareTest, RepeatsThatLieApartAreADifferenceInTheRightDirection) {
  const Side a = ReadSide(Repeats("a", {500, 501, 502, 503, 504}));
  const Side b = ReadSide(Repeats("b", {450, 451, 452, 453, 454}));
  const Comparison worse = Compare(a, b, {});
  EXPECT_EQ(worse.answer, Answer::kWorse);
  const ComparedFigure& operations = Find(worse, "cpu", Figure::kOperations);
  EXPECT_EQ(operations.verdict, Verdict::kWorse);
  EXPECT_THAT(operations.aValues, ElementsAre(500, 501, 502, 503, 504));
  EXPECT_NEAR(*operations.differencePercent, (452.0 / 502 - 1) * 100, 0.001);
  EXPECT_DOUBLE_EQ(*operations.differencePercent, operations.interval->value);
  EXPECT_LT(operations.interval->high, -9);
  EXPECT_GT(operations.interval->low, -11);
  // One engine has one rate: its bytes, its latencies and the total say the same again.
  EXPECT_EQ(worse.judged, 1U);
  for (const ComparedFigure& figure : worse.figures) {
    if (figure.key.figure != Figure::kOperations) EXPECT_EQ(figure.verdict, Verdict::kNotJudged);
  }

  CompareOptions options;
  options.figures = {Figure::kP50};
  const Comparison slower = Compare(a, b, options);
  ASSERT_EQ(slower.figures.size(), 1U);
  EXPECT_GT(*slower.figures[0].differencePercent, 10);  // a higher latency is worse
  EXPECT_EQ(slower.figures[0].verdict, Verdict::kWorse);
  EXPECT_EQ(Compare(b, a, options).answer, Answer::kBetter);
  EXPECT_EQ(Compare(b, a, {}).answer, Answer::kBetter);
}

TEST_F(CompareTest, RepeatsThatScatterLittleShowNoDifference) {
  const Side a = ReadSide(Repeats("a", {500, 501, 499, 502, 498}));
  const Side b = ReadSide(Repeats("b", {501, 500, 498, 503, 499}));
  const Comparison comparison = Compare(a, b, {});
  EXPECT_EQ(comparison.answer, Answer::kNoDifference);
  EXPECT_EQ(Find(comparison, "cpu", Figure::kOperations).verdict, Verdict::kNoDifference);
  EXPECT_FALSE(comparison.repeats.has_value());
}

TEST_F(CompareTest, RepeatsThatScatterMuchCannotTellAndSayHowManyCould) {
  const Side a = ReadSide(Repeats("a", {500, 520, 480, 510, 490}));
  const Side b = ReadSide(Repeats("b", {498, 522, 479, 503, 501}));
  const Comparison comparison = Compare(a, b, {});
  EXPECT_EQ(comparison.answer, Answer::kCannotTell);
  const ComparedFigure& operations = Find(comparison, "cpu", Figure::kOperations);
  EXPECT_EQ(operations.verdict, Verdict::kCannotTell);
  EXPECT_LT(operations.interval->low, -2);
  EXPECT_GT(operations.interval->high, 2);
  EXPECT_EQ(operations.repeats,
            RepeatsToTell(EstimateRatio(operations.aValues, operations.bValues, 0.05), 0.02, {}));
  EXPECT_EQ(comparison.repeats, operations.repeats);
  EXPECT_GT(*comparison.repeats, 20);

  const std::vector<std::string> arguments = {"compare", folder_ / "a", folder_ / "b"};
  const ToolResult unclear = RunTool(arguments);
  EXPECT_EQ(unclear.status, 4) << unclear.errors;
  EXPECT_THAT(
      unclear.output,
      HasSubstr("Cannot tell: with 5 runs of A and 5 of B a difference of 2 % could not be seen. About " +
                std::to_string(*comparison.repeats) + " of each would show it.\n"));
  EXPECT_EQ(RunTool({"compare", folder_ / "a", folder_ / "b", "--allow-unclear"}).status, 0);
  EXPECT_EQ(RunTool({"compare", folder_ / "a", folder_ / "b", "--tolerance", "20"}).status, 0);
}

TEST_F(CompareTest, WithoutAToleranceNoRepeatsAreEnough) {
  const ToolResult result =
      RunTool({"compare", Repeats("a", {500, 501}), Repeats("b", {499, 502}), "--tolerance", "0"});
  EXPECT_EQ(result.status, 4);
  EXPECT_THAT(result.output, HasSubstr("Choose a tolerance above 0."));
}

TEST_F(CompareTest, TheToleranceIsANumber) {
  const Side a = ReadSide(Repeats("a", {500, 501}));
  for (const double tolerance : {std::nan(""), -1.0, HUGE_VAL}) {
    CompareOptions options;
    options.tolerancePercent = tolerance;
    EXPECT_THROW((void)Compare(a, a, options), UserError) << tolerance;
  }
}

TEST_F(CompareTest, WhatIsJudgedIsOneFamily) {
  SyntheticEngine venc;
  venc.engine = "venc";
  venc.stress = "kivuVencStress";
  for (const char* run : {"a/1", "a/2", "b/1", "b/2"}) WriteRun(folder_ / run, {SyntheticEngine(), venc});
  const Side a = ReadSide(folder_ / "a");
  const Side b = ReadSide(folder_ / "b");
  const Comparison comparison = Compare(a, b, {});
  EXPECT_EQ(comparison.judged, 3U) << "two rates and the total";
  EXPECT_NEAR(comparison.figureConfidence, 1 - 0.05 / 3, 1e-12);
  EXPECT_EQ(Find(comparison, kAllEngines, Figure::kBandwidth).verdict, Verdict::kNoDifference);
  CompareOptions options;
  options.looks = 5;
  EXPECT_NEAR(Compare(a, b, options).figureConfidence, 1 - 0.05 / 15, 1e-12);
  options.figures = {Figure::kP99, Figure::kPrinted};
  EXPECT_EQ(Compare(a, b, options).judged, 4U);
}

TEST_F(CompareTest, BetterIsSaidOnlyWhereNothingElseMayBeWorse) {
  SyntheticEngine venc;
  venc.engine = "venc";
  venc.stress = "kivuVencStress";
  const auto side = [&](const std::string& name, const std::vector<double>& cpu,
                        const std::vector<double>& encoder) {
    for (std::size_t i = 0; i < cpu.size(); ++i) {
      SyntheticEngine copies;
      copies.operationsPerS = cpu[i];
      venc.operationsPerS = encoder[i];
      WriteRun(folder_ / name + "/" + std::to_string(i), {copies, venc});
    }
    return ReadSide(folder_ / name);
  };
  const Side a = side("a", {500, 501, 499}, {100, 101, 99});
  EXPECT_EQ(Compare(a, side("b", {600, 601, 599}, {100, 101, 99}), {}).answer, Answer::kCannotTell);
  CompareOptions options;
  options.tolerancePercent = 8;
  const Comparison better = Compare(a, ReadSide(folder_ / "b"), options);
  EXPECT_EQ(better.answer, Answer::kBetter);
  EXPECT_EQ(Find(better, "venc", Figure::kOperations).verdict, Verdict::kNoDifference);
  // Not worse, but better or equal.
  const Comparison notWorse = Compare(a, side("c", {500, 501, 499}, {107, 103, 111}), options);
  EXPECT_EQ(Find(notWorse, "venc", Figure::kOperations).verdict, Verdict::kCannotTell);
  EXPECT_EQ(notWorse.answer, Answer::kNotWorse);
  EXPECT_EQ(RunTool({"compare", folder_ / "a", folder_ / "c", "--tolerance", "8"}).status, 0);
}

TEST_F(CompareTest, TwoRepeatsASideShowLargeDifferences) {
  const Comparison comparison =
      Compare(ReadSide(Repeats("a", {500, 501})), ReadSide(Repeats("b", {300, 301})), {});
  EXPECT_EQ(comparison.answer, Answer::kWorse);
}

TEST_F(CompareTest, ADifferenceBelowTheToleranceIsNone) {
  const Side a = ReadSide(Repeats("a", {1000, 1001, 1002, 1003, 1004}));
  const Side b = ReadSide(Repeats("b", {980, 981, 982, 983, 984}));  // 2 % less
  CompareOptions options;
  options.tolerancePercent = 1;
  EXPECT_EQ(Compare(a, b, options).answer, Answer::kWorse);
  options.tolerancePercent = 3;
  const Comparison comparison = Compare(a, b, options);
  EXPECT_EQ(comparison.answer, Answer::kNoDifference);
  EXPECT_LT(Find(comparison, "cpu", Figure::kOperations).interval->high, 0) << "it is shown, but small";
}

TEST_F(CompareTest, OneRunASideShowsDifferencesAndGivesNoVerdict) {
  SyntheticEngine slow;
  slow.operationsPerS = 400;
  const Comparison comparison = Compare(ReadSide(One("a")), ReadSide(One("b", {}, slow)), {});
  const ComparedFigure& operations = Find(comparison, "cpu", Figure::kOperations);
  EXPECT_EQ(operations.verdict, Verdict::kCannotTell);
  EXPECT_NEAR(*operations.differencePercent, -20, 1e-9);
  EXPECT_FALSE(operations.interval.has_value());
  EXPECT_EQ(comparison.answer, Answer::kCannotTell);
  const ToolResult result = RunTool({"compare", folder_ / "a", folder_ / "b"});
  EXPECT_EQ(result.status, 4) << result.errors;
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("-20.00 %"), HasSubstr("Cannot tell: one run a side does not show "
                                                     "how much runs differ.")));
  EXPECT_EQ(Compare(ReadSide(Repeats("c", {500, 501})), ReadSide(folder_ / "b"), {}).answer,
            Answer::kCannotTell);
}

TEST_F(CompareTest, PrintedRatesOfShortOperationsDecideNothing) {
  SyntheticEngine fast;
  fast.p50Ns = 999'000;
  fast.fps = 30'000;
  SyntheticEngine slower = fast;
  slower.fps = 20'000;
  const auto twice = [&](const std::string& name, const SyntheticEngine& engine) {
    (void)One(name + "/1", {}, engine);
    (void)One(name + "/2", {}, engine);
    return ReadSide(folder_ / name);
  };
  CompareOptions options;
  options.figures = {Figure::kPrinted};
  const Comparison comparison = Compare(twice("a", fast), twice("b", slower), options);
  const ComparedFigure& printed = Find(comparison, "cpu", Figure::kPrinted);
  EXPECT_EQ(printed.verdict, Verdict::kNotJudged);
  EXPECT_THAT(printed.note, HasSubstr("less than 1 ms"));
  EXPECT_EQ(comparison.answer, Answer::kCannotTell) << "nothing is left to judge";
  slower.p50Ns = fast.p50Ns = 1'000'000;
  EXPECT_EQ(Compare(twice("c", fast), twice("d", slower), options).answer, Answer::kWorse);
  EXPECT_EQ(Compare(ReadSide(folder_ / "c"), ReadSide(folder_ / "d"), {}).answer, Answer::kNoDifference)
      << "the exact rates are judged";
}

TEST_F(CompareTest, RatesWithoutAMeterAreCompared) {
  const auto lines = [](RunInfo& info) {
    info.kind = "rates";
    info.conditions = {};
    info.config = {};
  };
  SyntheticEngine slow;
  slow.fps = 400;
  for (const char* run : {"a/1", "a/2"}) (void)One(run, lines);
  for (const char* run : {"b/1", "b/2"}) (void)One(run, lines, slow);
  const Comparison comparison = Compare(ReadSide(folder_ / "a"), ReadSide(folder_ / "b"), {});
  ASSERT_EQ(comparison.figures.size(), 1U);
  EXPECT_EQ(comparison.figures[0].key.figure, Figure::kPrinted);
  EXPECT_EQ(comparison.figures[0].verdict, Verdict::kWorse);
  EXPECT_EQ(comparison.answer, Answer::kWorse);
  EXPECT_EQ(RunTool({"compare", folder_ / "a", folder_ / "a"}).status, 0);
}

TEST_F(CompareTest, AnEngineThatIsGoneIsWorse) {
  SyntheticEngine venc;
  venc.engine = "venc";
  venc.stress = "kivuVencStress";
  WriteRun(folder_ / "a", {SyntheticEngine(), venc});
  WriteRun(folder_ / "b", {SyntheticEngine()});
  const Side a = ReadSide(folder_ / "a");
  const Side b = ReadSide(folder_ / "b");
  const Comparison gone = Compare(a, b, {});
  EXPECT_EQ(gone.answer, Answer::kWorse);
  EXPECT_EQ(Find(gone, "venc", Figure::kOperations).verdict, Verdict::kWorse);
  EXPECT_EQ(Find(gone, "venc", Figure::kOperations).note, "B does not have it");
  CompareOptions options;
  options.figures = {Figure::kOperations};  // without the total, which comes with the engine
  EXPECT_NE(Compare(b, a, options).answer, Answer::kWorse);
}

TEST_F(CompareTest, AnEngineThatIsGoneFromSomeRepeatsIsWorse) {
  SyntheticEngine venc;
  venc.engine = "venc";
  venc.stress = "kivuVencStress";
  for (const char* run : {"1", "2", "3", "4"}) {
    WriteRun(folder_ / "a" + "/" + run, {SyntheticEngine(), venc});
    std::vector<SyntheticEngine> engines = {SyntheticEngine(), venc};
    if (*run > '2') engines.pop_back();
    WriteRun(folder_ / "b" + "/" + run, engines);
  }
  const Side a = ReadSide(folder_ / "a");
  const Side b = ReadSide(folder_ / "b");
  const Comparison gone = Compare(a, b, {});
  EXPECT_EQ(gone.answer, Answer::kWorse);
  EXPECT_EQ(Find(gone, "venc", Figure::kOperations).note, "2 of 4 runs of B do not have it");
  EXPECT_EQ(Find(gone, "cpu", Figure::kOperations).verdict, Verdict::kNoDifference);
  CompareOptions options;
  options.figures = {Figure::kOperations};  // without the total, which comes with the engine
  EXPECT_NE(Compare(b, a, options).answer, Answer::kWorse);
}

TEST_F(CompareTest, AnEngineThatStopsHalfwayInBIsWorse) {
  SyntheticEngine venc;
  venc.engine = "venc";
  venc.stress = "kivuVencStress";
  SyntheticEngine stopping = venc;
  stopping.stopsAt = 20;
  WriteRun(folder_ / "a", {SyntheticEngine(), venc});
  WriteRun(folder_ / "b", {SyntheticEngine(), stopping});
  const Side a = ReadSide(folder_ / "a");
  const Side b = ReadSide(folder_ / "b");
  const Comparison stops = Compare(a, b, {});
  EXPECT_EQ(stops.answer, Answer::kWorse);
  ASSERT_EQ(stops.findings.size(), 1U);
  EXPECT_EQ(stops.findings[0].engine, "venc");
  EXPECT_EQ(stops.findings[0].text,
            "venc: stops early in 1 of 1 run of B (no operation after 20 s of 30 s), in none of A");
  const ToolResult result = RunTool({"compare", folder_ / "a", folder_ / "b"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("B is worse than A: venc: stops early in 1 of 1 run of B"));
  // The other way round B is not worse.
  const Comparison former = Compare(b, a, {});
  EXPECT_EQ(former.answer, Answer::kCannotTell);
  ASSERT_EQ(former.findings.size(), 1U);
  EXPECT_FALSE(former.findings[0].worse);
  EXPECT_EQ(Compare(b, b, {}).answer, Answer::kCannotTell);
}

TEST_F(CompareTest, AThreadThatStopsLateInBIsWorse) {
  SyntheticEngine cpu;
  cpu.threads = 3;
  SyntheticEngine stopping = cpu;
  stopping.stopsAt = 24;
  stopping.stoppingThreads = 2;
  const Comparison stops = Compare(ReadSide(One("a", {}, cpu)), ReadSide(One("b", {}, stopping)), {});
  EXPECT_EQ(stops.answer, Answer::kWorse);
  EXPECT_THAT(stops.findings.at(0).text, HasSubstr("2 of 3 threads stopped, the first after 24 s of 30 s"));
}

TEST_F(CompareTest, ARateOfZeroHasNoRatio) {
  SyntheticEngine none;
  none.operationsPerS = 0;
  const Side a = ReadSide(One("a", {}, none));
  const Side b = ReadSide(One("b"));
  const Comparison comparison = Compare(a, b, {});
  const ComparedFigure& operations = Find(comparison, "cpu", Figure::kOperations);
  EXPECT_EQ(operations.verdict, Verdict::kCannotTell);
  EXPECT_EQ(operations.note, "A has runs with the value 0");
  EXPECT_FALSE(operations.differencePercent.has_value());
  const Comparison fails = Compare(b, a, {});
  EXPECT_EQ(fails.answer, Answer::kWorse);
  EXPECT_EQ(Find(fails, "cpu", Figure::kOperations).note, "B has runs with the value 0");
  EXPECT_EQ(Find(Compare(a, a, {}), "cpu", Figure::kOperations).verdict, Verdict::kNotJudged);
}

TEST_F(CompareTest, NamesTheFigureThatHasNoIntervalAndSaysWhy) {
  SyntheticEngine none;
  none.operationsPerS = 0;
  (void)One("a/1", {}, none);
  (void)One("a/2");
  for (const char* run : {"b/1", "b/2"}) (void)One(run);
  const ToolResult zero = RunTool({"compare", folder_ / "a", folder_ / "b"});
  EXPECT_EQ(zero.status, 4) << zero.errors;
  EXPECT_THAT(zero.output, EndsWith("\nCannot tell: cpu ops: A has runs with the value 0.\n"));

  SyntheticEngine venc;
  venc.engine = "venc";
  venc.stress = "kivuVencStress";
  WriteRun(folder_ / "c/1", {SyntheticEngine()});
  WriteRun(folder_ / "c/2", {SyntheticEngine(), venc});
  for (const char* run : {"d/1", "d/2"}) WriteRun(folder_ / run, {SyntheticEngine(), venc});
  const ToolResult one = RunTool({"compare", folder_ / "c", folder_ / "d"});
  EXPECT_EQ(one.status, 4) << one.errors;
  EXPECT_THAT(one.output, EndsWith("\nCannot tell: venc ops: fewer than two runs of A have it.\n"));
}

TEST_F(CompareTest, SaysThatNothingIsJudged) {
  SyntheticEngine fast;
  fast.p50Ns = 999'000;
  for (const char* run : {"a/1", "a/2", "b/1", "b/2"}) (void)One(run, {}, fast);
  const ToolResult result = RunTool({"compare", folder_ / "a", folder_ / "b", "--figure", "printed"});
  EXPECT_EQ(result.status, 4) << result.errors;
  EXPECT_THAT(result.output, EndsWith("\nCannot tell: none of the figures can be judged.\n"));
}

TEST_F(CompareTest, SaysThatMoreRunsThanPracticalWouldShowIt) {
  (void)Repeats("a", {5, 500});
  (void)Repeats("b", {500, 5});
  const ToolResult result = RunTool({"compare", folder_ / "a", folder_ / "b"});
  EXPECT_EQ(result.status, 4) << result.errors;
  EXPECT_THAT(result.output, EndsWith("could not be seen. More than 9999 of each would show it.\n"));
}

TEST_F(CompareTest, NotesDrift) {
  SyntheticEngine rising;
  rising.riseAS = 20;
  const Comparison comparison = Compare(ReadSide(One("a", {}, rising)), ReadSide(One("b")), {});
  EXPECT_THAT(comparison.notes,
              ElementsAre(HasSubstr("a: cpu: the rate is still drifting at the end, by +")));
}

TEST_F(CompareTest, EachConditionThatDiffersIsNamedWithBothValues) {
  const Side a = ReadSide(One("a"));
  const auto different = [&](const std::function<void(RunInfo&)>& change) {
    const auto differences = DifferentConditions(a.runs, ReadSide(One("b", change)).runs);
    return differences.size() == 1 ? differences[0].name + ": " + differences[0].a + " | " + differences[0].b
                                   : std::to_string(differences.size()) + " differences";
  };
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.loadAverage = {9, 9, 9}; }), "0 differences");
  EXPECT_EQ(different([](RunInfo& info) { info.complete = false; }), "complete: yes | no");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.cpuModel = "another"; }),
            "cpu_model: a CPU | another");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.cpuCount = 4; }), "cpu_count: 2 | 4");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.caches.clear(); }),
            "caches: 2 x L1 Data 48 KiB | unknown");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.memTotalBytes *= 2; }),
            "mem_total_bytes: 8.0 GiB | 16.0 GiB");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.memTotalBytes -= 4096; }), "0 differences");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.kernel = "6.6"; }), "kernel: 6.1 | 6.6");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.hostnameHash = "4"; }), "hostname_hash: 0123 | 4");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.governor = "powersave"; }),
            "governor: performance | powersave");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.cpuMhz.most = 2000; }),
            "cpu_mhz: 800 to 3000 MHz | 800 to 2000 MHz");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.buildType = "Debug"; }),
            "build_type: Release | Debug");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.libraryVersions = {{"libormis", "2"}}; }),
            "library_versions: libormis 1.0.0 | libormis 2");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.platformSettings = {{"memory", "cached"}}; }),
            "platform_settings: memory device, flush clflushopt | memory cached");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.encoderEngines = {{"0", "h264_nvenc"}}; }),
            "encoder_engines: libx264 | h264_nvenc");
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.encoderEngines = {{"0", "libx264"}}; }),
            "0 differences")
      << "another level has other channels";
  EXPECT_EQ(different([](RunInfo& info) { info.conditions.encoderEngines.clear(); }), "0 differences")
      << "without a channel there is no engine";
  EXPECT_EQ(different([](RunInfo& info) { info.config.levels = {{"cpu", 2}, {"vpc", 0}}; }),
            "levels: cpu=1 | cpu=2, vpc=0");
  EXPECT_EQ(different([](RunInfo& info) { info.config.text += "# a word more\n"; }), "0 differences");
  EXPECT_EQ(different([](RunInfo& info) { info.config.settings = {{"runTimes", "60"}}; }),
            "config: runTimes=40 | runTimes=60");
  EXPECT_EQ(different([](RunInfo& info) { info.config.settings.emplace_back("AIC.File", "other.onnx"); }),
            "config: AIC.File=unset | AIC.File=other.onnx");
}

TEST_F(CompareTest, RefusesDifferentConditionsUnlessAllowed) {
  const std::string a = One("a");
  const std::string b = One("b", [](RunInfo& info) {
    info.conditions.kernel = "6.6";
    info.config.levels = {{"cpu", 2}};
  });
  const ToolResult refused = RunTool({"compare", a, b});
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.output, "");
  EXPECT_THAT(refused.errors,
              AllOf(HasSubstr("kernel: 6.1 in A, 6.6 in B"), HasSubstr("levels: cpu=1 in A, cpu=2 in B"),
                    HasSubstr("--allow kernel,levels")));
  const ToolResult half = RunTool({"compare", "--allow", "kernel", a, b});
  EXPECT_EQ(half.status, 2);
  EXPECT_THAT(half.errors, AllOf(Not(HasSubstr("6.6")), HasSubstr("levels: cpu=1 in A")));
  const ToolResult allowed = RunTool({"compare", a, b, "--allow", "kernel,levels"});
  EXPECT_EQ(allowed.status, 4) << allowed.errors;
  EXPECT_THAT(allowed.output, HasSubstr("Different condition: kernel: 6.1 in A, 6.6 in B"));
  EXPECT_EQ(RunTool({"compare", a, b, "--force", "--allow-unclear"}).status, 0);
  EXPECT_EQ(RunTool({"compare", b, a, "--allow", "weather"}).status, 2);
}

TEST_F(CompareTest, RefusesOtherConfigurationsUnlessAllowed) {
  const std::string a = One("a");
  const std::string b =
      One("b", [](RunInfo& info) { info.config.settings = {{"logLevel", "0"}, {"runTimes", "60"}}; });
  const ToolResult refused = RunTool({"compare", a, b, "--allow", "levels"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.errors, AllOf(HasSubstr("config: logLevel=unset in A, logLevel=0 in B"),
                                    HasSubstr("config: runTimes=40 in A, runTimes=60 in B"),
                                    HasSubstr("add --allow config\n")));
  const ToolResult allowed = RunTool({"compare", a, b, "--allow", "config"});
  EXPECT_EQ(allowed.status, 4) << allowed.errors;
  EXPECT_THAT(allowed.output, HasSubstr("Different condition: config: runTimes=40 in A, runTimes=60 in B"));
}

TEST_F(CompareTest, WhatItCannotDoIsNoRegression) {
  const std::string a = One("a");
  const std::string words = std::string("'") + STRESS_SCOPE + "' compare '" + a + "' '" + a + "'";
  const ToolResult full = RunProgram("/bin/sh", {"-c", words + " >/dev/full"});
  EXPECT_EQ(full.status, 2);
  EXPECT_THAT(full.errors, HasSubstr("cannot write to standard output: No space left on device"));

  // A run that cannot be examined is an error. It is not left out silently.
  const std::string repeats = Repeats("repeats", {500, 501});
  std::filesystem::create_symlink("loop", repeats + "/loop");
  EXPECT_THAT(ErrorOf(repeats), HasSubstr("loop: cannot find out whether it is a run folder"));

  const std::string b = One("b");
  std::filesystem::remove(b + "/samples.csv");
  std::filesystem::create_directory(b + "/samples.csv");
  const ToolResult unreadable = RunTool({"compare", a, b});
  EXPECT_EQ(unreadable.status, 2);
  EXPECT_THAT(unreadable.errors, HasSubstr("samples.csv: Is a directory"));
}

TEST_F(CompareTest, WithoutMemoryItDoesNotJudge) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer takes more address space than a test can grant";
  const std::string a = One("a");
  const std::string b = One("b");
  std::filesystem::resize_file(b + "/samples.csv", std::uintmax_t{4} << 30);  // a sparse file
  const ToolResult result = RunProgram(
      "/bin/sh",
      {"-c", std::string("ulimit -v 1000000; exec '") + STRESS_SCOPE + "' compare '" + a + "' '" + b + "'"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("cannot compare: "));
  EXPECT_EQ(result.output, "");
}

TEST_F(CompareTest, RefusesIncompleteRunsOnBothSides) {
  const std::string a = One("a", [](RunInfo& info) {
    info.complete = false;
    info.incompleteReason = "the power went";
  });
  const ToolResult refused = RunTool({"compare", a, a});
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.errors, HasSubstr("complete: no in A, no in B"));
  EXPECT_THAT(RunTool({"compare", a, a, "--force"}).output, HasSubstr("incomplete: the power went"));
}

TEST_F(CompareTest, JsonHasEveryFigure) {
  const std::string a = Repeats("a", {500, 501, 502, 503});
  const std::string b = Repeats("b", {400, 401, 402, 403});
  const ToolResult result = RunTool({"compare", "--json", "--figure", "ops,p99", a, b, "--skip", "3"});
  EXPECT_EQ(result.status, 1) << result.errors;
  const auto json = nlohmann::json::parse(result.output);
  EXPECT_EQ(json["skip_s"], 3);
  EXPECT_EQ(json["format"], 2);
  EXPECT_EQ(json["answer"], "worse");
  EXPECT_EQ(json["exit_status"], 1);
  EXPECT_NEAR(json["figure_confidence"].get<double>(), 0.975, 1e-12);
  EXPECT_THAT(json["sentence"].get<std::string>(), HasSubstr("B is worse than A: cpu ops -19.94 % ("));
  EXPECT_EQ(json["a"]["runs"].size(), 4U);
  ASSERT_EQ(json["figures"].size(), 2U);
  EXPECT_EQ(json["figures"][0]["engine"], "cpu");
  EXPECT_EQ(json["figures"][0]["figure"], "ops");
  EXPECT_EQ(json["figures"][0]["verdict"], "worse");
  EXPECT_NEAR(json["figures"][0]["a"].get<double>(), 501.5, 0.01);
  EXPECT_EQ(json["figures"][0]["b_values"].size(), 4U);
  EXPECT_EQ(json["figures"][1]["lower_is_better"], true);

  // Every number of the table.
  const ToolResult table = RunTool({"compare", a, b, "--skip", "3"});
  const auto all = nlohmann::json::parse(RunTool({"compare", "--json", a, b, "--skip", "3"}).output);
  std::size_t found = 0;
  std::istringstream lines(table.output);
  for (std::string line; std::getline(lines, line);) {
    for (const auto& figure : all["figures"]) {
      const auto percent = [&figure](const char* key) {
        return Format("%+.2f %%", figure[key].get<double>());
      };
      std::vector<std::string> cells = {figure["engine"], figure["figure"], figure["unit"]};
      for (const char* side : {"a", "b"}) cells.push_back(ShortNumber(figure[side].get<double>()));
      for (const char* key : {"difference_percent", "low_percent", "high_percent"})
        cells.push_back(percent(key));
      cells.push_back(figure["verdict"]);
      std::string pattern = "^";
      for (const std::string& cell : cells) {
        pattern += (pattern == "^" ? "" : " +") + std::regex_replace(cell, std::regex("[+.]"), "\\$&");
      }
      found += std::regex_search(line, std::regex(pattern + "$")) ? 1 : 0;
    }
  }
  EXPECT_EQ(found, 6U) << table.output << all.dump(2);
  EXPECT_EQ(all["figures"].size(), 6U);
}

TEST_F(CompareTest, WritesAPageOnlyIfItIsNamed) {
  const std::string a = Repeats("a", {500, 501});
  const std::string b = Repeats("b", {450, 451});
  const ToolResult none = RunTool({"compare", a, b});
  EXPECT_THAT(none.output, AllOf(HasSubstr("B is worse than A"), Not(HasSubstr("report in"))));
  const std::string file = folder_ / "page.html";
  const ToolResult written = RunTool({"compare", a, b, "-o", file});
  EXPECT_EQ(written.status, 1) << written.errors;
  EXPECT_EQ(written.output, none.output + "\nreport in " + file + "\n");
  EXPECT_EQ(DataOf(folder_.Get("page.html")).at("sentence"),
            nlohmann::json::parse(RunTool({"compare", a, b, "--json"}).output).at("sentence"));
  std::filesystem::remove(file);
  EXPECT_EQ(RunTool({"compare", a, b, "--quiet", "-o", file}).output, "");
  EXPECT_TRUE(std::filesystem::exists(file));
  const ToolResult refused = RunTool({"compare", a, b, "-o", "/proc/none/page.html"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.errors, HasSubstr("cannot write /proc/none/page.html"));
}

TEST_F(CompareTest, RefusesWhatIsNoRun) {
  EXPECT_THAT(ErrorOf(folder_ / "none"), HasSubstr("there is no such folder"));
  EXPECT_THAT(ErrorOf(folder_.Put("file", "")), HasSubstr("there is no such folder"));
  std::filesystem::create_directories(folder_ / "empty/sub");
  EXPECT_THAT(ErrorOf(folder_ / "empty"), HasSubstr("neither a run folder nor a folder of runs"));
  EXPECT_THAT(ErrorOf((folder_ / "empty") + ":CPU=1"), HasSubstr("not a sweep: cannot read sweep.json"));
  folder_.Put("bad/run.json", "{");
  EXPECT_THAT(ErrorOf(folder_ / "bad"), HasSubstr("bad/run.json: "));
  folder_.Put("repeats/1/run.json", "[]");
  EXPECT_THAT(ErrorOf(folder_ / "repeats"), HasSubstr("repeats/1/run.json: "));
}

TEST_F(CompareTest, RefusesBadArguments) {
  const std::string a = One("a");
  const auto refused = [](std::vector<std::string> arguments, const std::string& words) {
    const ToolResult result = RunTool(std::move(arguments));
    EXPECT_EQ(result.status, 2) << words;
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_EQ(result.output, "");
  };
  refused({"compare", a}, "B is missing");
  refused({"compare", a, folder_ / "none"}, "there is no such folder");
  refused({"compare", a, a, "--tolerance", "-1"}, "--tolerance");
  refused({"compare", a, a, "--confidence", "1"}, "--confidence");
  refused({"compare", a, a, "--figure", "speed"}, "speed");
  refused({"compare", a, a, "--figure", "p999"},
          "neither side has a figure that was asked for: leave --figure out to compare what they have\n");
  refused({"compare", a, a, "--skip", "31"}, "there is no second to compare after the first 31 s");
}

TEST_F(CompareTest, FailuresInBAreJudgedAlthoughItsRunsAreNotComplete) {
  const std::string a = Repeats("a", {500, 501, 499});
  const std::string b = Repeats("b", {500, 501, 499});
  RunInfo info = SyntheticInfo();
  info.complete = false;
  info.incompleteReason = "cpu: 3 operations failed";
  WriteRun(b + "/2", {SyntheticEngine()}, info);
  const ToolResult result = RunTool({"compare", a, b});
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("\nB is worse than A: incomplete runs in 1 of 3 runs of B (cpu: 3 "
                                       "operations failed), in none of A.\n"));
  // What fails in A leaves nothing to compare with.
  const ToolResult reversed = RunTool({"compare", b, a});
  EXPECT_EQ(reversed.status, 2);
  EXPECT_THAT(reversed.errors, HasSubstr("complete: no or yes in A, yes in B\nIf that"));
}

TEST_F(CompareTest, ABenchmarkThatEndsBeforeTheMeterAnswersIsJudged) {
  const std::string a = Repeats("a", {500, 501, 499});
  const std::string b = Repeats("b", {500, 501, 499});
  RunInfo info = SyntheticInfo();
  info.complete = false;
  info.incompleteReason = "the benchmark was ended by SIGSEGV";
  info.conditions.meter = false;
  info.conditions.libraryVersions.clear();
  std::filesystem::remove_all(b + "/3");
  WriteRun(b + "/3", {}, info);
  const ToolResult result = RunTool({"compare", a, b});
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_THAT(result.output, AllOf(HasSubstr("B is worse than A: "), HasSubstr("ended by SIGSEGV")));
  // A whole run without the meter is another way to record.
  info.complete = true;
  WriteRun(b + "/3", {SyntheticEngine()}, info);
  EXPECT_THAT(RunTool({"compare", a, b}).errors, HasSubstr("meter: yes in A, no or yes in B"));
}

TEST_F(CompareTest, TellsErrorsFirstAndThatRunsWereDisturbed) {
  const std::string a = One("a");
  const std::string b = One("b");
  folder_.Put("b/errors.csv",
              "time_s,source,thread,operation,what,offset,address,physical,expected,found,bits,note\n"
              "5.000,edac,,,corrected,,,,,,,3 more of mc0/ce_count\n");
  folder_.Put("b/counters.csv",
              "time_s,source,name,unit,value\n4.000,load,others,CPUs,0.9\n6.000,load,others,CPUs,0.01\n"
              "7.000,load,others,CPUs,0.5\n");
  const ToolResult result = RunTool({"compare", a, b});
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("\nnote: " + b +
                              ": disturbed: 1 of 2 seconds, in which others took more than 5 % "
                              "of the CPUs' time, at most 25 %\n"),
                    Not(HasSubstr("note: " + a))));
  const std::string errors =
      "errors in 1 of 1 run of B; time to the first error: 5.0 s at the least, 5.0 s in the median";
  EXPECT_THAT(result.output, HasSubstr("\nB: " + b + " (1 run)\nErrors: " + errors + ".\nAfter the first "));
  EXPECT_THAT(RunTool({"compare", a, b, "--skip", "7"}).output, Not(HasSubstr("disturbed")));
  EXPECT_EQ(nlohmann::json::parse(RunTool({"compare", a, b, "--json"}).output).at("errors"),
            nlohmann::json({errors}));
}

}  // namespace
