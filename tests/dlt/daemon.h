#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "program_test.h"

/// One message as the receiver has stored it.
struct DltMessage {
  std::string application;
  std::string context;
  std::string level;
  std::string threadId;
  std::string text;
};

/// A DLT daemon of the test's own and a receiver at it, on a free port and in the test's folder.
class DltDaemon {
 public:
  /// Why there can be no daemon here; empty where there can.
  static std::string Missing();

  explicit DltDaemon(std::filesystem::path folder) : folder_(std::move(folder)) {}

  /// Lets daemons that are started from here on write down what is registered, for WaitForOwnLog.
  void LogRegistrations() { logsRegistrations_ = true; }
  /// Starts both and returns when records get through. Fails the test when that does not work out.
  void Start();
  void Signal(int signal) const { daemon_->Signal(signal); }
  /// Ends the daemon alone, and waits until the receiver has taken what was on its way and noticed.
  void KillUnderTheReceiver();
  /// Ends both, whatever state they are in; what has been received stays.
  void Kill();

  /// What has been written to the pipe and not yet been read.
  int UnreadBytes() const;
  /// What has been received so far, in this order, of one application.
  std::vector<DltMessage> Received(const std::string& application = "STBM") const;
  /// The receiver's file as it is.
  std::string Raw() const;
  /// Waits until the text has been received. Fails the test when it does not come.
  void WaitFor(const std::string& text) const;
  /// The same for the daemon's own log.
  void WaitForOwnLog(const std::string& text) const;

 private:
  std::filesystem::path folder_;
  std::unique_ptr<Program> daemon_;
  std::unique_ptr<Program> receiver_;
  int starts_ = 0;
  bool logsRegistrations_ = false;
};

/// Tests of the remote sink against a daemon; skipped where there can be none.
class DltTest : public ProgramTest {
 protected:
  void SetUp() override;

  /// How to start the probe with these words, in the test's folder.
  Launch Probe(std::vector<std::string> words) const;
  /// The same with logging started for the remote sink alone, under application and context STBM.
  Launch RemoteProbe(const std::vector<std::string>& words) const;
  /// Makes a program at `await name` go on.
  void Release(const std::string& name) const { Write(name, ""); }
  /// Waits until a program has reached its `touch name`.
  void WaitForFile(const std::string& name) const;

  DltDaemon daemon_{Directory()};
};

/// Waits until `condition` holds. Fails the test when that takes too long.
void WaitUntil(const std::function<bool()>& condition, const std::string& what);

/// How many lost records a program has told of when it ended, exactly or at most.
std::uint64_t ToldLost(const Ending& ending);
