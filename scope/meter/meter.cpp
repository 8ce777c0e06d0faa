// SPDX-License-Identifier: Apache-2.0

/// libstress_scope.so is preloaded in front of a platform library. It takes the calls of the operations that
/// do work, passes them on and measures them. It changes no argument and no status. On request it also fills
/// the sources of operations with a pattern, checks their results, counts the ones that miss a deadline, and
/// lets threads sleep between operations.
#include <dlfcn.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "deadlines.h"
#include "duty.h"
#include "fill.h"
#include "link_names.h"
#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"
#include "pin.h"
#include "recorder.h"
#include "records.h"
#include "verify.h"
#include "words.h"

namespace {

using Ormis::ImageData;
using Ormis::QetDNNHandle;
using Ormis::QetImageInterpolationType;
using Ormis::QetVenc;
using scope::Engine;
using scope::KindOf;
using scope::NowNs;
using scope::PixelBytes;
using scope::PixelsOf;
using scope::Spans;
using scope::SpansOf;
using scope::ThreadCounters;

/// The platform's operation with the same link name as ours. Members are called as functions that take the
/// object first, which is what they are at the link level.
template <typename Function>
class Next;

template <typename Result, typename... Arguments>
class Next<Result(Arguments...)> {
 public:
  explicit constexpr Next(const char* linkName) : linkName_(linkName) {}

  /// True if a library behind this one has the operation.
  bool Find() {
    const auto found = reinterpret_cast<Pointer>(dlsym(RTLD_NEXT, linkName_));
    function_.store(found, std::memory_order_relaxed);
    return found != nullptr;
  }

  Result operator()(Arguments... arguments) {
    Pointer function = function_.load(std::memory_order_relaxed);
    if (function == nullptr) function = FindLate();
    return function(arguments...);
  }

  void* Address() const { return reinterpret_cast<void*>(function_.load(std::memory_order_relaxed)); }

 private:
  using Pointer = Result (*)(Arguments...);

  // Reached when a constructor ran before ours, or when the platform was loaded later.
  Pointer FindLate() {
    if (!Find()) {
      (void)std::fprintf(stderr, "libstress_scope: no platform library has %s\n", linkName_);
      std::abort();
    }
    return function_.load(std::memory_order_relaxed);
  }

  const char* linkName_;
  std::atomic<Pointer> function_{nullptr};
};

Next<int(void*, std::size_t, const void*, std::size_t)> nextMemcpyS(LINK_MEMCPY_S);
Next<std::int32_t(int, const ImageData&, const ImageData&, QetImageInterpolationType, int)> nextResize(
    LINK_QET_IMAGE_RESIZE);
Next<std::int32_t(const ImageData&, ImageData&)> nextMemcpyToKivu(LINK_QET_MEMCPY_TO_KIVU);
Next<std::int32_t(QetVenc*, const ImageData&)> nextSendFrame(LINK_QET_VENC_SEND_FRAME);
Next<std::int32_t(QetVenc*, ux_venc_stream&)> nextGetStream(LINK_QET_VENC_GET_STREAM);
Next<std::int32_t(QetVenc*, ux_venc_stream&)> nextReleaseStream(LINK_QET_VENC_RELEASE_STREAM);
Next<std::int32_t(QetDNNHandle&, const std::string&)> nextModelInitialize(LINK_QET_DNN_MODEL_INITIALIZE);
Next<std::int32_t(const QetDNNHandle&)> nextModelProcess(LINK_QET_DNN_MODEL_PROCESS);

// Only this project's own platform has this name. With another platform, the fields that belong to the
// platform may mean something else than its header says.
Next<std::uint32_t()> nextHostVersion(LINK_HOST_VERSION);
bool hostPlatform = false;

// Set before main. Without them a call takes one branch more.
scope::Extras extras;
bool rests = false;
bool watches = false;

__attribute__((constructor)) void Start() {
  // This program is a shell or a tool that starts the benchmark: there is nothing to measure.
  bool found = nextMemcpyS.Find();
  found = nextResize.Find() || found;
  found = nextMemcpyToKivu.Find() || found;
  found = nextSendFrame.Find() || found;
  found = nextGetStream.Find() || found;
  found = nextReleaseStream.Find() || found;
  found = nextModelInitialize.Find() || found;
  found = nextModelProcess.Find() || found;
  if (!found) return;
  hostPlatform = nextHostVersion.Find() && nextHostVersion() == 1;
  Dl_info library{};
  void* const any = nextResize.Address() != nullptr ? nextResize.Address() : nextMemcpyS.Address();
  const bool known = any != nullptr && dladdr(any, &library) != 0;
  const char* const verify = std::getenv(scope::kVerifyVariable);
  scope::Extras wanted;
  wanted.fill = scope::PrepareFill();
  wanted.verify = verify != nullptr && *verify == '1';
  wanted.deadlines = scope::PrepareDeadlines();
  scope::PreparePin();
  if (!scope::StartReporting(hostPlatform, known ? library.dli_fname : nullptr, wanted)) return;
  extras = wanted;
  rests = scope::PrepareDuty();
  watches = wanted.fill || wanted.verify || wanted.deadlines || rests;
}

__attribute__((destructor)) void Stop() {
  scope::StopReporting();
}

struct Bytes {
  std::uint64_t count = 0;
  bool known = false;
};

Bytes BothPixelBytes(const ImageData& source, const ImageData& destination) {
  const std::uint64_t read = PixelBytes(source);
  const std::uint64_t written = PixelBytes(destination);
  return {read + written, read != 0 && written != 0};
}

template <typename Call, typename CountBytes>
std::int32_t Measure(Engine engine, Call call, CountBytes countBytes) {
  ThreadCounters* const counters = scope::CountersOf(engine);
  if (counters == nullptr) return call();
  const std::uint64_t start = NowNs();
  const std::int32_t status = call();
  const std::uint64_t end = NowNs();
  if (status == 0) {
    const Bytes bytes = countBytes();
    counters->Succeeded(end - start, bytes.count, bytes.known);
  } else {
    counters->Failed();
  }
  return status;
}

// --- filling, checking and sleeping ---

bool Watches() {
  return __builtin_expect(static_cast<long>(watches), 0) != 0;
}

// Does what Measure does. Calls `before` where sources are filled, and `after` an operation that succeeded
// where results are checked. Then the thread may sleep. None of these is measured.
template <typename Before, typename Call, typename CountBytes, typename After>
std::int32_t Watch(Engine engine, Before before, Call call, CountBytes countBytes, After after) {
  ThreadCounters* const counters = scope::CountersOf(engine);
  if (counters == nullptr) return call();
  if (extras.fill) before();
  const std::uint64_t start = NowNs();
  const std::int32_t status = call();
  const std::uint64_t end = NowNs();
  if (status != 0) {
    counters->Failed();
    return status;
  }
  const Bytes bytes = countBytes();
  counters->Succeeded(end - start, bytes.count, bytes.known);
  if (extras.deadlines) scope::CountDeadline(*counters, end - start);
  if (extras.verify) after(*counters, end - start);
  if (rests && engine != Engine::kVpcCopy) scope::Rest(start, end - start);
  return status;
}

void FillFrom(Engine engine, const Spans& source) {
  if (!scope::FillSource(engine, source.Begin(), source.total) || !extras.verify) return;
  // Copies to media memory are not checked: what they take is the source of the resizes that follow.
  const Engine checked = engine == Engine::kVpcCopy ? Engine::kVpc : engine;
  if (ThreadCounters* const counters = scope::CountersOf(checked); counters != nullptr)
    scope::CheckFilled(*counters, source);
}

void FillImage(Engine engine, const ImageData& source, const ImageData* destination) {
  const Spans from = PixelsOf(source);
  FillFrom(engine, from);
  if (destination == nullptr || destination->data == source.data) return;
  const Spans to = PixelsOf(*destination);
  scope::NoteDestination(to.list[0].data, to.total);
}

// --- encoder ---

// Time and bytes of the calls that belong to this thread's current encode. The time between the calls does
// not count.
struct Encode {
  std::uint64_t busyNs;
  std::uint64_t bytes;
  const std::uint8_t* frame;  // the frame, if results are checked
  std::size_t frameBytes;
};
__attribute__((tls_model("initial-exec"))) thread_local Encode encode;

template <typename Call>
std::int32_t MeasureStep(ThreadCounters& counters, Call call) {
  const std::uint64_t start = NowNs();
  const std::int32_t status = call();
  encode.busyNs += NowNs() - start;
  if (status != 0) {
    counters.Failed();
    encode = {};
  }
  return status;
}

// --- inference ---

// Size of each model's file by the model's handle. If an address is used again, its entry is replaced by the
// size of the new model.
constexpr std::size_t kModels = 256;
struct Model {
  std::atomic<const QetDNNHandle*> handle;
  std::atomic<std::uint64_t> weightBytes;
};
Model models[kModels];

Model* FindModel(const QetDNNHandle* handle, bool add) {
  const std::size_t first = (reinterpret_cast<std::uintptr_t>(handle) >> 4) % kModels;
  for (std::size_t i = 0; i < kModels; ++i) {
    Model& model = models[(first + i) % kModels];
    const QetDNNHandle* current = model.handle.load(std::memory_order_relaxed);
    if (current == handle) return &model;
    if (current != nullptr) continue;
    if (!add) return nullptr;
    if (model.handle.compare_exchange_strong(current, handle, std::memory_order_relaxed)) return &model;
    if (current == handle) return &model;
  }
  return nullptr;
}

Bytes InferenceBytes(const QetDNNHandle& handle) {
  const Model* const model = FindModel(&handle, false);
  Bytes bytes;
  if (model != nullptr) bytes.count = model->weightBytes.load(std::memory_order_relaxed);
  bytes.known = bytes.count != 0;
  if (hostPlatform) {
    for (const Ormis::QetDNNBuffer& input : handle.inputs) bytes.count += input.sizeBytes;
    for (const Ormis::QetDNNBuffer& output : handle.outputs) bytes.count += output.sizeBytes;
  }
  return bytes;
}

}  // namespace

int memcpy_s(void* destination, std::size_t destinationMax, const void* source, std::size_t count) {
  const auto call = [&] { return nextMemcpyS(destination, destinationMax, source, count); };
  const auto bytes = [&] { return Bytes{2 * std::uint64_t{count}, true}; };
  if (!Watches()) return Measure(Engine::kCpu, call, bytes);
  const auto fill = [&] {
    FillFrom(Engine::kCpu, {source, count});
    scope::NoteDestination(destination, count);
  };
  return Watch(Engine::kCpu, fill, call, bytes, [&](ThreadCounters& counters, std::uint64_t ns) {
    scope::CheckCopy(counters, destination, source, count, ns);
  });
}

namespace Ormis {

std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  const auto call = [&] { return nextResize(channel, source, destination, interpolation, timeoutMs); };
  const auto bytes = [&] { return BothPixelBytes(source, destination); };
  if (!Watches()) return Measure(Engine::kVpc, call, bytes);
  return Watch(
      Engine::kVpc, [&] { FillImage(Engine::kVpc, source, &destination); }, call, bytes,
      [&](ThreadCounters& counters, std::uint64_t ns) {
        const std::uint64_t kind = KindOf(source.width, source.height, source.imageType, destination.width,
                                          destination.height, destination.imageType, interpolation);
        scope::CheckResults(counters, PixelsOf(source), PixelsOf(destination), kind, ns);
      });
}

std::int32_t QetMemcpyToKivu(const ImageData& source, ImageData& destination) {
  const auto call = [&] { return nextMemcpyToKivu(source, destination); };
  const auto bytes = [&] { return BothPixelBytes(source, destination); };
  if (!Watches()) return Measure(Engine::kVpcCopy, call, bytes);
  // Part of the set-up: the resizes that follow are checked.
  return Watch(
      Engine::kVpcCopy, [&] { FillImage(Engine::kVpcCopy, source, &destination); }, call, bytes,
      [](ThreadCounters& /*counters*/, std::uint64_t /*ns*/) {});
}

std::int32_t QetVenc::SendFrame(const ImageData& frame) {
  ThreadCounters* const counters = scope::CountersOf(Engine::kVenc);
  if (counters == nullptr) return nextSendFrame(this, frame);
  if (Watches() && extras.fill) FillImage(Engine::kVenc, frame, nullptr);
  const std::int32_t status = MeasureStep(*counters, [&] { return nextSendFrame(this, frame); });
  if (status == 0) encode.bytes += PixelBytes(frame);
  if (Watches() && extras.verify && status == 0 && hostPlatform) {
    const Spans pixels = PixelsOf(frame);
    encode.frame = pixels.list[0].data;
    encode.frameBytes = pixels.total;
    scope::CheckFrame(*counters, pixels, KindOf(width, height, bitrateKbps, frameRate, gopSize));
  }
  return status;
}

std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  ThreadCounters* const counters = scope::CountersOf(Engine::kVenc);
  if (counters == nullptr) return nextGetStream(this, stream);
  const std::int32_t status = MeasureStep(*counters, [&] { return nextGetStream(this, stream); });
  // The fields of the record belong to the platform, so another platform's stream is not counted.
  if (status == 0 && hostPlatform) encode.bytes += stream.totalBytes;
  if (Watches() && extras.verify && status == 0) {
    if (hostPlatform) {
      scope::CheckStream(*counters, {encode.frame, encode.frameBytes}, SpansOf(stream),
                         static_cast<std::uint64_t>(stream.packets[0].frameIndex), encode.busyNs);
    } else {
      scope::LeaveUnchecked(*counters, encode.busyNs);
    }
  }
  return status;
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  ThreadCounters* const counters = scope::CountersOf(Engine::kVenc);
  if (counters == nullptr) return nextReleaseStream(this, stream);
  const std::int32_t status = MeasureStep(*counters, [&] { return nextReleaseStream(this, stream); });
  if (status == 0) {
    counters->Succeeded(encode.busyNs, encode.bytes, encode.bytes != 0);
    if (Watches() && extras.deadlines) scope::CountDeadline(*counters, encode.busyNs);
    const std::uint64_t busyNs = encode.busyNs;
    encode = {};
    if (Watches() && rests) scope::Rest(NowNs() - busyNs, busyNs);
  }
  return status;
}

std::int32_t QetDNNModelInitialize(QetDNNHandle& handle, const std::string& path) {
  const std::int32_t status = nextModelInitialize(handle, path);
  if (status != 0) {
    // A worker whose model does not load never infers. Only this call shows its failure.
    if (ThreadCounters* const counters = scope::CountersOf(Engine::kAic); counters != nullptr)
      counters->Failed();
    return status;
  }
  struct stat file{};
  const bool known = stat(path.c_str(), &file) == 0 && file.st_size > 0;
  if (Model* const model = FindModel(&handle, true); model != nullptr) {
    model->weightBytes.store(known ? static_cast<std::uint64_t>(file.st_size) : 0, std::memory_order_relaxed);
  }
  return status;
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  const auto call = [&] { return nextModelProcess(handle); };
  const auto bytes = [&] { return InferenceBytes(handle); };
  if (!Watches()) return Measure(Engine::kAic, call, bytes);
  return Watch(
      Engine::kAic, [] {}, call, bytes,
      [&](ThreadCounters& counters, std::uint64_t ns) {
        if (!hostPlatform) return scope::LeaveUnchecked(counters, ns);
        const std::string& path = handle.modelPath;
        const auto* const name = reinterpret_cast<const std::uint8_t*>(path.data());
        scope::CheckResults(counters, SpansOf(handle.inputs), SpansOf(handle.outputs),
                            scope::HashOf({name, path.size()}, 0), ns);
      });
}

}  // namespace Ormis
