// SPDX-License-Identifier: Apache-2.0

// A new engine needs only one more row in the table of engines: record, report, sweep and compare then
// support it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>

#include "compare.h"
#include "comparison_text.h"
#include "configuration.h"
#include "engines.h"
#include "latency_buckets.h"
#include "live_figures.h"
#include "meter_reader.h"
#include "report.h"
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
using namespace scope;  // NOLINT(google-build-using-namespace): all of it is under test

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

TEST_F(FifthEngineTest, IsRecorded) {
  MeterReader reader(0);
  const auto header = [](PacketType type) {
    return PacketHeader{kMeterMagic, kMeterVersion, type, 42, 1'000'000'000};
  };
  const auto send = [&](const auto& packet) {
    ASSERT_EQ(::send(reader.ChildEnd(), &packet, sizeof(packet), 0), ssize_t{sizeof(packet)});
  };
  HelloPacket hello{};
  hello.header = header(PacketType::kHello);
  hello.bucketCount = kBucketCount;
  send(hello);
  struct {
    ThreadSamplePacket head;
    BucketCount bucket;
  } sample{};
  sample.head.header = header(PacketType::kThreadSample);
  sample.head.engine = static_cast<Engine>(kEngineCount);
  sample.head.operations = 3;
  sample.head.buckets = 1;
  sample.bucket = {1000, 3};
  send(sample);
  EndOfSecondPacket end{};
  end.header = header(PacketType::kEndOfSecond);
  send(end);

  std::vector<MeterSecond> seconds;
  reader.Read(seconds);
  ASSERT_EQ(seconds.size(), 1U);
  ASSERT_EQ(seconds[0].samples.size(), 1U);
  EXPECT_EQ(seconds[0].samples[0].engine, "dma");
  Figures figures;
  figures.Add(seconds[0]);
  ASSERT_EQ(figures.Last().size(), 1U);
  EXPECT_EQ(figures.Last()[0].first, "dma");

  const std::string path = folder_.Put("c.yaml", "CPU:\n  Level: 1\nDMA:\n  Level: 3\n  Program: p.bin\n");
  unsigned int runTimeS = 0;
  EXPECT_THAT(ReadConfiguration(path, runTimeS).levels, ElementsAre(Pair("cpu", 1), Pair("dma", 3)));
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
  WriteRun(folder_ / "a", {Dma(100), {}});
  WriteRun(folder_ / "b", {Dma(50), {}});
  const Side a = ReadSide(folder_ / "a");
  const Side b = ReadSide(folder_ / "b");
  const CompareOptions options;
  const Comparison comparison = Compare(a, b, options);
  EXPECT_TRUE(comparison.regression);
  std::vector<std::string> engines;
  for (const ComparedFigure& figure : comparison.figures) {
    if (engines.empty() || engines.back() != figure.key.engine) engines.push_back(figure.key.engine);
  }
  EXPECT_THAT(engines, ElementsAre("cpu", "dma", kAllEngines)) << "in the order of the table, the total last";
  EXPECT_THAT(ComparisonText(a, b, comparison, {}, options), HasSubstr("dma     ops"));
}

}  // namespace
