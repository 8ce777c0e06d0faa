// SPDX-License-Identifier: Apache-2.0

/// Works on the counting platform step by step, in virtual time, and stands in for the system and the loader
/// where a test needs an odd one. usage: odd_load STEP...
///   time:NS:N      from now on a call takes NS to 4 NS, and every N-th one fails (0: none). At first 0, 0
///   cpu            a copy of 100 bytes
///   copy:T:S:T:S   a copy to media memory. T is the image's type, S its dataSize: source, destination
///   resize:T:S:T:S likewise
///   encode:T:S     a frame
///   zeros          a copy of 100 zeros that stay in their place
///   flip           changes a bit of these zeros and of their copy
///   back           copies that copy back
///   seen:WHAT      resize, encode or infer: of memory that the meter can see; again: resizes the result;
///   copy:
///                  to media memory
///   spoil          changes a bit of what these read
///   elsewhere      a thread of its own makes a copy of 100 bytes
///   model:FILE     loads a model
///   infer          with that model, or without one; inputs of 10 bytes and outputs of 200 and 3000
///   models:FILE    see Models() below
///   asked          prints how often the loader was asked since the first step
///   busy:ENGINE    prints the platform's own time of this engine, by its number
///   sends:N        waits until the meter has called send N times
///   second         waits until the meter has ended a second
///   gone           waits until the meter records no more
///   fork           a child works, too; prints its exit status
///   thread         prints the blocked signals of the meter's thread, and of this one
///   close          prints the flags of the reader's descriptor
///   platform       from now on the loader finds all operations
/// The environment may have
///   ODD_OPERATIONS the loader finds only these, by their link names, each followed by a comma
///   ODD_HOST       the platform is this project's own, of this version
///   ODD_SEND       "N ERRNO": the N-th call of send fails
///   ODD_CELL       a cell is bad: what is read from a file has a wrong bit in byte 40
///   ODD_SENDS      prints a letter for each call of send: Hello, Sample or End; a small one if it may wait
///   ODD_THREAD     no thread can be started
///   ODD_SEMAPHORE  no semaphore can be made
///   ODD_AHEAD      the clock is so many seconds ahead
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "counting_platform.h"
#include "link_names.h"
#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"
#include "protocol.h"

namespace {

constexpr long kNsPerS = 1'000'000'000;
std::atomic<bool> platformIsWhole{false};
std::atomic<int> sends{0};
std::atomic<int> questions{0};
std::atomic<int> secondsEnded{0};
thread_local int clockReadings = 0;
bool hasThread = false;  // of the meter

template <typename Function>
Function* SystemFunction(const char* name) {
  return reinterpret_cast<Function*>(dlvsym(RTLD_NEXT, name, "GLIBC_2.34"));
}

std::uint32_t HostVersion() {
  return static_cast<std::uint32_t>(std::atoi(std::getenv("ODD_HOST")));
}

}  // namespace

// Each of these replaces the function of the C library, for the meter too.
#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const std::uint64_t ns = VirtualNs();
  ++clockReadings;
  if (ns != 0) {
    *time = {static_cast<time_t>(ns / kNsPerS), static_cast<long>(ns % kNsPerS)};
    return 0;
  }
  const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (const char* const ahead = std::getenv("ODD_AHEAD"); ahead != nullptr) time->tv_sec += std::atol(ahead);
  return result;
}

void* dlsym(void* /*handle*/, const char* name) noexcept {
  ++questions;
  if (std::strcmp(name, LINK_HOST_VERSION) == 0) {
    return std::getenv("ODD_HOST") == nullptr ? nullptr : reinterpret_cast<void*>(HostVersion);
  }
  const char* const found = std::getenv("ODD_OPERATIONS");
  if (found != nullptr && !platformIsWhole) {
    const char* const at = std::strstr(found, name);
    if (at == nullptr || at[std::strlen(name)] != ',') return nullptr;
  }
  void* const platform = dlopen("libcounting_platform.so", RTLD_NOW | RTLD_NOLOAD);
  return SystemFunction<void*(void*, const char*)>("dlsym")(platform, name);
}

ssize_t send(int socket, const void* bytes, std::size_t size, int flags) {
  const int call = ++sends;
  const auto type = static_cast<const scope::PacketHeader*>(bytes)->type;
  if (std::getenv("ODD_SENDS") != nullptr) {
    const char* const letters = (flags & MSG_DONTWAIT) != 0 ? "HSE" : "hse";
    (void)!write(STDOUT_FILENO, letters + static_cast<int>(type), 1);
  }
  if (const char* const failure = std::getenv("ODD_SEND"); failure != nullptr) {
    char* end = nullptr;
    if (std::strtol(failure, &end, 10) == call) {
      errno = std::atoi(end);
      return -1;
    }
  }
  const ssize_t result = syscall(SYS_sendto, socket, bytes, size, flags, nullptr, 0);
  if (type == scope::PacketType::kEndOfSecond) ++secondsEnded;
  return result;
}

// The meter writes its pattern with this.
ssize_t pread(int file, void* bytes, std::size_t size, off_t offset) {
  const ssize_t result = syscall(SYS_pread64, file, bytes, size, offset);
  if (result > 40 && std::getenv("ODD_CELL") != nullptr) static_cast<char*>(bytes)[40] ^= 4;
  return result;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  if (std::getenv("ODD_THREAD") != nullptr) return EAGAIN;
  hasThread = true;
  return SystemFunction<decltype(pthread_create)>("pthread_create")(thread, attributes, start, argument);
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* end) {
  timespec now{};
  (void)clock_gettime(clock, &now);
  // An end a second after an earlier reading of the clock is less than a second away.
  if ((end->tv_sec - now.tv_sec) * kNsPerS + end->tv_nsec - now.tv_nsec > kNsPerS) std::puts("a long second");
  return SystemFunction<decltype(sem_clockwait)>("sem_clockwait")(semaphore, clock, end);
}

int sem_init(sem_t* semaphore, int shared, unsigned value) noexcept {
  if (std::getenv("ODD_SEMAPHORE") != nullptr) return -1;
  return SystemFunction<decltype(sem_init)>("sem_init")(semaphore, shared, value);
}

int sem_post(sem_t* semaphore) noexcept {
  // Nobody waits: the meter's thread was not started, or this is a child.
  if (!hasThread) _exit(8);
  return SystemFunction<decltype(sem_post)>("sem_post")(semaphore);
}
}
#pragma GCC visibility pop

namespace {

using Words = std::vector<std::string>;

std::uint32_t Number(const std::string& text) {
  return static_cast<std::uint32_t>(std::stoul(text));
}

Ormis::ImageData Image(const std::string& type, const std::string& dataSize) {
  Ormis::ImageData image;
  image.width = 64;
  image.height = 32;
  image.imageType = Number(type);
  image.dataSize = Number(dataSize);
  return image;
}

void Cpu() {
  char from[100] = {};
  char to[100] = {};
  (void)memcpy_s(to, sizeof(to), from, sizeof(from));
}

char zeros[2][100];

void CopyZeros() {
  (void)memcpy_s(zeros[1], sizeof(zeros[1]), zeros[0], sizeof(zeros[0]));
}

void FlipZero() {
  for (auto& place : zeros) place[40] = static_cast<char>(place[40] ^ 4);
}

void CopyBack() {
  (void)memcpy_s(zeros[0], sizeof(zeros[0]), zeros[1], sizeof(zeros[1]));
}

std::uint8_t seenSource[64 * 32 * 3];
std::uint8_t seenResult[64 * 32 * 3];
std::uint8_t seenOutput[200];

Ormis::ImageData SeenImage(const std::string& type, std::uint8_t* data) {
  Ormis::ImageData image = Image(type, "0");
  image.data = data;
  return image;
}

void EncodeSeen() {
  static std::int64_t frames = 0;
  Ormis::QetVenc encoder;
  ux_venc_stream stream{};
  stream.packetCount = 1;
  stream.packets[0].data = seenOutput;
  stream.packets[0].sizeBytes = sizeof(seenOutput);
  stream.packets[0].frameIndex = frames++;
  (void)encoder.SendFrame(SeenImage("2", seenSource));
  (void)encoder.GetStream(stream);
  (void)encoder.ReleaseStream(stream);
}

void WorkSeen(const std::string& what) {
  if (what == "encode") return EncodeSeen();
  if (what == "infer") {
    Ormis::QetDNNHandle handle;
    handle.inputs = {{seenSource, 100}};
    handle.outputs = {{seenOutput, sizeof(seenOutput)}};
    (void)Ormis::QetDNNModelProcess(handle);
    return;
  }
  if (what == "copy") {
    Ormis::ImageData destination = SeenImage("1", seenResult);
    (void)Ormis::QetMemcpyToKivu(SeenImage("1", seenSource), destination);
    return;
  }
  const bool isAgain = what == "again";
  (void)Ormis::QetImageResize(0, SeenImage("1", isAgain ? seenResult : seenSource),
                              SeenImage("1", isAgain ? seenSource : seenResult), Ormis::kQetInterpolationArea,
                              -1);
}

/// Waits a long time for what takes a short one.
template <typename Condition>
void WaitUntil(const Condition& condition) {
  const timespec pause{0, 1'000'000};
  for (int i = 0; i < 20'000; ++i) {
    if (condition()) return;
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
  }
  std::puts("waited in vain");
}

// A page each, so that a table that is indexed by addresses has them all in one place.
struct alignas(4096) Handle {
  Ormis::QetDNNHandle value;
};

/// 256 models of FILE. Before them as many inferences without a model, after them one model more. The first
/// model is then replaced by one of FILE.small, the second by a file that is not there. Inferences of all,
/// and again of these two.
void Models(const std::string& file) {
  std::vector<Handle> strangers(256);
  for (Handle& handle : strangers) (void)Ormis::QetDNNModelProcess(handle.value);
  std::vector<Handle> models(257);
  for (Handle& handle : models) (void)Ormis::QetDNNModelInitialize(handle.value, file);
  for (Handle& handle : models) (void)Ormis::QetDNNModelProcess(handle.value);
  (void)Ormis::QetDNNModelInitialize(models[0].value, file + ".small");
  (void)Ormis::QetDNNModelInitialize(models[1].value, file + ".absent");
  (void)Ormis::QetDNNModelProcess(models[0].value);
  (void)Ormis::QetDNNModelProcess(models[1].value);
}

int Fork() {
  const pid_t child = fork();
  if (child == 0) {
    hasThread = false;
    clockReadings = 0;
    Cpu();
    std::exit(clockReadings == 0 ? 0 : 7);
  }
  int status = 0;
  (void)waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string BlockedSignals(const std::string& task) {
  std::ifstream file("/proc/self/task/" + task + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("SigBlk:\t", 0) == 0) return line.substr(8);
  }
  return "";
}

std::string TaskCalled(const std::string& name) {
  std::string found;
  DIR* const tasks = opendir("/proc/self/task");
  for (const dirent* entry = readdir(tasks); entry != nullptr; entry = readdir(tasks)) {
    std::string line;
    if (std::getline(std::ifstream("/proc/self/task/" + std::string(entry->d_name) + "/comm"), line) &&
        line == name) {
      found = entry->d_name;
    }
  }
  (void)closedir(tasks);
  return found;
}

void PrintThread() {
  std::string task;
  WaitUntil([&] { return !(task = TaskCalled("scope_meter")).empty(); });
  std::printf("%s\n%s\n", BlockedSignals(task).c_str(), BlockedSignals(std::to_string(getpid())).c_str());
}

/// Calls that the meter measures.
bool Work(const Words& step, Ormis::QetDNNHandle& handle) {
  if (step[0] == "cpu") {
    Cpu();
  } else if (step[0] == "zeros") {
    CopyZeros();
  } else if (step[0] == "flip") {
    FlipZero();
  } else if (step[0] == "back") {
    CopyBack();
  } else if (step[0] == "seen") {
    WorkSeen(step[1]);
  } else if (step[0] == "spoil") {
    seenSource[50] ^= 4;
  } else if (step[0] == "elsewhere") {
    std::thread(Cpu).join();
  } else if (step[0] == "copy") {
    Ormis::ImageData destination = Image(step[3], step[4]);
    (void)Ormis::QetMemcpyToKivu(Image(step[1], step[2]), destination);
  } else if (step[0] == "resize") {
    (void)Ormis::QetImageResize(0, Image(step[1], step[2]), Image(step[3], step[4]),
                                Ormis::kQetInterpolationArea, -1);
  } else if (step[0] == "encode") {
    Ormis::QetVenc encoder;
    ux_venc_stream stream{};
    (void)encoder.SendFrame(Image(step[1], step[2]));
    (void)encoder.GetStream(stream);
    (void)encoder.ReleaseStream(stream);
  } else if (step[0] == "model") {
    (void)Ormis::QetDNNModelInitialize(handle, step[1]);
  } else if (step[0] == "infer") {
    (void)Ormis::QetDNNModelProcess(handle);
  } else if (step[0] == "models") {
    Models(step[1]);
  } else {
    return false;
  }
  return true;
}

/// True if the meter measures nothing of all this.
bool NothingIsMeasured() {
  clockReadings = 0;
  Ormis::QetDNNHandle handle;
  for (const Words& step : {Words{"cpu"}, Words{"copy", "1", "0", "1", "0"},
                            Words{"resize", "1", "0", "1", "0"}, Words{"encode", "2", "0"}, Words{"infer"}}) {
    (void)Work(step, handle);
  }
  return clockReadings == 0;
}

bool Watch(const Words& step) {
  if (step[0] == "time") {
    SetWork(std::stol(step[1]), std::stoi(step[2]));
  } else if (step[0] == "asked") {
    std::printf("%d\n", questions.load());
  } else if (step[0] == "busy") {
    std::printf("%llu\n", static_cast<unsigned long long>(CountedCallsOf(std::stoi(step[1])).busyNs.load()));
  } else if (step[0] == "sends") {
    WaitUntil([&] { return sends >= std::stoi(step[1]); });
  } else if (step[0] == "second") {
    WaitUntil([] { return secondsEnded > 0; });
  } else if (step[0] == "gone") {
    WaitUntil(NothingIsMeasured);
  } else if (step[0] == "fork") {
    std::printf("%d\n", Fork());
  } else if (step[0] == "thread") {
    PrintThread();
  } else if (step[0] == "close") {
    std::printf("%d\n", fcntl(std::atoi(std::getenv(scope::kDescriptorVariable)), F_GETFD));
  } else if (step[0] == "platform") {
    platformIsWhole = true;
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  (void)std::setvbuf(stdout, nullptr, _IONBF, 0);
  VirtualNs() = kNsPerS;
  questions = 0;
  Ormis::QetDNNHandle handle;
  handle.inputs = {{nullptr, 10}};
  handle.outputs = {{nullptr, 200}, {nullptr, 3000}};
  for (int i = 1; i < argc; ++i) {
    Words step;
    std::istringstream words(argv[i]);
    for (std::string word; std::getline(words, word, ':');) step.push_back(word);
    if (!Work(step, handle) && !Watch(step)) return 2;
  }
  return 0;
}
