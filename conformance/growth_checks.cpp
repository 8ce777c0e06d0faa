// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "check.h"
#include "encoder.h"
#include "usage.h"
#include "worker.h"

// Creates and destroys things a thousand times, and then looks what is left. The rounds run on the main
// thread, where nothing else changes the heap. In the rounds about threads, each round is a new thread that
// lives like a worker.
namespace conformance {

namespace {

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CONFORMANCE_SANITIZED 1
#endif
#endif

/// Encoders and models take a thousand times as long as contexts, so they get a tenth of the rounds.
constexpr unsigned int kSlow = 10;

unsigned int RoundsOf(const Session& session, unsigned int divisor) {
  return std::max(2U, session.settings.rounds / divisor);
}

// Once filled, caches and tables do not grow any more.
template <typename Round>
Usage WarmUp(unsigned int rounds, const Round& round) {
  for (unsigned int i = 0; i < std::max(2U, rounds / 10); ++i) round();
  return MeasureUsage();
}

void RequireWithin(const char* what, std::uint64_t before, std::uint64_t after, std::uint64_t allowed,
                   unsigned int rounds) {
  if (after <= before + allowed) return;
  throw Failure(std::string(what) + " grew from " + std::to_string(before) + " to " + std::to_string(after) +
                " over " + std::to_string(rounds) + " rounds, expected at most " + std::to_string(allowed) +
                " more");
}

// A leak loses at least one block in each round. So the limit for a round is below the smallest block of a
// heap, or below a page. The limit for the whole run allows for freed blocks that the C library keeps;
// engines that allocate a lot leave more of them.
template <typename Round>
void RequireSteadyMemory(Session& session, unsigned int divisor, const Round& round) {
#ifdef CONFORMANCE_SANITIZED
  throw Skip("the sanitizer that this program was built with keeps freed memory");
#endif
  const unsigned int rounds = RoundsOf(session, divisor);
  const Usage before = WarmUp(rounds, round);
  for (unsigned int i = 0; i < rounds; ++i) round();
  const Usage after = MeasureUsage();
  RequireWithin("the heap in use, in bytes,", before.heapBytes, after.heapBytes,
                (divisor == 1 ? 16 : 128) * kKiB + 8ULL * rounds, rounds);
  RequireWithin("resident memory, in bytes,", before.residentBytes, after.residentBytes,
                (divisor == 1 ? 1 : 32) * kMiB + kKiB * rounds, rounds);
  RequireWithin("mapped memory, in bytes,", before.mappedBytes, after.mappedBytes, 256 * kMiB, rounds);
  session.note = std::to_string(rounds) + " rounds";
}

template <typename Round>
void RequireSteadyHandles(Session& session, unsigned int divisor, const Round& round) {
  const unsigned int rounds = RoundsOf(session, divisor);
  const Usage before = WarmUp(rounds, round);
  for (unsigned int i = 0; i < rounds; ++i) round();
  Usage after = MeasureUsage();
  // A thread that was joined stays listed for a moment.
  for (int i = 0; i < 100 && after.threads > before.threads; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    after = MeasureUsage();
  }
  RequireWithin("the number of descriptors", before.descriptors, after.descriptors, 0, rounds);
  RequireWithin("the number of threads", before.threads, after.threads, 0, rounds);
  session.note = std::to_string(rounds) + " rounds";
}

// What is created and destroyed, and what that needs. Round creates and destroys one.

struct Contexts {
  static constexpr unsigned int kDivisor = 1;

  explicit Contexts(const Session& /*session*/) {}

  void Round() const {
    Ormis::QetContext context;
    RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
    RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
    (void)Ormis::QetDestroyContext(context);
  }

  const Platform platform;
};

struct Channels {
  static constexpr unsigned int kDivisor = 1;

  explicit Channels(const Session& /*session*/) {}

  void Round() const {
    int channel = 0;
    RequireOk(Ormis::QetCreateChannel(channel), "QetCreateChannel");
    (void)Ormis::QetDestroyChannel(channel);
  }

  const Device device{};
};

struct Images {
  static constexpr unsigned int kDivisor = 1;

  explicit Images(const Session& /*session*/) {}

  void Round() const {
    const Image source(1920, 1080);
    const Image destination(416, 234);
  }

  const Device device{};
};

struct Encoders {
  static constexpr unsigned int kDivisor = kSlow;

  explicit Encoders(const Session& /*session*/) {}

  void Round() {
    Ormis::QetVenc encoder;
    Configure(encoder, 0);
    RequireOk(encoder.Init(), "Init");
    EncodeOne(encoder, frame);
  }

  const Device device{};
  Frame frame;
};

struct Models {
  static constexpr unsigned int kDivisor = kSlow;

  explicit Models(const Session& session) : file(ModelFile(session)) {}

  void Round() const {
    Ormis::QetDNNHandle handle;
    RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
    RequireOk(Ormis::QetDNNModelCreateInput(handle), "QetDNNModelCreateInput");
    RequireOk(Ormis::QetDNNModelCreateOutput(handle), "QetDNNModelCreateOutput");
    RequireOk(Ormis::QetDNNModelProcess(handle), "QetDNNModelProcess");
    (void)Ormis::QetDNNRelease(handle);
  }

  const std::string& file;  // before the device, because without a model the check is skipped
  const Device device{};
};

/// A resize worker's life on a new thread. The other rounds do not notice what a library keeps for each
/// thread.
struct Threads {
  static constexpr unsigned int kDivisor = 1;

  explicit Threads(const Session& /*session*/) {}

  void Round() const {
    RunThreads(1, [](unsigned int, Barrier&) {
      const BoundContext context;
      const Channel channel(0);
      const Image source(160, 90);
      const Image destination(80, 45);
      RequireOk(Ormis::QetImageResize(channel.Number(), source.record, destination.record,
                                      Ormis::kQetInterpolationArea, -1),
                "QetImageResize");
    });
  }

  const Platform platform;
};

template <typename Things>
void Memory(Session& session) {
  Things things(session);
  RequireSteadyMemory(session, Things::kDivisor, [&] { things.Round(); });
}

template <typename Things>
void Handles(Session& session) {
  Things things(session);
  RequireSteadyHandles(session, Things::kDivisor, [&] { things.Round(); });
}

}  // namespace

std::vector<Check> GrowthChecks() {
  return {
      {"growth.context-memory", "memory does not grow with contexts made and destroyed", Memory<Contexts>},
      {"growth.context-handles", "descriptors and threads do not grow with contexts made and destroyed",
       Handles<Contexts>},
      {"growth.channel-memory", "memory does not grow with channels made and destroyed", Memory<Channels>},
      {"growth.channel-handles", "descriptors and threads do not grow with channels made and destroyed",
       Handles<Channels>},
      {"growth.image-memory", "memory does not grow with images allocated and destroyed", Memory<Images>},
      {"growth.image-handles", "descriptors and threads do not grow with images allocated and destroyed",
       Handles<Images>},
      {"growth.encoder-memory",
       "memory does not grow with encoders that encode a frame and end (a tenth of the rounds)",
       Memory<Encoders>},
      {"growth.encoder-handles",
       "descriptors and threads do not grow with encoders that encode a frame and end (a tenth of the "
       "rounds)",
       Handles<Encoders>},
      {"growth.model-memory",
       "memory does not grow with models loaded, run and released (a tenth of the rounds)", Memory<Models>},
      {"growth.model-handles",
       "descriptors and threads do not grow with models loaded, run and released (a tenth of the rounds)",
       Handles<Models>},
      {"growth.thread-memory",
       "memory does not grow with threads that make a context, a channel and images, resize, and end",
       Memory<Threads>},
      {"growth.thread-handles",
       "descriptors and threads do not grow with threads that make a context, a channel and images, resize, "
       "and "
       "end",
       Handles<Threads>},
  };
}

}  // namespace conformance
