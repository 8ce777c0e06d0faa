// SPDX-License-Identifier: Apache-2.0

// Injects faults into the platform's operations. Preloaded into the program, it stands in front of the
// platform and forwards every call to it. Environment variables:
//   FAULT         "operation:N:action", one or more, separated by commas. The action happens in the N-th
//                 call of the operation, counted over all threads: "fail=CODE" in place of the call,
//                 "delay=MILLISECONDS" or "sigint" before it. "N-" means the N-th and all later calls. "N/M"
//                 means one call in M at random, from the N-th on; a delay is then random, too, up to the
//                 given time. "flip=BIT" changes a bit of what a copy, a resize, GetStream or an inference
//                 has written. "stuck=PLACES" keeps a bit wrong in each of so many places: it changes that
//                 bit in every such call of a thread, until FAULT_MOVES moves it to another bit, and to
//                 another thread if one has none.
//   FAULT_SEED    a number that decides which calls the random ones are.
//   FAULT_MOVES   a file that has a number of 4 bytes for each place. A bit moves when that number changes.
//   FAULT_CALLS   a file to which every call is written: thread, operation, status.
//   FAULT_TOTALS  a file to which every fault is written: a 1 in the first, second or third place for failed,
//                 delayed or interrupted, then the operation and the number of the call. Written before the
//                 fault is made, because the process may die of it. A changed bit has none of the three; its
//                 number follows, when it was changed (CLOCK_MONOTONIC, ns), and of a bit that stays wrong
//                 its place and its thread (gettid).
//   FAULT_NAP     milliseconds: the longest that any sleep takes, so that a whole run passes in a moment.
// An operation without a status fails in its own way: the constructor of the YAML node and its operator[]
// throw, its conversions return false, ParseLogLevel and ParseLogMode return CODE, memory is refused.
// Destructors cannot fail.

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>

#include "link_names.h"
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
  kVencEnd,
  kModelInitialize,
  kCreateInput,
  kCreateOutput,
  kProcess,
  kDnnRelease,
  kMemcpyS,
  kYamlOpen,
  kYamlIndex,
  kYamlText,
  kYamlUnsigned,
  kYamlAsIf,
  kYamlEnd,
  kParseLogLevel,
  kParseLogMode,
  kArrayNew,
  kPosixMemalign,
  kThreadCreate,
  kClock,
  kWallClock,
  kSpawn,
  kMainMemory,
  kWorkerMemory,
  kOperations
};

// The name in FAULT and the link name of each operation.
constexpr const char* kNames[kOperations][2] = {
    {"QetInitialize", LINK_QET_INITIALIZE},
    {"QetRelease", LINK_QET_RELEASE},
    {"QetCreateContext", LINK_QET_CREATE_CONTEXT},
    {"QetSetCurrentContext", LINK_QET_SET_CURRENT_CONTEXT},
    {"QetDestroyContext", LINK_QET_DESTROY_CONTEXT},
    {"QetCreateChannel", LINK_QET_CREATE_CHANNEL},
    {"QetDestroyChannel", LINK_QET_DESTROY_CHANNEL},
    {"QetImageMallocAligned", LINK_QET_IMAGE_MALLOC_ALIGNED},
    {"QetMemcpyToKivu", LINK_QET_MEMCPY_TO_KIVU},
    {"QetImageResize", LINK_QET_IMAGE_RESIZE},
    {"QetImageDestroy", LINK_QET_IMAGE_DESTROY},
    {"QetVenc::Init", LINK_QET_VENC_INIT},
    {"QetVenc::SendFrame", LINK_QET_VENC_SEND_FRAME},
    {"QetVenc::GetStream", LINK_QET_VENC_GET_STREAM},
    {"QetVenc::ReleaseStream", LINK_QET_VENC_RELEASE_STREAM},
    {"QetVenc::~QetVenc", LINK_QET_VENC_END},
    {"QetDNNModelInitialize", LINK_QET_DNN_MODEL_INITIALIZE},
    {"QetDNNModelCreateInput", LINK_QET_DNN_MODEL_CREATE_INPUT},
    {"QetDNNModelCreateOutput", LINK_QET_DNN_MODEL_CREATE_OUTPUT},
    {"QetDNNModelProcess", LINK_QET_DNN_MODEL_PROCESS},
    {"QetDNNRelease", LINK_QET_DNN_RELEASE},
    {"memcpy_s", LINK_MEMCPY_S},
    {"QetYamlNode::QetYamlNode", LINK_QET_YAML_OPEN},
    {"QetYamlNode::operator[]", LINK_QET_YAML_INDEX},
    {"QetYamlNode::GetValue<string>", LINK_QET_YAML_GET_TEXT},
    {"QetYamlNode::GetValue<unsigned>", LINK_QET_YAML_GET_UNSIGNED},
    {"QetYamlNode::AsIf", LINK_QET_YAML_AS_IF},
    {"QetYamlNode::~QetYamlNode", LINK_QET_YAML_END},
    {"ParseLogLevel", LINK_PARSE_LOG_LEVEL},
    {"ParseLogMode", LINK_PARSE_LOG_MODE},
    {"new[]", "_Znam"},
    {"posix_memalign", "posix_memalign"},
    {"pthread_create", "pthread_create"},
    {"clock", "clock_gettime"},
    {"wall-clock", "clock_gettime"},
    {"posix_spawn", "posix_spawn"},
    // Memory of any kind that the program and the platform's libraries ask for themselves: on the main
    // thread, and on the first thread that the program starts, up to the end of its first cycle.
    {"main-memory", "malloc"},
    {"worker-memory", "malloc"},
};

struct Fault {
  int from = 0;
  int to = 0;
  int oneIn = 0;  // 0: not at random
  enum class Action { kNone, kFail, kDelay, kSigint, kFlip, kStuck } action = Action::kNone;
  int value = 0;
};

constexpr int kFaultsAnOperation = 4;
constexpr int kMostPlaces = 40;

void* real[kOperations];
Fault faults[kOperations][kFaultsAnOperation];
std::atomic<int> counts[kOperations];
bool changesResults = false;
std::uint64_t seed = 0;
int callsFile = -1;
int totalsFile = -1;
const std::atomic<std::uint32_t>* moves = nullptr;
long napMs = -1;
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

    // Split at the last two colons: the operation's name may contain others.
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
      if (fault.from < 1 || fault.oneIn < 1) Refuse("no such share", number + 1);
    }
    const char* const value = std::strchr(action + 1, '=');
    fault.value = value == nullptr ? 0 : static_cast<int>(std::strtol(value + 1, nullptr, 10));
    if (std::strncmp(action + 1, "fail=", 5) == 0) {
      if (operation == kVencEnd || operation == kYamlEnd) Refuse("cannot fail", entry);
      fault.action = Fault::Action::kFail;
    } else if (std::strncmp(action + 1, "delay=", 6) == 0) {
      fault.action = Fault::Action::kDelay;
    } else if (std::strcmp(action + 1, "sigint") == 0) {
      fault.action = Fault::Action::kSigint;
    } else if (std::strncmp(action + 1, "flip=", 5) == 0 || std::strncmp(action + 1, "stuck=", 6) == 0) {
      const bool writes = operation == kMemcpyS || operation == kImageResize || operation == kGetStream ||
                          operation == kProcess;
      fault.action = action[1] == 'f' ? Fault::Action::kFlip : Fault::Action::kStuck;
      if (!writes) Refuse("no such flip", entry);
      if (fault.action == Fault::Action::kStuck && (fault.value < 1 || fault.value > kMostPlaces))
        Refuse("no such number of places", entry);
      changesResults = true;
    } else {
      Refuse("no such action", action + 1);
    }
  }
}

// Looks up the real operation at the first call: other libraries call before this one is initialised.
void* Real(int operation) {
  if (real[operation] == nullptr) real[operation] = dlsym(RTLD_NEXT, kNames[operation][1]);
  if (real[operation] == nullptr) Refuse("not found", kNames[operation][1]);
  return real[operation];
}

__attribute__((constructor)) void Start() {
  for (int operation = 0; operation < kOperations; ++operation) (void)Real(operation);
  // Programs that this one starts, such as a sanitizer's symbolizer, get no faults.
  if (unsetenv("LD_PRELOAD") != 0) Refuse("cannot unset", "LD_PRELOAD");
  if (const char* const text = std::getenv("FAULT_NAP")) napMs = std::strtol(text, nullptr, 10);
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
  if (const char* const path = std::getenv("FAULT_MOVES")) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    void* const memory = mmap(nullptr, kMostPlaces * sizeof(*moves), PROT_READ, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED) Refuse("cannot map", path);
    moves = static_cast<const std::atomic<std::uint32_t>*>(memory);
  }
  ready = true;
}

void AddToTotals(Fault::Action action, int operation, int number) {
  if (totalsFile < 0) return;
  const int error = errno;
  char line[128];
  const int length = std::snprintf(line, sizeof line, "%d %d %d %s %d\n", action == Fault::Action::kFail,
                                   action == Fault::Action::kDelay, action == Fault::Action::kSigint,
                                   kNames[operation][0], number);
  if (write(totalsFile, line, static_cast<std::size_t>(length)) != length) std::abort();
  errno = error;
}

void Note(int operation, int status) {
  if (callsFile < 0) return;
  char line[128];
  const int length =
      std::snprintf(line, sizeof line, "%ld %s %d\n", syscall(SYS_gettid), kNames[operation][0], status);
  if (write(callsFile, line, static_cast<std::size_t>(length)) != length) std::abort();
}

// A pseudo-random number that depends on the seed and the arguments alone (the finalizer of SplitMix64).
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

// Counts the call and makes its delay or interrupt. Returns true, with the code, when the call has to fail.
bool InjectFault(int operation, int& code) {
  const int number = ++counts[operation];
  for (int slot = 0; slot < kFaultsAnOperation; ++slot) {
    const Fault& fault = faults[operation][slot];
    if (fault.action == Fault::Action::kNone) return false;
    if (fault.action == Fault::Action::kFlip || fault.action == Fault::Action::kStuck) continue;
    int delayMs = fault.value;
    if (fault.oneIn != 0) {
      const std::uint64_t mixed = Mixed(operation, slot, number);
      if (number < fault.from) continue;
      if (mixed % static_cast<std::uint64_t>(fault.oneIn) != 0) continue;
      delayMs = static_cast<int>((mixed >> 32) % static_cast<std::uint64_t>(fault.value + 1));
    } else if (number < fault.from || number > fault.to) {
      continue;
    }
    AddToTotals(fault.action, operation, number);
    if (fault.action == Fault::Action::kSigint) {
      (void)kill(getpid(), SIGINT);
    } else if (fault.action == Fault::Action::kDelay) {
      const struct timespec span = {delayMs / 1000, delayMs % 1000 * 1000000L};
      (void)nanosleep(&span, nullptr);
    } else {
      code = fault.value;
      return true;
    }
  }
  return false;
}

// initial-exec: another model would allocate it at its first use, inside of malloc.
__attribute__((tls_model("initial-exec"))) thread_local bool cycled = false;

// Forwards every call through one template, with pointers in place of the interface's references. That is the
// same machine code, but the sanitizer's check of function types would report it.
template <typename Result, typename... Arguments>
__attribute__((no_sanitize("function"))) Result Forward(int operation, Arguments... arguments) {
  return reinterpret_cast<Result (*)(Arguments...)>(real[operation])(arguments...);
}

template <typename Result, typename... Arguments>
Result Call(int operation, Arguments... arguments) {
  int code = 0;
  if (InjectFault(operation, code)) {
    Note(operation, code);
    return static_cast<Result>(code);
  }
  const Result result = Forward<Result>(operation, arguments...);
  Note(operation, static_cast<int>(result));
  if (operation == kMemcpyS || operation == kImageResize || operation == kReleaseStream ||
      operation == kProcess) {
    cycled = true;
  }
  return result;
}

// --- changed results ---

/// A bit of one thread's results that stays wrong.
struct Stuck {
  bool isUsed = false;
  std::uint32_t move = 0;
  pthread_t thread{};
  std::uint64_t bit = 0;
};

std::mutex changeMutex;
int changeCounts[kOperations];
Stuck stuckBits[kOperations][kMostPlaces];
// Bits that were wrong before: another one each time, as long as there is one.
std::set<std::uint64_t> usedBits[kOperations];

void Change(int operation, int number, void* data, std::uint64_t bit, int place) {
  if (totalsFile >= 0) {
    struct timespec now;
    (void)syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    char line[160];
    int length = std::snprintf(line, sizeof line, "0 0 0 %s %d %llu %lld", kNames[operation][0], number,
                               static_cast<unsigned long long>(bit), now.tv_sec * 1000000000LL + now.tv_nsec);
    if (place >= 0) {
      length += std::snprintf(line + length, sizeof line - static_cast<std::size_t>(length), " %d %ld", place,
                              syscall(SYS_gettid));
    }
    line[length++] = '\n';
    if (write(totalsFile, line, static_cast<std::size_t>(length)) != length) std::abort();
  }
  static_cast<unsigned char*>(data)[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
}

std::uint64_t UnusedBit(int operation, int slot, int number, std::uint64_t bits) {
  constexpr int kTries = 100;
  std::uint64_t bit = 0;
  for (int i = 0; i < kTries; ++i) {
    bit = (Mixed(operation, slot + i * kFaultsAnOperation, number) >> 20) % bits;
    if (usedBits[operation].insert(bit).second) break;
  }
  return bit;
}

// Keeps the thread's bit wrong, or gives it one that has to move.
void KeepStuck(int operation, int slot, int number, void* data, std::uint64_t bits) {
  const auto moveOf = [](int place) {
    return moves == nullptr ? 0 : moves[place].load(std::memory_order_relaxed);
  };
  Stuck* const places = stuckBits[operation];
  const int count = faults[operation][slot].value;
  for (int place = 0; place < count; ++place) {
    Stuck& stuck = places[place];
    if (!stuck.isUsed || pthread_equal(stuck.thread, pthread_self()) == 0) continue;
    if (stuck.move != moveOf(place)) {
      stuck.isUsed = false;  // another thread may come first
    } else if (stuck.bit < bits) {
      static_cast<unsigned char*>(data)[stuck.bit / 8] ^= static_cast<unsigned char>(1U << stuck.bit % 8);
    }
    return;
  }
  for (int place = 0; place < count; ++place) {
    Stuck& stuck = places[place];
    if (stuck.isUsed) continue;
    stuck = {true, moveOf(place), pthread_self(), UnusedBit(operation, slot, number, bits)};
    Change(operation, number, data, stuck.bit, place);
    return;
  }
}

// Changes the bits of the result of a call that succeeded, as FAULT says. Returns its status.
int Changed(int operation, int status, void* data, std::uint64_t bytes) {
  if (!changesResults || status != 0 || bytes == 0) return status;
  const std::lock_guard<std::mutex> lock(changeMutex);
  const int number = ++changeCounts[operation];
  for (int slot = 0; slot < kFaultsAnOperation; ++slot) {
    const Fault& fault = faults[operation][slot];
    const bool isRandom = fault.oneIn != 0;
    if (number < fault.from) continue;
    if (fault.action == Fault::Action::kFlip) {
      const std::uint64_t mixed = Mixed(operation, slot, number);
      if (isRandom ? mixed % static_cast<std::uint64_t>(fault.oneIn) != 0 : number > fault.to) continue;
      const std::uint64_t bit = isRandom ? mixed >> 20 : static_cast<std::uint64_t>(fault.value);
      Change(operation, number, data, bit % (bytes * 8), -1);
    } else if (fault.action == Fault::Action::kStuck) {
      KeepStuck(operation, slot, number, data, bytes * 8);
    }
  }
  return status;
}

// For operations without a status. Writes the call down before it is made, with status 0.
void BeforeCall(int operation) {
  int code = 0;
  const bool fails = InjectFault(operation, code);
  Note(operation, code);
  if (fails) throw std::runtime_error("fault " + std::to_string(code));
}

bool Convert(int operation, const Ormis::QetYamlNode* node, const std::string* key, void* out) {
  int code = 0;
  const bool fails = InjectFault(operation, code);
  Note(operation, code);
  return !fails && Forward<bool>(operation, node, key, out);
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
  const auto status =
      Call<std::int32_t>(kImageResize, channel, &source, &destination, interpolation, timeoutMs);
  return Changed(kImageResize, status, destination.data, destination.dataSize);
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
  const auto status = Call<std::int32_t>(kGetStream, this, &stream);
  if (status != 0) return status;
  // Streams differ in length. Each of them has the first bytes.
  const std::uint64_t bytes = std::min<std::uint64_t>(stream.packets[0].sizeBytes, 1024);
  return Changed(kGetStream, status, const_cast<std::uint8_t*>(stream.packets[0].data), bytes);
}
std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  return Call<std::int32_t>(kReleaseStream, this, &stream);
}
ara::log::LogLevel ParseLogLevel(QetLogLevelType level) {
  return Call<ara::log::LogLevel>(kParseLogLevel, level);
}
ara::log::LogMode ParseLogMode(QetLogModeType mode) {
  return Call<ara::log::LogMode>(kParseLogMode, mode);
}
QetYamlNode QetYamlNode::operator[](const std::string& key) const {
  BeforeCall(kYamlIndex);
  return Forward<QetYamlNode>(kYamlIndex, this, &key);
}
template <>
bool QetYamlNode::GetValue<std::string>(const std::string& key, std::string& out) const {
  return Convert(kYamlText, this, &key, &out);
}
template <>
bool QetYamlNode::GetValue<unsigned int>(const std::string& key, unsigned int& out) const {
  return Convert(kYamlUnsigned, this, &key, &out);
}
bool QetYamlNode::AsIf(unsigned int& out) const {
  int code = 0;
  const bool fails = InjectFault(kYamlAsIf, code);
  Note(kYamlAsIf, code);
  return !fails && Forward<bool>(kYamlAsIf, this, &out);
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
  const auto status = Call<std::int32_t>(kProcess, &handle);
  if (handle.outputs.empty()) return status;
  return Changed(kProcess, status, handle.outputs[0].data, handle.outputs[0].sizeBytes);
}
std::int32_t QetDNNRelease(QetDNNHandle& handle) {
  return Call<std::int32_t>(kDnnRelease, &handle);
}

}  // namespace Ormis

extern "C" int memcpy_s(void* destination, std::size_t destinationMax, const void* source,
                        std::size_t count) {
  const int status = Call<int>(kMemcpyS, destination, destinationMax, source, count);
  return Changed(kMemcpyS, status, destination, count);
}

// Defined by their link names: C++ definitions here would construct and destroy the members as well.
#pragma GCC visibility push(default)
extern "C" {

void OpenYaml(void* node, const void* path) __asm__(LINK_QET_YAML_OPEN);
void OpenYaml(void* node, const void* path) {
  BeforeCall(kYamlOpen);
  Forward<void>(kYamlOpen, node, path);
}

void EndYaml(void* node) __asm__(LINK_QET_YAML_END);
void EndYaml(void* node) {
  BeforeCall(kYamlEnd);
  Forward<void>(kYamlEnd, node);
}

void EndVenc(void* encoder) __asm__(LINK_QET_VENC_END);
void EndVenc(void* encoder) {
  BeforeCall(kVencEnd);
  Forward<void>(kVencEnd, encoder);
}

int posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* files,
                const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment) {
  return Call<int>(kSpawn, child, path, files, attributes, arguments, environment);
}

}  // extern "C"
#pragma GCC visibility pop

// The functions below are replaced by sanitizers, and called by other libraries before this one is
// initialised.
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)

extern "C" {
// The C library's own allocation functions, under names that nothing interposes.
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* memory, std::size_t bytes);
void* __libc_memalign(std::size_t alignment, std::size_t bytes);
}

namespace {

// The addresses of a library's code.
struct Range {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
  bool Has(std::uintptr_t address) const { return address >= begin && address < end; }
};

Range ownCode[3];     // the program, libormis.so, libara_log.so
Range passedCode[2];  // this library and libc++, through which they ask for some of their memory
bool memoryCounted = false;
std::atomic<int> threadsStarted{0};
// 0 on the main thread; later threads count in the order of their starts.
__attribute__((tls_model("initial-exec"))) thread_local int threadNumber = 0;

int FindCode(struct dl_phdr_info* library, std::size_t /*size*/, void* /*data*/) {
  static bool first = true;
  Range code;
  for (int i = 0; i < library->dlpi_phnum; ++i) {
    const auto& segment = library->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
    const std::uintptr_t begin = library->dlpi_addr + segment.p_vaddr;
    code.begin = code.end == 0 ? begin : std::min(code.begin, begin);
    code.end = std::max(code.end, begin + segment.p_memsz);
  }
  const auto is = [&](const char* name) { return std::strstr(library->dlpi_name, name) != nullptr; };
  if (first) ownCode[0] = code;
  if (is("/libormis.so")) ownCode[1] = code;
  if (is("/libara_log.so")) ownCode[2] = code;
  if (is("/libfault_shim.so")) passedCode[0] = code;
  if (is("/libc++.so")) passedCode[1] = code;
  first = false;
  return 0;
}

template <std::size_t kCount>
bool In(const Range (&ranges)[kCount], std::uintptr_t address) {
  return std::any_of(ranges, ranges + kCount, [=](const Range& range) { return range.Has(address); });
}

_Unwind_Reason_Code FindCaller(struct _Unwind_Context* context, void* caller) {
  const std::uintptr_t address = _Unwind_GetIP(context);
  if (In(passedCode, address)) return _URC_NO_REASON;
  *static_cast<std::uintptr_t*>(caller) = address;
  return _URC_END_OF_STACK;
}

// Whether the memory that code at `from` asks for has to be refused.
bool RefusesMemory(const void* from) {
  if (!memoryCounted || !ready) return false;
  const bool onMain = threadNumber == 0;
  if (!onMain && (threadNumber != 1 || cycled)) return false;
  auto caller = reinterpret_cast<std::uintptr_t>(from);
  if (In(passedCode, caller)) (void)_Unwind_Backtrace(FindCaller, &caller);
  int code = 0;
  return In(ownCode, caller) && InjectFault(onMain ? kMainMemory : kWorkerMemory, code);
}

__attribute__((constructor)) void StartMemory() {
  (void)dl_iterate_phdr(FindCode, nullptr);
  memoryCounted = faults[kMainMemory][0].action != Fault::Action::kNone ||
                  faults[kWorkerMemory][0].action != Fault::Action::kNone;
}

struct ThreadStart {
  void* (*body)(void*);
  void* argument;
  int number;
};

void* RunThread(void* start) {
  const ThreadStart thread = *static_cast<ThreadStart*>(start);
  std::free(start);
  threadNumber = thread.number;
  return thread.body(thread.argument);
}

}  // namespace

#pragma GCC visibility push(default)

void* operator new(std::size_t bytes) {
  void* const memory =
      RefusesMemory(__builtin_return_address(0)) ? nullptr : __libc_malloc(bytes == 0 ? 1 : bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new(std::size_t bytes, std::align_val_t alignment) {
  void* const memory = RefusesMemory(__builtin_return_address(0))
                           ? nullptr
                           : __libc_memalign(static_cast<std::size_t>(alignment), bytes == 0 ? 1 : bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new[](std::size_t bytes) {
  int code = 0;
  if (ready && InjectFault(kArrayNew, code)) {
    Note(kArrayNew, code);
    throw std::bad_alloc();
  }
  void* const memory =
      RefusesMemory(__builtin_return_address(0)) ? nullptr : __libc_malloc(bytes == 0 ? 1 : bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

extern "C" {

void* malloc(std::size_t bytes) {
  if (!RefusesMemory(__builtin_return_address(0))) return __libc_malloc(bytes);
  errno = ENOMEM;
  return nullptr;
}

void* calloc(std::size_t count, std::size_t bytes) {
  if (!RefusesMemory(__builtin_return_address(0))) return __libc_calloc(count, bytes);
  errno = ENOMEM;
  return nullptr;
}

void* realloc(void* old, std::size_t bytes) {
  if (!RefusesMemory(__builtin_return_address(0))) return __libc_realloc(old, bytes);
  errno = ENOMEM;
  return nullptr;
}

void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
  if (!RefusesMemory(__builtin_return_address(0))) return __libc_memalign(alignment, bytes);
  errno = ENOMEM;
  return nullptr;
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t bytes) {
  using PosixMemalign = int (*)(void**, std::size_t, std::size_t);
  int code = 0;
  if (ready && InjectFault(kPosixMemalign, code)) return code;
  if (RefusesMemory(__builtin_return_address(0))) return ENOMEM;
  return reinterpret_cast<PosixMemalign>(Real(kPosixMemalign))(memory, alignment, bytes);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  using PthreadCreate = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  int code = 0;
  if (ready && InjectFault(kThreadCreate, code)) return code;
  auto* const start = static_cast<ThreadStart*>(__libc_malloc(sizeof(ThreadStart)));
  if (start == nullptr) return EAGAIN;
  *start = {body, argument, ++threadsStarted};
  const int error =
      reinterpret_cast<PthreadCreate>(Real(kThreadCreate))(thread, attributes, RunThread, start);
  if (error != 0) std::free(start);
  return error;
}

// A fault of "clock" adds CODE seconds to the monotonic clock, or takes them away where CODE is negative. A
// fault of "wall-clock" does the same to the time of day, and adds up: each call moves it further.
int clock_gettime(clockid_t clock, struct timespec* time) {
  const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  int code = 0;
  if (ready && clock == CLOCK_MONOTONIC && InjectFault(kClock, code)) time->tv_sec += code;
  if (ready && clock == CLOCK_REALTIME && InjectFault(kWallClock, code)) {
    static std::atomic<long> jumped{0};
    time->tv_sec += jumped += code;
  }
  return result;
}

int nanosleep(const struct timespec* span, struct timespec* left) {
  struct timespec nap = *span;
  if (napMs >= 0 && (nap.tv_sec > 0 || nap.tv_nsec > napMs * 1000000)) {
    nap = {napMs / 1000, napMs % 1000 * 1000000L};
  }
  if (syscall(SYS_nanosleep, &nap, left) == 0) return 0;
  return -1;
}

}  // extern "C"
#pragma GCC visibility pop

#endif
