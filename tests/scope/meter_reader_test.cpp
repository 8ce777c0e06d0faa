// SPDX-License-Identifier: Apache-2.0
#include "meter_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "errors.h"
#include "latency_buckets.h"
#include "run_error.h"

namespace {

using scope::MeterReader;
using scope::MeterSecond;
using scope::PacketType;
using scope::UserError;
using ::testing::HasSubstr;

class MeterReaderTest : public ::testing::Test {
 protected:
  template <typename Packet>
  void Send(const Packet& packet, std::size_t size = sizeof(Packet)) {
    ASSERT_EQ(send(reader_.ChildEnd(), &packet, size, 0), static_cast<ssize_t>(size));
  }

  static scope::PacketHeader Header(PacketType type) {
    return {scope::kMeterMagic, scope::kMeterVersion, type, 42, 0};
  }

  void SendHello() {
    scope::HelloPacket hello{};
    hello.header = Header(PacketType::kHello);
    hello.bucketCount = scope::kBucketCount;
    Send(hello);
  }

  void SendEnd(std::uint64_t timeNs) {
    scope::EndOfSecondPacket end{};
    end.header = Header(PacketType::kEndOfSecond);
    end.header.timeNs = timeNs;
    Send(end);
  }

  struct OneBucket {
    scope::ThreadSamplePacket head;
    scope::BucketCount bucket;
  };

  static OneBucket SampleOf(scope::Engine engine) {
    OneBucket sample{};
    sample.head.header = Header(PacketType::kThreadSample);
    sample.head.engine = engine;
    sample.head.operations = 3;
    sample.head.buckets = 1;
    sample.bucket = {1000, 3};
    return sample;
  }

  std::string ErrorOfRead() {
    try {
      reader_.Read(seconds_);
    } catch (const UserError& error) {
      return error.what();
    }
    return "no error";
  }

  MeterReader reader_{0};
  std::vector<MeterSecond> seconds_;
};

TEST_F(MeterReaderTest, RefusesAMeterOfAnotherVersion) {
  scope::HelloPacket hello{};
  hello.header = Header(PacketType::kHello);
  hello.header.version = scope::kMeterVersion + 1;
  Send(hello);
  const std::string error = ErrorOfRead();
  EXPECT_THAT(error, HasSubstr("built for another version"));
  EXPECT_THAT(error, HasSubstr("sends version " + std::to_string(scope::kMeterVersion + 1)));
  EXPECT_THAT(error, HasSubstr("same build"));
}

TEST_F(MeterReaderTest, RefusesAVersionWhosePacketsHaveAnotherSize) {
  scope::PacketHeader header = Header(PacketType::kHello);
  header.version = 99;
  Send(header);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("sends version 99"));
}

TEST_F(MeterReaderTest, RefusesWhatIsNoMeter) {
  Send("a line of text that somebody wrote here");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("not from a meter"));
}

TEST_F(MeterReaderTest, RefusesAPacketThatIsTooShort) {
  Send(std::uint32_t{scope::kMeterMagic});
  EXPECT_THAT(ErrorOfRead(), HasSubstr("4 bytes, expected 24"));
}

TEST_F(MeterReaderTest, RefusesOtherBuckets) {
  scope::HelloPacket hello{};
  hello.header = Header(PacketType::kHello);
  hello.bucketCount = 5;
  Send(hello);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("has 5 latency buckets"));
}

TEST_F(MeterReaderTest, RefusesASampleWhoseBucketsAreMissing) {
  SendHello();
  const OneBucket sample = SampleOf(scope::Engine::kCpu);
  Send(sample, sizeof(sample.head));
  EXPECT_THAT(ErrorOfRead(), HasSubstr("cannot be read"));
}

TEST_F(MeterReaderTest, RefusesAnUnknownEngineAndAnUnknownBucket) {
  SendHello();
  Send(SampleOf(static_cast<scope::Engine>(9)));
  EXPECT_THAT(ErrorOfRead(), HasSubstr("engine 9"));
  OneBucket sample = SampleOf(scope::Engine::kCpu);
  sample.bucket.bucket = scope::kBucketCount;
  Send(sample);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("bucket 4480 of 4480"));
}

TEST_F(MeterReaderTest, ASecondProgramUnderTheMeterIsAnotherRun) {
  SendHello();
  OneBucket sample = SampleOf(scope::Engine::kCpu);
  sample.head.header.processId = 43;
  Send(sample);
  Send(SampleOf(scope::Engine::kVpc));
  scope::EndOfSecondPacket end{};
  end.header = Header(PacketType::kEndOfSecond);
  end.header.timeNs = 1'500'000'000;
  Send(end);
  EXPECT_EQ(ErrorOfRead(), "no error");
  ASSERT_EQ(seconds_.size(), 1U);
  ASSERT_EQ(seconds_[0].samples.size(), 1U);
  EXPECT_EQ(seconds_[0].samples[0].engine, "vpc");
  EXPECT_DOUBLE_EQ(seconds_[0].samples[0].timeS, 1.5);
  EXPECT_EQ(seconds_[0].samples[0].operations, 3U);
  EXPECT_FALSE(seconds_[0].samples[0].bytes.has_value());
}

TEST_F(MeterReaderTest, SecondsAreToldApartWhereTheEndOfOneDidNotComeThrough) {
  SendHello();
  for (const std::uint64_t second : {1U, 2U}) {
    for (const scope::Engine engine : {scope::Engine::kCpu, scope::Engine::kVpc}) {
      OneBucket sample = SampleOf(engine);
      sample.head.header.timeNs = second * 1'000'000'000;
      Send(sample);
    }
  }
  scope::EndOfSecondPacket end{};
  end.header = Header(PacketType::kEndOfSecond);
  end.header.timeNs = 2'000'000'000;
  Send(end);
  EXPECT_EQ(ErrorOfRead(), "no error");
  ASSERT_EQ(seconds_.size(), 2U);
  for (const MeterSecond& second : seconds_) EXPECT_EQ(second.samples.size(), 2U);
  EXPECT_DOUBLE_EQ(seconds_[0].timeS, 1);
  EXPECT_DOUBLE_EQ(seconds_[1].timeS, 2);
}

TEST_F(MeterReaderTest, PercentilesOfAnEngineAreThoseOfAllItsOperations) {
  SendHello();
  // The second thread is slow and seldom: its own percentiles say nothing about the engine.
  OneBucket sample = SampleOf(scope::Engine::kCpu);
  sample.head.operations = sample.bucket.count = 1000;
  sample.bucket.bucket = static_cast<std::uint32_t>(scope::BucketOf(100));
  sample.head.maxNs = 100;
  sample.head.bytes = 7;
  sample.head.bytesKnown = 1;
  Send(sample);
  sample.head.thread = 1;
  sample.head.operations = sample.bucket.count = 5;
  sample.head.failures = 2;
  sample.bucket.bucket = static_cast<std::uint32_t>(scope::BucketOf(200));
  sample.head.maxNs = 200;
  Send(sample);
  SendEnd(1'000'000'000);
  EXPECT_EQ(ErrorOfRead(), "no error");
  ASSERT_EQ(seconds_.size(), 1U);
  ASSERT_EQ(seconds_[0].engines.size(), 1U);
  const scope::EngineSample& cpu = seconds_[0].engines[0];
  EXPECT_EQ(cpu.engine, "cpu");
  EXPECT_EQ(cpu.threads, 2);
  EXPECT_EQ(cpu.operations, 1005U);
  EXPECT_EQ(cpu.failures, 2U);
  EXPECT_EQ(cpu.bytes, 14U);
  EXPECT_EQ(cpu.p50Ns, 100U);
  EXPECT_EQ(cpu.p99Ns, 100U) << "995 of 1005 operations took no longer";
  EXPECT_EQ(cpu.maxNs, 200U);
  EXPECT_EQ(seconds_[0].samples[1].p50Ns, 200U);
}

TEST_F(MeterReaderTest, ASecondsLatenciesAreNotThoseOfTheOneBefore) {
  SendHello();
  for (const std::uint32_t bucket : {100U, 200U}) {
    OneBucket sample = SampleOf(scope::Engine::kVpc);
    sample.bucket.bucket = bucket;
    Send(sample);
    SendEnd(bucket == 100U ? 1'000'000'000 : 2'000'000'000);
  }
  EXPECT_EQ(ErrorOfRead(), "no error");
  ASSERT_EQ(seconds_.size(), 2U);
  EXPECT_EQ(seconds_[1].engines[0].p50Ns, 200U);
  EXPECT_EQ(seconds_[1].engines[0].p99Ns, 200U);
}

TEST_F(MeterReaderTest, TakesErrorsAndWhatWasChecked) {
  SendHello();
  scope::ErrorPacket error{};
  error.header = Header(PacketType::kError);
  error.header.timeNs = 1'500'000'000;
  error.engine = scope::Engine::kVpc;
  error.kind = scope::ErrorKind::kThreads;
  error.thread = 3;
  error.other = 1;
  error.operation = 77;
  error.placed = 1;
  error.bits = 2;
  error.offset = 64;
  error.address = 0x7f00'1040;
  error.expected = 0xff;
  error.found = 0xfc;
  Send(error);
  scope::CheckPacket check{};
  check.header = Header(PacketType::kCheck);
  check.engine = scope::Engine::kVpc;
  check.state = scope::CheckState::kSourcesChange;
  check.operations = 9;
  check.errors = 1;
  check.threads = 3;
  check.judgedThreads = 2;
  Send(check);
  check.engine = scope::Engine::kVenc;
  check.state = scope::CheckState::kPartlyJudged;
  check.leftOut = 1;
  Send(check);
  scope::FillPacket fill{};
  fill.header = Header(PacketType::kFill);
  fill.engine = scope::Engine::kVenc;
  fill.refused = 2;
  Send(fill);
  fill.engine = scope::Engine::kCpu;
  fill.buffers = 4;
  fill.bytes = 99;
  Send(fill);
  EXPECT_EQ(ErrorOfRead(), "no error");
  const std::vector<scope::RunError> errors = reader_.TakeErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_DOUBLE_EQ(errors[0].timeS, 1.5);
  EXPECT_EQ(errors[0].source, "vpc");
  EXPECT_EQ(errors[0].what, "threads");
  EXPECT_EQ(errors[0].thread, 3U);
  EXPECT_EQ(errors[0].operation, 77U);
  EXPECT_EQ(errors[0].offset, 64U);
  EXPECT_EQ(errors[0].address, "0x7f001040");
  EXPECT_EQ(errors[0].expected, "0x00000000000000ff");
  EXPECT_EQ(errors[0].found, "0x00000000000000fc");
  EXPECT_EQ(errors[0].bits, 2U);
  EXPECT_EQ(errors[0].note, "compared with thread 1");
  ASSERT_EQ(reader_.Checks().size(), 2U);
  EXPECT_EQ(reader_.Checks()[1].state, scope::kPartlyJudged);
  EXPECT_TRUE(reader_.Checks()[1].leftOut);
  EXPECT_FALSE(reader_.Checks()[0].leftOut);
  EXPECT_EQ(reader_.Checks()[0].threads, 3U);
  EXPECT_EQ(reader_.Checks()[0].judgedThreads, 2U);
  EXPECT_EQ(reader_.Checks()[0].state, "sources change");
  EXPECT_EQ(reader_.Checks()[0].operations, 9U);
  ASSERT_EQ(reader_.Filled().size(), 2U);
  EXPECT_EQ(reader_.Filled()[0].engine, "cpu");
  EXPECT_EQ(reader_.Filled()[0].buffers, 4U);
  EXPECT_EQ(reader_.Filled()[0].bytes, 99U);
  EXPECT_EQ(reader_.Filled()[1].engine, "venc");
  EXPECT_EQ(reader_.Filled()[1].buffers, 0U);
  EXPECT_EQ(reader_.Filled()[1].refused, 2U);
}

TEST_F(MeterReaderTest, KeepsTheLastHashesOfEachKindOfStream) {
  SendHello();
  scope::StreamsPacket streams{};
  streams.header = Header(PacketType::kStreams);
  streams.key = 0xabc;
  streams.hashes[0] = 5;
  Send(streams);
  streams.hashes[0] = 0;
  streams.hashes[2] = 0xffff'0000'ffff'0000;
  Send(streams);
  streams.key = 1;
  streams.hashes[2] = 0;
  Send(streams);
  EXPECT_EQ(ErrorOfRead(), "no error");
  ASSERT_EQ(reader_.Streams().size(), 2U);
  EXPECT_EQ(reader_.Streams()[0].key, "0000000000000001");
  EXPECT_TRUE(reader_.Streams()[0].groups.empty());
  EXPECT_EQ(reader_.Streams()[1].key, "0000000000000abc");
  EXPECT_EQ(reader_.Streams()[1].groups, (std::vector<std::string>{"", "", "ffff0000ffff0000"}));
}

TEST_F(MeterReaderTest, RefusesErrorsAndChecksThatItDoesNotKnow) {
  SendHello();
  scope::ErrorPacket error{};
  error.header = Header(PacketType::kError);
  error.kind = static_cast<scope::ErrorKind>(scope::kErrorKinds);
  Send(error);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("an error that cannot be read"));
  scope::CheckPacket check{};
  check.header = Header(PacketType::kCheck);
  check.state = static_cast<scope::CheckState>(scope::kCheckStates);
  Send(check);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("a check that cannot be read"));
  scope::FillPacket fill{};
  fill.header = Header(PacketType::kFill);
  fill.engine = static_cast<scope::Engine>(scope::kEngineCount);
  Send(fill);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("filled buffers that cannot be read"));
}

TEST_F(MeterReaderTest, ReadsMissedDeadlinesAndThePercentileOfAllThreads) {
  SendHello();
  Send(SampleOf(scope::Engine::kCpu));
  SendEnd(1'000'000'000);
  scope::DeadlinePacket deadline{};
  deadline.header = Header(PacketType::kDeadline);
  deadline.engine = scope::Engine::kCpu;
  deadline.deadlineNs = 900;
  deadline.operations = 7;
  deadline.missed = 4;
  deadline.longestRun = 3;
  Send(deadline);
  EXPECT_EQ(ErrorOfRead(), "no error");
  ASSERT_EQ(reader_.Deadlines().size(), 1U);
  const scope::EngineDeadline read = reader_.Deadlines()[0];
  EXPECT_EQ(read.engine, "cpu");
  EXPECT_EQ(read.deadlineNs, 900U);
  EXPECT_EQ(read.operations, 7U);
  EXPECT_EQ(read.missed, 4U);
  EXPECT_EQ(read.longestRun, 3U);
  EXPECT_EQ(read.p999Ns, reader_.Latencies().at({"cpu", 0}).Percentile(0.999));
  EXPECT_NE(read.p999Ns, 0U);
  deadline.engine = static_cast<scope::Engine>(scope::kEngineCount);
  Send(deadline);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("a deadline that cannot be read"));
}

TEST_F(MeterReaderTest, NumbersSecondsAndLeavesOutThoseThatAreMissing) {
  SendHello();
  for (const std::uint64_t ms : {1'020U, 2'020U, 3'770U, 5'530U, 8'400U, 8'700U}) {
    Send(SampleOf(scope::Engine::kCpu));
    SendEnd(ms * 1'000'000);
  }
  EXPECT_EQ(ErrorOfRead(), "no error");
  std::vector<int> numbers;
  for (const MeterSecond& second : seconds_) {
    numbers.push_back(second.second);
    EXPECT_EQ(second.samples[0].second, second.second);
    EXPECT_EQ(second.engines[0].second, second.second);
    EXPECT_DOUBLE_EQ(second.engines[0].timeS, second.timeS);
  }
  EXPECT_THAT(numbers, ::testing::ElementsAre(1, 2, 3, 5, 8, 9));
}

TEST_F(MeterReaderTest, ASecondCutShortByTheEndOfTheProgramIsKept) {
  SendHello();
  OneBucket sample = SampleOf(scope::Engine::kCpu);
  sample.head.header.timeNs = 2'000'000'000;
  Send(sample);
  reader_.CloseChildEnd();
  EXPECT_EQ(ErrorOfRead(), "no error");
  ASSERT_EQ(seconds_.size(), 1U);
  EXPECT_DOUBLE_EQ(seconds_[0].timeS, 2);
  EXPECT_EQ(reader_.Descriptor(), -1);
}

}  // namespace
