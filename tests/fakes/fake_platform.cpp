// SPDX-License-Identifier: Apache-2.0
#include "fake_platform.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

namespace fakePlatform {
namespace {

struct Fault {
  int from;
  int to;
  std::int32_t code;
};

struct State {
  std::vector<Call> calls;
  std::map<std::string, int> counts;
  std::map<std::string, std::vector<Fault>> faults;
  std::map<std::string, int> delivered;
  std::map<std::string, std::function<void(int)>> hooks;
  std::vector<EncoderBytes> encoders;
  std::vector<ImageBytes> allocated;
  std::vector<ImageBytes> frames;
  bool streamsZero = true;
  const std::uint8_t* lastPixels = nullptr;
  bool lastFrameZero = false;
  std::size_t lastFrameBytes = 0;
  bool giveChannel = false;
  int channel = 0;
  Ormis::QetContext context;
  Ormis::QetContextParameters parameters;
};

std::mutex& Mutex() {
  static std::mutex mutex;
  return mutex;
}

// Never destroyed: threads of a failed test may still call at exit.
State& TheState() {
  static State& state = *new State;
  return state;
}

// Records the call, runs its hook, and returns the call's status.
std::int32_t Record(Call call) {
  std::function<void(int)> hook;
  int number = 0;
  std::int32_t result = 0;
  {
    const std::lock_guard<std::mutex> lock(Mutex());
    State& state = TheState();
    number = ++state.counts[call.name];
    for (const Fault& fault : state.faults[call.name]) {
      if (number >= fault.from && number <= fault.to) {
        result = fault.code;
        ++state.delivered[call.name];
      }
    }
    call.result = result;
    call.thread = std::this_thread::get_id();
    const auto found = state.hooks.find(call.name);
    if (found != state.hooks.end()) hook = found->second;
    state.calls.push_back(std::move(call));
  }
  if (hook) hook(number);
  return result;
}

Call Named(const char* name, const void* object = nullptr) {
  Call call{};
  call.name = name;
  call.object = object;
  return call;
}

ImageBytes BytesOf(const Ormis::ImageData& image) {
  ImageBytes bytes;
  std::memcpy(bytes.data(), &image, bytes.size());
  return bytes;
}

}  // namespace

void Reset() {
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState() = State{};
}

void Fail(const std::string& operation, int nth, std::int32_t code) {
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState().faults[operation].push_back({nth, nth, code});
}

void FailFrom(const std::string& operation, int nth, std::int32_t code) {
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState().faults[operation].push_back({nth, 1 << 30, code});
}

int FailuresDelivered(const std::string& operation) {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().delivered[operation];
}

void OnCall(const std::string& operation, std::function<void(int)> hook) {
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState().hooks[operation] = std::move(hook);
}

std::vector<Call> Calls() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().calls;
}

std::vector<Call> CallsOf(const std::string& operation) {
  std::vector<Call> calls;
  for (Call& call : Calls()) {
    if (call.name == operation) calls.push_back(call);
  }
  return calls;
}

int CountOf(const std::string& operation) {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().counts[operation];
}

std::vector<std::string> Names() {
  std::vector<std::string> names;
  for (const Call& call : Calls()) names.push_back(call.name);
  return names;
}

void GiveChannel(int channel) {
  const std::lock_guard<std::mutex> lock(Mutex());
  TheState().giveChannel = true;
  TheState().channel = channel;
}

std::vector<EncoderBytes> Encoders() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().encoders;
}

std::vector<ImageBytes> AllocatedImages() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().allocated;
}

std::vector<ImageBytes> Frames() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().frames;
}

bool StreamsWereZero() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().streamsZero;
}

bool LastFrameWasZero(std::size_t bytes) {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().lastFrameZero && TheState().lastFrameBytes == bytes;
}

Ormis::QetContext InitializedContext() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().context;
}

Ormis::QetContextParameters InitializedParameters() {
  const std::lock_guard<std::mutex> lock(Mutex());
  return TheState().parameters;
}

}  // namespace fakePlatform

using fakePlatform::BytesOf;
using fakePlatform::Call;
using fakePlatform::Mutex;
using fakePlatform::Named;
using fakePlatform::TheState;

namespace Ormis {

std::int32_t QetInitialize(QetContext& context, const QetContextParameters& parameters) {
  {
    const std::lock_guard<std::mutex> lock(Mutex());
    TheState().context = context;
    TheState().parameters = parameters;
  }
  return fakePlatform::Record(Named("QetInitialize", &context));
}

std::int32_t QetRelease(QetContext& context) {
  return fakePlatform::Record(Named("QetRelease", &context));
}

std::int32_t QetCreateContext(QetContext& context) {
  return fakePlatform::Record(Named("QetCreateContext", &context));
}

std::int32_t QetSetCurrentContext(QetContext& context) {
  return fakePlatform::Record(Named("QetSetCurrentContext", &context));
}

std::int32_t QetDestroyContext(QetContext& context) {
  return fakePlatform::Record(Named("QetDestroyContext", &context));
}

std::int32_t QetCreateChannel(int& channel) {
  Call call = Named("QetCreateChannel", &channel);
  call.channel = channel;
  const std::int32_t result = fakePlatform::Record(call);
  const std::lock_guard<std::mutex> lock(Mutex());
  if (result == 0 && TheState().giveChannel) channel = TheState().channel;
  return result;
}

std::int32_t QetDestroyChannel(int channel) {
  Call call = Named("QetDestroyChannel");
  call.channel = channel;
  return fakePlatform::Record(call);
}

std::int32_t QetImageMallocAligned(ImageData& image) {
  {
    const std::lock_guard<std::mutex> lock(Mutex());
    TheState().allocated.push_back(BytesOf(image));
  }
  return fakePlatform::Record(Named("QetImageMallocAligned", &image));
}

std::int32_t QetMemcpyToKivu(const ImageData& source, ImageData& destination) {
  Call call = Named("QetMemcpyToKivu", &destination);
  call.source = &source;
  call.destination = &destination;
  return fakePlatform::Record(call);
}

std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  Call call = Named("QetImageResize", &destination);
  call.channel = channel;
  call.source = &source;
  call.destination = &destination;
  call.interpolation = static_cast<int>(interpolation);
  call.lastArgument = timeoutMs;
  return fakePlatform::Record(call);
}

std::int32_t QetImageDestroy(ImageData& image) {
  return fakePlatform::Record(Named("QetImageDestroy", &image));
}

std::int32_t QetVenc::Init() {
  {
    const std::lock_guard<std::mutex> lock(Mutex());
    fakePlatform::EncoderBytes bytes;
    std::memcpy(bytes.data(), this, bytes.size());
    TheState().encoders.push_back(bytes);
  }
  return fakePlatform::Record(Named("QetVenc::Init", this));
}

std::int32_t QetVenc::SendFrame(const ImageData& frame) {
  {
    const std::lock_guard<std::mutex> lock(Mutex());
    TheState().frames.push_back(BytesOf(frame));
    // Checked once for each buffer: the frame is large, and there are many calls.
    if (TheState().lastPixels != frame.data || TheState().lastFrameBytes != frame.dataSize) {
      TheState().lastPixels = frame.data;
      TheState().lastFrameBytes = frame.dataSize;
      TheState().lastFrameZero =
          std::all_of(frame.data, frame.data + frame.dataSize, [](std::uint8_t byte) { return byte == 0; });
    }
  }
  return fakePlatform::Record(Named("QetVenc::SendFrame", this));
}

std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&stream);
    const std::lock_guard<std::mutex> lock(Mutex());
    if (std::any_of(bytes, bytes + sizeof stream, [](unsigned char byte) { return byte != 0; })) {
      TheState().streamsZero = false;
    }
  }
  Call call = Named("QetVenc::GetStream", this);
  call.destination = &stream;
  const std::int32_t result = fakePlatform::Record(call);
  if (result == 0) stream.streamId = 1;  // shows at the next GetStream if the record is not zeroed again
  return result;
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  Call call = Named("QetVenc::ReleaseStream", this);
  call.destination = &stream;
  return fakePlatform::Record(call);
}

QetVenc::~QetVenc() {
  fakePlatform::Record(Named("QetVenc::~QetVenc", this));
}

std::int32_t QetDNNModelInitialize(QetDNNHandle& handle, const std::string& path) {
  Call call = Named("QetDNNModelInitialize", &handle);
  call.path = path;
  return fakePlatform::Record(call);
}

std::int32_t QetDNNModelCreateInput(QetDNNHandle& handle) {
  return fakePlatform::Record(Named("QetDNNModelCreateInput", &handle));
}

std::int32_t QetDNNModelCreateOutput(QetDNNHandle& handle) {
  return fakePlatform::Record(Named("QetDNNModelCreateOutput", &handle));
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  return fakePlatform::Record(Named("QetDNNModelProcess", &handle));
}

std::int32_t QetDNNRelease(QetDNNHandle& handle) {
  return fakePlatform::Record(Named("QetDNNRelease", &handle));
}

}  // namespace Ormis

extern "C" int memcpy_s(void* destination, std::size_t destinationMax, const void* source,
                        std::size_t count) {
  Call call = Named("memcpy_s");
  call.source = source;
  call.destination = destination;
  call.destinationMax = destinationMax;
  call.count = count;
  return fakePlatform::Record(call);
}
