// SPDX-License-Identifier: Apache-2.0
#include <list>
#include <string>

#include "check.h"
#include "encoder.h"
#include "worker.h"

namespace conformance {

namespace {

void StartAndEnd(Session&) {
  Ormis::QetContext process;
  RequireOk(Ormis::QetInitialize(process, Ormis::QetContextParameters{}), "QetInitialize");
  RequireOk(Ormis::QetRelease(process), "QetRelease");
}

/// What a failed worker leaves behind. It is never destroyed: after its context is gone it must not call the
/// library again.
struct Leftovers {
  Ormis::QetContext context;
  Ormis::ImageData source = EmptyImage(1920, 1080);
  Ormis::ImageData destination = EmptyImage(416, 234);
  Frame frame;
  Ormis::QetVenc encoder;
  ux_venc_stream stream{};
  bool hasEncoder = false;

  void Make() {
    RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
    RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
    int channel = 0;
    RequireOk(Ormis::QetCreateChannel(channel), "QetCreateChannel");
    RequireOk(Ormis::QetImageMallocAligned(source), "QetImageMallocAligned");
    RequireOk(Ormis::QetImageMallocAligned(destination), "QetImageMallocAligned");
    Configure(encoder, 0);
    // A library without an encoder leaves none. The checks encoder.* report that.
    hasEncoder = encoder.Init() == 0;
    if (!hasEncoder) return;
    RequireOk(encoder.SendFrame(frame.Record()), "SendFrame");
    RequireOk(encoder.GetStream(stream), "GetStream");
  }
};

void ReleaseWithLeftovers(Session& session) {
  static auto& left = *new std::list<Leftovers>;
  for (const char* const when : {"", " after a release with leftovers"}) {
    Ormis::QetContext process;
    RequireOk(Ormis::QetInitialize(process, Ormis::QetContextParameters{}),
              ("QetInitialize" + std::string(when)).c_str());
    RunThreads(1, [](unsigned int, Barrier&) { left.emplace_back().Make(); });
    RequireOk(Ormis::QetRelease(process), "QetRelease with a context, a channel, images and an encoder left");
  }
  if (!left.back().hasEncoder) session.note = "no encoder was among them: Init fails";
}

// Three times: a second run of workers needs new contexts.
void CreateBindDestroy(Session&) {
  const Platform platform;
  for (int round = 0; round < 3; ++round) {
    RunThreads(1, [](unsigned int, Barrier&) {
      Ormis::QetContext context;
      RequireOk(Ormis::QetCreateContext(context), "QetCreateContext");
      RequireOk(Ormis::QetSetCurrentContext(context), "QetSetCurrentContext");
      RequireOk(Ormis::QetDestroyContext(context), "QetDestroyContext");
    });
  }
}

void UseAnImage() {
  Ormis::ImageData image = EmptyImage(64, 64);
  RequireOk(Ormis::QetImageMallocAligned(image), "QetImageMallocAligned on a thread with its own context");
  RequireOk(Ormis::QetMemcpyToKivu(image, image), "QetMemcpyToKivu on a thread with its own context");
  RequireOk(Ormis::QetImageDestroy(image), "QetImageDestroy on a thread with its own context");
}

void BoundPerThread(Session&) {
  const Platform platform;
  RunThreads(2, [](unsigned int index, Barrier& barrier) {
    {
      const BoundContext context;
      Wait(barrier);  // both threads have bound their contexts
      UseAnImage();
      Wait(barrier);
      if (index == 0) {
        Wait(barrier);  // the other thread's context is destroyed
        UseAnImage();
        return;
      }
    }
    Wait(barrier);
  });
}

}  // namespace

std::vector<Check> ProcessChecks() {
  return {
      {"process.initialize-release",
       "QetInitialize with an empty string and 0, then QetRelease of the same context, return 0",
       StartAndEnd},
      {"process.release-with-leftovers",
       "QetRelease returns 0 though a context, a channel, images and an encoder were left behind, and "
       "QetInitialize starts the platform again",
       ReleaseWithLeftovers},
      {"context.create-bind-destroy",
       "on a worker thread QetCreateContext, QetSetCurrentContext and QetDestroyContext return 0, again and "
       "again",
       CreateBindDestroy},
      {"context.bound-per-thread",
       "a context is bound to the thread that bound it: two threads work each in its own, also after the "
       "other "
       "one's was destroyed",
       BoundPerThread},
  };
}

}  // namespace conformance
