// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <set>
#include <thread>

#include "control.h"
#include "error_of.h"
#include "latency_probe.h"
#include "monotonic_ns.h"

namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;
using namespace scope;

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;
const auto kPageBytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

// --- the chain ---

// The lines of the cycle in their order, as numbers; cut when the first one comes again.
std::vector<std::uint64_t> LinesOf(const ChaseMemory& memory) {
  std::vector<std::uint64_t> lines;
  const ChaseMemory::Line* line = memory.Start();
  const std::uint64_t most = memory.Bytes() / memory.LineBytes();
  do {
    lines.push_back(static_cast<std::uint64_t>(reinterpret_cast<const char*>(line) -
                                               reinterpret_cast<const char*>(memory.Start())) /
                    memory.LineBytes());
    line = line->next;
  } while (line != memory.Start() && lines.size() <= most);
  return lines;
}

TEST(ChaseMemory, TheCycleVisitsEachLineOnceHoweverItGrew) {
  ChaseMemory memory(kMebibyte + 1);
  ASSERT_EQ(memory.Bytes(), kMebibyte) << "whole lines";
  for (const std::uint64_t bytes : {memory.LineBytes(), 3 * memory.LineBytes(), kMebibyte / 3, kMebibyte}) {
    memory.GrowTo(bytes);
    const std::uint64_t lines = bytes / memory.LineBytes();
    EXPECT_EQ(memory.CycleBytes(), lines * memory.LineBytes());
    const std::vector<std::uint64_t> visited = LinesOf(memory);
    EXPECT_EQ(visited.size(), lines);
    const std::set<std::uint64_t> different(visited.begin(), visited.end());
    EXPECT_EQ(different.size(), lines);
    EXPECT_EQ(*different.rbegin(), lines - 1);
  }
  memory.GrowTo(kMebibyte / 2);
  EXPECT_EQ(memory.CycleBytes(), kMebibyte) << "it never shrinks";
}

// What a prefetcher could follow: the neighbour, or the same distance again.
TEST(ChaseMemory, TheOrderIsOneThatNoPrefetcherFollows) {
  ChaseMemory memory(kMebibyte);
  memory.GrowTo(kMebibyte);
  const std::vector<std::uint64_t> lines = LinesOf(memory);
  const std::uint64_t linesOfAPage = 4096 / memory.LineBytes();
  std::size_t samePage = 0;
  std::size_t sameDistance = 0;
  for (std::size_t i = 2; i < lines.size(); ++i) {
    samePage += lines[i] / linesOfAPage == lines[i - 1] / linesOfAPage ? 1 : 0;
    sameDistance += lines[i] - lines[i - 1] == lines[i - 1] - lines[i - 2] ? 1 : 0;
  }
  // By chance one in 256 pages, which is 64 of 16384 lines.
  EXPECT_LT(samePage, lines.size() / 100);
  EXPECT_LT(sameDistance, lines.size() / 100);
}

TEST(ChaseMemory, UsualPagesAreNotHuge) {
  ChaseMemory memory(4 * ChaseMemory::HugePageBytes(), ChaseMemory::Pages::kUsual);
  memory.GrowTo(memory.Bytes());
  EXPECT_EQ(memory.HugeBytes(), 0U);
}

TEST(ChaseMemory, IsRefusedIfThereIsNone) {
  EXPECT_THROW(ChaseMemory(std::uint64_t{1} << 60), std::bad_alloc);
  EXPECT_THROW(ChaseMemory(1), std::bad_alloc);
}

TEST(ChaseMemory, TouchesALineOfEach32KiBOrOfEachSmallPage) {
  for (const ChaseMemory::Pages pages : {ChaseMemory::Pages::kHuge, ChaseMemory::Pages::kUsual}) {
    ChaseMemory memory(4 * kMebibyte, pages);
    memory.GrowTo(memory.Bytes());
    if (pages == ChaseMemory::Pages::kUsual) ASSERT_FALSE(memory.IsHuge());
    EXPECT_EQ(memory.TouchPages(), 4 * kMebibyte / (memory.IsHuge() ? 32 << 10 : kPageBytes));
  }
}

// --- bursts ---

TEST(Interruption, IsALostProcessorAndNotALongAccess) {
  const ThreadState before{5, 1'000'000, 500'000};
  const ThreadState worked{5, 2'000'000, 1'500'000};
  EXPECT_FALSE(WasInterrupted(before, worked, 100, false));
  EXPECT_FALSE(WasInterrupted(before, worked, 900'000, false)) << "memory may be slow";
  EXPECT_FALSE(WasInterrupted(before, worked, 100, true)) << "the host took its time from others";
  EXPECT_TRUE(WasInterrupted(before, worked, 900'000, true));
  EXPECT_TRUE(WasInterrupted(before, {6, 2'000'000, 1'500'000}, 100, false)) << "a switch";
  EXPECT_TRUE(WasInterrupted(before, {5, 2'000'000, 1'400'000}, 100, false)) << "100 us without work";
}

TEST(LongestWholeBatch, IsFourMedians) {
  std::vector<std::uint64_t> batches = {41, 10, 9, 40, 10};
  EXPECT_EQ(LongestWholeBatch(batches), 40U);
  std::vector<std::uint64_t> none;
  EXPECT_EQ(LongestWholeBatch(none), 0U);
}

/// Bursts over small memory, whose machine says what a test wants.
class LatencyBurstsTest : public ::testing::Test {
 protected:
  LatencyBurstsTest() { memory_.GrowTo(memory_.Bytes()); }

  LatencyBursts Bursts(std::function<ThreadState()> state) {
    return LatencyBursts(memory_, timer_, {std::move(state), nullptr});
  }

  ChaseMemory memory_{kMebibyte};
  ChaseTimer timer_{memory_};
};

TEST_F(LatencyBurstsTest, OneThatWasInterruptedIsCountedApart) {
  std::uint64_t calls = 0;
  std::uint64_t injected = 0;
  // The third burst loses its processor: the state after it is the sixth.
  LatencyBursts bursts = Bursts([&] {
    ++calls;
    injected += calls == 6 ? 1 : 0;
    return ThreadState{injected, 0, 0};
  });
  std::vector<std::uint64_t> accesses;
  std::uint64_t all = 0;
  for (int burst = 0; burst < 4; ++burst) {
    (void)bursts.Burst(100'000);
    const LatencyCounts counts = bursts.Take();
    EXPECT_EQ(counts.bursts, 1U);
    EXPECT_EQ(counts.interrupted, burst == 2 ? 1U : 0U);
    EXPECT_GT(counts.allAccesses, counts.accesses) << "the first ones are not timed";
    accesses.push_back(counts.accesses);
    EXPECT_EQ(counts.batchAccesses == 0, burst == 2);
    std::uint64_t inBuckets = 0;
    for (const std::uint32_t count : counts.buckets) inBuckets += count;
    EXPECT_EQ(inBuckets, counts.accesses);
    all += counts.allAccesses;
  }
  EXPECT_EQ(injected, 1U);
  EXPECT_GT(accesses[0], 0U);
  EXPECT_GT(accesses[1], 0U);
  EXPECT_EQ(accesses[2], 0U);
  EXPECT_GT(accesses[3], 0U);
  EXPECT_GT(all, accesses[0] + accesses[1] + accesses[3]);
}

TEST_F(LatencyBurstsTest, SaysWhetherItWasInterrupted) {
  std::uint64_t calls = 0;
  LatencyBursts bursts = Bursts([&] { return ThreadState{++calls == 4 ? 1U : 0U, 0, 0}; });
  EXPECT_TRUE(bursts.Burst(50'000));
  EXPECT_FALSE(bursts.Burst(50'000));
  EXPECT_EQ(calls, 4U);
}

void SpinFor100Us(int /*signal*/) {
  const std::uint64_t end = MonotonicNs() + 100'000;
  while (MonotonicNs() < end) {
  }
}

// Signals make an access long. They may also arrive where accesses are not timed, so there are several
// bursts.
TEST_F(LatencyBurstsTest, ALongAccessIsAnInterruptionIfTheHostTookTimeSinceWarming) {
  struct sigaction spin{};
  struct sigaction before{};
  spin.sa_handler = SpinFor100Us;
  ASSERT_EQ(sigaction(SIGALRM, &spin, &before), 0);
  std::uint64_t stolen = 0;
  std::uint64_t step = 0;
  LatencyBursts bursts(memory_, timer_, {[] { return ThreadState(); }, [&] { return stolen += step; }});
  const auto burstWithALongAccess = [&](std::uint64_t growth) {
    step = 0;
    for (int i = 0; i < 1000; ++i) {
      stolen += 10;  // before: nobody asks
      bursts.Warm();
      step = growth;
      const itimerval timer{{0, 0}, {0, 1000}};
      EXPECT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
      const bool isWhole = bursts.Burst(2e6);
      step = 0;
      const LatencyCounts counts = bursts.Take();
      if (!isWhole || counts.maxNs > 20'000) return isWhole;
    }
    ADD_FAILURE() << "no access was long";
    return false;
  };
  EXPECT_TRUE(burstWithALongAccess(0)) << "the host took time before";
  EXPECT_FALSE(burstWithALongAccess(10));
  ASSERT_EQ(sigaction(SIGALRM, &before, nullptr), 0);
}

TEST_F(LatencyBurstsTest, WarmingIsALoadThatIsTold) {
  LatencyBursts bursts = Bursts([] { return ThreadState(); });
  bursts.Warm();
  const LatencyCounts counts = bursts.Take();
  if (memory_.IsHuge()) EXPECT_EQ(counts.allAccesses, kMebibyte >> 15) << "a line of each 32 KiB";
  EXPECT_EQ(counts.accesses, 0U);
  EXPECT_EQ(counts.bursts, 0U);
}

TEST(LatencyBursts, ChaseBeforeABurstOverSmallPages) {
  ChaseMemory memory(kMebibyte, ChaseMemory::Pages::kUsual);
  ChaseTimer timer(memory);
  memory.GrowTo(memory.Bytes());
  LatencyBursts bursts(memory, timer, {[] { return ThreadState(); }, nullptr});
  bursts.Warm();
  const LatencyCounts counts = bursts.Take();
  EXPECT_GT(counts.allAccesses, kMebibyte / kPageBytes);
  EXPECT_EQ((counts.allAccesses - kMebibyte / kPageBytes) % kBatch, 0U);
  EXPECT_EQ(counts.accesses, 0U);
}

TEST(LatencyBursts, ChaseBeforeABurstOverMoreThan256MiB) {
  ChaseMemory memory(264 * kMebibyte);
  ChaseTimer timer(memory);
  LatencyBursts bursts(memory, timer, {[] { return ThreadState(); }, nullptr});
  for (const std::uint64_t mebibytes : {256U, 264U}) {
    memory.GrowTo(mebibytes * kMebibyte);
    if (!memory.IsHuge()) GTEST_SKIP() << "this system has no 264 MiB in huge pages now";
    bursts.Warm();
    EXPECT_EQ(bursts.Take().allAccesses > memory.CycleBytes() >> 15, mebibytes > 256) << mebibytes;
  }
}

TEST_F(LatencyBurstsTest, CountsAreOfTheBurstsSinceTheLastCall) {
  LatencyBursts bursts = Bursts([] { return ThreadState(); });
  (void)bursts.Burst(50'000);
  (void)bursts.Burst(50'000);
  EXPECT_EQ(bursts.Take().bursts, 2U);
  const LatencyCounts none = bursts.Take();
  EXPECT_EQ(none.bursts, 0U);
  EXPECT_EQ(none.accesses, 0U);
  EXPECT_EQ(LatencyAt(none, 0.5), 0U);
}

TEST(LatencyCounts, HavePercentilesByNearestRank) {
  LatencyCounts counts;
  counts.accesses = 1000;
  counts.buckets[100] = 500;
  counts.buckets[200] = 490;
  counts.buckets[250] = 9;
  counts.buckets[BucketOf(100'000)] = 1;
  counts.maxNs = 100'001;
  EXPECT_EQ(LatencyAt(counts, 0.5), 100U);
  EXPECT_EQ(LatencyAt(counts, 0.99), 200U);
  EXPECT_EQ(LatencyAt(counts, 0.999), 250U);
  EXPECT_NEAR(static_cast<double>(LatencyAt(counts, 1)), 100'000, 400);
}

TEST(ChaseTimer, TakesItsOwnTimeAway) {
  ChaseMemory memory(kMebibyte);
  ChaseTimer timer(memory);
  EXPECT_GE(timer.OverheadNs(), 0);
  EXPECT_GT(timer.StepNs(), 0);
  const std::uint64_t ticks = timer.TicksOf(1e6);
  EXPECT_NEAR(timer.LoadNs(ticks, 0), 1e6, 1e3);
  EXPECT_NEAR(timer.LoadNs(ticks, 3), 1e6 - 3 * timer.OverheadNs(), 1e3);
  EXPECT_EQ(timer.LoadNs(0), 0);
}

TEST(Steal, IsThatOfTheCpu) {
  EXPECT_TRUE(ReadStealMs(0).has_value());
  EXPECT_FALSE(ReadStealMs(100'000).has_value());
  EXPECT_FALSE(ReadInterrupts(100'000).has_value());
}

// --- how much ---

TEST(LatencySize, FollowsTheCachesWithinTheMemoryThatThereIs) {
  const std::uint64_t plenty = std::uint64_t{64} << 30;
  const auto with = [&](std::uint64_t cache, std::uint64_t available) {
    return LatencyBytes("", {{1, "Data", 32768, 1}, {3, "Unified", cache, 1}}, available);
  };
  EXPECT_EQ(with(kMebibyte, plenty), 256 * kMebibyte);
  EXPECT_EQ(with(40 * kMebibyte, plenty), 320 * kMebibyte);
  EXPECT_EQ(with(512 * kMebibyte, plenty), 1024 * kMebibyte);
  EXPECT_EQ(with(40 * kMebibyte, 400 * kMebibyte), 64 * kMebibyte);
  EXPECT_EQ(with(40 * kMebibyte, 0), 320 * kMebibyte) << "nobody says how much there is";
  EXPECT_EQ(LatencyBytes("", {}, plenty), 256 * kMebibyte);
  EXPECT_EQ(LatencyBytes("16M", {}, plenty), 16 * kMebibyte);
}

TEST(LatencySize, IsRefusedWithTheReason) {
  const auto refusal = [](const std::string& size) {
    return ErrorOf([&] { (void)LatencyBytes(size, {}, 64 * kMebibyte); });
  };
  EXPECT_THAT(refusal("many"), HasSubstr("--latency-size: expected a size as 512M or 2G"));
  EXPECT_THAT(refusal("63K"), HasSubstr("expected at least 64K"));
  EXPECT_THAT(refusal("17M"), HasSubstr("expected at most a quarter of the 64.0 MiB"));
}

// --- the process ---

constexpr LatencyRhythm kShort{100'000, 1e6, 1};

void WaitForFault(LatencyProbe& probe) {
  std::vector<LatencySecond> seconds;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (probe.Fault().empty() && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    probe.Read(seconds);
  }
}

// 1 ms of work, so the next burst is due after minutes. The row of the first second comes all the same.
TEST(LatencyProbe, PausesForLongerWhereItsWorkIsMuch) {
  LatencyProbe probe(kMebibyte, -1, {1e6, 1e6, 1e-6, 1e12});
  LatencyProbe bounded(kMebibyte, -1, {1e6, 1e6, 1e-6, 50e6});
  probe.Begin(MonotonicNs());
  bounded.Begin(MonotonicNs());
  std::vector<LatencySecond> seconds;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (seconds.empty() && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    probe.Read(seconds);
  }
  ASSERT_THAT(seconds, SizeIs(1)) << "while it waits";
  std::vector<LatencySecond> more;
  bounded.End(more);
  EXPECT_GT(bounded.Summary().bursts, 2U) << "the pause has a bound";
  probe.End(seconds);
  ASSERT_THAT(seconds, SizeIs(1)) << "no row of the time without a burst";
  EXPECT_GE(seconds[0].bursts, 1U);
  EXPECT_LE(seconds[0].bursts, 5U) << "hundreds without";
}

// Under a heavy load all bursts may be interrupted.
TEST(LatencyProbe, SendsWhatItMeasured) {
  LatencyProbe probe(2 * kMebibyte, -1, kShort);
  const LatencySummary ready = probe.Summary();
  EXPECT_EQ(ready.bytes, 2 * kMebibyte);
  EXPECT_EQ(ready.bursts, 0U);
  ASSERT_THAT(ready.growth, SizeIs(1)) << "from 1 MiB on in steps of four";
  EXPECT_EQ(ready.growth[0].bytes, 2 * kMebibyte);
  EXPECT_NE(ready.cpu < 0, ready.cpuNote.empty());
  probe.Begin(MonotonicNs());
  // The signals that end a recording are not for it.
  (void)kill(probe.Id(), SIGINT);
  (void)kill(probe.Id(), SIGTERM);
  // Even one that is asked to end at once measures.
  std::vector<LatencySecond> seconds;
  probe.End(seconds);
  EXPECT_EQ(probe.Fault(), "");
  EXPECT_EQ(probe.Descriptor(), -1);
  ASSERT_GE(seconds.size(), 1U) << "the rest; more only on a machine that stood still for a second";
  const LatencySummary summary = probe.Summary();
  std::uint64_t accesses = 0;
  std::uint64_t longest = 0;
  for (const LatencySecond& second : seconds) {
    EXPECT_GE(second.second, 1);
    EXPECT_GT(second.timeS, 0);
    EXPECT_GT(second.bursts, 0U);
    EXPECT_LE(second.interrupted, second.bursts);
    EXPECT_EQ(second.accesses == 0, second.interrupted == second.bursts);
    EXPECT_LE(second.p50Ns, second.p99Ns);
    EXPECT_LE(second.p99Ns, second.p999Ns);
    EXPECT_LE(second.p999Ns, second.maxNs);
    if (seconds.size() == 1) EXPECT_EQ(summary.p50Ns, second.p50Ns);
    if (seconds.size() == 1) EXPECT_DOUBLE_EQ(summary.meanNs, second.meanNs);
    accesses += second.accesses;
    longest = std::max(longest, second.maxNs);
  }
  EXPECT_EQ(summary.accesses, accesses);
  EXPECT_EQ(summary.maxNs, longest);
  EXPECT_GT(summary.bytesPerS, 0);
}

// How many of the pages are huge is different each time, and runs with different conditions are not compared.
TEST(LatencyProbe, NamesThePagesAndNotHowManyThereAre) {
  constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;
  EXPECT_EQ(LatencyPages(kGibibyte, kGibibyte / 100 * 96), LatencyPages(kGibibyte, kGibibyte / 100 * 97));
  EXPECT_THAT(LatencyPages(kGibibyte, kGibibyte / 2),
              ::testing::MatchesRegex("[0-9]+ [KM]iB and " + LatencyPages(kGibibyte, 0)));
  EXPECT_EQ(LatencyPages(kGibibyte, kGibibyte) + " and " + LatencyPages(kGibibyte, 0),
            LatencyPages(kGibibyte, kGibibyte / 2));
}

// Runs are compared if this text is the same.
TEST(LatencyProbe, SaysHowMuchASmallMemoryHas) {
  const auto text = [](std::uint64_t bytes) {
    LatencySummary summary;
    summary.bytes = bytes;
    return LatencyText(summary);
  };
  EXPECT_THAT(text(kMebibyte / 16), ::testing::StartsWith("64 KiB in pages of "));
  EXPECT_THAT(text(kMebibyte / 2), ::testing::StartsWith("512 KiB in pages of "));
  EXPECT_THAT(text(kMebibyte), ::testing::StartsWith("1 MiB in pages of "));
}

// The system is told to make no huge pages for this process and those that it starts.
TEST(LatencyProbe, SaysThatThereAreNoHugePages) {
  const int before = prctl(PR_GET_THP_DISABLE, 0, 0, 0, 0);
  // Before Linux 3.15. Then nothing takes the huge pages away, which is what is injected here.
  if (before < 0) GTEST_SKIP() << "this system cannot refuse huge pages";
  ASSERT_EQ(prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_GET_THP_DISABLE, 0, 0, 0, 0), 1) << "the refusal is in force";
  const std::uint64_t bytes = 2 * ChaseMemory::HugePageBytes();
  const LatencySummary summary = LatencyProbe(bytes, -1, kShort).Summary();
  EXPECT_EQ(prctl(PR_SET_THP_DISABLE, before, 0, 0, 0), 0);
  EXPECT_EQ(summary.bytes, bytes);
  EXPECT_EQ(summary.hugeBytes, 0U);
  EXPECT_EQ(summary.pages, std::to_string(sysconf(_SC_PAGESIZE) / 1024) + " KiB");
  EXPECT_THAT(LatencyText(summary), HasSubstr(" MiB in pages of " + summary.pages));
}

TEST(LatencyProbe, IsOnItsCpuOrSaysThatItIsNot) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
  int first = 0;
  while (!CPU_ISSET(static_cast<std::size_t>(first), &allowed)) ++first;
  EXPECT_EQ(LatencyProbe(kMebibyte, first, kShort).Summary().cpu, first);
  EXPECT_THAT(ErrorOf([] { LatencyProbe(kMebibyte, 1000, kShort); }),
              HasSubstr("--latency-cpu 1000: the latency probe cannot run there: "));
  const int last = AllowedCpus().back();
  EXPECT_EQ(LatencyProbe(kMebibyte, -1, kShort).Summary().cpu, last);
  if (first == last) GTEST_SKIP() << "one CPU: the default cannot be another one";
}

/// Takes the rights to a real-time priority from this thread and from the processes that it starts.
class WithoutRealTime {
 public:
  WithoutRealTime() {
    (void)getrlimit(RLIMIT_RTPRIO, &limit_);
    const rlimit none{0, limit_.rlim_max};
    (void)setrlimit(RLIMIT_RTPRIO, &none);
    (void)syscall(SYS_capget, &header_, rights_);
    __user_cap_data_struct less[2] = {rights_[0], rights_[1]};
    less[0].effective &= ~(1U << CAP_SYS_NICE);
    (void)syscall(SYS_capset, &header_, less);
  }
  ~WithoutRealTime() {
    (void)syscall(SYS_capset, &header_, rights_);
    (void)setrlimit(RLIMIT_RTPRIO, &limit_);
  }
  WithoutRealTime(const WithoutRealTime&) = delete;
  WithoutRealTime& operator=(const WithoutRealTime&) = delete;

 private:
  rlimit limit_{};
  __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights_[2]{};
};

TEST(LatencyProbe, HasARealTimePriorityOrSaysThatItHasNone) {
  const auto expect = [](const LatencyProbe& probe) {
    const LatencySummary summary = probe.Summary();
    EXPECT_EQ(summary.realTime, sched_getscheduler(probe.Id()) == SCHED_FIFO);
    EXPECT_EQ(summary.realTime, summary.realTimeNote.empty());
    EXPECT_EQ(summary.realTime, LatencyText(summary).find(", real-time") != std::string::npos);
    return summary;
  };
  // Whatever this system allows.
  (void)expect(LatencyProbe(kMebibyte, -1, kShort));
  const WithoutRealTime refusal;
  sched_param lowest{};
  lowest.sched_priority = sched_get_priority_min(SCHED_FIFO);
  ASSERT_EQ(sched_setscheduler(0, SCHED_FIFO, &lowest), -1) << "the refusal is in force";
  EXPECT_EQ(expect(LatencyProbe(kMebibyte, -1, kShort)).realTimeNote, std::strerror(EPERM));
}

TEST(LatencyProbe, IsRefusedMemoryWithTheReason) {
  EXPECT_THAT(ErrorOf([] { LatencyProbe(std::uint64_t{1} << 60, -1, kShort); }),
              HasSubstr("MiB of memory: the system refuses it"));
}

TEST(LatencyProbe, OneThatIsKilledSaysSo) {
  LatencyProbe probe(kMebibyte, -1, kShort);
  probe.Begin(MonotonicNs());
  ASSERT_EQ(kill(probe.Id(), SIGKILL), 0);
  WaitForFault(probe);
  EXPECT_EQ(probe.Fault(), "the latency probe was ended by SIGKILL");
}

TEST(LatencyProbe, DoesNotOutliveItsOwner) {
  pid_t id = 0;
  {
    const LatencyProbe probe(kMebibyte, -1, kShort);
    id = probe.Id();
    EXPECT_EQ(kill(id, 0), 0);
  }
  EXPECT_EQ(kill(id, 0), -1);
}

}  // namespace
