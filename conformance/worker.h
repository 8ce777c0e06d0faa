// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>

#include "check.h"
#include "ormis/ormis.h"

// The set-up that most checks need. A set-up that fails throws Failure. The status of the tear-down is
// ignored, because other checks are about it.
namespace conformance {

/// The platform, started.
class Platform {
 public:
  Platform();
  ~Platform();
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;

 private:
  Ormis::QetContext process_;
};

/// A context that is bound to the calling thread.
class BoundContext {
 public:
  BoundContext();
  ~BoundContext();
  BoundContext(const BoundContext&) = delete;
  BoundContext& operator=(const BoundContext&) = delete;

 private:
  Ormis::QetContext context_;
};

/// The platform, started, with a context bound to the thread.
struct Device {
  Platform platform;
  BoundContext context;
};

class Channel {
 public:
  explicit Channel(int wanted);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  int Number() const { return number_; }

 private:
  int number_;
};

/// A record as the resize worker makes it before the allocation: for the platform's memory, packed, 3 bytes a
/// pixel.
Ormis::ImageData EmptyImage(std::uint32_t width, std::uint32_t height);

/// An image in the platform's memory.
class Image {
 public:
  Image(std::uint32_t width, std::uint32_t height);
  ~Image();
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  Ormis::ImageData record;
};

/// A meeting point of threads. After one thread has failed, Wait throws in the others instead of waiting
/// forever.
class Barrier;

/// Runs `work(index, barrier)` on `count` threads and throws the first failure.
void RunThreads(unsigned int count, const std::function<void(unsigned int index, Barrier& barrier)>& work);
void Wait(Barrier& barrier);

}  // namespace conformance
