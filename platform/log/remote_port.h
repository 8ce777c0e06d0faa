// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "record_queue.h"

namespace ara::log {

/// Sends the records of the remote sink to a receiver in another process. Its members may lock, allocate and
/// wait; they throw nothing. Threads: the forwarding thread alone, with every signal blocked.
class RemotePort {
 public:
  enum class State : std::uint8_t {
    kIdle,  ///< the receiver has taken the last record, or the record is lost for good
    kBusy,  ///< there is a receiver, but it has not taken the last record yet
    kAway,  ///< there is no receiver at the moment
  };

  RemotePort() = default;
  RemotePort(const RemotePort&) = delete;
  RemotePort& operator=(const RemotePort&) = delete;
  virtual ~RemotePort() = default;

  /// Opens the port. Returns null, or the reason why the port cannot be used. It can be used before there is
  /// a receiver.
  virtual const char* Open() = 0;

  /// Sets the application of the records that are sent from here on.
  virtual void SetApplication(const std::string& id, const std::string& description) = 0;

  /// Sends a record. Requires: the last Settle, if any, has returned kIdle. Returns false when the record is
  /// lost.
  virtual bool Send(const RemoteRecord& record) = 0;

  /// Tries again to deliver the record that was sent last. Returns what has become of it.
  virtual State Settle() = 0;

  /// Returns how many sent records a receiver that died has not read, and resets that number. It is an upper
  /// bound: where other applications write to the same receiver, some of the unread records are theirs.
  virtual std::uint64_t TakeLeftBehind() = 0;

  /// Closes the port without waiting for the receiver. A record that the receiver has not taken is dropped.
  virtual void Close() = 0;
};

/// Creates the port to the DLT daemon. Returns null when this build has none (`reason` is empty then), or
/// when libdlt cannot be loaded (`reason` says why). libdlt's own messages go to standard error, or nowhere
/// when `silent`.
std::unique_ptr<RemotePort> MakeDltPort(bool silent, std::string* reason);

}  // namespace ara::log
