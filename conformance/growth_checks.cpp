#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "check.h"
#include "encoder.h"
#include "usage.h"
#include "worker.h"

// What a thousand rounds of making and ending leave behind. The rounds of one thing run on the main thread,
// where nothing else moves the heap; those of threads have a worker's life each, on a thread of its own.
namespace conformance {

namespace {

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CONFORMANCE_SANITIZED 1
#endif
#endif

/// Encoders and models take a thousand times as long as a context: a tenth of the rounds.
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
                " over " + std::to_string(rounds) + " rounds, allowed were " + std::to_string(allowed));
}

// A leak is a piece a round: what is allowed a round is less than the smallest piece of a heap, or than a
// page. What is allowed once is what a C library keeps of freed pieces without telling; engines that allocate
// a lot move more of it.
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

void ContextRound() {
  Ormis::QetContext context;
  RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
  RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
  (void)Ormis::QetDestroyContext(context);
}

void ChannelRound() {
  int channel = 0;
  RequireOk(Ormis::QetCreateChannel(channel), "QetCreateChannel");
  (void)Ormis::QetDestroyChannel(channel);
}

void ImageRound() {
  const Image source(1920, 1080);
  const Image destination(416, 234);
}

struct EncoderRound {
  Frame& frame;

  void operator()() const {
    Ormis::QetVenc encoder;
    Configure(encoder, 0);
    RequireOk(encoder.Init(), "Init");
    EncodeOne(encoder, frame);
  }
};

struct ModelRound {
  const std::string& file;

  void operator()() const {
    Ormis::QetDNNHandle handle;
    RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
    RequireOk(Ormis::QetDNNModelCreateInput(handle), "QetDNNModelCreateInput");
    RequireOk(Ormis::QetDNNModelCreateOutput(handle), "QetDNNModelCreateOutput");
    RequireOk(Ormis::QetDNNModelProcess(handle), "QetDNNModelProcess");
    (void)Ormis::QetDNNRelease(handle);
  }
};

/// A resize worker's life. What a library keeps for each thread, the other rounds make once.
void ThreadRound() {
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

void ContextMemory(Session& session) {
  const Platform platform;
  RequireSteadyMemory(session, 1, ContextRound);
}

void ContextHandles(Session& session) {
  const Platform platform;
  RequireSteadyHandles(session, 1, ContextRound);
}

void ChannelMemory(Session& session) {
  const Device device;
  RequireSteadyMemory(session, 1, ChannelRound);
}

void ChannelHandles(Session& session) {
  const Device device;
  RequireSteadyHandles(session, 1, ChannelRound);
}

void ImageMemory(Session& session) {
  const Device device;
  RequireSteadyMemory(session, 1, ImageRound);
}

void ImageHandles(Session& session) {
  const Device device;
  RequireSteadyHandles(session, 1, ImageRound);
}

void EncoderMemory(Session& session) {
  const Device device;
  Frame frame;
  RequireSteadyMemory(session, kSlow, EncoderRound{frame});
}

void EncoderHandles(Session& session) {
  const Device device;
  Frame frame;
  RequireSteadyHandles(session, kSlow, EncoderRound{frame});
}

void ModelMemory(Session& session) {
  const std::string& file = ModelFile(session);
  const Device device;
  RequireSteadyMemory(session, kSlow, ModelRound{file});
}

void ModelHandles(Session& session) {
  const std::string& file = ModelFile(session);
  const Device device;
  RequireSteadyHandles(session, kSlow, ModelRound{file});
}

void ThreadMemory(Session& session) {
  const Platform platform;
  RequireSteadyMemory(session, 1, ThreadRound);
}

void ThreadHandles(Session& session) {
  const Platform platform;
  RequireSteadyHandles(session, 1, ThreadRound);
}

}  // namespace

std::vector<Check> GrowthChecks() {
  return {
      {"growth.context-memory", "memory does not grow with contexts made and destroyed", ContextMemory},
      {"growth.context-handles", "descriptors and threads do not grow with contexts made and destroyed",
       ContextHandles},
      {"growth.channel-memory", "memory does not grow with channels made and destroyed", ChannelMemory},
      {"growth.channel-handles", "descriptors and threads do not grow with channels made and destroyed",
       ChannelHandles},
      {"growth.image-memory", "memory does not grow with images allocated and destroyed", ImageMemory},
      {"growth.image-handles", "descriptors and threads do not grow with images allocated and destroyed",
       ImageHandles},
      {"growth.encoder-memory",
       "memory does not grow with encoders that encode a frame and end (a tenth of the rounds)",
       EncoderMemory},
      {"growth.encoder-handles",
       "descriptors and threads do not grow with encoders that encode a frame and end (a tenth of the "
       "rounds)",
       EncoderHandles},
      {"growth.model-memory",
       "memory does not grow with models loaded, run and released (a tenth of the rounds)", ModelMemory},
      {"growth.model-handles",
       "descriptors and threads do not grow with models loaded, run and released (a tenth of the rounds)",
       ModelHandles},
      {"growth.thread-memory",
       "memory does not grow with threads that make a context, a channel and images, resize, and end",
       ThreadMemory},
      {"growth.thread-handles",
       "descriptors and threads do not grow with threads that make a context, a channel and images, resize, "
       "and "
       "end",
       ThreadHandles},
  };
}

}  // namespace conformance
