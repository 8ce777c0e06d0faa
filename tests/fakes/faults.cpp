// SPDX-License-Identifier: Apache-2.0
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
MutexWatch::Hook lockHook;
MutexWatch::Hook unlockHook;

std::atomic<bool> countingStarts{false};
std::atomic<int> starts{0};
std::atomic<int> failAt{0};
std::function<void(int)> startHook;

}  // namespace

// The linker's names for what it redirects: std::mutex::lock, std::mutex::unlock and
// pthread_create.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void __real__ZNSt3__15mutex4lockEv(std::mutex* mutex);
void __wrap__ZNSt3__15mutex4lockEv(std::mutex* mutex);
void __real__ZNSt3__15mutex6unlockEv(std::mutex* mutex);
void __wrap__ZNSt3__15mutex6unlockEv(std::mutex* mutex);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);

void __wrap__ZNSt3__15mutex4lockEv(std::mutex* mutex) {
  if (mutex == refusedMutex) {
    ++refusedLocks;
    throw std::system_error(EDEADLK, std::generic_category(), "mutex lock failed");
  }
  if (mutex == watchedMutex) {
    ++watchedLocks;
    if (lockHook) lockHook();
  }
  __real__ZNSt3__15mutex4lockEv(mutex);
}

void __wrap__ZNSt3__15mutex6unlockEv(std::mutex* mutex) {
  if (mutex == watchedMutex && unlockHook) unlockHook();
  __real__ZNSt3__15mutex6unlockEv(mutex);
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

MutexWatch::MutexWatch(std::mutex& mutex, Hook beforeLock, Hook beforeUnlock) {
  watchedLocks = 0;
  lockHook = std::move(beforeLock);
  unlockHook = std::move(beforeUnlock);
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
