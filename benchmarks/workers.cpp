// SPDX-License-Identifier: Apache-2.0
#include "workers.h"

#include <dlfcn.h>

#include <cstddef>
#include <iterator>

#include "aicore_stress.h"
#include "cpu_stress.h"
#include "kivu_venc_stress.h"
#include "kivu_vpc_stress.h"
#include "link_names.h"
#include "measure.h"
#include "ormis/ormis.h"

namespace measure {

namespace {

Watcher* watching = nullptr;

/// The platform's own operation behind this program's of the same link name.
template <typename Operation>
Operation Next(const char* linkName) {
  const auto next = reinterpret_cast<Operation>(dlsym(RTLD_NEXT, linkName));
  Require(next != nullptr, linkName);
  return next;
}

void Before(Engine engine) {
  if (watching != nullptr) watching->Before(engine);
}

void After(Engine engine, const Touched& touched) {
  if (watching != nullptr) watching->After(engine, touched);
}

std::vector<Range> RangesOf(const std::vector<Ormis::QetDNNBuffer>& buffers) {
  std::vector<Range> ranges;
  for (const Ormis::QetDNNBuffer& buffer : buffers) ranges.push_back({buffer.data, buffer.sizeBytes});
  return ranges;
}

constexpr std::size_t kLoads = 0
#define ENGINE(symbol, id, load, ...) +(load ? 1 : 0)
#include "engines.inc"
#undef ENGINE
    ;
static_assert(std::size(kEngines) == kLoads, "an engine of the table has no worker here");

std::uint32_t PauseUs(Engine engine) {
  return engine == Engine::kVpc || engine == Engine::kVenc ? 100 : 1000;
}

}  // namespace

const char* Name(Engine engine) {
  constexpr const char* kSections[] = {
#define ENGINE(symbol, id, load, section, ...) section,
#include "engines.inc"
#undef ENGINE
  };
  return kSections[static_cast<std::size_t>(engine)];
}

void Watch(Watcher* watcher) {
  watching = watcher;
}

Workers::Workers(Engine engine, int level, const std::string& model)
    : engine_(engine), record_(std::make_unique<vorn::StressRegister>()) {
  record_->threadNum = static_cast<std::uint32_t>(level);
  record_->threadFps.resize(record_->threadNum);
  record_->sleepUs = PauseUs(engine);
  record_->file = model;
  for (int index = 0; index < level; ++index) threads_.emplace_back(&Workers::Run, this, index);
}

void Workers::Run(int index) {
  switch (engine_) {
    case Engine::kCpu:
      MemoryCopy(record_, index, stop_);
      break;
    case Engine::kVpc:
      (void)VPCResize(record_, index, stop_);
      break;
    case Engine::kVenc:
      (void)VencProcess(record_, index, stop_);
      break;
    case Engine::kAic:
      (void)AICoreStressNode(record_, static_cast<unsigned int>(index), stop_);
      break;
    case Engine::kVpcCopy:  // a part of the set-up of VPCResize
      break;
  }
  if (stop_ == 0) ++ended_;
}

void Workers::Stop() {
  stop_ = 1;
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

}  // namespace measure

int memcpy_s(void* destination, std::size_t destinationMax, const void* source, std::size_t count) {
  static const auto next = measure::Next<decltype(&memcpy_s)>(LINK_MEMCPY_S);
  measure::Before(measure::Engine::kCpu);
  const int result = next(destination, destinationMax, source, count);
  if (result == 0) measure::After(measure::Engine::kCpu, {{{source, count}}, {{destination, count}}});
  return result;
}

namespace Ormis {

std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  static const auto next = measure::Next<decltype(&QetImageResize)>(LINK_QET_IMAGE_RESIZE);
  measure::Before(measure::Engine::kVpc);
  const std::int32_t result = next(channel, source, destination, interpolation, timeoutMs);
  if (result == 0) {
    measure::After(measure::Engine::kVpc,
                   {{{source.data, source.dataSize}}, {{destination.data, destination.dataSize}}});
  }
  return result;
}

std::int32_t QetVenc::SendFrame(const ImageData& frame) {
  using Operation = std::int32_t (*)(QetVenc*, const ImageData&);
  static const auto next = measure::Next<Operation>(LINK_QET_VENC_SEND_FRAME);
  measure::Before(measure::Engine::kVenc);
  const std::int32_t result = next(this, frame);
  if (result == 0) measure::After(measure::Engine::kVenc, {{{frame.data, frame.dataSize}}, {}});
  return result;
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  static const auto next = measure::Next<decltype(&QetDNNModelProcess)>(LINK_QET_DNN_MODEL_PROCESS);
  measure::Before(measure::Engine::kAic);
  const std::int32_t result = next(handle);
  if (result == 0) {
    measure::After(measure::Engine::kAic,
                   {measure::RangesOf(handle.inputs), measure::RangesOf(handle.outputs)});
  }
  return result;
}

}  // namespace Ormis
