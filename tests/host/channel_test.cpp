// SPDX-License-Identifier: Apache-2.0
#include <climits>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform_test.h"

namespace Ormis::test {
namespace {

class ChannelTest : public PlatformTest {};

TEST_F(ChannelTest, AFreeNumberIsGranted) {
  for (const int wish : {7, 0, 255}) {
    int channel = wish;
    ASSERT_EQ(QetCreateChannel(channel), kQetOk);
    EXPECT_EQ(channel, wish);
  }
}

TEST_F(ChannelTest, ATakenNumberBecomesTheLowestFreeOne) {
  for (const int expected : {1, 0, 2}) {
    int channel = 1;
    ASSERT_EQ(QetCreateChannel(channel), kQetOk);
    EXPECT_EQ(channel, expected);
  }
}

TEST_F(ChannelTest, ANumberThatIsNoneBecomesTheLowestFreeOne) {
  int expected = 0;
  for (const int wish : {-1, INT_MIN, 256, INT_MAX}) {
    int channel = wish;
    ASSERT_EQ(QetCreateChannel(channel), kQetOk);
    EXPECT_EQ(channel, expected++) << wish;
  }
}

TEST_F(ChannelTest, ADestroyedNumberIsFreeAgain) {
  int channel = 3;
  ASSERT_EQ(QetCreateChannel(channel), kQetOk);
  ASSERT_EQ(QetDestroyChannel(channel), kQetOk);
  ASSERT_EQ(QetCreateChannel(channel), kQetOk);
  EXPECT_EQ(channel, 3);
}

TEST_F(ChannelTest, UnknownAndDestroyedChannelsAreRefused) {
  int channel = 3;
  for (const int unknown : {3, -1, 256, INT_MAX}) {
    ExpectFailure(kQetUnknownChannel, "QetDestroyChannel", NoChannelMessage(unknown),
                  [&] { return QetDestroyChannel(unknown); });
  }
  ASSERT_EQ(QetCreateChannel(channel), kQetOk);
  ASSERT_EQ(QetDestroyChannel(channel), kQetOk);
  ExpectFailure(kQetUnknownChannel, "QetDestroyChannel", NoChannelMessage(3),
                [&] { return QetDestroyChannel(channel); });
}

TEST_F(ChannelTest, AllTakenIsBusyAndLeavesTheWish) {
  for (int i = 0; i < 256; ++i) {
    int channel = i;
    ASSERT_EQ(QetCreateChannel(channel), kQetOk);
    ASSERT_EQ(channel, i);
  }
  int channel = 12;
  ExpectFailure(kQetBusy, "QetCreateChannel", "all 256 channels are in use: destroy one first",
                [&] { return QetCreateChannel(channel); });
  EXPECT_EQ(channel, 12);
}

TEST_F(ChannelTest, FortyThreadsWithFourWishesGetFortyChannels) {
  std::mutex mutex;
  std::set<int> granted;
  std::vector<std::thread> threads;
  threads.reserve(40);
  for (int i = 0; i < 40; ++i) {
    threads.emplace_back([&, i] {
      const ThreadContext context;
      int channel = i % 4;
      EXPECT_EQ(QetCreateChannel(channel), kQetOk);
      const std::lock_guard<std::mutex> lock(mutex);
      granted.insert(channel);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(granted.size(), 40U);
  EXPECT_EQ(*granted.begin(), 0);
  EXPECT_EQ(*granted.rbegin(), 39);
}

}  // namespace
}  // namespace Ormis::test
