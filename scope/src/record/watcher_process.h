// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

#include "signals.h"

namespace scope {

/// A process of its own that works beside the benchmark and sends packets to the recorder. It never outlives
/// this object or this program, and ignores the signals that ask a program to end. It has nothing of the
/// recorder but its end of a socket. If the system runs out of memory, it ends this process first.
class WatcherProcess {
 public:
  /// `name` is for messages ("the guard"), `processName` for lists of processes ("scope_guard"). `work` runs
  /// in the process with its end of the socket; when it returns, the process ends. Throws std::runtime_error
  /// if there is no process.
  WatcherProcess(std::string name, const char* processName, const std::function<void(int socket)>& work);
  /// Kills it if it still runs.
  ~WatcherProcess();
  WatcherProcess(const WatcherProcess&) = delete;
  WatcherProcess& operator=(const WatcherProcess&) = delete;

  /// -1 after its end.
  pid_t Id() const { return id_; }
  /// Readable when it has something to say; -1 after its end.
  int Descriptor() const { return descriptor_; }

  /// True if `packet` got the next packet, which must have `bytes`. Without one it waits if `waits`. After
  /// the end of the process there is none.
  bool Receive(void* packet, std::size_t bytes, bool waits);
  /// Waits until there is a packet, or the process has ended. False if a signal to stop came before.
  bool Await(Signals& signals) const;
  /// Sends a packet to the process.
  void Send(const void* packet, std::size_t bytes) const;
  /// The process reads the end of its socket: nothing more is sent to it.
  void EndSending() const;

  /// The process has said that it ends: its end is no fault.
  void ExpectEnd() { endIsExpected_ = true; }
  /// Ends it at once, which is no fault. What it has sent can still be received.
  void Break();
  /// Kills it. How it ended before is in Fault.
  void Kill();
  /// Why it ended before it was expected; empty if it did not.
  const std::string& Fault() const { return fault_; }
  /// True if a signal ended it other than SIGKILL, which the kernel sends when no memory is left.
  bool HasCrashed() const { return hasCrashed_; }

 private:
  void Reap();

  std::string name_;
  pid_t id_ = -1;
  int descriptor_ = -1;
  bool endIsExpected_ = false;
  std::string fault_;
  bool hasCrashed_ = false;
};

/// Sends a packet from the process to the recorder; ends the process if nobody is left to tell.
void SendOrExit(int socket, const void* packet, std::size_t bytes);

}  // namespace scope
