// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "engine_rows.h"
#include "live_view.h"
#include "number_text.h"
#include "text_table.h"

namespace {

using scope::Figures;
using scope::MeterSecond;
using scope::Sample;

Sample SampleOf(const std::string& engine, int thread, std::uint64_t operations, std::uint64_t bytes) {
  Sample sample;
  sample.engine = engine;
  sample.thread = thread;
  sample.operations = operations;
  sample.bytes = bytes;
  sample.maxNs = 2'000'000;
  return sample;
}

MeterSecond SecondAt(double timeS, std::vector<Sample> samples) {
  MeterSecond second;
  second.timeS = timeS;
  for (Sample& sample : samples) {
    sample.timeS = timeS;
    sample.p50Ns = 200;
  }
  second.engines = EngineRows(samples);
  second.samples = std::move(samples);
  return second;
}

TEST(Figures, AddUpThreadsOverTheRealLengthOfASecond) {
  Figures figures;
  figures.Add(SecondAt(2, {SampleOf("cpu", 0, 100, 1'000'000'000), SampleOf("cpu", 1, 300, 3'000'000'000)}));
  const auto rows = figures.Last();
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].second.threads, 2);
  EXPECT_DOUBLE_EQ(rows[0].second.operationsPerS, 200);
  EXPECT_DOUBLE_EQ(rows[0].second.gigabytesPerS.value_or(0), 2);
  EXPECT_EQ(rows[0].second.p50Ns, 200U);
}

TEST(Figures, ThatLackBytesOnceLackThemForGood) {
  Figures figures;
  Sample unknown = SampleOf("aic", 0, 10, 0);
  unknown.bytes.reset();
  figures.Add(SecondAt(1, {unknown}));
  EXPECT_FALSE(figures.Last()[0].second.gigabytesPerS.has_value());
}

TEST(Figures, OfAnEngineThatFellSilentAreZero) {
  Figures figures;
  figures.Add(SecondAt(1, {SampleOf("vpc", 0, 10, 0)}));
  figures.Add(SecondAt(2, {}));
  EXPECT_DOUBLE_EQ(figures.Last()[0].second.operationsPerS, 0);
  EXPECT_EQ(figures.History("vpc").size(), 2U);
}

TEST(Figures, OfASecondReplaceThoseBeforeItButForTheFailures) {
  Figures figures;
  Sample failed = SampleOf("venc", 0, 10, 0);
  failed.failures = 3;
  figures.Add(SecondAt(1, {failed}));
  figures.Add(SecondAt(1.5, {SampleOf("venc", 0, 0, 0), SampleOf("venc", 1, 20, 0)}));
  const scope::EngineSample venc = figures.Last().at(0).second;
  EXPECT_EQ(venc.threads, 1) << "the other thread did nothing in this second";
  EXPECT_EQ(venc.failures, 3U) << "since the start";
  EXPECT_DOUBLE_EQ(venc.operationsPerS, 40);
  EXPECT_EQ(figures.History("venc"), (std::vector<double>{10, 40}));
  figures.Add(SecondAt(2, {}));
  EXPECT_EQ(figures.Last().at(0).second.failures, 3U);
  EXPECT_EQ(figures.Last().at(0).second.maxNs, 0U);
}

TEST(Figures, ASetUpIsNotShown) {
  Figures figures;
  figures.Add(
      SecondAt(1, {SampleOf("vpc_copy", 0, 10, 0), SampleOf("aic", 0, 1, 0), SampleOf("cpu", 0, 1, 0)}));
  const auto rows = figures.Last();
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0].first, "cpu");
  EXPECT_EQ(rows[1].first, "aic");
}

TEST(Describe, HasTheFiguresOfASecondInOneLine) {
  scope::EngineSample figures;
  figures.threads = 1;
  figures.operationsPerS = 62.5;
  EXPECT_EQ(scope::Describe("aic", figures), "aic   1 thread   ops/s 62.5  GB/s -  p50 -  p99 -  max -");
  figures.threads = 10;
  figures.gigabytesPerS = 1.25;
  figures.p50Ns = 4'000;
  figures.p99Ns = 5'000'000;
  figures.maxNs = 6'000'000;
  figures.failures = 7;
  EXPECT_EQ(scope::Describe("venc", figures),
            "venc 10 threads  ops/s 62.5  GB/s 1.250  p50 4.00 us  p99 5.00 ms  max 6.00 ms  7 failed");
}

TEST(Describe, HasTheLatencyOfMemoryInOneLine) {
  scope::LatencySecond second;
  second.accesses = 1000;
  second.p50Ns = 148;
  second.p99Ns = 410;
  second.p999Ns = 505;
  second.maxNs = 34'000;
  EXPECT_EQ(scope::Describe(second), "memory latency  p50 148 ns  p99 410 ns  p99.9 505 ns  max 34.0 us");
  second.interrupted = 2;
  EXPECT_EQ(scope::Describe(second),
            "memory latency  p50 148 ns  p99 410 ns  p99.9 505 ns  max 34.0 us  2 bursts interrupted");
  scope::LatencySecond none;
  none.interrupted = 8;
  EXPECT_EQ(scope::Describe(none), "memory latency  -  8 bursts interrupted");
}

// A reader of the pipe gets each line as soon as its second is over.
TEST(PlainView, PassesASecondOnAtOnce) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  ASSERT_EQ(std::fflush(stdout), 0);
  const int before = dup(STDOUT_FILENO);
  ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);

  Figures figures;
  figures.Add(SecondAt(1, {SampleOf("vpc", 0, 10, 0)}));
  scope::MakePlainView()->Second(figures, 1, 40);
  char text[200] = {};
  const ssize_t length = read(ends[0], text, sizeof text - 1);
  const int flushed = std::fflush(stdout);

  ASSERT_EQ(dup2(before, STDOUT_FILENO), STDOUT_FILENO);
  for (const int descriptor : {before, ends[0], ends[1]}) close(descriptor);
  EXPECT_EQ(flushed, 0);
  ASSERT_GT(length, 0);
  EXPECT_EQ(std::string(text).rfind("1 s vpc ", 0), 0U) << text;
}

TEST(RateText, HasFewerDecimalsWhereItIsGreater) {
  EXPECT_EQ(scope::RateText(0), "0.00");
  EXPECT_EQ(scope::RateText(9.99), "9.99");
  EXPECT_EQ(scope::RateText(10), "10.0");
  EXPECT_EQ(scope::RateText(10.56), "10.6");
  EXPECT_EQ(scope::RateText(9999.9), "9999.9");
  EXPECT_EQ(scope::RateText(10000), "10000");
  EXPECT_EQ(scope::RateText(10000.9), "10001");
}

TEST(ShortNumber, HasFourDigitsOrAllOfAWholeNumber) {
  EXPECT_EQ(scope::ShortNumber(0), "0.000");
  EXPECT_EQ(scope::ShortNumber(0.01234), "0.012");
  EXPECT_EQ(scope::ShortNumber(-0.00001234), "-1.2e-05");
  EXPECT_EQ(scope::ShortNumber(0.0996), "0.1");
  EXPECT_EQ(scope::ShortNumber(0.1), "0.100");
  EXPECT_EQ(scope::ShortNumber(-9.876), "-9.876");
  EXPECT_EQ(scope::ShortNumber(10), "10.00");
  EXPECT_EQ(scope::ShortNumber(10.567), "10.57");
  EXPECT_EQ(scope::ShortNumber(100), "100.0");
  EXPECT_EQ(scope::ShortNumber(100.56), "100.6");
  EXPECT_EQ(scope::ShortNumber(9999.9), "9999.9");
  EXPECT_EQ(scope::ShortNumber(10'000), "10000");
  EXPECT_EQ(scope::ShortNumber(10'000.9), "10001");
}

TEST(TextTable, ColumnsAreAsWideAsTheirWidestField) {
  scope::TextTable table("lrl");
  table.Add({"name", "GB/s", "note"});
  table.Add({"a µs", "12.5", ""});
  table.Add({"longer name", "1", "x", "2"});
  EXPECT_EQ(table.Text(),
            "name         GB/s  note\n"
            "a µs         12.5\n"
            "longer name     1  x     2\n");
  EXPECT_EQ(scope::TextTable("l").Text(), "");
}

TEST(Latency, HasTheUnitThatFits) {
  EXPECT_EQ(scope::Latency(0), "-");
  EXPECT_EQ(scope::Latency(1), "1 ns");
  EXPECT_EQ(scope::Latency(999), "999 ns");
  EXPECT_EQ(scope::Latency(1'000), "1.00 us");
  EXPECT_EQ(scope::Latency(999'490), "999 us");
  EXPECT_EQ(scope::Latency(1'000'000), "1.00 ms");
  EXPECT_EQ(scope::Latency(999'490'000), "999 ms");
  EXPECT_EQ(scope::Latency(1'000'000'000), "1.00 s");
  EXPECT_EQ(scope::Latency(999'500), "1.00 ms") << "never 1000 us";
  EXPECT_EQ(scope::Latency(42'130), "42.1 us");
  EXPECT_EQ(scope::Latency(421'300'000'000), "421 s");
  EXPECT_EQ(scope::Latency(4'210), "4.21 us");
  EXPECT_EQ(scope::Latency(2'310'000), "2.31 ms");
  EXPECT_EQ(scope::Latency(1'200'000'000), "1.20 s");
}

TEST(Sparkline, GoesFromNothingToTheGreatestOfItsLastValues) {
  EXPECT_EQ(scope::Sparkline({1000, 0, 5, 10}, 3), "▁▅█");
  EXPECT_EQ(scope::Sparkline({0, 0}, 5), "▁▁");
  EXPECT_EQ(scope::Sparkline({0.5, 1, 0.25}, 3), "▅█▃");
  EXPECT_EQ(scope::Sparkline({0, 1, 2, 3, 4, 5, 6, 7}, 8), "▁▂▃▄▅▆▇█");
  EXPECT_EQ(scope::Sparkline({}, 5), "");
}

TEST(ProgressBar, StopsAtItsEnd) {
  EXPECT_EQ(scope::ProgressBar(10, 40, 8), "[##......]  25 %");
  EXPECT_EQ(scope::ProgressBar(50, 40, 8), "[########] 100 %");
  EXPECT_EQ(scope::ProgressBar(0.5, 1, 8), "[####....]  50 %");
  EXPECT_EQ(scope::ProgressBar(1, 0, 4), "[....]   0 %");
}

}  // namespace
