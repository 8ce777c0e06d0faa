#pragma once

#include <csignal>

namespace scope {

/// SIGINT, SIGTERM and SIGCHLD as something to wait for. As long as it lives they have no other effect, and a
/// closed pipe does not end this program. No handler is installed, so nothing runs inside a signal. Threads:
/// the main thread of a program that has started no other.
class Signals {
 public:
  /// Throws std::runtime_error when the system has no descriptor left; signals are then as before.
  Signals();
  /// Drops what came and was not taken, and leaves the signals as they were.
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// Readable when one has come.
  int Descriptor() const { return descriptor_; }

  /// Takes all that have come. True when SIGINT or SIGTERM is among them.
  bool TakeStop();

 private:
  void Restore();

  int descriptor_ = -1;
  sigset_t before_{};
  struct sigaction brokenPipe_{};
};

}  // namespace scope
