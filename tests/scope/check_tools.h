// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "checker.h"
#include "streams.h"
#include "verify.h"

/// What tests of the meter's checks share.
namespace checks {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kOperationNs = 1'000'000'000;  // long, so that every check fits into its share
// A difference of a source is looked at for so many operations.
constexpr int kHeld = 16;

/// What check_system.cpp does in place of the system, for the checks too.
struct System {
  enum Refusal { kNone, kAffinity, kMemory, kFile, kLength };

  std::atomic<int> secondsAway{0};  ///< that pass between any two readings of the clock
  std::atomic<bool> threadTimeStands{false};
  std::atomic<long> threadStepNs{0};  ///< processor time that passes with each reading of it; 0: the real one
  std::atomic<long> threadReadings{0};
  std::atomic<std::uint64_t> stepNs{0};  ///< from one reading of the clock to the next; 0: the real clock
  std::atomic<std::uint64_t> nowNs{0};   ///< that clock
  std::atomic<std::uint64_t> sleptUntilNs{0};
  std::atomic<Refusal> refusal{kNone};  ///< what the system does not give
  std::atomic<int> refused{0};          ///< how often
  std::atomic<int> interruptions{0};    ///< so many readings of files are interrupted, and others are short
};
extern System checkSystem;

inline void InOwnProcess(const std::function<void()>& test) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    test();
    (void)std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << ", see above";
}

/// The counters of a worker.
struct Worker {
  Worker(scope::Engine engine, std::uint32_t thread)
      : Worker(engine, thread, static_cast<std::uint32_t>(engine) * 16 + thread) {}
  Worker(scope::Engine engine, std::uint32_t thread, std::uint32_t set)
      : counters(std::make_unique<scope::ThreadCounters>()) {
    counters->engine = engine;
    counters->thread = thread;
    counters->set = set;
  }

  std::unique_ptr<scope::ThreadCounters> counters;
};

inline Bytes Random(std::size_t size, unsigned seed) {
  std::uint64_t random = (std::uint64_t{seed} + 1) * 0x9e3779b97f4a7c15U;
  Bytes bytes(size);
  for (std::uint8_t& byte : bytes) {
    random ^= random << 13;
    random ^= random >> 7;
    random ^= random << 17;
    byte = static_cast<std::uint8_t>(random >> 32);
  }
  return bytes;
}

inline std::vector<scope::ErrorPacket> Errors() {
  std::vector<scope::ErrorPacket> errors;
  for (scope::ErrorPacket error{}; scope::TakeError(error);) errors.push_back(error);
  return errors;
}

inline void Flip(Bytes& bytes, std::size_t bit) {
  bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
}

inline void ExpectIs(const scope::ErrorPacket& error, scope::ErrorKind kind, const Bytes& where,
                     std::size_t bit) {
  EXPECT_EQ(error.kind, kind);
  EXPECT_EQ(error.placed, 1U);
  EXPECT_EQ(error.bits, 1U);
  EXPECT_EQ(error.offset, bit / 64 * 8);
  EXPECT_EQ(error.address, reinterpret_cast<std::uintptr_t>(where.data() + bit / 64 * 8));
  EXPECT_EQ(error.expected ^ error.found, std::uint64_t{1} << bit % 64);
}

inline void Copy(const Worker& worker, const Bytes& source, std::uint64_t ns = kOperationNs) {
  static Bytes destination;
  destination = source;
  scope::CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), ns);
}

inline void CheckResult(const Worker& worker, const Bytes& source, const Bytes& result,
                        std::uint64_t ns = kOperationNs) {
  scope::CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                      ns);
}

/// A resize of the tests: each byte of the result is the sum of some of the source.
inline void Resize(const Bytes& source, Bytes& result) {
  for (std::size_t i = 0; i < result.size(); ++i) {
    result[i] = static_cast<std::uint8_t>(source[3 * i] + source[3 * i + 1] + source[3 * i + 2]);
  }
}

/// A worker that resizes, whose right results have been learnt.
struct Resized {
  Resized() {
    Resize(source, result);
    for (int i = 0; i < 10; ++i) Check();
  }
  void Check() const { CheckResult(worker, source, result); }

  const Worker worker{scope::Engine::kVpc, 0};
  const Bytes source = Random(30'000, 1);
  Bytes result = Bytes(10'000);
};

/// A frame whose stream is `stream`.
inline void EncodeAs(const Worker& worker, const Bytes& frame, std::uint64_t number, const Bytes& stream,
                     std::uint64_t settings = 5, std::uint64_t ns = kOperationNs) {
  scope::CheckFrame(*worker.counters, {frame.data(), frame.size()}, settings);
  scope::CheckStream(*worker.counters, {frame.data(), frame.size()}, {stream.data(), stream.size()}, number,
                     ns);
}

/// Streams depend on the frame's number, as those of a rate control do.
inline Bytes StreamOf(std::uint64_t number) {
  return Random(3000 + number % 7, static_cast<unsigned>(number));
}

/// That of an encoder that has strayed has nothing in common with it.
inline Bytes StrayedStreamOf(std::uint64_t number, std::size_t missing = 0) {
  return Random(3000 + number % 7 - missing, 1000 + static_cast<unsigned>(number));
}

inline void Encode(const Worker& worker, const Bytes& frame, std::uint64_t number,
                   std::size_t flippedBit = 0) {
  Bytes stream = StreamOf(number);
  if (flippedBit != 0) Flip(stream, flippedBit);
  EncodeAs(worker, frame, number, stream);
}

}  // namespace checks
