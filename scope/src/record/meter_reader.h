// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "histogram.h"
#include "protocol.h"
#include "run.h"

namespace scope {

/// A second that is not longer than this, at the end of a run, has too few operations to show a rate.
constexpr double kShownSecondS = 0.5;

/// What the meter reported for one second.
struct MeterSecond {
  int second = 0;
  double timeS = 0;
  std::vector<Sample> samples;
  /// The same, added up by engine. Latencies are those of all operations of the second.
  std::vector<EngineSample> engines;
};

/// The other end of the meter's socket.
class MeterReader {
 public:
  /// Makes the pair of sockets. Times of samples count from `startNs` (CLOCK_MONOTONIC). Throws
  /// std::runtime_error if the system has no sockets left.
  explicit MeterReader(std::uint64_t startNs);
  ~MeterReader();
  MeterReader(const MeterReader&) = delete;
  MeterReader& operator=(const MeterReader&) = delete;

  /// More than the socket holds. One call of Read gets everything that an ended program has sent.
  static constexpr int kMostPackets = 8192;

  /// The descriptor to wait on; -1 after the meter has gone.
  int Descriptor() const { return socket_; }
  /// The descriptor that the child inherits. It is close-on-exec: the child has to clear that flag.
  int ChildEnd() const { return childEnd_; }
  void CloseChildEnd();

  /// Reads the packets that have arrived, at most kMostPackets, and adds the seconds that are now complete to
  /// `seconds`. Throws UserError if the packets are from a meter of another version, or not from a meter.
  void Read(std::vector<MeterSecond>& seconds);

  bool SaidHello() const { return processId_ != 0; }
  const std::string& PlatformPath() const { return platformPath_; }
  std::uint64_t DelayedSamples() const { return delayedSamples_; }
  std::uint64_t Unmeasured() const { return unmeasured_; }
  /// True if the meter has reported the program's end, so nothing is missing.
  bool SaidLast() const { return last_; }

  /// Takes the errors that have arrived, in their order.
  std::vector<RunError> TakeErrors() { return std::exchange(errors_, {}); }
  /// How results were checked so far, in the order of the engines.
  std::vector<EngineCheck> Checks() const;
  /// What was filled so far for the engines whose sources the meter has seen, in the order of the engines.
  std::vector<EngineFill> Filled() const;
  /// The streams that the meter checked, so far, in the order of their keys.
  std::vector<StreamHashes> Streams() const;
  /// The counts so far of the engines that have a deadline and have worked, in the order of the engines.
  std::vector<EngineDeadline> Deadlines() const;

  /// Latencies of the whole run by engine and thread.
  const std::map<std::pair<std::string, int>, Histogram>& Latencies() const { return latencies_; }
  std::vector<HistogramRow> HistogramRows() const;

 private:
  void Take(const char* bytes, std::size_t size, std::vector<MeterSecond>& seconds);
  void TakeSample(const char* bytes, std::size_t size, std::vector<MeterSecond>& seconds);
  void TakeError(const char* bytes, std::size_t size);
  void TakeCheck(const char* bytes, std::size_t size);
  void TakeStreams(const char* bytes, std::size_t size);
  void TakeFill(const char* bytes, std::size_t size);
  void TakeDeadline(const char* bytes, std::size_t size);
  void Flush(std::uint64_t timeNs, std::vector<MeterSecond>& seconds);

  std::uint64_t startNs_;
  int socket_ = -1;
  int childEnd_ = -1;
  std::int32_t processId_ = 0;
  std::string platformPath_;
  bool last_ = false;
  std::uint64_t delayedSamples_ = 0;
  std::uint64_t unmeasured_ = 0;
  MeterSecond pending_;
  std::map<std::string, Histogram> pendingLatencies_;
  std::vector<RunError> errors_;
  std::map<std::size_t, EngineCheck> checks_;        ///< by the row of the engine
  std::map<std::size_t, EngineDeadline> deadlines_;  ///< as well
  std::map<std::size_t, EngineFill> filled_;         ///< as well
  std::map<std::string, StreamHashes> streams_;      ///< by their keys
  int second_ = 0;                                   ///< the last one
  double timeS_ = 0;
  std::map<std::pair<std::string, int>, Histogram> latencies_;
};

}  // namespace scope
