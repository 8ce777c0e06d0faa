// SPDX-License-Identifier: Apache-2.0

// A new engine needs only one more row in the table of engines: record, report, sweep and compare then
// support it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "compare.h"
#include "comparison_text.h"
#include "configuration.h"
#include "engines.h"
#include "live_figures.h"
#include "protocol.h"
#include "record.h"
#include "report.h"
#include "run_reader.h"
#include "sweep_plan.h"
#include "sweep_table.h"
#include "sweep_text.h"
#include "synthetic_run.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using namespace scope;

class FifthEngineTest : public ::testing::Test {
 protected:
  static SyntheticEngine Dma(double operationsPerS) {
    SyntheticEngine dma;
    dma.engine = "dma";
    dma.stress = "dmaStress";
    dma.operationsPerS = operationsPerS;
    return dma;
  }

  TemporaryFolder folder_;
};

TEST_F(FifthEngineTest, IsBehindTheLastRow) {
  ASSERT_EQ(Engines().size(), kEngineCount + 1U);
  EXPECT_STREQ(Engines().back().id, "dma");
  EXPECT_TRUE(IsLoad("dma"));
}

/// Keeps the last second.
struct LastSecond : View {
  void Second(const Figures& figures, double /*timeS*/, double /*runTimeS*/) override {
    last = figures.Last();
  }

  std::vector<std::pair<std::string, EngineSample>> last;
};

// The program sends what a meter with one more engine would send.
TEST_F(FifthEngineTest, IsRecorded) {
  const std::string number = std::to_string(kEngineCount);
  std::string script;
  for (int second = 1; second <= 4; ++second) {
    script += "sample " + number + " 0 1000 30\nsample " + number +
              " 1 1000 10\nprint dmaStress : 7.5 fps. "
              "ispStress : 30.0 fps.\nsecond " +
              std::to_string(second) + "000\n";
  }
  RecordOptions options;
  options.benchmark = SCRIPTED_METER;
  options.meter = IDLE_LIBRARY;
  options.config = folder_.Put("c.yaml", "CPU:\n  Level: 0\nDMA:\n  Level: 2\n  Program: p.bin\n");
  options.extra = {folder_.Put("script", script)};
  options.folder = folder_ / "run";
  options.systemRoot = folder_ / "no-system";
  LastSecond view;
  Signals signals;
  const RecordResult result = Record(options, view, signals);
  EXPECT_TRUE(result.complete) << result.reason;
  ASSERT_EQ(view.last.size(), 1U);
  EXPECT_EQ(view.last[0].first, "dma");
  EXPECT_EQ(view.last[0].second.operations, 40U);

  const auto run = ReadRun(options.folder);
  EXPECT_THAT(run.info.config.levels, ElementsAre(Pair("cpu", 0), Pair("dma", 2)));
  ASSERT_EQ(run.samples.size(), 8U);
  for (const Sample& sample : run.samples) {
    EXPECT_EQ(sample.engine, "dma");
    EXPECT_EQ(sample.operations, sample.thread == 0 ? 30U : 10U);
    EXPECT_EQ(sample.bytes, sample.operations * 1000);
  }
  ASSERT_EQ(run.seconds.size(), 4U);
  EXPECT_EQ(run.seconds[3].engine, "dma");
  EXPECT_EQ(run.seconds[3].second, 4);
  EXPECT_EQ(run.seconds[3].operations, 40U);
  ASSERT_EQ(run.histogram.size(), 2U);
  EXPECT_EQ(run.histogram[0].engine, "dma");
  EXPECT_EQ(run.histogram[0].count, 120U);
  ASSERT_EQ(run.rates.size(), 4U);
  EXPECT_EQ(run.rates[0].stress, "dmaStress");
  EXPECT_THAT(ReportText(ReadRuns({options.folder})), HasSubstr("\n  dma "));
}

TEST_F(FifthEngineTest, IsReported) {
  WriteRun(folder_ / "run", {Dma(100), {}});
  const std::vector<ReportedRun> runs = ReadRuns({folder_ / "run"});
  const RunSummary& summary = runs[0].summary;
  ASSERT_EQ(summary.engines.size(), 2U);
  EXPECT_EQ(summary.engines[1].engine, "dma") << "after the other loads";
  ASSERT_NE(summary.PrintedOf("dma"), nullptr);
  EXPECT_DOUBLE_EQ(summary.PrintedOf("dma")->median, 450);
  EXPECT_THAT(ReportText(runs), HasSubstr("\n  dma "));
  EXPECT_THAT(ReportPage(runs), AllOf(HasSubstr("DMA: block moves"), HasSubstr("#123456")));
}

TEST_F(FifthEngineTest, IsSwept) {
  const std::vector<SweepAxis> axes = ParseAxes({"DMA=0..1"});
  Sweep sweep;
  sweep.axes = axes;
  sweep.runs = PlanRuns(axes, 1, 1);
  const std::string path = folder_.Put("c.yaml", "DMA:\n  Level: 3\n  Program: p.bin\n");
  EXPECT_THAT(PointConfiguration(path, sweep.runs[1].levels),
              AllOf(HasSubstr("DMA:\n  Level: 1\n"), HasSubstr("/p.bin\"")));
  for (SweepRun& run : sweep.runs) {
    WriteRun(folder_ / run.folder, {Dma(run.levels[0].second == 0 ? 100 : 200)});
    run.state = SweepState::kDone;
  }
  EXPECT_THAT(TableText(ReadSweepTable(folder_.Path(), sweep)),
              AllOf(HasSubstr("DMA  runs  dma op/s  dma GB/s  total GB/s"), HasSubstr("200.0")));
}

TEST_F(FifthEngineTest, IsCompared) {
  for (const char* run : {"1", "2"}) {
    WriteRun(folder_ / "a" + "/" + run, {Dma(100), {}});
    WriteRun(folder_ / "b" + "/" + run, {Dma(50), {}});
  }
  const Side a = ReadSide(folder_ / "a");
  const Side b = ReadSide(folder_ / "b");
  const CompareOptions options;
  const Comparison comparison = Compare(a, b, options);
  EXPECT_EQ(comparison.answer, Answer::kWorse);
  std::vector<std::string> engines;
  for (const ComparedFigure& figure : comparison.figures) {
    if (engines.empty() || engines.back() != figure.key.engine) engines.push_back(figure.key.engine);
  }
  EXPECT_THAT(engines, ElementsAre("cpu", "dma", kAllEngines)) << "in the order of the table, the total last";
  EXPECT_THAT(ComparisonText(a, b, comparison, {}, options), HasSubstr("dma     ops"));
}

}  // namespace
