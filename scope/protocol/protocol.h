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
/// samples is exact.
namespace scope {

constexpr const char* kDescriptorVariable = "STRESS_SCOPE_FD";
constexpr std::uint32_t kMeterMagic = 0x43535453;  // "STSC"
/// Raised with every change of this file, of latency_buckets.h, or of the engines' order.
constexpr std::uint32_t kMeterVersion = 1;

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

enum class PacketType : std::uint32_t { kHello = 0, kThreadSample = 1, kEndOfSecond = 2 };

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

static_assert(std::is_trivially_copyable_v<HelloPacket> && std::is_trivially_copyable_v<ThreadSamplePacket> &&
                  std::is_trivially_copyable_v<EndOfSecondPacket>,
              "packets are bytes");

}  // namespace scope
