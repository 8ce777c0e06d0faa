// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "check.h"
#include "encoder.h"
#include "worker.h"

namespace conformance {

namespace {

constexpr unsigned int kWorkers = 10;  // the highest level

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
