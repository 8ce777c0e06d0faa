// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "program_test.h"

/// One message that the receiver has stored.
struct DltMessage {
  std::string application;
  std::string context;
  std::string level;
  std::string threadId;
  std::string text;
};

/// A DLT daemon and its receiver for one test, on a free port and in the test's folder.
class DltDaemon {
 public:
  /// Returns why a daemon cannot run here; an empty text when it can.
  static std::string Missing();

  explicit DltDaemon(std::filesystem::path folder) : folder_(std::move(folder)) {}

  /// Makes daemons that are started from here on log what is registered. Needed for WaitForOwnLog.
  void LogRegistrations() { logsRegistrations_ = true; }
  /// Starts both and waits until the receiver gets messages. Fails the test when it does not.
  void Start();
  void Signal(int signal) const { daemon_->Signal(signal); }
  /// Kills the daemon only, and waits until the receiver has stored the last messages and ended.
  void KillUnderTheReceiver();
  /// Kills both, even when they are stopped. The receiver's file stays.
  void Kill();

  /// Returns how many bytes in the pipe the daemon has not read.
  int UnreadBytes() const;
  /// Returns the messages of one application that have been received so far, in order.
  std::vector<DltMessage> Received(const std::string& application = "STBM") const;
  /// Returns the content of the receiver's file.
  std::string Raw() const;
  /// Waits until the text has been received. Fails the test when that takes too long.
  void WaitFor(const std::string& text) const;
  /// Waits until the text is in the daemon's own log. Fails the test when that takes too long.
  void WaitForOwnLog(const std::string& text) const;

 private:
  std::filesystem::path folder_;
  std::unique_ptr<Program> daemon_;
  std::unique_ptr<Program> receiver_;
  int starts_ = 0;
  bool logsRegistrations_ = false;
};

/// Tests of the remote sink with a daemon; skipped when no daemon can run here.
class DltTest : public ProgramTest {
 protected:
  void SetUp() override;

  /// Returns how to start log_probe with these commands, in the test's folder.
  Launch Probe(std::vector<std::string> words) const;
  /// The same; the first commands start logging with the remote sink only, as application and context STBM.
  Launch RemoteProbe(const std::vector<std::string>& words) const;
  /// Ends the wait of a probe at `await name`.
  void Release(const std::string& name) const { Write(name, ""); }
  /// Waits until a probe has reached `touch name`.
  void WaitForFile(const std::string& name) const;

  DltDaemon daemon_{Directory()};
};

/// Waits until `condition` holds. Fails the test when that takes too long.
void WaitUntil(const std::function<bool()>& condition, const std::string& what);

/// Returns how many lost records a program has reported at its end. The number may be an upper bound.
std::uint64_t ReportedLosses(const Ending& ending);
