// SPDX-License-Identifier: Apache-2.0

// Broken platforms, for the conformance kit to find: preloaded over a sound one, with the defect that the
// environment variable ORMIS_MUTANT names. Every operation that is not broken, and every one without a defect
// chosen, is the sound library's.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "link_names.h"
#include "ormis/ormis.h"

namespace {

constexpr std::int32_t kRefused = 77;

bool Is(const char* defect) {
  static const char* const chosen = std::getenv("ORMIS_MUTANT");
  return chosen != nullptr && std::strcmp(chosen, defect) == 0;
}

/// The sound library's function of that link name.
template <typename Function>
Function* Sound(const char* symbol) {
  void* const found = dlsym(RTLD_NEXT, symbol);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function*>(found);
}

/// What is lost here is really there, and stays.
void LoseMemory(std::size_t bytes) {
  static std::mutex mutex;
  static auto& lost = *new std::list<std::string>;
  const std::lock_guard<std::mutex> lock(mutex);
  lost.emplace_back(bytes, 'x');
}

constexpr std::size_t kMuch = 1 << 20;

void LoseDescriptor() {
  const int lost = open("/dev/null", O_RDONLY | O_CLOEXEC);
  (void)lost;
}

void LoseThread() {
  std::thread([] { std::this_thread::sleep_for(std::chrono::hours(1)); }).detach();
}

[[noreturn]] void Hang() {
  // Tells a test that it got here.
  (void)close(open("hangs", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

std::thread::id lastBinder;
std::mutex lastBinderMutex;

std::atomic<int> liveContexts{0};
std::atomic<bool> leftBehind{false};

// A library may start threads when it is loaded.
struct StartedAtLoad {
  StartedAtLoad() {
    if (Is("thread_at_load")) LoseThread();
  }
} startedAtLoad;

// Ends the process badly once the platform was used.
struct EndsBadly {
  ~EndsBadly() {
    if (Is("exit_crashes_after_use") && used) std::abort();
  }
  bool used = false;
} endsBadly;

}  // namespace

namespace Ormis {

std::int32_t QetInitialize(QetContext& context, const QetContextParameters& parameters) {
  static auto* const sound = Sound<decltype(QetInitialize)>(LINK_QET_INITIALIZE);
  if (Is("initialize_refused") || (Is("initialize_refused_after_leftovers") && leftBehind)) return kRefused;
  return sound(context, parameters);
}

std::int32_t QetRelease(QetContext& context) {
  static auto* const sound = Sound<decltype(QetRelease)>(LINK_QET_RELEASE);
  endsBadly.used = true;
  leftBehind = liveContexts > 0;
  if (Is("release_refuses_leftovers") && leftBehind) return kRefused;
  const std::int32_t status = sound(context);
  return Is("release_status") ? kRefused : status;
}

std::int32_t QetCreateContext(QetContext& context) {
  static auto* const sound = Sound<decltype(QetCreateContext)>(LINK_QET_CREATE_CONTEXT);
  if (Is("context_loses_memory")) LoseMemory(kMuch);
  if (Is("context_loses_64_bytes")) LoseMemory(64);
  if (Is("context_loses_descriptor")) LoseDescriptor();
  static thread_local bool known = false;
  if (!known && Is("thread_loses_memory")) LoseMemory(kMuch);
  if (!known && Is("thread_loses_64_bytes")) LoseMemory(64);
  if (!known && Is("thread_loses_descriptor")) LoseDescriptor();
  known = true;
  ++liveContexts;
  return sound(context);
}

std::int32_t QetSetCurrentContext(QetContext& context) {
  static auto* const sound = Sound<decltype(QetSetCurrentContext)>(LINK_QET_SET_CURRENT_CONTEXT);
  const std::lock_guard<std::mutex> lock(lastBinderMutex);
  lastBinder = std::this_thread::get_id();
  return sound(context);
}

std::int32_t QetDestroyContext(QetContext& context) {
  static auto* const sound = Sound<decltype(QetDestroyContext)>(LINK_QET_DESTROY_CONTEXT);
  --liveContexts;
  const std::int32_t status = sound(context);
  return Is("context_destroy_status") ? kRefused : status;
}

std::int32_t QetCreateChannel(int& channel) {
  static auto* const sound = Sound<decltype(QetCreateChannel)>(LINK_QET_CREATE_CHANNEL);
  if (Is("channel_loses_memory")) LoseMemory(kMuch);
  if (Is("channel_loses_descriptor")) LoseDescriptor();
  if (Is("channel_number_kept_back") && channel >= 5) {
    int real = channel + 100;
    return sound(real);
  }
  if (Is("channel_number_shared") && channel == 1) channel = 0;
  if (Is("channel_number_shared") && channel == 0) {
    (void)sound(channel);
    channel = 0;
    return 0;
  }
  return sound(channel);
}

std::int32_t QetDestroyChannel(int channel) {
  static auto* const sound = Sound<decltype(QetDestroyChannel)>(LINK_QET_DESTROY_CHANNEL);
  const std::int32_t status = sound(channel);
  return Is("channel_destroy_status") ? kRefused : status;
}

std::int32_t QetImageMallocAligned(ImageData& image) {
  static auto* const sound = Sound<decltype(QetImageMallocAligned)>(LINK_QET_IMAGE_MALLOC_ALIGNED);
  if (Is("binding_of_the_process")) {
    const std::lock_guard<std::mutex> lock(lastBinderMutex);
    if (lastBinder != std::this_thread::get_id()) return kRefused;
  }
  if (Is("image_loses_memory")) LoseMemory(kMuch);
  if (Is("image_loses_descriptor")) LoseDescriptor();
  if (Is("image_data_null") && image.width == 1920) return 0;
  const std::int32_t status = sound(image);
  if (status != 0) return status;
  if (Is("image_memory_short") && image.width == 1920) {
    // The upper half, and then a page that nobody may touch.
    constexpr std::size_t kHalf = std::size_t{1920} * 540 * 3;
    auto* const memory = static_cast<std::uint8_t*>(
        mmap(nullptr, kHalf + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (mprotect(memory + kHalf / 4096 * 4096, 4096, PROT_NONE) == 0) image.data = memory;
  }
  if (Is("image_memory_shared") && image.width == 640) {
    static std::uint8_t* const shared = image.data;
    image.data = shared;
  }
  return status;
}

namespace {

using Bytes = std::vector<std::uint8_t>;

/// What a device keeps of memory that it has read, for each reader.
class Cache {
 public:
  /// The bytes that are kept of the memory at `data`. The first call keeps those that are there.
  Bytes Kept(const void* reader, const std::uint8_t* data, std::size_t bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return kept_[reader].try_emplace(data, data, data + bytes).first->second;
  }

  void Forget(const void* reader) {
    const std::lock_guard<std::mutex> lock(mutex_);
    kept_.erase(reader);
  }

 private:
  std::mutex mutex_;
  std::map<const void*, std::map<const std::uint8_t*, Bytes>> kept_;
};

constexpr std::size_t kStaleBytes = 4096;  // of a mutant that reads only the end from its cache

Cache sources;  // the reader is the image
Cache results;
Cache frames;  // the reader is the encoder

std::size_t BytesOf(const ImageData& image) {
  return std::size_t{image.width} * image.height * 3;
}

/// Lets `resize` read the last `stale` bytes of the source as they were at the first call.
template <typename Resize>
std::int32_t ResizeStale(std::size_t stale, const ImageData& source, const Resize& resize) {
  std::uint8_t* const at = source.data + BytesOf(source) - stale;
  const Bytes kept = sources.Kept(source.data, at, stale);
  const Bytes present(at, at + stale);
  std::memcpy(at, kept.data(), stale);
  const std::int32_t status = resize();
  std::memcpy(at, present.data(), stale);
  return status;
}

}  // namespace

std::int32_t QetMemcpyToKivu(const ImageData& source, ImageData& destination) {
  static auto* const sound = Sound<decltype(QetMemcpyToKivu)>(LINK_QET_MEMCPY_TO_KIVU);
  const bool same = &source == &destination;
  if (Is("copy_same_record_refused") && same && source.width == 640) return kRefused;
  if (Is("copy_same_record_clears") && same) std::memset(destination.data, 0, destination.dataSize);
  if (Is("copy_does_nothing") && !same) return 0;
  if (Is(same ? "copy_leaves_stale_cache" : "copy_same_record_leaves_stale_cache"))
    sources.Forget(destination.data);
  return sound(source, destination);
}

namespace {

int PixelAt(const ImageData& image, double x, double y, std::uint32_t channel) {
  const auto column = static_cast<std::uint32_t>(std::clamp(x, 0.0, image.width - 1.0));
  const auto row = static_cast<std::uint32_t>(std::clamp(y, 0.0, image.height - 1.0));
  return image.data[(std::size_t{row} * image.width + column) * 3 + channel];
}

double NearestAt(const ImageData& image, double x, double y, std::uint32_t channel) {
  return PixelAt(image, x, y, channel);
}

double BilinearAt(const ImageData& image, double x, double y, std::uint32_t channel) {
  const double left = std::floor(x - 0.5);
  const double top = std::floor(y - 0.5);
  const double right = x - 0.5 - left;
  const double down = y - 0.5 - top;
  const auto row = [&](double at) {
    return (1 - right) * PixelAt(image, left, at, channel) + right * PixelAt(image, left + 1, at, channel);
  };
  return (1 - down) * row(top) + down * row(top + 1);
}

/// `at` gives the value of a place of the source, in pixels from its corner.
void ResizeWith(double (*at)(const ImageData&, double, double, std::uint32_t), const ImageData& source,
                const ImageData& destination) {
  std::uint8_t* pixel = destination.data;
  for (std::uint32_t y = 0; y < destination.height; ++y) {
    for (std::uint32_t x = 0; x < destination.width; ++x) {
      for (std::uint32_t channel = 0; channel < 3; ++channel) {
        *pixel++ = static_cast<std::uint8_t>(
            std::lround(at(source, (x + 0.5) * source.width / destination.width,
                           (y + 0.5) * source.height / destination.height, channel)));
      }
    }
  }
}

}  // namespace

std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  static auto* const sound = Sound<decltype(QetImageResize)>(LINK_QET_IMAGE_RESIZE);
  if (Is("resize_does_nothing") && source.data != nullptr && destination.data != nullptr) return 0;
  if (Is("resize_accepts_no_memory") && (source.data == nullptr || destination.data == nullptr)) return 0;
  if (Is("resize_crashes_without_memory") && source.data == nullptr) (void)std::raise(SIGSEGV);
  if (Is("resize_not_reentrant")) {
    static std::atomic<int> inside{0};
    const bool alone = inside++ == 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    --inside;
    if (!alone) return kRefused;
  }
  const bool stale = Is("resize_reads_stale_source") || Is("copy_leaves_stale_cache") ||
                     Is("copy_same_record_leaves_stale_cache");
  if ((stale || Is("resize_reads_stale_end")) && source.data != nullptr) {
    return ResizeStale(stale ? BytesOf(source) : kStaleBytes, source,
                       [&] { return sound(channel, source, destination, interpolation, timeoutMs); });
  }
  static std::atomic<bool> first{true};
  if (Is("resize_late") && source.data != nullptr && destination.data != nullptr && first.exchange(false)) {
    // A copy: the caller's records are gone when this runs.
    std::thread([channel, from = source, to = destination, interpolation, timeoutMs] {
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
      QetContext context;
      if (QetCreateContext(context) != 0 || QetSetCurrentContext(context) != 0) return;
      (void)sound(channel, from, to, interpolation, timeoutMs);
    }).detach();
    return 0;
  }
  const std::int32_t status = sound(channel, source, destination, interpolation, timeoutMs);
  if (status != 0) return status;
  if (Is("resize_is_nearest")) ResizeWith(NearestAt, source, destination);
  if (Is("resize_is_bilinear")) ResizeWith(BilinearAt, source, destination);
  const std::size_t row = destination.width * std::size_t{3};
  if (Is("resize_cuts")) {
    for (std::uint32_t y = 0; y < destination.height; ++y) {
      std::memcpy(destination.data + y * row, source.data + y * std::size_t{source.width} * 3, row);
    }
  }
  if (Is("resize_mirrors")) {
    for (std::uint32_t y = 0; y < destination.height; ++y) {
      std::uint8_t* const pixels = destination.data + y * row;
      for (std::uint32_t x = 0; x < destination.width / 2; ++x) {
        for (std::size_t c = 0; c < 3; ++c) {
          std::swap(pixels[x * std::size_t{3} + c], pixels[(destination.width - 1 - x) * std::size_t{3} + c]);
        }
      }
    }
  }
  if (Is("resize_forgets_last_row"))
    std::memset(destination.data + (destination.height - 1) * row, 0xA5, row);
  if (Is("resize_swaps_channels")) {
    for (std::size_t at = 0; at + 2 < row * destination.height; at += 3) {
      std::swap(destination.data[at], destination.data[at + 2]);
    }
  }
  if (Is("resize_gives_first_result")) {
    const Bytes kept = results.Kept(source.data, destination.data, BytesOf(destination));
    std::memcpy(destination.data, kept.data(), kept.size());
  }
  if (Is("resize_spoils_source") && source.width == 640 && source.height == 360) ++source.data[1000];
  return status;
}

std::int32_t QetImageDestroy(ImageData& image) {
  static auto* const sound = Sound<decltype(QetImageDestroy)>(LINK_QET_IMAGE_DESTROY);
  sources.Forget(image.data);
  results.Forget(image.data);
  const std::int32_t status = sound(image);
  return Is("image_destroy_status") ? kRefused : status;
}

std::int32_t QetVenc::Init() {
  static auto* const sound = Sound<std::int32_t(QetVenc*)>(LINK_QET_VENC_INIT);
  if (Is("encoder_one_channel") && channel != 25) return kRefused;
  if (Is("encoder_loses_memory")) LoseMemory(kMuch);
  if (Is("encoder_loses_thread")) LoseThread();
  return sound(this);
}

namespace {

std::mutex holdingMutex;
std::set<const QetVenc*> holding;  // encoders with a stream that was fetched and not released

bool Holds(const QetVenc* encoder) {
  const std::lock_guard<std::mutex> lock(holdingMutex);
  return holding.count(encoder) != 0;
}

std::set<const QetVenc*> waiting;  // encoders with a frame whose stream was not fetched

bool TakeFrame(const QetVenc* encoder) {
  const std::lock_guard<std::mutex> lock(holdingMutex);
  return waiting.erase(encoder) != 0;
}

}  // namespace

std::int32_t QetVenc::SendFrame(const ImageData& frame) {
  static auto* const sound = Sound<std::int32_t(QetVenc*, const ImageData&)>(LINK_QET_VENC_SEND_FRAME);
  if (Is("encoder_sends_without_init") && encoderId == 0) return 0;
  if (Is("encoder_sends_only_once") && gopSize == 0) return kRefused;
  ImageData sent = frame;
  Bytes pixels;
  if (Is("encoder_reads_stale_frame")) pixels = frames.Kept(this, frame.data, frame.dataSize);
  if (Is("encoder_reads_stale_end")) {
    const std::size_t fresh = frame.dataSize - kStaleBytes;
    pixels.assign(frame.data, frame.data + fresh);
    const Bytes kept = frames.Kept(this, frame.data + fresh, kStaleBytes);
    pixels.insert(pixels.end(), kept.begin(), kept.end());
  }
  if (!pixels.empty()) sent.data = pixels.data();
  const std::int32_t status = sound(this, sent);
  if (Is("encoder_sends_only_once")) gopSize = 0;
  const std::lock_guard<std::mutex> lock(holdingMutex);
  waiting.insert(this);
  return status;
}

std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  static auto* const sound = Sound<std::int32_t(QetVenc*, ux_venc_stream&)>(LINK_QET_VENC_GET_STREAM);
  if (Is("encoder_hangs")) Hang();
  const bool hasFrame = TakeFrame(this);
  if (Is("stream_without_frame") && !hasFrame) return 0;
  if (Is("encoder_waits_for_a_frame") && !hasFrame) Hang();
  if (Is("stream_left_empty")) {
    static thread_local ux_venc_stream real;
    const std::int32_t status = sound(this, real);
    return status == 0 ? ReleaseStream(real) : status;
  }
  const std::int32_t status = sound(this, stream);
  if (status == 0) {
    const std::lock_guard<std::mutex> lock(holdingMutex);
    holding.insert(this);
  }
  return status;
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  static auto* const sound = Sound<std::int32_t(QetVenc*, ux_venc_stream&)>(LINK_QET_VENC_RELEASE_STREAM);
  {
    const std::lock_guard<std::mutex> lock(holdingMutex);
    holding.erase(this);
  }
  if (Is("stream_release_does_nothing")) return 0;
  if (Is("stream_left_empty") && stream.streamId == 0) return 0;
  return sound(this, stream);
}

// By its link name: a destructor written as one would go on to end the members a second time.
extern "C" __attribute__((visibility("default"))) void EndEncoder(QetVenc* encoder) __asm__(
    LINK_QET_VENC_END);
void EndEncoder(QetVenc* encoder) {
  static auto* const sound = Sound<void(QetVenc*)>(LINK_QET_VENC_END);
  if (Is("encoder_end_crashes_with_stream") && Holds(encoder)) std::abort();
  {
    const std::lock_guard<std::mutex> lock(holdingMutex);
    holding.erase(encoder);
  }
  frames.Forget(encoder);
  sound(encoder);
}

namespace {

std::atomic<int> loaded{0};
std::atomic<bool> ended{false};  // a handle was released while another one was loaded

}  // namespace

std::int32_t QetDNNModelInitialize(QetDNNHandle& handle, const std::string& path) {
  static auto* const sound = Sound<decltype(QetDNNModelInitialize)>(LINK_QET_DNN_MODEL_INITIALIZE);
  if (Is("model_loses_memory")) LoseMemory(kMuch);
  if (Is("model_loses_descriptor")) LoseDescriptor();
  const std::int32_t status = sound(handle, path);
  if (status == 0) ++loaded;
  return Is("model_accepts_any_file") ? 0 : status;
}

namespace {

std::mutex unfinishedMutex;
std::set<const QetDNNHandle*> withoutInputs;  // handles for which the creation failed
std::set<const QetDNNHandle*> withoutOutputs;

std::int32_t Note(std::set<const QetDNNHandle*>& unfinished, const QetDNNHandle& handle,
                  std::int32_t status) {
  const std::lock_guard<std::mutex> lock(unfinishedMutex);
  if (status != 0) unfinished.insert(&handle);
  return status;
}

bool TakeFrom(std::set<const QetDNNHandle*>& unfinished, const QetDNNHandle& handle) {
  const std::lock_guard<std::mutex> lock(unfinishedMutex);
  return unfinished.erase(&handle) != 0;
}

}  // namespace

std::int32_t QetDNNModelCreateInput(QetDNNHandle& handle) {
  static auto* const sound = Sound<decltype(QetDNNModelCreateInput)>(LINK_QET_DNN_MODEL_CREATE_INPUT);
  return Note(withoutInputs, handle, sound(handle));
}

std::int32_t QetDNNModelCreateOutput(QetDNNHandle& handle) {
  static auto* const sound = Sound<decltype(QetDNNModelCreateOutput)>(LINK_QET_DNN_MODEL_CREATE_OUTPUT);
  return Note(withoutOutputs, handle, sound(handle));
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  static auto* const sound = Sound<decltype(QetDNNModelProcess)>(LINK_QET_DNN_MODEL_PROCESS);
  static thread_local int runs = 0;
  if (Is("model_runs_three_times") && ++runs > 3) return kRefused;
  if (Is("model_one_release_ends_all") && ended) return kRefused;
  return sound(handle);
}

std::int32_t QetDNNRelease(QetDNNHandle& handle) {
  static auto* const sound = Sound<decltype(QetDNNRelease)>(LINK_QET_DNN_RELEASE);
  if (Is("model_release_crashes_without_model") && handle.modelId == 0) std::abort();
  const bool lacksInputs = TakeFrom(withoutInputs, handle);
  const bool lacksOutputs = TakeFrom(withoutOutputs, handle);
  if (Is("model_release_crashes_without_inputs") && lacksInputs) std::abort();
  if (Is("model_release_refuses_without_outputs") && lacksOutputs) return kRefused;
  if (Is("model_release_wants_outputs") && handle.outputs.empty()) return kRefused;
  const std::int32_t status = sound(handle);
  if (status == 0 && --loaded > 0) ended = true;
  return status;
}

extern "C" __attribute__((visibility("default"))) void ReadYaml(
    QetYamlNode* node, const std::string& path) __asm__(LINK_QET_YAML_OPEN);
extern "C" __attribute__((visibility("default"))) void MakeYaml(QetYamlNode* node) __asm__(
    LINK_QET_YAML_EMPTY);
void ReadYaml(QetYamlNode* node, const std::string& path) {
  static auto* const sound = Sound<void(QetYamlNode*, const std::string&)>(LINK_QET_YAML_OPEN);
  if (Is("yaml_missing_file_is_empty") && access(path.c_str(), R_OK) != 0) return MakeYaml(node);
  sound(node, path);
  if (Is("yaml_children_lack_sections")) node->children.erase("VPC");
  if (Is("yaml_children_in_lower_case")) node->children.emplace("cpu", node->children.begin()->second);
}
void MakeYaml(QetYamlNode* node) {
  static auto* const sound = Sound<void(QetYamlNode*)>(LINK_QET_YAML_EMPTY);
  sound(node);
}

QetYamlNode QetYamlNode::operator[](const std::string& key) const {
  static auto* const sound = Sound<QetYamlNode(const QetYamlNode*, const std::string&)>(LINK_QET_YAML_INDEX);
  if (Is("yaml_look_up_gives_the_first_section") && key == "CPU") return sound(this, "AIC");
  return sound(this, key);
}

template <>
bool QetYamlNode::GetValue<std::string>(const std::string& key, std::string& out) const {
  static auto* const sound =
      Sound<bool(const QetYamlNode*, const std::string&, std::string&)>(LINK_QET_YAML_GET_TEXT);
  if (Is("yaml_missing_string_is_there") && children.count(key) == 0) return true;
  const bool found = sound(this, key, out);
  if (Is("yaml_string_cut") && out.size() > 8) out.resize(8);
  return found;
}

namespace {

thread_local bool insideGetValue = false;  // which may rest on AsIf or not

}  // namespace

template <>
bool QetYamlNode::GetValue<unsigned int>(const std::string& key, unsigned int& out) const {
  static auto* const sound =
      Sound<bool(const QetYamlNode*, const std::string&, unsigned int&)>(LINK_QET_YAML_GET_UNSIGNED);
  insideGetValue = true;
  const bool converts = sound(this, key, out);
  insideGetValue = false;
  return converts || Is("yaml_word_is_a_number");
}

bool QetYamlNode::AsIf(unsigned int& out) const {
  static auto* const sound = Sound<bool(const QetYamlNode*, unsigned int&)>(LINK_QET_YAML_AS_IF);
  if (Is("yaml_as_if_does_nothing") && !insideGetValue) return true;
  const bool converts = sound(this, out);
  if (Is("yaml_as_if_writes_zero") && !converts) out = 0;
  return converts;
}

ara::log::LogLevel ParseLogLevel(QetLogLevelType level) {
  static auto* const sound = Sound<decltype(ParseLogLevel)>(LINK_PARSE_LOG_LEVEL);
  if (Is("log_level_unknown") && level > 6) return static_cast<ara::log::LogLevel>(level);
  return sound(level);
}

ara::log::LogMode ParseLogMode(QetLogModeType mode) {
  static auto* const sound = Sound<decltype(ParseLogMode)>(LINK_PARSE_LOG_MODE);
  if (Is("log_mode_unknown")) return static_cast<ara::log::LogMode>(mode);
  return sound(mode);
}

}  // namespace Ormis

namespace ara::log {

LogStream Logger::LogDebug(const SourceLocation& location) const {
  static auto* const sound = Sound<LogStream(const Logger*, const SourceLocation&)>(LINK_LOG_DEBUG);
  if (Is("log_debug_crashes")) std::abort();
  return sound(this, location);
}

LogStream Logger::LogError(const SourceLocation& location) const {
  static auto* const sound = Sound<LogStream(const Logger*, const SourceLocation&)>(LINK_LOG_ERROR);
  if (Is("log_locks")) {
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(100);
    while (std::chrono::steady_clock::now() < end) {
    }
  }
  return sound(this, location);
}

LogStream& LogStream::operator<<(const char* text) {
  static auto* const sound = Sound<LogStream&(LogStream*, const char*)>(LINK_LOG_INSERT_TEXT);
  if (Is("log_writes_in_pieces")) {
    (void)!write(STDERR_FILENO, text, std::strlen(text));
    return *this;
  }
  return sound(this, text);
}

}  // namespace ara::log

int memcpy_s(void* destination, std::size_t destinationMax, const void* source, std::size_t count) {
  static auto* const sound = Sound<decltype(memcpy_s)>(LINK_MEMCPY_S);
  if (Is("memcpy_s_cuts") && count > 1 && count <= destinationMax)
    return sound(destination, destinationMax, source, count - 1);
  if (Is("memcpy_s_ignores_the_limit") && source != nullptr) {
    return sound(destination, count, source, count);
  }
  return sound(destination, destinationMax, source, count);
}
