// SPDX-License-Identifier: Apache-2.0

// The packets of the meter, one by one, of programs that know exactly what they do.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <thread>

#include "child_process.h"
#include "latency_buckets.h"
#include "link_names.h"
#include "protocol.h"
#include "temporary_folder.h"

namespace {

using scope::ChildProcess;
using scope::Engine;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Environment = std::vector<std::pair<std::string, std::string>>;
using Steps = std::vector<std::string>;

constexpr std::uint64_t kNsPerS = 1'000'000'000;
// A descriptor of two digits, so that its base counts.
constexpr int kDescriptor = 64;
// The clock of the load. The meter's seconds then end so much later: only the program's end ends one.
constexpr std::uint64_t kAheadS = 1'000'000'000;
constexpr std::uint64_t kFrame = 64 * 32 * 3 / 2;

std::uint64_t NowNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kNsPerS + static_cast<std::uint64_t>(now.tv_nsec);
}

struct SamplePacket {
  scope::ThreadSamplePacket head{};
  std::vector<std::pair<std::uint32_t, std::uint32_t>> buckets;
};

class MeterCasesTest : public ::testing::Test {
 protected:
  ~MeterCasesTest() override {
    for (const int end : {reader_, writer_}) {
      if (end >= 0) (void)close(end);
    }
  }

  void MakeSockets(int type = SOCK_SEQPACKET) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
    reader_ = ends[0];
    writer_ = fcntl(ends[1], F_DUPFD_CLOEXEC, kDescriptor);
    (void)close(ends[1]);
    ASSERT_EQ(writer_, kDescriptor);
  }

  /// Runs the load with the meter and takes all packets. The variable names the reader's socket, unless
  /// `environment` says something else.
  void Run(const Steps& steps, const Environment& environment = {}) {
    if (writer_ < 0) MakeSockets();
    if (HasFatalFailure()) return;
    ChildProcess::Options options;
    options.program = ODD_LOAD;
    options.arguments = steps;
    options.environment = {{"LD_PRELOAD", METER},
                           {scope::kDescriptorVariable, std::to_string(kDescriptor)},
                           {"ODD_AHEAD", std::to_string(kAheadS)}};
    options.environment.insert(options.environment.end(), environment.begin(), environment.end());
    options.inherit = writer_;
    options.takeErrors = true;
    ChildProcess child(options);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!child.HasEnded()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "the program does not end";
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    id_ = child.Id();
    exitStatus_ = child.ExitStatus();
    endSignal_ = child.EndSignal();
    scope::LineReader output;
    output.Read(child.Output(), output_);
    scope::LineReader errors;
    errors.Read(child.Errors(), errors_);
    TakePackets();
  }

  void TakePackets() {
    std::vector<char> bytes(1 << 17);
    for (;;) {
      const ssize_t size = recv(reader_, bytes.data(), bytes.size(), MSG_DONTWAIT);
      if (size <= 0) return;
      scope::PacketHeader header{};
      std::memcpy(&header, bytes.data(), sizeof(header));
      headers_.push_back(header);
      if (header.type == scope::PacketType::kHello) {
        order_ += 'H';
        ASSERT_EQ(size, ssize_t{sizeof(hello_)});
        std::memcpy(&hello_, bytes.data(), sizeof(hello_));
      } else if (header.type == scope::PacketType::kEndOfSecond) {
        order_ += 'E';
        ASSERT_EQ(size, ssize_t{sizeof(scope::EndOfSecondPacket)});
        std::memcpy(&ends_.emplace_back(), bytes.data(), sizeof(scope::EndOfSecondPacket));
      } else if (header.type == scope::PacketType::kDeadline) {
        order_ += 'D';
        ASSERT_EQ(size, ssize_t{sizeof(scope::DeadlinePacket)});
        std::memcpy(&deadlines_.emplace_back(), bytes.data(), sizeof(scope::DeadlinePacket));
      } else if (header.type == scope::PacketType::kFill) {
        order_ += 'F';
        ASSERT_EQ(size, ssize_t{sizeof(scope::FillPacket)});
        std::memcpy(&fills_.emplace_back(), bytes.data(), sizeof(scope::FillPacket));
      } else if (header.type == scope::PacketType::kError) {
        order_ += '!';
        ASSERT_EQ(size, ssize_t{sizeof(scope::ErrorPacket)});
        std::memcpy(&errorsFound_.emplace_back(), bytes.data(), sizeof(scope::ErrorPacket));
      } else if (header.type == scope::PacketType::kStreams) {
        order_ += 'G';
      } else if (header.type == scope::PacketType::kCheck) {
        order_ += 'C';
        ASSERT_EQ(size, ssize_t{sizeof(scope::CheckPacket)});
        std::memcpy(&checks_.emplace_back(), bytes.data(), sizeof(scope::CheckPacket));
      } else {
        order_ += 'S';
        TakeSample(bytes.data(), static_cast<std::size_t>(size));
      }
    }
  }

  void TakeSample(const char* bytes, std::size_t size) {
    SamplePacket& sample = samples_.emplace_back();
    std::memcpy(&sample.head, bytes, sizeof(sample.head));
    ASSERT_EQ(size, sizeof(sample.head) + sample.head.buckets * sizeof(scope::BucketCount));
    for (std::uint32_t i = 0; i < sample.head.buckets; ++i) {
      scope::BucketCount bucket{};
      std::memcpy(&bucket, bytes + sizeof(sample.head) + i * sizeof(bucket), sizeof(bucket));
      sample.buckets.emplace_back(bucket.bucket, bucket.count);
    }
  }

  TemporaryFolder folder_;
  int reader_ = -1;
  int writer_ = -1;
  pid_t id_ = -1;
  int exitStatus_ = -1;
  int endSignal_ = -1;
  std::vector<std::string> output_;
  std::vector<std::string> errors_;
  std::string order_;  ///< of the packets: H, S, F, D, !, C and E
  std::vector<scope::PacketHeader> headers_;
  scope::HelloPacket hello_{};
  std::vector<SamplePacket> samples_;
  std::vector<scope::EndOfSecondPacket> ends_;
  std::vector<scope::FillPacket> fills_;
  std::vector<scope::DeadlinePacket> deadlines_;
  std::vector<scope::ErrorPacket> errorsFound_;
  std::vector<scope::CheckPacket> checks_;
};

TEST_F(MeterCasesTest, EveryFieldOfThePacketsIsExact) {
  const std::uint64_t before = NowNs() + kAheadS * kNsPerS;
  Run({"cpu", "cpu"});
  const std::uint64_t after = NowNs() + kAheadS * kNsPerS;
  ASSERT_EQ(order_, "HSE");
  for (const scope::PacketHeader& header : headers_) {
    EXPECT_EQ(header.magic, scope::kMeterMagic);
    EXPECT_EQ(header.version, scope::kMeterVersion);
    EXPECT_EQ(header.processId, id_);
    EXPECT_GE(header.timeNs, before);
    EXPECT_LE(header.timeNs, after);
  }
  EXPECT_EQ(hello_.hostPlatform, 0U);
  EXPECT_EQ(hello_.bucketCount, scope::kBucketCount);
  EXPECT_THAT(hello_.platformPath, HasSubstr("libcounting_platform"));
  const scope::ThreadSamplePacket& sample = samples_[0].head;
  EXPECT_EQ(sample.engine, Engine::kCpu);
  EXPECT_EQ(sample.thread, 0U);
  EXPECT_EQ(sample.operations, 2U);
  EXPECT_EQ(sample.busyNs, 0U);
  EXPECT_EQ(sample.bytes, 2U * 2 * 100);
  EXPECT_EQ(sample.failures, 0U);
  EXPECT_EQ(sample.maxNs, 0U);
  EXPECT_EQ(sample.bytesKnown, 1U);
  EXPECT_THAT(samples_[0].buckets, ElementsAre(std::make_pair(0U, 2U)));
  EXPECT_EQ(ends_[0].samples, 1U);
  EXPECT_EQ(ends_[0].last, 1U);
  EXPECT_EQ(ends_[0].delayedSamples, 0U);
  EXPECT_EQ(ends_[0].unmeasured, 0U);
  EXPECT_THAT(errors_, IsEmpty());
  // The last packets wait so long for a slow reader.
  timeval wait{};
  socklen_t size = sizeof(wait);
  ASSERT_EQ(getsockopt(writer_, SOL_SOCKET, SO_SNDTIMEO, &wait, &size), 0);
  EXPECT_EQ(wait.tv_sec, 5);
  EXPECT_EQ(wait.tv_usec, 0);
}

TEST_F(MeterCasesTest, CountsOperationsThatMissTheirDeadlineAndTheLongestRun) {
  // A call takes the time to four times as much. An encode is three calls, each of them below its deadline.
  Run({"time:1000:0", "cpu", "time:60000:0", "cpu", "cpu", "cpu", "time:1000:0", "cpu", "time:60000:0", "cpu",
       "cpu", "time:10000:0", "encode:1:0", "time:100000:0", "resize:1:0:1:0"},
      {{scope::kDeadlinesVariable, "cpu=50000,venc=29999,aic=1"}});
  EXPECT_EQ(exitStatus_, 0);
  ASSERT_EQ(order_, "HSSSDDE");
  EXPECT_EQ(deadlines_[0].engine, Engine::kCpu);
  EXPECT_EQ(deadlines_[0].deadlineNs, 50'000U);
  EXPECT_EQ(deadlines_[0].operations, 7U);
  EXPECT_EQ(deadlines_[0].missed, 5U);
  EXPECT_EQ(deadlines_[0].longestRun, 3U);
  EXPECT_EQ(deadlines_[1].engine, Engine::kVenc);
  EXPECT_EQ(deadlines_[1].operations, 1U);
  EXPECT_EQ(deadlines_[1].missed, 1U);
  EXPECT_EQ(deadlines_[1].longestRun, 1U);
}

TEST_F(MeterCasesTest, AnOperationThatTakesItsDeadlineExactlyIsInTimeAndAFailedOneDoesNotCount) {
  const Steps steps = {"time:1000:2", "cpu", "cpu", "cpu", "cpu"};  // every second call fails
  Run(steps);
  ASSERT_EQ(samples_.size(), 1U);
  EXPECT_EQ(samples_[0].head.failures, 2U);
  const std::uint64_t longest = samples_[0].head.maxNs;
  ASSERT_GT(longest, 1'000U);
  for (const std::uint64_t shorter : {0U, 1U}) {
    Run(steps, {{scope::kDeadlinesVariable, "cpu=" + std::to_string(longest - shorter)}});
    ASSERT_FALSE(deadlines_.empty());
    EXPECT_EQ(deadlines_.back().operations, 2U);
    EXPECT_EQ(deadlines_.back().missed, shorter);
    EXPECT_EQ(samples_.back().head.failures, 2U);
  }
}

TEST_F(MeterCasesTest, WhatWasFilledIsToldOfEachEngine) {
  // The images have no memory that the program can see.
  Run({"zeros", "zeros", "resize:1:0:1:0", "encode:2:0", "infer"}, {{scope::kFillVariable, "ones"}});
  ASSERT_EQ(order_, "HSSSSFFFE");
  const Engine engines[] = {Engine::kCpu, Engine::kVpc, Engine::kVenc};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(fills_[i].engine, engines[i]);
    EXPECT_EQ(fills_[i].pattern, static_cast<std::uint32_t>(scope::Fill::kOnes));
    EXPECT_EQ(fills_[i].buffers, i == 0 ? 1U : 0U);
    EXPECT_EQ(fills_[i].bytes, i == 0 ? 100U : 0U);
    EXPECT_EQ(fills_[i].refused, 0U);
  }
}

TEST_F(MeterCasesTest, WhatHoldsAResultIsNotFilled) {
  Run({"zeros", "back", "seen:resize", "seen:encode", "seen:again"}, {{scope::kFillVariable, "ones"}});
  ASSERT_EQ(fills_.size(), 3U);
  EXPECT_EQ(fills_[0].buffers, 1U);
  EXPECT_EQ(fills_[0].refused, 1U) << "it was copied to";
  EXPECT_EQ(fills_[1].engine, Engine::kVpc);
  EXPECT_EQ(fills_[1].buffers, 1U);
  EXPECT_EQ(fills_[1].bytes, 64U * 32 * 3);
  EXPECT_EQ(fills_[1].refused, 1U) << "it was resized to";
  EXPECT_EQ(fills_[2].engine, Engine::kVenc);
  EXPECT_EQ(fills_[2].buffers, 1U);
  EXPECT_EQ(fills_[2].bytes, kFrame);
  EXPECT_EQ(fills_[2].refused, 0U);
}

TEST_F(MeterCasesTest, AWrongSourceOfEachEngineIsFound) {
  for (const auto& [what, engine] : {std::pair<std::string, Engine>{"resize", Engine::kVpc},
                                     {"encode", Engine::kVenc},
                                     {"infer", Engine::kAic}}) {
    // Long operations, so that there is time for each check.
    Steps steps = {"time:1000000000:0"};
    steps.insert(steps.end(), 16, "seen:" + what);
    steps.emplace_back("spoil");
    steps.insert(steps.end(), 8, "seen:" + what);
    errorsFound_.clear();
    order_.clear();
    Run(steps, {{scope::kVerifyVariable, "1"}, {"ODD_HOST", "1"}});
    ASSERT_EQ(errorsFound_.size(), 1U) << what;
    EXPECT_EQ(errorsFound_[0].engine, engine);
    EXPECT_EQ(errorsFound_[0].kind, scope::ErrorKind::kSource);
    EXPECT_EQ(errorsFound_[0].offset, 48U);
    EXPECT_EQ(errorsFound_[0].bits, 1U);
    ASSERT_FALSE(checks_.empty());
    EXPECT_EQ(checks_.back().engine, engine);
    EXPECT_EQ(checks_.back().operations, 24U);
    EXPECT_EQ(order_, what == "encode" ? "HS!CGE" : "HS!CE") << "a group of streams is finished";
  }
}

TEST_F(MeterCasesTest, SaysOnceWhyThreadsGetNoCpusOfTheirOwn) {
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
  std::vector<std::size_t> cpus;
  for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
  }
  std::string all;
  for (const std::size_t cpu : cpus) all += (all.empty() ? "" : ",") + std::to_string(cpu);
  const auto said = [this](const std::string& value) {
    errors_.clear();
    Run({"cpu", "elsewhere"}, {{scope::kPinVariable, value}});
    EXPECT_EQ(exitStatus_, 0);
    return errors_;
  };
  const std::string begin = "libstress_scope: cannot give threads CPUs of their own: ";
  for (const char* const value : {"cpu=x", "cpu=1024", "cpu=1a", "cpu=0,,1"}) {
    EXPECT_THAT(said(value), ElementsAre(begin + "not a list of CPUs")) << value;
  }
  for (const std::string& value : {std::string("cpu="), "cpu=" + all}) {
    EXPECT_THAT(said(value), ElementsAre(begin + "no CPU is left for the others")) << value;
  }
  // No machine of the tests has so many.
  EXPECT_THAT(said("cpu=1023"), ElementsAre(begin + std::strerror(EINVAL)));
  EXPECT_THAT(said("cpu=9"), Not(Contains(HasSubstr("list")))) << "a number, whether there is one or not";
  EXPECT_THAT(said("cpu"), IsEmpty());
  if (cpus.size() < 2) GTEST_SKIP() << "one CPU: none can be given away";
  EXPECT_THAT(said("cpu=" + std::to_string(cpus[1])), IsEmpty());
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(cpus[0], &first);
  ASSERT_EQ(sched_setaffinity(0, sizeof(first), &first), 0);
  EXPECT_THAT(said("cpu=" + std::to_string(cpus[0])), ElementsAre(begin + "no CPU is left for the others"));
  EXPECT_EQ(sched_setaffinity(0, sizeof(allowed), &allowed), 0);
}

// Only where results are checked, too.
TEST_F(MeterCasesTest, ACellThatDoesNotTakeThePatternIsAnError) {
  const Environment fill = {{scope::kFillVariable, "ones"}, {"ODD_CELL", "1"}};
  Run({"zeros", "zeros"}, fill);
  ASSERT_EQ(order_, "HSFE");
  order_.clear();
  Environment both = fill;
  both.emplace_back(scope::kVerifyVariable, "1");
  Run({"zeros", "zeros"}, both);
  ASSERT_EQ(order_, "HSF!CE");
  const scope::ErrorPacket& error = errorsFound_[0];
  EXPECT_EQ(error.engine, Engine::kCpu);
  EXPECT_EQ(error.kind, scope::ErrorKind::kSource);
  EXPECT_EQ(error.operation, 1U);
  EXPECT_EQ(error.offset, 40U);
  EXPECT_EQ(error.expected, ~std::uint64_t{0});
  EXPECT_EQ(error.found, ~std::uint64_t{4});
  EXPECT_EQ(error.bits, 1U);
  EXPECT_EQ(checks_.back().errors, 1U);
}

TEST_F(MeterCasesTest, ACellUnderTheSourceOfACopyToMediaMemoryIsOneOfTheResizes) {
  Run({"seen:copy", "seen:resize"},
      {{scope::kFillVariable, "ones"}, {"ODD_CELL", "1"}, {scope::kVerifyVariable, "1"}});
  ASSERT_EQ(order_, "HSSFF!CE");
  EXPECT_EQ(errorsFound_[0].engine, Engine::kVpc);
  EXPECT_EQ(errorsFound_[0].thread, 0U);
  EXPECT_EQ(errorsFound_[0].kind, scope::ErrorKind::kSource);
  EXPECT_EQ(errorsFound_[0].operation, 1U);
  EXPECT_EQ(errorsFound_[0].offset, 40U);
  ASSERT_EQ(checks_.back().engine, Engine::kVpc);
  EXPECT_EQ(checks_.back().operations, 1U);
  EXPECT_EQ(checks_.back().errors, 1U);
}

// The meter looks at a wrong source for some operations before it counts. The program ends before that.
TEST_F(MeterCasesTest, AnErrorThatIsHeldIsReportedAtTheEnd) {
  Run({"zeros", "zeros", "flip", "zeros", "zeros"}, {{scope::kVerifyVariable, "1"}});
  ASSERT_EQ(order_, "HS!CE");
  EXPECT_EQ(errorsFound_[0].kind, scope::ErrorKind::kSource);
  EXPECT_EQ(errorsFound_[0].operation, 3U);
  EXPECT_EQ(errorsFound_[0].offset, 40U);
  EXPECT_EQ(errorsFound_[0].found, 4U);
  EXPECT_EQ(errorsFound_[0].header.timeNs, kNsPerS) << "the time of its thread, not that of the packet";
  EXPECT_EQ(checks_.back().errors, 1U);
  EXPECT_EQ(checks_.back().state, scope::CheckState::kJudged);
}

TEST_F(MeterCasesTest, AnErrorThatFindsNoRoomIsSentWithTheNextSecond) {
  Steps steps = {"zeros", "zeros", "flip"};
  steps.insert(steps.end(), 17, "zeros");
  steps.emplace_back("second");
  // After the Hello and a sample.
  Run(steps,
      {{scope::kVerifyVariable, "1"}, {"ODD_SEND", "3 " + std::to_string(EAGAIN)}, {"ODD_AHEAD", "0"}});
  EXPECT_EQ(order_.substr(0, 8), "HSCES!CE");
  EXPECT_EQ(errorsFound_.size(), 1U);
}

TEST_F(MeterCasesTest, ASecondHasOnlyItsOwnWorkAndOnlyTheLastOneWaits) {
  Run({"time:1000:0", "cpu", "cpu", "cpu", "copy:1:0:1:0", "second", "busy:0"},
      {{"ODD_SENDS", "1"}, {"ODD_AHEAD", "0"}});
  ASSERT_GE(ends_.size(), 2U);
  ASSERT_EQ(samples_.size(), 2 * ends_.size());
  EXPECT_EQ(order_.substr(0, 4), "HSSE");
  EXPECT_EQ(order_.find('H', 1), std::string::npos);
  ASSERT_EQ(output_.size(), 2U);
  // The letters of the first second, and the number.
  EXPECT_EQ(output_[0].substr(0, 4), "HSSE");
  EXPECT_EQ(output_[1].substr(output_[1].size() - 3), "sse");
  EXPECT_EQ(output_[1].find_first_of("hse"), output_[1].size() - 3);
  EXPECT_GE(ends_[0].header.timeNs, hello_.header.timeNs + kNsPerS);
  EXPECT_EQ(samples_[0].head.operations, 3U);
  EXPECT_EQ(std::to_string(samples_[0].head.busyNs), output_[0].substr(4));
  EXPECT_GE(samples_[0].head.maxNs, 1000U);
  EXPECT_EQ(samples_[1].head.operations, 1U);
  for (std::size_t i = 0; i < ends_.size(); ++i) {
    EXPECT_EQ(ends_[i].last, i + 1 == ends_.size() ? 1U : 0U);
    EXPECT_EQ(ends_[i].samples, 2U);
  }
  for (std::size_t i = 2; i < samples_.size(); ++i) {
    const scope::ThreadSamplePacket& sample = samples_[i].head;
    EXPECT_EQ(sample.operations, 0U);
    EXPECT_EQ(sample.busyNs, 0U);
    EXPECT_EQ(sample.bytes, 0U);
    EXPECT_EQ(sample.maxNs, 0U);
    EXPECT_THAT(samples_[i].buckets, IsEmpty());
  }
}

TEST_F(MeterCasesTest, AHelloThatFindsNoRoomIsSentWithTheSecond) {
  for (const int error : {EAGAIN, ENOBUFS, ENOMEM}) {
    order_.clear();
    Run({"sends:1", "cpu"}, {{"ODD_SEND", "1 " + std::to_string(error)}});
    EXPECT_EQ(order_, "HSE") << std::strerror(error);
  }
}

TEST_F(MeterCasesTest, AnInterruptedSendIsRepeated) {
  Run({"cpu", "sends:2"}, {{"ODD_SEND", "1 " + std::to_string(EINTR)}, {"ODD_SENDS", "1"}});
  EXPECT_EQ(order_, "HSE");
  EXPECT_THAT(output_, ElementsAre("HHse"));
}

TEST_F(MeterCasesTest, AfterALastPacketThatIsNotTakenNoneIsWaitedFor) {
  Run({"sends:1", "cpu", "copy:1:0:1:0"}, {{"ODD_SEND", "2 " + std::to_string(EAGAIN)}, {"ODD_SENDS", "1"}});
  EXPECT_EQ(order_, "HSE");
  EXPECT_THAT(output_, ElementsAre("HsSE"));
  ASSERT_EQ(ends_.size(), 1U);
  EXPECT_EQ(ends_[0].samples, 1U);
  EXPECT_EQ(ends_[0].delayedSamples, 1U);
}

TEST_F(MeterCasesTest, WithoutAReaderTheRecordingEnds) {
  MakeSockets();
  (void)close(reader_);
  reader_ = -1;
  Run({"gone"});
  EXPECT_EQ(exitStatus_, 0);
  EXPECT_THAT(output_, IsEmpty());
}

TEST_F(MeterCasesTest, NothingIsRecordedForNobody) {
  Run({"gone"}, {{scope::kDescriptorVariable, ""}});
  EXPECT_EQ(exitStatus_, 0);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_EQ(order_, "");
}

TEST_F(MeterCasesTest, BytesOfAnImageDependOnItsType) {
  constexpr std::uint64_t kPixels = std::uint64_t{64} * 32;
  Run({"copy:0:0:1:0", "copy:2:0:9:0", "copy:10:0:11:0", "copy:12:0:13:0", "copy:14:0:15:0",
       "copy:99:1:99:7"});
  ASSERT_EQ(order_, "HSE");
  EXPECT_EQ(samples_[0].head.bytes, kPixels * (6 + 3 + 4 + 16) + 1 + 7);
  EXPECT_EQ(samples_[0].head.bytesKnown, 1U);
}

TEST_F(MeterCasesTest, UnknownBytesAreSaidToBeUnknown) {
  Run({"copy:99:0:1:0", "resize:1:0:99:0", "encode:99:0", "infer", "cpu"});
  ASSERT_EQ(order_, "HSSSSSE");
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(samples_[i].head.bytesKnown, 0U) << i;
  EXPECT_EQ(samples_[4].head.bytesKnown, 1U);
}

TEST_F(MeterCasesTest, OneByteIsKnown) {
  const std::string model = folder_.Put("model", "w");
  Run({"copy:99:1:99:1", "resize:99:1:99:1", "encode:99:1", "model:" + model, "infer"});
  ASSERT_EQ(order_, "HSSSSE");
  const std::uint64_t bytes[] = {2, 2, 1, 1};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(samples_[i].head.bytes, bytes[i]) << i;
    EXPECT_EQ(samples_[i].head.bytesKnown, 1U) << i;
  }
}

TEST_F(MeterCasesTest, KnowsTheSizesOfTheLast256Models) {
  const std::string model = folder_.Put("model", std::string(5000, 'w'));
  folder_.Put("model.small", "w");
  Run({"models:" + model});
  ASSERT_EQ(order_, "HSE");
  EXPECT_EQ(samples_[0].head.operations, 256U + 257 + 2);
  EXPECT_EQ(samples_[0].head.bytes, 256U * 5000 + 1);
}

TEST_F(MeterCasesTest, OnlyOfItsOwnPlatformItCountsStreamsAndBuffers) {
  const std::string model = folder_.Put("model", std::string(5000, 'w'));
  const Steps steps = {"encode:2:0", "model:" + model, "infer"};
  Run(steps, {{"ODD_HOST", "1"}});
  ASSERT_EQ(order_, "HSSE");
  EXPECT_EQ(hello_.hostPlatform, 1U);
  EXPECT_EQ(samples_[0].head.bytes, kFrame + 1'000'000);
  EXPECT_EQ(samples_[1].head.bytes, 5000U + 10 + 200 + 3000);
  samples_.clear();
  order_.clear();
  Run(steps, {{"ODD_HOST", "2"}});
  ASSERT_EQ(order_, "HSSE");
  EXPECT_EQ(hello_.hostPlatform, 0U);
  EXPECT_EQ(samples_[0].head.bytes, kFrame);
  EXPECT_EQ(samples_[1].head.bytes, 5000U);
  // Their results are in records that are not known, and are not looked at.
  order_.clear();
  Run(steps, {{"ODD_HOST", "2"}, {scope::kVerifyVariable, "1"}});
  ASSERT_EQ(order_, "HSSCCE");
  EXPECT_EQ(checks_[0].engine, Engine::kVenc);
  EXPECT_EQ(checks_[1].engine, Engine::kAic);
  for (const scope::CheckPacket& check : checks_) {
    EXPECT_EQ(check.state, scope::CheckState::kUnknown);
    EXPECT_EQ(check.operations, 1U);
    EXPECT_EQ(check.checked, 0U);
    EXPECT_EQ(check.allBytes, 0U);
  }
}

TEST_F(MeterCasesTest, TheTimeOfAFailedCallBelongsToNoOperation) {
  Run({"time:1000:2", "encode:2:0", "encode:2:0", "encode:2:0", "cpu", "cpu", "cpu", "busy:2", "busy:0"});
  ASSERT_EQ(order_, "HSSE");
  ASSERT_EQ(output_.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(samples_[i].head.operations, 2U) << i;
    EXPECT_EQ(samples_[i].head.failures, 1U) << i;
    EXPECT_EQ(std::to_string(samples_[i].head.busyNs), output_[i]) << i;
  }
  EXPECT_EQ(samples_[0].head.bytes, 2 * kFrame);
}

TEST_F(MeterCasesTest, APlatformOfOneOperationIsAPlatform) {
  for (const std::string name :
       {LINK_MEMCPY_S, LINK_QET_IMAGE_RESIZE, LINK_QET_MEMCPY_TO_KIVU, LINK_QET_VENC_SEND_FRAME,
        LINK_QET_VENC_GET_STREAM, LINK_QET_VENC_RELEASE_STREAM, LINK_QET_DNN_MODEL_INITIALIZE,
        LINK_QET_DNN_MODEL_PROCESS}) {
    order_.clear();
    Run({}, {{"ODD_OPERATIONS", name + ","}});
    EXPECT_EQ(order_, "HE") << name;
    const bool named = name == LINK_MEMCPY_S || name == LINK_QET_IMAGE_RESIZE;
    EXPECT_EQ(std::strstr(hello_.platformPath, "libcounting_platform") != nullptr, named) << name;
  }
}

TEST_F(MeterCasesTest, AProgramWithoutAPlatformIsNotMeasured) {
  Run({"platform", "cpu"}, {{"ODD_OPERATIONS", ""}});
  EXPECT_EQ(exitStatus_, 0);
  EXPECT_EQ(endSignal_, 0);
  EXPECT_EQ(order_, "");
}

TEST_F(MeterCasesTest, AsksTheLoaderOnceForAnOperation) {
  Run({"cpu", "asked", "platform", "copy:1:0:1:0", "copy:1:0:1:0", "asked"},
      {{"ODD_OPERATIONS", std::string(LINK_MEMCPY_S) + ","}});
  EXPECT_THAT(output_, ElementsAre("0", "1"));
}

TEST_F(MeterCasesTest, AnOperationThatNoPlatformHasEndsTheProgram) {
  Run({"cpu"}, {{"ODD_OPERATIONS", ""}});
  EXPECT_EQ(endSignal_, SIGABRT);
  EXPECT_THAT(errors_, ElementsAre("libstress_scope: no platform library has memcpy_s"));
}

TEST_F(MeterCasesTest, AForkedChildRecordsNothingAndJoinsNoThread) {
  Run({"cpu", "fork"});
  EXPECT_THAT(output_, ElementsAre("0"));
  ASSERT_EQ(order_, "HSE");
  EXPECT_EQ(samples_[0].head.operations, 1U);
}

TEST_F(MeterCasesTest, ItsThreadHasANameAndTakesNoSignals) {
  Run({"thread", "close"});
  ASSERT_EQ(output_.size(), 3U);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGCHLD, SIGRTMAX}) {
    EXPECT_NE(std::stoull(output_[0], nullptr, 16) >> (signal - 1) & 1, 0U) << signal;
  }
  EXPECT_EQ(std::stoull(output_[1], nullptr, 16), 0U);
  EXPECT_EQ(output_[2], std::to_string(FD_CLOEXEC));
}

TEST_F(MeterCasesTest, WithoutASemaphoreItRecordsNothing) {
  Run({"gone"}, {{"ODD_SEMAPHORE", "1"}});
  EXPECT_EQ(exitStatus_, 0);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_EQ(order_, "");
}

TEST_F(MeterCasesTest, WithoutAThreadItSaysSoAndRecordsNothing) {
  Run({"gone"}, {{"ODD_THREAD", "1"}});
  EXPECT_EQ(exitStatus_, 0);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_THAT(errors_, ElementsAre(std::string("libstress_scope: cannot start the meter's thread: ") +
                                   std::strerror(EAGAIN)));
  EXPECT_EQ(order_, "");
}

/// The reader's socket is standard input, too.
class MeterDescriptorTest : public MeterCasesTest {
 protected:
  ~MeterDescriptorTest() override {
    if (input_ >= 0) {
      (void)dup2(input_, STDIN_FILENO);
      (void)close(input_);
    }
  }

  void SetUp() override {
    input_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    MakeSockets();
    ASSERT_EQ(dup2(writer_, STDIN_FILENO), STDIN_FILENO);
  }

 private:
  int input_ = -1;
};

TEST_F(MeterDescriptorTest, MayBeZero) {
  Run({"cpu"}, {{scope::kDescriptorVariable, "0"}});
  EXPECT_EQ(order_, "HSE");
}

TEST_F(MeterDescriptorTest, IsANumberAndNothingElse) {
  const std::string own = std::to_string(kDescriptor);
  const std::string above = std::to_string(kDescriptor + (std::int64_t{1} << 32));
  const std::string below = std::to_string(kDescriptor - (std::int64_t{1} << 32));
  for (const std::string& text : Steps{"", "x", "-1", own + "x", above, below}) {
    Run({"gone"}, {{scope::kDescriptorVariable, text}});
    EXPECT_EQ(exitStatus_, 0) << text;
    EXPECT_EQ(order_, "") << text;
  }
}

TEST_F(MeterDescriptorTest, IsASocketOfPackets) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  Run({"gone"}, {{scope::kDescriptorVariable, std::to_string(ends[1])}});
  char byte = 0;
  EXPECT_EQ(recv(ends[0], &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(order_, "");
  (void)close(ends[0]);
  (void)close(ends[1]);
}

}  // namespace
