// SPDX-License-Identifier: Apache-2.0

/// libstress_scope.so is preloaded in front of a platform library. It takes the calls of the operations that
/// do work, passes them on and measures them. It changes no argument and no status.
#include <dlfcn.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "link_names.h"
#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"
#include "recorder.h"

namespace {

using Ormis::ImageData;
using Ormis::QetDNNHandle;
using Ormis::QetImageInterpolationType;
using Ormis::QetVenc;
using scope::Engine;
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
  scope::StartReporting(hostPlatform, known ? library.dli_fname : nullptr);
}

__attribute__((destructor)) void Stop() {
  scope::StopReporting();
}

std::uint64_t NowNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// Bytes of the image's pixels. 0 if the type is unknown and the record has no size.
std::uint64_t PixelBytes(const ImageData& image) {
  const std::uint64_t pixels = std::uint64_t{image.width} * image.height;
  switch (image.imageType) {
    case Ormis::kQetImageRgb888:
    case Ormis::kQetImageBgr888:
      return pixels * 3;
    case Ormis::kQetImageYuv420sp:
    case Ormis::kQetImageYvu420sp:
      return pixels * 3 / 2;
    case Ormis::kQetImageYuv422sp:
    case Ormis::kQetImageYvu422sp:
      return pixels * 2;
    case Ormis::kQetImageArgb8888:
    case Ormis::kQetImageAbgr8888:
    case Ormis::kQetImageRgba8888:
    case Ormis::kQetImageBgra8888:
      return pixels * 4;
    default:
      return image.dataSize;
  }
}

struct Bytes {
  std::uint64_t count = 0;
  bool known = false;
};

Bytes PixelBytes(const ImageData& source, const ImageData& destination) {
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

// --- encoder ---

// Time and bytes of the calls that belong to this thread's current encode. The time between the calls does
// not count.
struct Encode {
  std::uint64_t busyNs;
  std::uint64_t bytes;
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
  return Measure(
      Engine::kCpu, [&] { return nextMemcpyS(destination, destinationMax, source, count); },
      [&] { return Bytes{2 * std::uint64_t{count}, true}; });
}

namespace Ormis {

std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  return Measure(
      Engine::kVpc, [&] { return nextResize(channel, source, destination, interpolation, timeoutMs); },
      [&] { return PixelBytes(source, destination); });
}

std::int32_t QetMemcpyToKivu(const ImageData& source, ImageData& destination) {
  return Measure(
      Engine::kVpcCopy, [&] { return nextMemcpyToKivu(source, destination); },
      [&] { return PixelBytes(source, destination); });
}

std::int32_t QetVenc::SendFrame(const ImageData& frame) {
  ThreadCounters* const counters = scope::CountersOf(Engine::kVenc);
  if (counters == nullptr) return nextSendFrame(this, frame);
  const std::int32_t status = MeasureStep(*counters, [&] { return nextSendFrame(this, frame); });
  if (status == 0) encode.bytes += PixelBytes(frame);
  return status;
}

std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  ThreadCounters* const counters = scope::CountersOf(Engine::kVenc);
  if (counters == nullptr) return nextGetStream(this, stream);
  const std::int32_t status = MeasureStep(*counters, [&] { return nextGetStream(this, stream); });
  // The fields of the record belong to the platform, so another platform's stream is not counted.
  if (status == 0 && hostPlatform) encode.bytes += stream.totalBytes;
  return status;
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  ThreadCounters* const counters = scope::CountersOf(Engine::kVenc);
  if (counters == nullptr) return nextReleaseStream(this, stream);
  const std::int32_t status = MeasureStep(*counters, [&] { return nextReleaseStream(this, stream); });
  if (status == 0) {
    counters->Succeeded(encode.busyNs, encode.bytes, encode.bytes != 0);
    encode = {};
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
  return Measure(
      Engine::kAic, [&] { return nextModelProcess(handle); }, [&] { return InferenceBytes(handle); });
}

}  // namespace Ormis
