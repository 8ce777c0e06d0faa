#pragma once

#include <algorithm>
#include <string>

namespace scope {

/// Decides how a recording ends: when the benchmark is asked to end, when it is killed, and what went wrong.
/// It has no clock, no process and no output: the caller says what happened and when, and does what is
/// decided. Times are seconds since the benchmark started; `nowS` never falls. Threads: one.
class Supervisor {
 public:
  enum class State {
    kRunning,
    kStopping,  ///< the benchmark was sent SIGINT
    kKilled,    ///< the benchmark was sent SIGKILL
    kEnded,     ///< the benchmark has ended
  };

  /// A signal to send to the benchmark.
  enum class Send { kNothing, kSigint, kSigkill };

  struct Decision {
    Send send = Send::kNothing;
    /// The first thing that went wrong, for the user. Handed out once; empty where there is no news.
    std::string fault;
  };

  struct Limits {
    std::string program;    ///< the benchmark, for messages
    double runTimeS = 0;    ///< how long it runs by itself
    double stopAfterS = 0;  ///< when it is asked to end; 0: never
    double graceS = 15;  ///< without a sign of life for so long it hangs; it has so long to end after SIGINT
  };

  enum class Meter {
    kUnused,
    kSilent,     ///< sent nothing
    kCut,        ///< did not say that the program ends
    kSaidTheEnd  ///< nothing is missing
  };

  /// How the benchmark ended.
  struct Ending {
    int exitStatus = 0;
    int signal = 0;  ///< 0 when it ended by itself
    Meter meter = Meter::kUnused;
  };

  explicit Supervisor(const Limits& limits) : limits_(limits) {}

  /// The benchmark printed a line or did an operation at `timeS`, which may be told late.
  void SignOfLife(double timeS) { lastLifeS_ = std::max(lastLifeS_, timeS); }
  /// To be called a few times a second, for what depends on time alone.
  Decision TimePassed(double nowS);
  /// This program got SIGINT or SIGTERM.
  Decision SignalCame(double nowS);
  /// What the benchmark does cannot be recorded any more.
  Decision RecordingFailed(double nowS, const std::string& reason);
  Decision BenchmarkEnded(const Ending& ending);

  State CurrentState() const { return state_; }
  /// True once SIGINT or SIGTERM came.
  bool Interrupted() const { return interrupted_; }
  /// The first thing that went wrong; empty for a recording that is complete.
  const std::string& Fault() const { return fault_; }

 private:
  Send Ask(double nowS);
  Send Kill();
  std::string FirstFault(const std::string& fault);
  bool Hangs(double nowS) const;
  std::string FaultOf(const Ending& ending) const;

  Limits limits_;
  State state_ = State::kRunning;
  double lastLifeS_ = 0;
  double askedS_ = 0;
  bool interrupted_ = false;
  std::string fault_;
};

}  // namespace scope
