#include "check.h"
#include "worker.h"

namespace conformance {

namespace {

void StartAndEnd(Session&) {
  Ormis::QetContext process;
  RequireOk(Ormis::QetInitialize(process, Ormis::QetContextParameters{}), "QetInitialize");
  RequireOk(Ormis::QetRelease(process), "QetRelease");
}

// Three times, for a context that cannot be made again would stop a second run of workers.
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
      Wait(barrier);  // both are bound
      UseAnImage();
      Wait(barrier);
      if (index == 0) {
        Wait(barrier);  // the other thread's context is gone
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
