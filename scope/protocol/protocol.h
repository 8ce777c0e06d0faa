// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <type_traits>

/// The packets that the meter sends to its reader. They go through an inherited Unix socket of type
/// SOCK_SEQPACKET. The environment (kDescriptorVariable) has the number of its descriptor. A packet arrives
/// whole or not at all. The byte order is native: both ends are on one machine.
///
/// The meter sends a Hello first. Then, for each second, it sends one ThreadSample with its buckets for every
/// thread and engine that has worked so far, and an EndOfSecond. A sample holds the work since that thread's
/// last sample that was sent. A sample that could not be sent is part of the next one, so the sum of all
/// samples is exact. A meter that fills, verifies or knows deadlines sends FillPackets, CheckPackets,
/// ErrorPackets, StreamsPackets and DeadlinePackets between the samples and the EndOfSecond.
namespace scope {

constexpr const char* kDescriptorVariable = "STRESS_SCOPE_FD";
/// The environment asks the meter for more than counting. Each is absent where it was not asked for.
constexpr const char* kFillVariable = "STRESS_SCOPE_FILL";      ///< a name of kFillNames
constexpr const char* kVerifyVariable = "STRESS_SCOPE_VERIFY";  ///< "1": check results as they pass
/// Ids of engines and nanoseconds: "vpc=16700000,aic=50000000".
constexpr const char* kDeadlinesVariable = "STRESS_SCOPE_DEADLINES";
/// Which engine's threads have CPUs to themselves, as "vpc=2,3"; all other threads that work keep off these.
/// Without an engine, as in "=3", all threads keep off them.
constexpr const char* kPinVariable = "STRESS_SCOPE_PIN";
/// Per cent of the time in which a thread of an engine works: "25". Then it sleeps between operations.
constexpr const char* kDutyVariable = "STRESS_SCOPE_DUTY";
constexpr std::uint32_t kMeterMagic = 0x43535453;  // "STSC"
/// Raised with every change of this file, of latency_buckets.h, or of the engines' order.
constexpr std::uint32_t kMeterVersion = 5;

/// kCpu: memcpy_s. kVpc: QetImageResize. kVenc: SendFrame, GetStream and ReleaseStream count as one
/// operation. kAic: QetDNNModelProcess; a failed QetDNNModelInitialize counts as one failure. kVpcCopy:
/// QetMemcpyToKivu.
enum class Engine : std::uint32_t {
#define ENGINE(symbol, ...) k##symbol,
#include "engines.inc"
#undef ENGINE
};
constexpr std::uint32_t kEngineCount = 0
#define ENGINE(...) +1
#include "engines.inc"
#undef ENGINE
    ;

enum class PacketType : std::uint32_t {
  kHello = 0,
  kThreadSample = 1,
  kEndOfSecond = 2,
  kFill = 3,
  kCheck = 4,
  kError = 5,
  kDeadline = 6,
  kStreams = 7
};

/// The patterns that sources and frames can be filled with.
enum class Fill : std::uint32_t {
  kZeros,
  kOnes,
  kRandom,
  kChecker,  ///< words of 64 bits: 0x55... and 0xAA... in turns
  kWalking,  ///< words with one bit set that walks, then words with one bit clear
  kWorst     ///< all lines of a bus switch at once, one goes against them; in steps of 8, 4 and 2 bytes
};
constexpr const char* kFillNames[] = {"zeros", "ones", "random", "checker", "walking", "worst"};
constexpr std::uint32_t kFillCount = sizeof(kFillNames) / sizeof(kFillNames[0]);

/// Whether the results of an engine can be judged. The last one that is true counts.
enum class CheckState : std::uint32_t {
  kLearning,          ///< too few operations so far to know what is right
  kJudged,            ///< wrong results are errors
  kPartlyJudged,      ///< those of some threads, or of some sources
  kAlone,             ///< one channel: there is no other stream to compare with
  kSourcesChange,     ///< the program writes its sources between operations
  kNotDeterministic,  ///< the same source gives different results
  kUnreadable,        ///< results are where the processor cannot read them
  kUnknown            ///< the records of this platform are not known
};
constexpr std::uint32_t kCheckStates = 8;

/// What was wrong.
enum class ErrorKind : std::uint32_t {
  kCopy,     ///< the destination of a copy differs from its source
  kSource,   ///< a source is no longer what it was
  kResult,   ///< a result differs from what the same source gave before
  kThreads,  ///< a result differs from what another thread gets from the same source
  kPassing   ///< a difference was gone when the memory was read again
};
constexpr std::uint32_t kErrorKinds = 5;

/// The start of every packet. Its layout never changes, so that a reader recognises other versions.
struct PacketHeader {
  std::uint32_t magic;
  std::uint32_t version;
  PacketType type;
  std::int32_t processId;
  std::uint64_t timeNs;  ///< CLOCK_MONOTONIC
};
static_assert(sizeof(PacketHeader) == 24, "layout of PacketHeader");

struct HelloPacket {
  PacketHeader header;
  std::uint32_t hostPlatform;  ///< 1: the platform library is this project's, and all bytes are known
  std::uint32_t bucketCount;
  char platformPath[512];  ///< file of the platform library, zero-terminated; empty if unknown
};

struct ThreadSamplePacket {
  PacketHeader header;
  Engine engine;
  std::uint32_t thread;      ///< from 0 for each engine, in the order of the first calls
  std::uint64_t operations;  ///< calls that succeeded
  std::uint64_t busyNs;      ///< time in these calls
  std::uint64_t bytes;       ///< read and written by them
  std::uint64_t failures;    ///< calls that failed
  std::uint64_t maxNs;       ///< the longest of those that succeeded
  std::uint32_t bytesKnown;  ///< 0: do not use `bytes`
  std::uint32_t buckets;     ///< how many BucketCounts follow: in rising order, without counts of 0
};

struct BucketCount {
  std::uint32_t bucket;
  std::uint32_t count;
};

struct EndOfSecondPacket {
  PacketHeader header;
  std::uint32_t samples;         ///< sent in this second
  std::uint32_t last;            ///< 1: the program is ending
  std::uint64_t delayedSamples;  ///< so far: samples that became part of the next one, as the queue was full
  std::uint64_t unmeasured;      ///< so far: calls of threads for which the meter had no counters left
};

/// After each second of a meter that fills, for each engine whose sources it has seen. All counts are so far.
struct FillPacket {
  PacketHeader header;
  Engine engine;
  std::uint32_t pattern;     ///< a Fill
  std::uint32_t buffers;     ///< of the engine's sources that hold the pattern
  std::uint32_t refused;     ///< of them that cannot be written, or hold the result of an operation
  std::uint32_t hasSources;  ///< 0: the engine's sources were not seen; not sent then
  std::uint32_t reserved;
  std::uint64_t bytes;  ///< of the buffers that hold the pattern
};

/// After each second of a meter that verifies, for each engine that has worked. All counts are so far.
struct CheckPacket {
  PacketHeader header;
  Engine engine;
  CheckState state;
  std::uint64_t operations;  ///< that could have been checked
  std::uint64_t checked;     ///< operations of whose results something was checked
  std::uint64_t whole;       ///< operations whose whole result was checked
  std::uint64_t bytes;       ///< of results that were compared
  std::uint64_t allBytes;    ///< of all results
  std::uint64_t errors;
  std::uint64_t unlisted;       ///< errors that no ErrorPacket has: too many at once, or the same again
  std::uint64_t checkNs;        ///< time that the checks took
  std::uint32_t threads;        ///< that did operations
  std::uint32_t judgedThreads;  ///< those of them of whose results some were judged
  std::uint32_t leftOut;        ///< 1: some sources were not checked, as too many others are known
  std::uint32_t reserved;
};

/// After each second of a meter that knows deadlines, for each engine that has one and has worked. All counts
/// are so far, of operations that succeeded.
struct DeadlinePacket {
  PacketHeader header;
  Engine engine;
  std::uint32_t reserved;
  std::uint64_t deadlineNs;
  std::uint64_t operations;
  std::uint64_t missed;      ///< operations that took longer
  std::uint64_t longestRun;  ///< of misses, one after the other on one thread
};

/// The frames of an encoder in groups: the first group has kFirstGroup, each further one twice as many.
constexpr std::uint64_t kFirstGroup = 16;
constexpr std::uint32_t kStreamGroups = 20;

/// The number of the group's first frame, from 0.
constexpr std::uint64_t GroupBegin(std::uint32_t group) {
  return kFirstGroup * ((std::uint64_t{1} << group) - 1);
}

/// After each second of a meter that verifies, for each kind of stream: equal frames with equal settings. All
/// is so far.
struct StreamsPacket {
  PacketHeader header;
  std::uint64_t key;                    ///< of frames and settings: the same in each run
  std::uint64_t hashes[kStreamGroups];  ///< of the streams of each group; 0: unknown, or channels differ
};

/// One error of a meter that verifies.
struct ErrorPacket {
  PacketHeader header;  ///< its time is that of the check
  Engine engine;
  ErrorKind kind;
  std::uint32_t thread;
  std::uint32_t other;      ///< with kThreads: the thread that got another result
  std::uint64_t operation;  ///< number of the operation on its thread, from 1
  std::uint32_t placed;     ///< 0: only that something differs is known, and the next four are 0
  std::uint32_t bits;       ///< differing bits in all
  std::uint64_t offset;     ///< of the first differing word of 8 bytes in the result or the source
  std::uint64_t address;    ///< virtual, of that word
  std::uint64_t expected;   ///< that word
  std::uint64_t found;
};

static_assert(std::is_trivially_copyable_v<FillPacket> && std::is_trivially_copyable_v<CheckPacket> &&
                  std::is_trivially_copyable_v<ErrorPacket> && std::is_trivially_copyable_v<DeadlinePacket> &&
                  std::is_trivially_copyable_v<StreamsPacket>,
              "packets are bytes");
static_assert(std::is_trivially_copyable_v<HelloPacket> && std::is_trivially_copyable_v<ThreadSamplePacket> &&
                  std::is_trivially_copyable_v<EndOfSecondPacket>,
              "packets are bytes");

}  // namespace scope
