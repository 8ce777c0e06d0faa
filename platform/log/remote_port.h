#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "record_queue.h"

namespace ara::log {

/// The way to whoever takes the records of the remote sink. May lock, allocate and take its time; throws
/// nothing. Threads: all of it is called by one thread, the forwarding one, with every signal blocked.
class RemotePort {
 public:
  enum class State : std::uint8_t {
    kIdle,  ///< every record that was sent has been taken, or is lost for good
    kBusy,  ///< the receiver is there and does not take the last record at the moment
    kAway,  ///< there is no receiver at the moment
  };

  RemotePort() = default;
  RemotePort(const RemotePort&) = delete;
  RemotePort& operator=(const RemotePort&) = delete;
  virtual ~RemotePort() = default;

  /// Returns null, or why the port cannot be used. A receiver that is not there yet is no reason.
  virtual const char* Open() = 0;

  /// Under which application the records that follow are sent.
  virtual void SetApplication(const std::string& id, const std::string& description) = 0;

  /// Hands over a record; requires kIdle. Returns false when the record is lost.
  virtual bool Send(const RemoteRecord& record) = 0;

  /// Goes on with the record that was sent last.
  virtual State Settle() = 0;

  /// How many records the receiver has left behind since the last call, at most: Send has reported them as
  /// handed over. Where others send to it, some of what it left behind is theirs.
  virtual std::uint64_t TakeLeftBehind() = 0;

  /// Ends it, without waiting for the receiver; a record that has not been taken is dropped.
  virtual void Close() = 0;
};

/// The port to the DLT daemon. Returns null when this machine has none, and says why, or when this build has
/// none, with an empty reason. What libdlt itself has to say goes to standard error, or nowhere if `silent`.
std::unique_ptr<RemotePort> MakeDltPort(bool silent, std::string* reason);

}  // namespace ara::log
