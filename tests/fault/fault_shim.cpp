// Preloaded under the program, in front of the platform, which it goes on to call. FAULT has one or more of
// "operation:N:action", separated by commas: in the N-th call of the operation (counted over all threads)
// do as the action says, which is "fail=CODE" (in place of the call), "delay=MILLISECONDS" or "sigint"
// (before it). "N-" means the N-th and all that follow; "1/N" one call in N at random, delayed by up to the
// milliseconds. FAULT_SEED, a number, decides which calls those are: the same ones whenever it is the same.
// Every call is noted in the file that FAULT_CALLS names: thread, operation, status. How many faults there
// were is added to the file that FAULT_TOTALS names when the process exits: failed, delayed, interrupted.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "ormis/ormis.h"

namespace {

enum Operation : int {
  kInitialize,
  kRelease,
  kCreateContext,
  kSetCurrentContext,
  kDestroyContext,
  kCreateChannel,
  kDestroyChannel,
  kImageMallocAligned,
  kMemcpyToKivu,
  kImageResize,
  kImageDestroy,
  kVencInit,
  kSendFrame,
  kGetStream,
  kReleaseStream,
  kModelInitialize,
  kCreateInput,
  kCreateOutput,
  kProcess,
  kDnnRelease,
  kMemcpyS,
  kArrayNew,
  kPosixMemalign,
  kThreadCreate,
  kClock,
  kOperations
};

// Name in FAULT, and link name.
constexpr const char* kNames[kOperations][2] = {
    {"QetInitialize", "_ZN5Ormis13QetInitializeERNS_10QetContextERKNS_20QetContextParametersE"},
    {"QetRelease", "_ZN5Ormis10QetReleaseERNS_10QetContextE"},
    {"QetCreateContext", "_ZN5Ormis16QetCreateContextERNS_10QetContextE"},
    {"QetSetCurrentContext", "_ZN5Ormis20QetSetCurrentContextERNS_10QetContextE"},
    {"QetDestroyContext", "_ZN5Ormis17QetDestroyContextERNS_10QetContextE"},
    {"QetCreateChannel", "_ZN5Ormis16QetCreateChannelERi"},
    {"QetDestroyChannel", "_ZN5Ormis17QetDestroyChannelEi"},
    {"QetImageMallocAligned", "_ZN5Ormis21QetImageMallocAlignedERNS_9ImageDataE"},
    {"QetMemcpyToKivu", "_ZN5Ormis15QetMemcpyToKivuERKNS_9ImageDataERS0_"},
    {"QetImageResize", "_ZN5Ormis14QetImageResizeEiRKNS_9ImageDataES2_NS_25QetImageInterpolationTypeEi"},
    {"QetImageDestroy", "_ZN5Ormis15QetImageDestroyERNS_9ImageDataE"},
    {"QetVenc::Init", "_ZN5Ormis7QetVenc4InitEv"},
    {"QetVenc::SendFrame", "_ZN5Ormis7QetVenc9SendFrameERKNS_9ImageDataE"},
    {"QetVenc::GetStream", "_ZN5Ormis7QetVenc9GetStreamER14ux_venc_stream"},
    {"QetVenc::ReleaseStream", "_ZN5Ormis7QetVenc13ReleaseStreamER14ux_venc_stream"},
    {"QetDNNModelInitialize",
     "_ZN5Ormis21QetDNNModelInitializeERNS_12QetDNNHandleERKNSt3__112basic_stringIcNS2_11char_traitsIcEENS2_"
     "9allocatorIcEEEE"},
    {"QetDNNModelCreateInput", "_ZN5Ormis22QetDNNModelCreateInputERNS_12QetDNNHandleE"},
    {"QetDNNModelCreateOutput", "_ZN5Ormis23QetDNNModelCreateOutputERNS_12QetDNNHandleE"},
    {"QetDNNModelProcess", "_ZN5Ormis18QetDNNModelProcessERKNS_12QetDNNHandleE"},
    {"QetDNNRelease", "_ZN5Ormis13QetDNNReleaseERNS_12QetDNNHandleE"},
    {"memcpy_s", "memcpy_s"},
    {"new[]", "_Znam"},
    {"posix_memalign", "posix_memalign"},
    {"pthread_create", "pthread_create"},
    {"clock", "clock_gettime"},
};

struct Fault {
  int from = 0;
  int to = 0;
  int oneIn = 0;  // 0: not at random
  enum class Action { kNone, kFail, kDelay, kSigint } action = Action::kNone;
  int value = 0;
};

constexpr int kFaultsAnOperation = 4;

void* real[kOperations];
Fault faults[kOperations][kFaultsAnOperation];
std::atomic<int> counts[kOperations];
std::atomic<long> failures{0};
std::atomic<long> delays{0};
std::atomic<long> interruptions{0};
std::uint64_t seed = 0;
int callsFile = -1;
int totalsFile = -1;
std::atomic<bool> ready{false};

[[noreturn]] void Refuse(const char* why, const char* what) {
  (void)std::fprintf(stderr, "fault shim: %s: %s\n", why, what);
  std::abort();
}

void Parse(const char* text) {
  char entry[256];
  while (*text != '\0') {
    const std::size_t length = std::strcspn(text, ",");
    if (length >= sizeof entry) Refuse("too long", text);
    std::memcpy(entry, text, length);
    entry[length] = '\0';
    text += length + (text[length] == ',' ? 1 : 0);

    // The operation's name may hold colons: the last two divide.
    char* const action = std::strrchr(entry, ':');
    if (action == nullptr) Refuse("no action", entry);
    *action = '\0';
    char* const number = std::strrchr(entry, ':');
    if (number == nullptr) Refuse("no number", entry);
    *number = '\0';
    int operation = 0;
    while (operation < kOperations && std::strcmp(kNames[operation][0], entry) != 0) ++operation;
    if (operation == kOperations) Refuse("no such operation", entry);
    int slot = 0;
    while (slot < kFaultsAnOperation && faults[operation][slot].action != Fault::Action::kNone) ++slot;
    if (slot == kFaultsAnOperation) Refuse("too many faults", entry);
    Fault& fault = faults[operation][slot];
    char* end = nullptr;
    fault.from = static_cast<int>(std::strtol(number + 1, &end, 10));
    fault.to = *end == '-' ? 1 << 30 : fault.from;
    if (*end == '/') {
      fault.oneIn = static_cast<int>(std::strtol(end + 1, nullptr, 10));
      if (fault.from != 1 || fault.oneIn < 1) Refuse("no such share", number + 1);
    }
    const char* const value = std::strchr(action + 1, '=');
    fault.value = value == nullptr ? 0 : static_cast<int>(std::strtol(value + 1, nullptr, 10));
    if (std::strncmp(action + 1, "fail=", 5) == 0) {
      fault.action = Fault::Action::kFail;
    } else if (std::strncmp(action + 1, "delay=", 6) == 0) {
      fault.action = Fault::Action::kDelay;
    } else if (std::strcmp(action + 1, "sigint") == 0) {
      fault.action = Fault::Action::kSigint;
    } else {
      Refuse("no such action", action + 1);
    }
  }
}

// The real operation. Other libraries are initialised, and call, before this one.
void* Real(int operation) {
  if (real[operation] == nullptr) real[operation] = dlsym(RTLD_NEXT, kNames[operation][1]);
  if (real[operation] == nullptr) Refuse("not found", kNames[operation][1]);
  return real[operation];
}

__attribute__((constructor)) void Start() {
  for (int operation = 0; operation < kOperations; ++operation) (void)Real(operation);
  // Not for what the program starts in turn, such as a sanitizer's symbolizer.
  if (unsetenv("LD_PRELOAD") != 0) Refuse("cannot unset", "LD_PRELOAD");
  if (const char* const text = std::getenv("FAULT_SEED")) seed = std::strtoull(text, nullptr, 10);
  if (const char* const text = std::getenv("FAULT")) Parse(text);
  if (const char* const path = std::getenv("FAULT_CALLS")) {
    callsFile = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (callsFile < 0) Refuse("cannot open", path);
  }
  if (const char* const path = std::getenv("FAULT_TOTALS")) {
    totalsFile = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (totalsFile < 0) Refuse("cannot open", path);
  }
  ready = true;
}

__attribute__((destructor)) void TellTotals() {
  if (totalsFile >= 0) {
    (void)dprintf(totalsFile, "%ld %ld %ld\n", failures.load(), delays.load(), interruptions.load());
  }
}

void Note(int operation, int status) {
  if (callsFile < 0) return;
  char line[128];
  const int length =
      std::snprintf(line, sizeof line, "%ld %s %d\n", syscall(SYS_gettid), kNames[operation][0], status);
  if (write(callsFile, line, static_cast<std::size_t>(length)) != length) std::abort();
}

// A number that looks random and depends on nothing but the seed and these. (Finalizer of SplitMix64.)
std::uint64_t Mixed(int operation, int slot, int number) {
  std::uint64_t mixed = seed * 0x9e3779b97f4a7c15U + static_cast<std::uint64_t>(number) * 64 +
                        static_cast<std::uint64_t>(operation);
  mixed += static_cast<std::uint64_t>(slot) << 48;
  for (int round = 0; round < 2; ++round) {
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebU;
    mixed ^= mixed >> 31;
  }
  return mixed;
}

// Counts the call and does what is due before it. Returns true, with the code, when it is to fail.
bool Due(int operation, int& code) {
  const int number = ++counts[operation];
  for (int slot = 0; slot < kFaultsAnOperation; ++slot) {
    const Fault& fault = faults[operation][slot];
    if (fault.action == Fault::Action::kNone) return false;
    int delayMs = fault.value;
    if (fault.oneIn != 0) {
      const std::uint64_t mixed = Mixed(operation, slot, number);
      if (mixed % static_cast<std::uint64_t>(fault.oneIn) != 0) continue;
      delayMs = static_cast<int>((mixed >> 32) % static_cast<std::uint64_t>(fault.value + 1));
    } else if (number < fault.from || number > fault.to) {
      continue;
    }
    if (fault.action == Fault::Action::kSigint) {
      ++interruptions;
      (void)kill(getpid(), SIGINT);
    } else if (fault.action == Fault::Action::kDelay) {
      ++delays;
      const struct timespec span = {delayMs / 1000, delayMs % 1000 * 1000000L};
      (void)nanosleep(&span, nullptr);
    } else {
      ++failures;
      code = fault.value;
      return true;
    }
  }
  return false;
}

// Forwards every call through one template, with pointers where the interface has references: the same to the
// machine, and what the sanitizer's check of function types objects to.
template <typename Result, typename... Arguments>
__attribute__((no_sanitize("function"))) Result Call(int operation, Arguments... arguments) {
  int code = 0;
  if (Due(operation, code)) {
    Note(operation, code);
    return code;
  }
  const Result result = reinterpret_cast<Result (*)(Arguments...)>(real[operation])(arguments...);
  Note(operation, result);
  return result;
}

}  // namespace

namespace Ormis {

std::int32_t QetInitialize(QetContext& context, const QetContextParameters& parameters) {
  return Call<std::int32_t>(kInitialize, &context, &parameters);
}
std::int32_t QetRelease(QetContext& context) {
  return Call<std::int32_t>(kRelease, &context);
}
std::int32_t QetCreateContext(QetContext& context) {
  return Call<std::int32_t>(kCreateContext, &context);
}
std::int32_t QetSetCurrentContext(QetContext& context) {
  return Call<std::int32_t>(kSetCurrentContext, &context);
}
std::int32_t QetDestroyContext(QetContext& context) {
  return Call<std::int32_t>(kDestroyContext, &context);
}
std::int32_t QetCreateChannel(int& channel) {
  return Call<std::int32_t>(kCreateChannel, &channel);
}
std::int32_t QetDestroyChannel(int channel) {
  return Call<std::int32_t>(kDestroyChannel, channel);
}
std::int32_t QetImageMallocAligned(ImageData& image) {
  return Call<std::int32_t>(kImageMallocAligned, &image);
}
std::int32_t QetMemcpyToKivu(const ImageData& source, ImageData& destination) {
  return Call<std::int32_t>(kMemcpyToKivu, &source, &destination);
}
std::int32_t QetImageResize(int channel, const ImageData& source, const ImageData& destination,
                            QetImageInterpolationType interpolation, int timeoutMs) {
  return Call<std::int32_t>(kImageResize, channel, &source, &destination, interpolation, timeoutMs);
}
std::int32_t QetImageDestroy(ImageData& image) {
  return Call<std::int32_t>(kImageDestroy, &image);
}
std::int32_t QetVenc::Init() {
  return Call<std::int32_t>(kVencInit, this);
}
std::int32_t QetVenc::SendFrame(const ImageData& frame) {
  return Call<std::int32_t>(kSendFrame, this, &frame);
}
std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  return Call<std::int32_t>(kGetStream, this, &stream);
}
std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  return Call<std::int32_t>(kReleaseStream, this, &stream);
}
std::int32_t QetDNNModelInitialize(QetDNNHandle& handle, const std::string& path) {
  return Call<std::int32_t>(kModelInitialize, &handle, &path);
}
std::int32_t QetDNNModelCreateInput(QetDNNHandle& handle) {
  return Call<std::int32_t>(kCreateInput, &handle);
}
std::int32_t QetDNNModelCreateOutput(QetDNNHandle& handle) {
  return Call<std::int32_t>(kCreateOutput, &handle);
}
std::int32_t QetDNNModelProcess(const QetDNNHandle& handle) {
  return Call<std::int32_t>(kProcess, &handle);
}
std::int32_t QetDNNRelease(QetDNNHandle& handle) {
  return Call<std::int32_t>(kDnnRelease, &handle);
}

}  // namespace Ormis

extern "C" int memcpy_s(void* destination, std::size_t destinationMax, const void* source,
                        std::size_t count) {
  return Call<int>(kMemcpyS, destination, destinationMax, source, count);
}

// Below here is what a sanitizer replaces itself, and what other libraries call before this one is
// initialised.
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)

__attribute__((visibility("default"))) void* operator new[](std::size_t bytes) {
  int code = 0;
  if (ready && Due(kArrayNew, code)) {
    Note(kArrayNew, code);
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(bytes == 0 ? 1 : bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

#pragma GCC visibility push(default)
extern "C" {

int posix_memalign(void** memory, std::size_t alignment, std::size_t bytes) {
  using PosixMemalign = int (*)(void**, std::size_t, std::size_t);
  int code = 0;
  if (ready && Due(kPosixMemalign, code)) return code;
  return reinterpret_cast<PosixMemalign>(Real(kPosixMemalign))(memory, alignment, bytes);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  using PthreadCreate = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  int code = 0;
  if (ready && Due(kThreadCreate, code)) return code;
  return reinterpret_cast<PthreadCreate>(Real(kThreadCreate))(thread, attributes, body, argument);
}

// A fault of "clock" jumps: from then on the monotonic clock is that many seconds ahead (behind where
// negative).
int clock_gettime(clockid_t clock, struct timespec* time) {
  const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  int code = 0;
  if (ready && clock == CLOCK_MONOTONIC && Due(kClock, code)) time->tv_sec += code;
  return result;
}

}  // extern "C"
#pragma GCC visibility pop

#endif
