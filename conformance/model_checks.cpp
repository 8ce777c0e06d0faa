// SPDX-License-Identifier: Apache-2.0
#include <fstream>
#include <string>

#include "check.h"
#include "worker.h"

namespace conformance {

namespace {

void UnreadableFile(Session&) {
  const Device device;
  {
    std::ofstream file("garbage.model", std::ios::binary);
    for (int i = 0; i < 1000; ++i) file << "no model, " << i << '\n';
  }
  for (const char* const path : {"missing.model", "", ".", "garbage.model"}) {
    Ormis::QetDNNHandle handle;
    RequireFailure(Ormis::QetDNNModelInitialize(handle, path), "QetDNNModelInitialize",
                   ("for the path '" + std::string(path) + "'").c_str());
  }
}

void ReleaseWithoutModel(Session&) {
  const Device device;
  {
    Ormis::QetDNNHandle untouched;
    (void)Ormis::QetDNNRelease(untouched);
    (void)Ormis::QetDNNRelease(untouched);
  }
  Ormis::QetDNNHandle failed;
  (void)Ormis::QetDNNModelInitialize(failed, "missing.model");
  (void)Ormis::QetDNNRelease(failed);
}

void Runs(Session& session) {
  constexpr int kTimes = 5;
  const std::string& file = ModelFile(session);
  const Device device;
  Ormis::QetDNNHandle handle;
  RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
  RequireOk(Ormis::QetDNNModelCreateInput(handle), "QetDNNModelCreateInput");
  RequireOk(Ormis::QetDNNModelCreateOutput(handle), "QetDNNModelCreateOutput");
  for (int time = 0; time < kTimes; ++time) {
    RequireOk(Ormis::QetDNNModelProcess(handle), "QetDNNModelProcess");
  }
  RequireOk(Ormis::QetDNNRelease(handle), "QetDNNRelease");
}

void ReleaseInEveryState(Session& session) {
  const std::string& file = ModelFile(session);
  const Device device;
  const char* const states[] = {"a loaded model", "a model with inputs", "a model with inputs and outputs",
                                "a model that has run"};
  for (int state = 0; state < 4; ++state) {
    Ormis::QetDNNHandle handle;
    RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
    if (state >= 1) RequireOk(Ormis::QetDNNModelCreateInput(handle), "QetDNNModelCreateInput");
    if (state >= 2) RequireOk(Ormis::QetDNNModelCreateOutput(handle), "QetDNNModelCreateOutput");
    if (state >= 3) RequireOk(Ormis::QetDNNModelProcess(handle), "QetDNNModelProcess");
    RequireOk(Ormis::QetDNNRelease(handle), ("QetDNNRelease of " + std::string(states[state])).c_str());
  }
}

/// Runs `create` on a thread without a context, where nothing can be created. It is passed as a function of
/// this program, because taking the address of an operation would bind it when the kit starts.
template <typename Create>
void WithoutContext(const Create& create, int& failed) {
  RunThreads(1, [&](unsigned int, Barrier&) { failed += create() != 0 ? 1 : 0; });
}

void ReleaseAfterFailedBuffers(Session& session) {
  const std::string& file = ModelFile(session);
  const Device device;
  int failed = 0;
  {
    Ormis::QetDNNHandle without;
    (void)Ormis::QetDNNModelInitialize(without, "missing.model");
    failed += Ormis::QetDNNModelCreateInput(without) != 0 ? 1 : 0;
    failed += Ormis::QetDNNModelCreateOutput(without) != 0 ? 1 : 0;
    (void)Ormis::QetDNNRelease(without);
  }
  {
    Ormis::QetDNNHandle handle;
    RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
    WithoutContext([&] { return Ormis::QetDNNModelCreateInput(handle); }, failed);
    RequireOk(Ormis::QetDNNRelease(handle), "QetDNNRelease after QetDNNModelCreateInput failed");
  }
  {
    Ormis::QetDNNHandle handle;
    RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
    RequireOk(Ormis::QetDNNModelCreateInput(handle), "QetDNNModelCreateInput");
    WithoutContext([&] { return Ormis::QetDNNModelCreateOutput(handle); }, failed);
    RequireOk(Ormis::QetDNNRelease(handle), "QetDNNRelease after QetDNNModelCreateOutput failed");
  }
  Ormis::QetDNNHandle next;
  RequireOk(Ormis::QetDNNModelInitialize(next, file), "QetDNNModelInitialize after those releases");
  RequireOk(Ormis::QetDNNModelCreateInput(next), "QetDNNModelCreateInput after those releases");
  RequireOk(Ormis::QetDNNModelCreateOutput(next), "QetDNNModelCreateOutput after those releases");
  RequireOk(Ormis::QetDNNModelProcess(next), "QetDNNModelProcess after those releases");
  RequireOk(Ormis::QetDNNRelease(next), "QetDNNRelease");
  // The interface does not promise that a creation fails without a model or a context.
  session.note = std::to_string(failed) + " of 4 creations failed";
}

void HandlesIndependent(Session& session) {
  const std::string& file = ModelFile(session);
  const Platform platform;
  RunThreads(2, [&file](unsigned int index, Barrier& barrier) {
    const BoundContext context;
    Ormis::QetDNNHandle handle;
    RequireOk(Ormis::QetDNNModelInitialize(handle, file), "QetDNNModelInitialize");
    RequireOk(Ormis::QetDNNModelCreateInput(handle), "QetDNNModelCreateInput");
    RequireOk(Ormis::QetDNNModelCreateOutput(handle), "QetDNNModelCreateOutput");
    Wait(barrier);
    RequireOk(Ormis::QetDNNModelProcess(handle), "QetDNNModelProcess beside another handle");
    Wait(barrier);
    if (index == 1) (void)Ormis::QetDNNRelease(handle);
    Wait(barrier);
    if (index == 0) {
      RequireOk(Ormis::QetDNNModelProcess(handle), "QetDNNModelProcess after another handle's release");
      (void)Ormis::QetDNNRelease(handle);
    }
  });
}

}  // namespace

std::vector<Check> ModelChecks() {
  return {
      {"model.unreadable-file",
       "QetDNNModelInitialize of a file that is missing, or no model, returns a status other than 0",
       UnreadableFile},
      {"model.release-without-model",
       "QetDNNRelease comes back, with any status, for a handle that never had a model and after a failed "
       "QetDNNModelInitialize",
       ReleaseWithoutModel},
      {"model.runs",
       "a model is loaded, gets its buffers, runs several times and is released, each with status 0", Runs},
      {"model.release-in-every-state",
       "QetDNNRelease returns 0 after QetDNNModelInitialize, after each further step and after a run",
       ReleaseInEveryState},
      {"model.release-after-failed-buffers",
       "QetDNNRelease comes back after a failed QetDNNModelCreateInput or QetDNNModelCreateOutput, with 0 "
       "where "
       "a model was loaded, and the next model runs",
       ReleaseAfterFailedBuffers},
      {"model.handles-independent",
       "two handles of one file run in two threads, and one goes on after the other was released",
       HandlesIndependent},
  };
}

}  // namespace conformance
