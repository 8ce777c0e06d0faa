// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "live_view.h"
#include "number_text.h"

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
  for (const Sample& sample : samples) second.latencies[sample.engine].Add(200, sample.operations);
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

TEST(Latency, HasTheUnitThatFits) {
  EXPECT_EQ(scope::Latency(0), "-");
  EXPECT_EQ(scope::Latency(999), "999 ns");
  EXPECT_EQ(scope::Latency(4'210), "4.21 us");
  EXPECT_EQ(scope::Latency(2'310'000), "2.31 ms");
  EXPECT_EQ(scope::Latency(1'200'000'000), "1.20 s");
}

TEST(Sparkline, GoesFromNothingToTheGreatestOfItsLastValues) {
  EXPECT_EQ(scope::Sparkline({1000, 0, 5, 10}, 3), "▁▅█");
  EXPECT_EQ(scope::Sparkline({0, 0}, 5), "▁▁");
  EXPECT_EQ(scope::Sparkline({}, 5), "");
}

TEST(ProgressBar, StopsAtItsEnd) {
  EXPECT_EQ(scope::ProgressBar(10, 40, 8), "[##......]  25 %");
  EXPECT_EQ(scope::ProgressBar(50, 40, 8), "[########] 100 %");
  EXPECT_EQ(scope::ProgressBar(1, 0, 4), "[....]   0 %");
}

}  // namespace
