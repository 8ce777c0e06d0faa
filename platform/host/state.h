// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace Ormis::host {

/// Returns 0 when the platform is initialised and a live context is bound to the calling thread. Otherwise
/// logs the reason in the name of `operation` and returns the code.
std::int32_t RequireContext(const char* operation);

/// What was left of one kind of object when QetRelease was called.
struct Leftover {
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;  ///< memory of images; 0 for other kinds
};

// Each frees all objects of one kind. Called by QetRelease, when no other thread is in the platform. They
// cannot fail, because QetRelease cannot undo those that came before.
Leftover ReclaimChannels() noexcept;
Leftover ReclaimImages() noexcept;
Leftover ReclaimEncoders() noexcept;
Leftover ReclaimModels() noexcept;

/// The live objects of one kind by key. An object that was found stays alive while the caller holds it, even
/// when it is removed. Threads: any.
template <typename Key, typename T>
class Table {
 public:
  /// Returns false, and adds nothing, when the key is taken.
  bool Add(Key key, std::shared_ptr<T> object) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return objects_.emplace(key, std::move(object)).second;
  }

  /// Returns null when there is none.
  std::shared_ptr<T> Find(Key key) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = objects_.find(key);
    return found == objects_.end() ? nullptr : found->second;
  }

  /// Removes and returns the object; null when there is none.
  std::shared_ptr<T> Take(Key key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = objects_.find(key);
    if (found == objects_.end()) return nullptr;
    std::shared_ptr<T> object = std::move(found->second);
    objects_.erase(found);
    return object;
  }

  std::map<Key, std::shared_ptr<T>> TakeAll() noexcept {
    std::map<Key, std::shared_ptr<T>> all;
    const std::lock_guard<std::mutex> lock(mutex_);
    all.swap(objects_);
    return all;
  }

 private:
  mutable std::mutex mutex_;
  std::map<Key, std::shared_ptr<T>> objects_;
};

/// Returns an id that was never returned before in this process. Contexts, images, encoders, streams and
/// models have such ids, so that a stale one is always recognised. Later ids are greater.
std::uint64_t NextId();

}  // namespace Ormis::host
