// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "aicore_stress.h"
#include "cpu_stress.h"
#include "kivu_venc_stress.h"
#include "kivu_vpc_stress.h"
#include "link_names.h"
#include "measure.h"
#include "ormis/ormis.h"
#include "program.h"

namespace {

using Clock = std::chrono::steady_clock;
using measure::Median;
using measure::MedianRatio;
using measure::Require;

double NsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

/// Takes turns with the worker. One object serves all, because one worker runs at a time.
struct Turns {
  Turns(bool real, int cyclesATurn, int rounds) : real(real), cyclesATurn(cyclesATurn), rounds(rounds) {}

  const bool real;  ///< operations reach the engines
  const int cyclesATurn;
  const int rounds;
  volatile int stop = 0;
  std::vector<double> workerNs;  ///< a cycle, one figure a turn
  std::vector<double> directNs;
  std::vector<double> againNs;

  /// Called at the end of each of the worker's cycles, with a function that repeats the cycle's calls.
  template <typename Calls>
  void CycleDone(const Calls& calls) {
    if (stop != 0) return;
    if (done_++ == 0) {  // the first cycle of a turn follows other work and is left out
      turnStart_ = Clock::now();
      return;
    }
    if (done_ <= cyclesATurn) return;
    workerNs.push_back(NsSince(turnStart_) / cyclesATurn);
    for (std::vector<double>* side : {&directNs, &againNs}) {
      const Clock::time_point start = Clock::now();
      for (int i = 0; i < cyclesATurn; ++i) calls();
      side->push_back(NsSince(start) / cyclesATurn);
    }
    done_ = 0;
    if (static_cast<int>(directNs.size()) == rounds) stop = 1;
  }

 private:
  int done_ = 0;
  Clock::time_point turnStart_;
};

Turns* turns = nullptr;

/// The platform's own operation behind this program's of the same link name, or one that returns at once.
template <typename Operation>
Operation Next(const char* linkName, Operation null) {
  if (!turns->real) return null;
  const auto next = reinterpret_cast<Operation>(dlsym(RTLD_NEXT, linkName));
  Require(next != nullptr, linkName);
  return next;
}

template <typename... Arguments>
[[gnu::noinline]] std::int32_t Null(Arguments... /*arguments*/) {
  return 0;
}

/// The state of the current cycle.
const Ormis::ImageData* frame = nullptr;

using SendFrame = std::int32_t (*)(Ormis::QetVenc*, const Ormis::ImageData&);
using GetStream = std::int32_t (*)(Ormis::QetVenc*, ux_venc_stream&);
SendFrame nextSendFrame = nullptr;
GetStream nextGetStream = nullptr;
GetStream nextReleaseStream = nullptr;
int (*nextCopy)(void*, std::size_t, const void*, std::size_t) = nullptr;
std::int32_t (*nextResize)(int, const Ormis::ImageData&, const Ormis::ImageData&,
                           Ormis::QetImageInterpolationType, int) = nullptr;
std::int32_t (*nextProcess)(const Ormis::QetDNNHandle&) = nullptr;

void Connect() {
  nextSendFrame = Next<SendFrame>(LINK_QET_VENC_SEND_FRAME, Null);
  nextGetStream = Next<GetStream>(LINK_QET_VENC_GET_STREAM, Null);
  nextReleaseStream = Next<GetStream>(LINK_QET_VENC_RELEASE_STREAM, Null);
  nextCopy = Next<decltype(nextCopy)>(LINK_MEMCPY_S, Null);
  nextResize = Next<decltype(nextResize)>(LINK_QET_IMAGE_RESIZE, Null);
  nextProcess = Next<decltype(nextProcess)>(LINK_QET_DNN_MODEL_PROCESS, Null);
}

using Record = std::unique_ptr<vorn::StressRegister>;

struct Worker {
  const char* name;
  int realCyclesATurn;  ///< a few tenths of a second
  void (*run)(Record& record);
};

constexpr Worker kWorkers[] = {
    {"CPU", 200, [](Record& record) { MemoryCopy(record, 0, turns->stop); }},
    {"VPC", 200, [](Record& record) { (void)VPCResize(record, 0, turns->stop); }},
    {"VENC", 60, [](Record& record) { (void)VencProcess(record, 0, turns->stop); }},
    {"AIC", 20, [](Record& record) { (void)AICoreStressNode(record, 0, turns->stop); }},
};

void Measure(const Worker& worker, const std::string& model, Turns& measured) {
  turns = &measured;
  Connect();
  auto record = std::make_unique<vorn::StressRegister>();
  record->sleepUs = 0;
  record->file = model;
  record->threadFps.resize(1);
  worker.run(record);
  Require(static_cast<int>(measured.directNs.size()) == measured.rounds, worker.name);
}

/// What the three clock reads of a cycle cost by themselves.
double ClockReadsNs() {
  constexpr int kCycles = 100'000;
  std::vector<double> ns;
  for (int round = 0; round < 21; ++round) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < 3 * kCycles; ++i) (void)Clock::now();
    ns.push_back(NsSince(start) / kCycles);
  }
  return Median(ns);
}

const char* const kUsage = R"(usage: driver_bench [MODEL [ROUNDS]]
Measures what the four worker loops cost, compared with the operations that they drive.

The unchanged workers run in this program, which interposes the operations of their cycles. It lets the worker
drive a number of cycles, then makes the same calls itself, on the same thread and with the same arguments, and
so on in turns. So only the worker's loop differs. A second direct turn shows the noise. The first table uses
operations that return at once (what a cycle of the loop costs, in ns), the second one the real engines (the
rate of a worker, compared with the direct calls).
)";

}  // namespace

int memcpy_s(void* destination, std::size_t destinationMax, const void* source, std::size_t count) {
  const int result = nextCopy(destination, destinationMax, source, count);
  turns->CycleDone([=] { (void)nextCopy(destination, destinationMax, source, count); });
  return result;
}

namespace Ormis {

std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  const std::int32_t result = nextResize(channel, source, destination, interpolation, timeoutMs);
  turns->CycleDone([&] { (void)nextResize(channel, source, destination, interpolation, timeoutMs); });
  return result;
}

std::int32_t QetVenc::SendFrame(const ImageData& image) {
  frame = &image;
  return nextSendFrame(this, image);
}

std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  return nextGetStream(this, stream);
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  const std::int32_t result = nextReleaseStream(this, stream);
  turns->CycleDone([this] {
    ux_venc_stream own{};
    (void)nextSendFrame(this, *frame);
    (void)nextGetStream(this, own);
    (void)nextReleaseStream(this, own);
  });
  return result;
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  const std::int32_t result = nextProcess(handle);
  turns->CycleDone([&] { (void)nextProcess(handle); });
  return result;
}

}  // namespace Ormis

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "driver_bench", kUsage);
  const std::string model = argc > 1 ? argv[1] : "build/models/example.onnx";
  const int rounds = measure::CountArgument(argc, argv, 2, "ROUNDS", 15);
  Require(argc <= 3, "reading the arguments [MODEL [ROUNDS]]");
  Ormis::QetContext process;
  Require(Ormis::QetInitialize(process, {}) == 0, "QetInitialize");

  const double clockNs = ClockReadsNs();
  (void)std::printf(
      "| worker | loop, ns a cycle | its calls alone, ns | three clock reads, ns | the loop's own, ns |\n"
      "|---|---|---|---|---|\n");
  for (const Worker& worker : kWorkers) {
    Turns null(false, 100'000, rounds);
    Measure(worker, model, null);
    const double loopNs = Median(null.workerNs);
    const double callsNs = Median(null.directNs);
    (void)std::printf("| %s | %.1f | %.1f | %.1f | %.1f |\n", worker.name, loopNs, callsNs, clockNs,
                      loopNs - callsNs - clockNs);
  }

  (void)std::printf(
      "\n| worker | driven by the worker, ms | called directly, ms | rate of the worker / direct | direct "
      "once more / direct "
      "|\n|---|---|---|---|---|\n");
  for (const Worker& worker : kWorkers) {
    Turns real(true, worker.realCyclesATurn, rounds);
    Measure(worker, model, real);
    (void)std::printf("| %s | %.3f | %.3f | %.4f | %.4f |\n", worker.name, Median(real.workerNs) / 1e6,
                      Median(real.directNs) / 1e6, MedianRatio(real.directNs, real.workerNs),
                      MedianRatio(real.directNs, real.againNs));
  }
  Require(Ormis::QetRelease(process) == 0, "QetRelease");
}
