// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <optional>
#include <string>

namespace scope {

/// Decides how a recording ends: when the benchmark is asked to end, when it is killed, and what went wrong.
/// It has no clock, no process and no output. The caller reports what happened and when, and carries out the
/// decisions. Times are seconds since the benchmark's start. `nowS` never decreases. Threads: one.
class Supervisor {
 public:
  enum class State {
    kRunning,
    kStopping,  ///< the benchmark was sent SIGINT
    kKilled,    ///< the benchmark was sent SIGKILL
    kStuck,     ///< it was, and did not end: it is given up, and still runs
    kEnded,     ///< the benchmark has ended
  };
  /// One Ctrl-C may arrive twice: from the terminal, and from a parent program that passes it on.
  static constexpr double kSameSignalS = 1;
  /// A start that takes longer puts off the time at which the benchmark is asked to end.
  static constexpr double kUsualStartS = 1;

  /// A signal to send to the benchmark.
  enum class Send { kNothing, kSigint, kSigkill };

  struct Decision {
    Send send = Send::kNothing;
    /// The first fault, as a text for the user. Returned once; empty otherwise.
    std::string fault;
  };

  struct Limits {
    std::string program;    ///< the benchmark's path, for messages
    double runTimeS = 0;    ///< how long it runs by itself
    double stopAfterS = 0;  ///< when it is asked to end, once it has begun; 0: never
    /// Longest silence past the run time, and longest time to end after SIGINT. Past the run time the
    /// benchmark may work for a minute, or four times this if that is longer.
    double graceS = 15;
    double hangAfterS = 0;  ///< longest silence at any time; 0: no limit
    double deathS = 10;     ///< longest time to end after SIGKILL
  };

  enum class Meter {
    kUnused,
    kSilent,     ///< sent nothing
    kCut,        ///< did not report the end of the program
    kSaidTheEnd  ///< all samples were received
  };

  /// How the benchmark ended.
  struct Ending {
    int exitStatus = 0;
    int signal = 0;  ///< 0 if it ended by itself
    Meter meter = Meter::kUnused;
  };

  explicit Supervisor(const Limits& limits) : limits_(limits) {}

  /// The benchmark runs as this process.
  void BenchmarkStarted(long process) { process_ = process; }
  /// Whether the benchmark catches SIGINT now. Until it does, the signal would break it off, so that it is
  /// not sent for `stopAfterS`. A script that starts it may catch it for a moment.
  void CatchesSigint(bool catches, double timeS) {
    beganS_ = catches ? std::optional(beganS_.value_or(timeS)) : std::nullopt;
  }
  /// The benchmark printed a line or did an operation at `timeS`, which may lie in the past. So it has begun.
  void SignOfLife(double timeS) {
    isAlive_ = true;
    lastLifeS_ = std::max(lastLifeS_, timeS);
    beganS_ = std::min(timeS, beganS_.value_or(timeS));
  }
  /// True after a sign of life.
  bool IsAlive() const { return isAlive_; }
  /// Checks the time limits. Call it a few times a second.
  Decision TimePassed(double nowS);
  /// This program got a signal that asks it to stop.
  Decision SignalCame(double nowS);
  /// The recording cannot go on, for `reason`. `isOfBoard`: because the board failed, not the recorder.
  Decision RecordingFailed(double nowS, const std::string& reason, bool isOfBoard = false);
  Decision BenchmarkEnded(const Ending& ending);

  State CurrentState() const { return state_; }
  /// True when there is nothing left to wait for: the benchmark has ended or was given up.
  bool IsOver() const { return state_ == State::kEnded || state_ == State::kStuck; }
  /// True if a signal at `nowS` is another one than that which asked the benchmark to end.
  bool IsAnotherSignal(double nowS) const { return !interrupted_ || nowS > askedS_ + kSameSignalS; }
  /// True after such a signal came.
  bool Interrupted() const { return interrupted_; }
  /// True if the fault is that the benchmark did not end.
  bool Hung() const { return hung_; }
  /// True if the fault is the recorder's: it says nothing about the benchmark and the board.
  bool RecorderFailed() const { return recorderFailed_; }
  /// The first fault; empty for a complete recording.
  const std::string& Fault() const { return fault_; }

 private:
  bool IsStopDue(double nowS) const;
  Send Ask(double nowS);
  Send Kill(double nowS);
  std::string GiveUp();
  std::string FirstFault(const std::string& fault);
  /// The same for a benchmark that did not end.
  std::string FirstHang(const std::string& fault);
  /// The fault of a benchmark that does not end by itself; empty if it is in time.
  std::string Hang(double nowS) const;
  std::string FaultOf(const Ending& ending) const;

  Limits limits_;
  State state_ = State::kRunning;
  bool isAlive_ = false;
  std::optional<double> beganS_;
  double lastLifeS_ = 0;
  double askedS_ = 0;
  double killedS_ = 0;
  long process_ = 0;
  bool interrupted_ = false;
  bool hung_ = false;
  bool recorderFailed_ = false;
  std::string fault_;
};

}  // namespace scope
