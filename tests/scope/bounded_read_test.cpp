// SPDX-License-Identifier: Apache-2.0

// What writes without pause does not keep its reader.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "child_process.h"
#include "latency_buckets.h"
#include "meter_reader.h"

namespace {

using scope::LineReader;
using ::testing::ElementsAre;

class LineReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0); }
  ~LineReaderTest() override {
    (void)close(ends_[0]);
    CloseWriter();
  }

  void Write(const std::string& text) const {
    ASSERT_EQ(write(ends_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void CloseWriter() {
    if (ends_[1] >= 0) (void)close(ends_[1]);
    ends_[1] = -1;
  }
  int Pipe() const { return ends_[0]; }
  int Writer() const { return ends_[1]; }

  LineReader reader_;
  std::vector<std::string> lines_;

 private:
  int ends_[2] = {-1, -1};
};

TEST_F(LineReaderTest, PutsLinesTogetherThatComeInPieces) {
  Write("one\ntw");
  EXPECT_TRUE(reader_.Read(Pipe(), lines_));
  EXPECT_THAT(lines_, ElementsAre("one"));
  Write("o\n\nthree");
  EXPECT_TRUE(reader_.Read(Pipe(), lines_));
  EXPECT_THAT(lines_, ElementsAre("one", "two", ""));
  CloseWriter();
  EXPECT_FALSE(reader_.Read(Pipe(), lines_));
  EXPECT_THAT(lines_, ElementsAre("one", "two", "", "three"));
  EXPECT_TRUE(reader_.AtEnd());
}

TEST_F(LineReaderTest, CutsALongLineAndGoesOnBehindIt) {
  Write(std::string(10'000, 'x'));
  EXPECT_TRUE(reader_.Read(Pipe(), lines_));
  EXPECT_THAT(lines_, ElementsAre());
  Write(std::string(10'000, 'y') + "\nnext\n");
  EXPECT_TRUE(reader_.Read(Pipe(), lines_));
  EXPECT_THAT(lines_, ElementsAre(std::string(LineReader::kMostLineBytes, 'x'), "next"));
}

TEST_F(LineReaderTest, ReadsAsMuchAsItIsAsked) {
  const std::string line = std::string(99, 'x') + "\n";
  for (int i = 0; i < 600; ++i) Write(line);
  EXPECT_TRUE(reader_.Read(Pipe(), lines_, 8192));
  EXPECT_EQ(lines_.size(), 81U);
  EXPECT_TRUE(reader_.Read(Pipe(), lines_));
  EXPECT_EQ(lines_.size(), 600U);
}

TEST_F(LineReaderTest, GetsAllOfAFullPipeAtOnce) {
  const std::string line = std::string(127, 'x') + "\n";
  while (write(Writer(), line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
  }
  CloseWriter();
  EXPECT_FALSE(reader_.Read(Pipe(), lines_)) << "the end was not reached";
  EXPECT_EQ(lines_.size(), 512U);
}

TEST(BoundedRead, AMeterThatSendsWithoutPauseDoesNotKeepTheReader) {
  scope::MeterReader reader(0);
  std::atomic<bool> returned{false};
  std::atomic<bool> hangs{false};
  const auto sendWithoutPause = [&] {
    scope::HelloPacket hello{};
    hello.header = {scope::kMeterMagic, scope::kMeterVersion, scope::PacketType::kHello, 1, 0};
    hello.bucketCount = scope::kBucketCount;
    // Twenty seconds: a reader that has not returned then hangs.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!returned && std::chrono::steady_clock::now() < giveUp) {
      (void)send(reader.ChildEnd(), &hello, sizeof(hello), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (!returned) hangs = true;
  };
  // Several, so that the reader does not overtake them: it returns from an empty socket.
  std::vector<std::thread> meters;
  for (int i = 0; i < 4; ++i) meters.emplace_back(sendWithoutPause);
  std::vector<scope::MeterSecond> seconds;
  while (!reader.SaidHello() && !hangs) reader.Read(seconds);
  for (int i = 0; i < 3; ++i) reader.Read(seconds);
  returned = true;
  for (std::thread& meter : meters) meter.join();
  EXPECT_FALSE(hangs);
  EXPECT_TRUE(reader.SaidHello());
}

}  // namespace
