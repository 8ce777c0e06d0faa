// SPDX-License-Identifier: Apache-2.0
#include "worker.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace conformance {

Platform::Platform() {
  RequireOk(Ormis::QetInitialize(process_, Ormis::QetContextParameters{}), "QetInitialize");
}

Platform::~Platform() {
  (void)Ormis::QetRelease(process_);
}

BoundContext::BoundContext() {
  RequireOk(Ormis::QetCreateContext(context_), "QetCreateContext");
  RequireOk(Ormis::QetSetCurrentContext(context_), "QetSetCurrentContext");
}

BoundContext::~BoundContext() {
  (void)Ormis::QetDestroyContext(context_);
}

Channel::Channel(int wanted) : number_(wanted) {
  RequireOk(Ormis::QetCreateChannel(number_), "QetCreateChannel");
}

Channel::~Channel() {
  (void)Ormis::QetDestroyChannel(number_);
}

Ormis::ImageData EmptyImage(std::uint32_t width, std::uint32_t height) {
  Ormis::ImageData image;
  image.width = width;
  image.height = height;
  image.bufferMode = Ormis::kQetBufferPlatform;
  image.imageType = Ormis::kQetImageBgr888;
  return image;
}

Image::Image(std::uint32_t width, std::uint32_t height) : record(EmptyImage(width, height)) {
  RequireOk(Ormis::QetImageMallocAligned(record), "QetImageMallocAligned");
  Require(record.data != nullptr, "QetImageMallocAligned returned 0 and left data null");
}

Image::~Image() {
  (void)Ormis::QetImageDestroy(record);
}

class Barrier {
 public:
  explicit Barrier(unsigned int count) : count_(count) {}

  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    const unsigned int phase = phase_;
    if (++waiting_ == count_) {
      waiting_ = 0;
      ++phase_;
      changed_.notify_all();
    }
    changed_.wait(lock, [&] { return phase != phase_ || failure_ != nullptr; });
    if (phase == phase_) throw Failure("another thread failed");
  }

  void Fail(const std::exception_ptr& failure) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (failure_ == nullptr) failure_ = failure;
    changed_.notify_all();
  }

  /// The first failure; null if there was none. Call it after the threads have ended.
  std::exception_ptr FirstFailure() const { return failure_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  unsigned int count_;
  unsigned int waiting_ = 0;
  unsigned int phase_ = 0;
  std::exception_ptr failure_;
};

void RunThreads(unsigned int count, const std::function<void(unsigned int index, Barrier& barrier)>& work) {
  Barrier barrier(count);
  std::vector<std::thread> threads;
  threads.reserve(count);
  for (unsigned int index = 0; index < count; ++index) {
    threads.emplace_back([&work, &barrier, index] {
      try {
        work(index, barrier);
      } catch (...) {
        barrier.Fail(std::current_exception());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  if (barrier.FirstFailure() != nullptr) std::rethrow_exception(barrier.FirstFailure());
}

void Wait(Barrier& barrier) {
  barrier.Wait();
}

}  // namespace conformance
