// SPDX-License-Identifier: Apache-2.0
#include "supervisor.h"

#include <algorithm>

#include "signals.h"
#include "text_format.h"

namespace scope {
namespace {

// The benchmark's run-time limiter ends a second after it set the flag. The engines need time to start and
// end.
constexpr double kUsualEndS = 2;
// A worker ends with the operation that it is in. A benchmark that works for longer has missed its end.
constexpr double kLongestEndS = 60;
constexpr double kLongestEndGraces = 4;

std::string Seconds(double seconds) {
  return Format("%.3g s", seconds);
}

}  // namespace

Supervisor::Decision Supervisor::TimePassed(double nowS) {
  if (state_ == State::kRunning) {
    if (IsStopDue(nowS)) return {Ask(nowS), ""};
    const std::string hang = Hang(nowS);
    if (hang.empty()) return {};
    return {Ask(nowS), FirstHang(hang)};
  }
  if (state_ == State::kStopping && nowS > askedS_ + limits_.graceS) {
    return {Kill(nowS), FirstHang("the benchmark did not end within " + Seconds(limits_.graceS) +
                                  " of SIGINT and was killed")};
  }
  if (state_ == State::kKilled && nowS > killedS_ + limits_.deathS) return {Send::kNothing, GiveUp()};
  return {};
}

Supervisor::Decision Supervisor::SignalCame(double nowS) {
  interrupted_ = true;
  if (state_ == State::kRunning) return {Ask(nowS), ""};
  if (state_ == State::kStopping && nowS > askedS_ + kSameSignalS) return {Kill(nowS), ""};
  return {};
}

Supervisor::Decision Supervisor::RecordingFailed(double nowS, const std::string& reason, bool isOfBoard) {
  if (fault_.empty()) recorderFailed_ = !isOfBoard;
  return {state_ == State::kRunning ? Ask(nowS) : Send::kNothing, FirstFault(reason)};
}

Supervisor::Decision Supervisor::BenchmarkEnded(const Ending& ending) {
  state_ = State::kEnded;
  const std::string fault = FaultOf(ending);
  // If the benchmark ended as it should, only the meter can be missing.
  const bool endedWell = ending.signal == 0 && ending.exitStatus == 0;
  if (fault_.empty() && !fault.empty()) recorderFailed_ = endedWell;
  return {Send::kNothing, FirstFault(fault)};
}

// On a machine that has no time for it, a benchmark may be seconds from taking SIGINT. One that never begins
// hangs when its run time is over.
bool Supervisor::IsStopDue(double nowS) const {
  if (limits_.stopAfterS <= 0 || !beganS_) return false;
  return nowS >= limits_.stopAfterS + std::max(0.0, *beganS_ - kUsualStartS);
}

Supervisor::Send Supervisor::Ask(double nowS) {
  state_ = State::kStopping;
  askedS_ = nowS;
  return Send::kSigint;
}

Supervisor::Send Supervisor::Kill(double nowS) {
  state_ = State::kKilled;
  killedS_ = nowS;
  return Send::kSigkill;
}

// A driver may keep a process for ever. This is told beside the first fault, which may be why it was killed.
std::string Supervisor::GiveUp() {
  state_ = State::kStuck;
  hung_ = hung_ || fault_.empty();
  const std::string fault = "the benchmark, process " + std::to_string(process_) + ", did not end within " +
                            Seconds(limits_.deathS) + " of SIGKILL: it still runs, and disturbs what follows";
  fault_ += (fault_.empty() ? "" : "; ") + fault;
  return fault;
}

// Only the first fault is kept: later ones follow from it.
std::string Supervisor::FirstFault(const std::string& fault) {
  if (!fault_.empty()) return "";
  fault_ = fault;
  return fault;
}

std::string Supervisor::FirstHang(const std::string& fault) {
  hung_ = hung_ || fault_.empty();
  return FirstFault(fault);
}

std::string Supervisor::Hang(double nowS) const {
  const double endS = limits_.runTimeS + kUsualEndS;
  const std::string hangs =
      "the benchmark hangs: its run time of " + Seconds(limits_.runTimeS) + " is over, and ";
  if (nowS > endS && nowS > lastLifeS_ + limits_.graceS) {
    return hangs + "there was neither a rate line nor an operation for " + Seconds(limits_.graceS);
  }
  if (nowS > endS + std::max(kLongestEndS, kLongestEndGraces * limits_.graceS)) {
    return hangs + "it still prints or works " + Seconds(nowS - limits_.runTimeS) + " later";
  }
  if (limits_.hangAfterS > 0 && nowS > lastLifeS_ + limits_.hangAfterS) {
    return "the benchmark hangs: there was neither a rate line nor an operation for " +
           Seconds(limits_.hangAfterS);
  }
  return "";
}

std::string Supervisor::FaultOf(const Ending& ending) const {
  if (ending.signal != 0) return "the benchmark was ended by " + SignalText(ending.signal);
  if (ending.exitStatus != 0) {
    return "the benchmark ended with status " + std::to_string(ending.exitStatus) + "; its log says why";
  }
  if (ending.meter == Meter::kSilent) {
    return "the meter did not answer: " + limits_.program +
           " does not call the platform library, or could not load the meter. Only rate lines were recorded.";
  }
  if (ending.meter == Meter::kCut)
    return "the meter did not report the end of the program: its last samples are missing";
  return "";
}

}  // namespace scope
