#pragma once

#include <cstdint>
#include <type_traits>

/// What the meter tells its reader: packets on an inherited Unix socket of type SOCK_SEQPACKET, whose
/// descriptor number is in the environment (kDescriptorVariable). A packet arrives whole or not at all.
/// Native byte order: both ends are on one machine.
///
/// First a Hello, then for each second one ThreadSample for every thread and engine that has worked so far,
/// followed by its buckets, and an EndOfSecond. A sample holds what was done since the sample of that thread
/// before it, so that one which did not get through is part of the next, and the sum over all samples is
/// exact.
namespace scope {

constexpr const char* kDescriptorVariable = "STRESS_SCOPE_FD";
constexpr std::uint32_t kMeterMagic = 0x43535453;  // "STSC"
/// Raised with every change of this file, of latency_buckets.h, or of the engines' order.
constexpr std::uint32_t kMeterVersion = 1;

/// kCpu: memcpy_s. kVpc: QetImageResize. kVenc: SendFrame, GetStream and ReleaseStream, one operation. kAic:
/// QetDNNModelProcess; a failed QetDNNModelInitialize is a failure of it. kVpcCopy: QetMemcpyToKivu.
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

enum class PacketType : std::uint32_t { kHello = 0, kThreadSample = 1, kEndOfSecond = 2 };

/// The begin of every packet. Its layout is the same in every version, so that another version can be told.
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
  char platformPath[512];  ///< file of the platform library, zero-terminated, empty where unknown
};

struct ThreadSamplePacket {
  PacketHeader header;
  Engine engine;
  std::uint32_t thread;      ///< from 0 for each engine, in the order of the first calls
  std::uint64_t operations;  ///< calls that succeeded
  std::uint64_t busyNs;      ///< in these calls
  std::uint64_t bytes;       ///< read and written by them
  std::uint64_t failures;    ///< calls that failed
  std::uint64_t maxNs;       ///< the longest of those that succeeded
  std::uint32_t bytesKnown;  ///< 0: `bytes` is of no use
  std::uint32_t buckets;     ///< number of BucketCount that follow, in rising order, none of count 0
};

struct BucketCount {
  std::uint32_t bucket;
  std::uint32_t count;
};

struct EndOfSecondPacket {
  PacketHeader header;
  std::uint32_t samples;         ///< sent in this second
  std::uint32_t last;            ///< 1: the program is ending
  std::uint64_t delayedSamples;  ///< so far: that found the reader's queue full and went into the next one
  std::uint64_t unmeasured;      ///< so far: calls of threads beyond those that the meter has room for
};

static_assert(std::is_trivially_copyable_v<HelloPacket> && std::is_trivially_copyable_v<ThreadSamplePacket> &&
                  std::is_trivially_copyable_v<EndOfSecondPacket>,
              "packets are bytes");

}  // namespace scope
