#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "meter_reader.h"

namespace scope {

/// What one engine did in a span of time, all threads together.
struct EngineFigures {
  int threads = 0;
  double operationsPerS = 0;
  std::optional<double> gigabytesPerS;  ///< 10^9 bytes, read and written; none where unknown
  std::uint64_t p50Ns = 0;
  std::uint64_t p99Ns = 0;
  std::uint64_t maxNs = 0;
  std::uint64_t failures = 0;  ///< since the start
};

/// The second that was last, and how the rates came to it.
class Figures {
 public:
  void Add(const MeterSecond& second);

  double TimeS() const { return timeS_; }
  /// The last second, by engine, in the order in which they are shown.
  std::vector<std::pair<std::string, EngineFigures>> Last() const;
  /// Operations per second of the engine in each second so far.
  const std::vector<double>& History(const std::string& engine) const;

 private:
  struct EngineState {
    EngineFigures last;
    bool bytesKnown = true;
    std::uint64_t failures = 0;
    std::vector<double> history;
  };
  double timeS_ = 0;
  std::map<std::string, EngineState> engines_;
};

/// Where a recording shows itself. Threads: one.
class View {
 public:
  virtual ~View() = default;
  /// A second has passed; `runTimeS` is the run time that is configured.
  virtual void Second(const Figures& figures, double timeS, double runTimeS) = 0;
  /// A line that the benchmark wrote to standard error. Called only when TakesErrors.
  virtual void ErrorLine(const std::string& line) = 0;
  virtual bool TakesErrors() const = 0;
  /// Leaves the screen in order: nothing is drawn any more, and others may write.
  virtual void End() = 0;
};

/// A table that is drawn anew in place, for a terminal on standard output.
std::unique_ptr<View> MakeLiveView();
/// A line for each engine and second.
std::unique_ptr<View> MakePlainView();
/// Shows nothing.
std::unique_ptr<View> MakeSilentView();

/// True when standard output is a terminal that can move its cursor.
bool OutputIsTerminal();

/// One engine's figures in one line.
std::string Describe(const std::string& engine, const EngineFigures& figures);

/// A latency in the unit that fits it: "812 ns", "4.21 us", "2.31 ms", "1.20 s".
std::string Latency(std::uint64_t ns);

/// The last `width` values as blocks of eight heights, from 0 to the greatest of them.
std::string Sparkline(const std::vector<double>& values, std::size_t width);

/// `done` of `whole`, `width` characters wide.
std::string ProgressBar(double done, double whole, std::size_t width);

}  // namespace scope
