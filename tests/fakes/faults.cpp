#include "faults.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <utility>

namespace {

std::atomic<const std::mutex*> refusedMutex{nullptr};
std::atomic<int> refusedLocks{0};
std::atomic<const std::mutex*> watchedMutex{nullptr};
std::atomic<int> watchedLocks{0};

std::atomic<bool> countingStarts{false};
std::atomic<int> starts{0};
std::atomic<int> failAt{0};
std::function<void(int)> startHook;

}  // namespace

// The linker's names for what it redirects: std::mutex::lock and pthread_create.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void __real__ZNSt3__15mutex4lockEv(std::mutex* mutex);
void __wrap__ZNSt3__15mutex4lockEv(std::mutex* mutex);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);

void __wrap__ZNSt3__15mutex4lockEv(std::mutex* mutex) {
  if (mutex == refusedMutex) {
    ++refusedLocks;
    throw std::system_error(EDEADLK, std::generic_category(), "mutex lock failed");
  }
  if (mutex == watchedMutex) ++watchedLocks;
  __real__ZNSt3__15mutex4lockEv(mutex);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
  if (!countingStarts) return __real_pthread_create(thread, attributes, body, argument);
  const int number = ++starts;
  if (number == failAt) return EAGAIN;
  const int error = __real_pthread_create(thread, attributes, body, argument);
  if (startHook) startHook(number);
  return error;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

MutexFault::MutexFault(std::mutex& mutex) {
  refusedLocks = 0;
  refusedMutex = &mutex;
}

MutexFault::~MutexFault() {
  refusedMutex = nullptr;
}

int MutexFault::Delivered() {
  return refusedLocks;
}

MutexWatch::MutexWatch(std::mutex& mutex) {
  watchedLocks = 0;
  watchedMutex = &mutex;
}

MutexWatch::~MutexWatch() {
  watchedMutex = nullptr;
}

int MutexWatch::Locks() {
  return watchedLocks;
}

ThreadStarts::ThreadStarts() {
  starts = 0;
  failAt = 0;
  startHook = nullptr;
  countingStarts = true;
}

ThreadStarts::~ThreadStarts() {
  countingStarts = false;
}

void ThreadStarts::Fail(int nth) {
  failAt = nth;
}
void ThreadStarts::OnStart(std::function<void(int)> hook) {
  startHook = std::move(hook);
}
int ThreadStarts::Count() const {
  return starts;
}
