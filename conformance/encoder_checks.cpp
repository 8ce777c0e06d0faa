// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "check.h"
#include "encoder.h"
#include "worker.h"

namespace conformance {

namespace {

constexpr unsigned int kWorkers = 10;  // the highest level

using StreamBytes = std::vector<std::uint8_t>;

void TenAtOnce(Session&) {
  const Device device;
  std::vector<std::unique_ptr<Ormis::QetVenc>> encoders;
  for (unsigned int index = 0; index < kWorkers; ++index) {
    encoders.push_back(std::make_unique<Ormis::QetVenc>());
    Configure(*encoders.back(), index);
    RequireOk(encoders.back()->Init(), ("Init of encoder " + std::to_string(index + 1)).c_str());
  }
}

void OneStreamForOneFrame(Session&) {
  constexpr int kFrames = 8;
  const Device device;
  Frame frame;
  Ormis::QetVenc encoder;
  Configure(encoder, 0);
  RequireOk(encoder.Init(), "Init");
  for (int number = 1; number <= kFrames; ++number) {
    const std::string which = " for frame " + std::to_string(number);
    RequireOk(encoder.SendFrame(frame.Record()), ("SendFrame" + which).c_str());
    ux_venc_stream stream{};
    RequireOk(encoder.GetStream(stream), ("GetStream" + which).c_str());
    std::array<unsigned char, sizeof(stream)> bytes{};
    std::memcpy(bytes.data(), &stream, bytes.size());
    Require(std::any_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte != 0; }),
            "GetStream" + which + " returned 0 and left the record zero");
    RequireOk(encoder.ReleaseStream(stream), ("ReleaseStream" + which).c_str());
    frame.Next();
  }
}

void ReleaseReturnsBuffers(Session& session) {
  // With enough rounds, more frames than the stream buffer holds at the configured rate.
  const unsigned int frames = std::max(32U, session.settings.rounds * 6 / 5);
  const Device device;
  Frame frame;
  Ormis::QetVenc encoder;
  Configure(encoder, 0);
  RequireOk(encoder.Init(), "Init");
  for (unsigned int number = 1; number <= frames; ++number) {
    try {
      EncodeOne(encoder, frame);
    } catch (const Failure& failure) {
      throw Failure("frame " + std::to_string(number) + ": " + failure.what());
    }
  }
  session.note = std::to_string(frames) + " frames";
}

void EndsInAnyState(Session&) {
  const Device device;
  Frame frame;
  {
    Ormis::QetVenc unconfigured;
  }
  {
    Ormis::QetVenc configured;
    Configure(configured, 0);
  }
  {
    Ormis::QetVenc ready;
    Configure(ready, 0);
    RequireOk(ready.Init(), "Init");
  }
  {
    Ormis::QetVenc waiting;
    Configure(waiting, 0);
    RequireOk(waiting.Init(), "Init");
    RequireOk(waiting.SendFrame(frame.Record()), "SendFrame");
  }
  {
    Ormis::QetVenc holding;
    Configure(holding, 0);
    RequireOk(holding.Init(), "Init");
    RequireOk(holding.SendFrame(frame.Record()), "SendFrame");
    ux_venc_stream stream{};
    RequireOk(holding.GetStream(stream), "GetStream");
  }
  Ormis::QetVenc again;
  Configure(again, 0);
  RequireOk(again.Init(), "Init after encoders that were ended in every state");
  EncodeOne(again, frame);
}

void NoStreamWithoutFrame(Session&) {
  const Device device;
  Frame frame;
  Ormis::QetVenc encoder;
  Configure(encoder, 0);
  RequireOk(encoder.Init(), "Init");
  ux_venc_stream stream{};
  RequireFailure(encoder.GetStream(stream), "GetStream", "before any frame was sent");
  EncodeOne(encoder, frame);
  stream = {};
  RequireFailure(encoder.GetStream(stream), "GetStream", "for a second stream of one frame");
  EncodeOne(encoder, frame);
}

/// The bytes of a stream. Throws Skip where the record has other fields than this project's headers, or none
/// of them is set: the benchmark does not look at them, so a platform need not have them.
template <typename Stream, typename = void>
struct ContentOf {
  static StreamBytes Of(const Stream&) {
    throw Skip("the headers of the platform have no packets in a stream");
  }
};

template <typename Stream>
struct ContentOf<Stream, std::void_t<decltype(Stream::packetCount), decltype(Stream::totalBytes),
                                     decltype(Stream::packets[0].data + Stream::packets[0].sizeBytes)>> {
  static StreamBytes Of(const Stream& stream) {
    std::uint64_t bytes = 0;
    const bool fits = stream.packetCount >= 1 && stream.packetCount <= std::size(stream.packets);
    for (std::size_t at = 0; fits && at < stream.packetCount; ++at) bytes += stream.packets[at].sizeBytes;
    if (bytes == 0 || bytes != stream.totalBytes) throw Skip("the platform does not set a stream's packets");
    StreamBytes content;
    for (std::size_t at = 0; at < stream.packetCount; ++at) {
      const auto& packet = stream.packets[at];
      content.insert(content.end(), packet.data, packet.data + packet.sizeBytes);
    }
    return content;
  }
};

StreamBytes StreamOf(Ormis::QetVenc& encoder, const Frame& frame) {
  RequireOk(encoder.SendFrame(frame.Record()), "SendFrame");
  ux_venc_stream stream{};
  RequireOk(encoder.GetStream(stream), "GetStream");
  StreamBytes content = ContentOf<ux_venc_stream>::Of(stream);
  RequireOk(encoder.ReleaseStream(stream), "ReleaseStream");
  return content;
}

using TwoStreams = std::pair<StreamBytes, StreamBytes>;

/// The streams that a new encoder makes of two pictures. The second is another one where `changes` is true.
/// It lies in the memory of the first, or in memory of its own, which the encoder has never read.
TwoStreams EncodeTwo(bool changes, bool inOwnMemory) {
  Frame first;
  Frame other;
  Frame& second = inOwnMemory ? other : first;
  if (inOwnMemory && changes) other.ChangeAll();
  Ormis::QetVenc encoder;
  Configure(encoder, 0);
  RequireOk(encoder.Init(), "Init");
  TwoStreams streams;
  streams.first = StreamOf(encoder, first);
  if (!inOwnMemory && changes) first.ChangeAll();
  streams.second = StreamOf(encoder, second);
  return streams;
}

void RewrittenFrame(Session&) {
  const Device device;
  const TwoStreams expected = EncodeTwo(true, true);
  if (EncodeTwo(true, true) != expected) {
    throw Skip("two encoders make different streams of the same pictures, so streams cannot be compared");
  }
  const TwoStreams still = EncodeTwo(false, false);
  const TwoStreams rewritten = EncodeTwo(true, false);
  Require(rewritten.second != still.second,
          "the stream after the frame was rewritten is that of the frame before");
  Require(rewritten == expected,
          "the stream after the frame was rewritten is not that of the same picture in other memory");
}

// A worker whose set-up failed goes on. Its first frame must fail, so that the worker ends.
void FailsWithoutInit(Session&) {
  const Platform platform;
  Frame frame;
  RunThreads(1, [&frame](unsigned int, Barrier&) {
    Ormis::QetVenc encoder;
    Configure(encoder, 0);
    RequireFailure(encoder.SendFrame(frame.Record()), "SendFrame",
                   "for an encoder without Init, on a thread without a context");
  });
  const BoundContext context;
  Ormis::QetVenc encoder;
  Configure(encoder, 0);
  RequireFailure(encoder.SendFrame(frame.Record()), "SendFrame", "for an encoder without Init");
}

}  // namespace

std::vector<Check> EncoderChecks() {
  return {
      {"encoder.ten-at-once",
       "Init with the benchmark's settings returns 0 for ten encoders that live at the same time", TenAtOnce},
      {"encoder.one-stream-for-one-frame",
       "every SendFrame returns 0 and is followed by one GetStream that returns 0 and fills the record",
       OneStreamForOneFrame},
      {"encoder.rewritten-frame",
       "a frame that was rewritten after its stream had been fetched gives the stream of the new picture",
       RewrittenFrame},
      {"encoder.no-stream-without-frame",
       "GetStream without a frame that it could be of comes back with a status other than 0, and the encoder "
       "goes on",
       NoStreamWithoutFrame},
      {"encoder.release-returns-buffers",
       "one ReleaseStream for every GetStream returns 0 and keeps the encoder going", ReleaseReturnsBuffers},
      {"encoder.ends-in-any-state",
       "the destructor ends an encoder that was not initialised, and one with a frame or a stream "
       "outstanding",
       EndsInAnyState},
      {"encoder.fails-without-init",
       "SendFrame of an encoder that was not initialised returns a status other than 0, with and without a "
       "context",
       FailsWithoutInit},
  };
}

}  // namespace conformance
