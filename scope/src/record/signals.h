// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>
#include <string>

namespace scope {

/// "SIGKILL", or "signal 40" for one without a name.
std::string SignalText(int signal);

/// Makes SIGINT, SIGTERM, SIGCHLD and, unless it is ignored, SIGHUP readable from a descriptor. While this
/// object exists, they have no other effect, and a closed pipe does not end this program. No handler is
/// installed. Threads: the main thread, before the program has started another one.
class Signals {
 public:
  /// Throws std::runtime_error if the system has no descriptors left. The signals are then as before.
  Signals();
  /// Drops signals that were not taken and restores the former signal settings.
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// Readable when a signal has come.
  int Descriptor() const { return descriptor_; }

  /// Takes all signals that have come. True if one of them asks this program to stop: each but SIGCHLD and
  /// a SIGHUP after the first one.
  bool TakeStop();

 private:
  void Restore();

  int descriptor_ = -1;
  bool hungUp_ = false;  ///< SIGHUP has come
  sigset_t before_{};
  struct sigaction brokenPipe_{};
};

}  // namespace scope
