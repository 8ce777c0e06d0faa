// SPDX-License-Identifier: Apache-2.0
#include "recorder.h"

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "checker.h"
#include "deadlines.h"
#include "fill.h"
#include "monotonic_ns.h"
#include "pin.h"
#include "streams.h"

namespace scope {
namespace {

// The longest wait for a slow reader at the program's end, for each packet. After the first packet that is
// not taken in this time, none is waited for.
constexpr timeval kLastWait{5, 0};

ThreadCounters counterSets[kCounterSets];
std::atomic<std::uint32_t> setsTaken{0};
std::atomic<std::uint32_t> threadsOf[kEngineCount];
std::atomic<std::uint64_t> unmeasured{0};
std::atomic<bool> recording{false};

// The thread-locals of a preloaded library are in the static block. A thread's first access therefore makes
// no call and allocates nothing.
__attribute__((tls_model("initial-exec"))) thread_local ThreadCounters* ownCounters[kEngineCount];

template <typename T>
void AddTo(std::atomic<T>& counter, T amount) {
  counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

// --- the reporting thread ---

// The part of a set of counters that has been sent to the reader.
struct SentCounters {
  std::uint64_t busyNs;
  std::uint64_t bytes;
  std::uint64_t failures;
  std::uint64_t maxNs;  // taken from the counters and not yet sent
  std::uint32_t buckets[kBucketCount];
};

struct SamplePacket {
  ThreadSamplePacket head;
  BucketCount buckets[kBucketCount];
};

int readerSocket = -1;
// While the program runs, the meter does not wait if the queue is full: the next sample contains what was not
// sent. The last samples have no next one, so the meter waits for them.
int sendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
SentCounters sentCounters[kCounterSets];
SamplePacket packet;
std::uint64_t delayedSamples = 0;
HelloPacket hello;
Extras reported;
ErrorPacket waitingError;  // one that the queue had no room for
bool hasWaitingError = false;
bool saidHello = false;
sem_t programEnds;
pthread_t reportingThread;
bool reportingThreadRuns = false;

PacketHeader Header(PacketType type) {
  return {kMeterMagic, kMeterVersion, type, getpid(), MonotonicNs()};
}

// Returns false if the packet was not sent: the queue is full, or the reader has gone. Without a reader the
// recording ends.
bool Send(const void* bytes, std::size_t size) {
  ssize_t sent = 0;
  do {
    sent = send(readerSocket, bytes, size, sendFlags);
  } while (sent < 0 && errno == EINTR);
  if (sent >= 0) return true;
  sendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
  if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS && errno != ENOMEM) {
    recording.store(false, std::memory_order_relaxed);
  }
  return false;
}

bool SendSample(ThreadCounters& counters, SentCounters& before) {
  const std::uint64_t busyNs = counters.busyNs.load(std::memory_order_relaxed);
  const std::uint64_t bytes = counters.bytes.load(std::memory_order_relaxed);
  const std::uint64_t failures = counters.failures.load(std::memory_order_relaxed);
  const std::uint64_t longest = counters.maxNs.exchange(0, std::memory_order_relaxed);
  if (longest > before.maxNs) before.maxNs = longest;

  ThreadSamplePacket& sample = packet.head;
  sample.header = Header(PacketType::kThreadSample);
  sample.engine = counters.engine;
  sample.thread = counters.thread;
  sample.operations = 0;
  sample.buckets = 0;
  for (std::uint32_t i = 0; i < kBucketCount; ++i) {
    const std::uint32_t count = counters.buckets[i].load(std::memory_order_relaxed) - before.buckets[i];
    if (count == 0) continue;
    packet.buckets[sample.buckets++] = {i, count};
    sample.operations += count;
  }
  sample.busyNs = busyNs - before.busyNs;
  sample.bytes = bytes - before.bytes;
  sample.failures = failures - before.failures;
  sample.maxNs = before.maxNs;
  sample.bytesKnown = counters.bytesUnknown.load(std::memory_order_relaxed) == 0 ? 1 : 0;
  if (!Send(&packet, sizeof(sample) + sample.buckets * sizeof(BucketCount))) return false;

  before.busyNs = busyNs;
  before.bytes = bytes;
  before.failures = failures;
  before.maxNs = 0;
  for (std::uint32_t i = 0; i < sample.buckets; ++i) {
    before.buckets[packet.buckets[i].bucket] += packet.buckets[i].count;
  }
  return true;
}

void SendErrors() {
  while (hasWaitingError || TakeError(waitingError)) {
    const std::uint64_t timeNs = waitingError.header.timeNs;
    waitingError.header = Header(PacketType::kError);
    waitingError.header.timeNs = timeNs;
    hasWaitingError = !Send(&waitingError, sizeof(waitingError));
    if (hasWaitingError) return;
  }
}

// All counts are so far, so a packet that is not sent is made good by the next one.
void SendExtras(bool last) {
  for (std::uint32_t i = 0; reported.fill && i < kEngineCount; ++i) {
    FillPacket fill = FillCounts(static_cast<Engine>(i));
    if (fill.hasSources == 0) continue;
    fill.header = Header(PacketType::kFill);
    (void)Send(&fill, sizeof(fill));
  }
  for (std::uint32_t i = 0; reported.deadlines && i < kEngineCount; ++i) {
    DeadlinePacket deadline = DeadlineCounts(static_cast<Engine>(i));
    if (deadline.operations == 0) continue;
    deadline.header = Header(PacketType::kDeadline);
    (void)Send(&deadline, sizeof(deadline));
  }
  if (!reported.verify) return;
  if (last) ReportHeld();
  SendErrors();
  for (std::uint32_t i = 0; i < kEngineCount; ++i) {
    CheckPacket check = CheckCounts(static_cast<Engine>(i));
    if (check.operations == 0) continue;
    check.header = Header(PacketType::kCheck);
    (void)Send(&check, sizeof(check));
  }
  for (std::size_t i = 0; i < kMostStreamKinds; ++i) {
    StreamsPacket streams{};
    if (!StreamsOf(i, streams)) continue;
    streams.header = Header(PacketType::kStreams);
    (void)Send(&streams, sizeof(streams));
  }
}

void SendSecond(bool last) {
  if (last && setsockopt(readerSocket, SOL_SOCKET, SO_SNDTIMEO, &kLastWait, sizeof(kLastWait)) == 0) {
    sendFlags = MSG_NOSIGNAL;
  }
  // The reader needs the Hello first. The queue may have been full since the start.
  saidHello = saidHello || Send(&hello, sizeof(hello));
  EndOfSecondPacket end{};
  const std::uint32_t sets = setsTaken.load(std::memory_order_relaxed);
  for (std::uint32_t i = 0; i < sets && i < kCounterSets; ++i) {
    if (counterSets[i].inUse.load(std::memory_order_acquire) == 0) continue;
    if (saidHello && SendSample(counterSets[i], sentCounters[i])) {
      ++end.samples;
    } else {
      ++delayedSamples;
    }
  }
  if (saidHello) SendExtras(last);
  end.header = Header(PacketType::kEndOfSecond);
  end.last = last ? 1 : 0;
  end.delayedSamples = delayedSamples;
  end.unmeasured = unmeasured.load(std::memory_order_relaxed);
  if (saidHello) Send(&end, sizeof(end));
}

void* Report(void* /*unused*/) {
  pthread_setname_np(pthread_self(), "scope_meter");
  saidHello = Send(&hello, sizeof(hello));
  timespec next{};
  (void)clock_gettime(CLOCK_MONOTONIC, &next);
  for (;;) {
    next.tv_sec += 1;
    int result = 0;
    do {
      result = sem_clockwait(&programEnds, CLOCK_MONOTONIC, &next);
    } while (result != 0 && errno == EINTR);
    const bool last = result == 0;
    SendSecond(last);
    if (last || !recording.load(std::memory_order_relaxed)) return nullptr;
  }
}

// A forked child does not have the reporting thread, and the reader's socket belongs to the parent.
void ForgetReader() {
  recording.store(false, std::memory_order_relaxed);
  reportingThreadRuns = false;
}

// The descriptor that the environment names; -1 if it is not a number or not such a socket any more.
int InheritedSocket() {
  const char* const text = std::getenv(kDescriptorVariable);
  if (text == nullptr || *text == '\0') return -1;
  char* end = nullptr;
  const long descriptor = std::strtol(text, &end, 10);
  if (*end != '\0' || descriptor < 0 || descriptor > 1 << 20) return -1;
  int type = 0;
  socklen_t size = sizeof(type);
  const int socket = static_cast<int>(descriptor);
  if (getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET) return -1;
  return socket;
}

}  // namespace

void ThreadCounters::Succeeded(std::uint64_t ns, std::uint64_t moved, bool bytesKnown) {
  AddTo(busyNs, ns);
  AddTo(bytes, moved);
  if (!bytesKnown) bytesUnknown.store(1, std::memory_order_relaxed);
  if (ns > maxNs.load(std::memory_order_relaxed)) maxNs.store(ns, std::memory_order_relaxed);
  AddTo(buckets[BucketOf(ns)], 1U);
}

void ThreadCounters::Failed() {
  AddTo(failures, std::uint64_t{1});
}

ThreadCounters* CountersOf(Engine engine) {
  if (!recording.load(std::memory_order_relaxed)) return nullptr;
  const auto index = static_cast<std::uint32_t>(engine);
  ThreadCounters*& own = ownCounters[index];
  if (own != nullptr) return own;
  const std::uint32_t taken = setsTaken.fetch_add(1, std::memory_order_relaxed);
  if (taken >= kCounterSets) {
    setsTaken.fetch_sub(1, std::memory_order_relaxed);
    unmeasured.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
  }
  own = &counterSets[taken];
  own->set = taken;
  own->engine = engine;
  own->thread = threadsOf[index].fetch_add(1, std::memory_order_relaxed);
  own->inUse.store(1, std::memory_order_release);
  PinThread(engine);
  return own;
}

bool StartReporting(bool hostPlatform, const char* platformPath, const Extras& extras) {
  readerSocket = InheritedSocket();
  if (readerSocket < 0) return false;
  reported = extras;
  // Programs that this one starts do not belong to this run.
  (void)fcntl(readerSocket, F_SETFD, FD_CLOEXEC);
  hello.header = Header(PacketType::kHello);
  hello.hostPlatform = hostPlatform ? 1 : 0;
  hello.bucketCount = kBucketCount;
  if (platformPath != nullptr) {
    (void)std::snprintf(hello.platformPath, sizeof(hello.platformPath), "%s", platformPath);
  }
  if (sem_init(&programEnds, 0, 0) != 0 || pthread_atfork(nullptr, nullptr, ForgetReader) != 0) return false;

  // Signals go to the program's own threads, never to this one.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  recording.store(true, std::memory_order_relaxed);
  const int error = pthread_create(&reportingThread, nullptr, Report, nullptr);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error != 0) {
    recording.store(false, std::memory_order_relaxed);
    (void)std::fprintf(stderr, "libstress_scope: cannot start the meter's thread: %s\n", strerror(error));
    return false;
  }
  reportingThreadRuns = true;
  return true;
}

void StopReporting() {
  if (!reportingThreadRuns) return;
  reportingThreadRuns = false;
  (void)sem_post(&programEnds);
  (void)pthread_join(reportingThread, nullptr);
}

}  // namespace scope
