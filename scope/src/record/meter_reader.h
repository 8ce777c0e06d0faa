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

/// What the meter told for one second.
struct MeterSecond {
  double timeS = 0;
  std::vector<Sample> samples;
  std::map<std::string, Histogram> latencies;  ///< by engine, all threads of this second
};

/// The other end of the meter's socket.
class MeterReader {
 public:
  /// Makes the pair of sockets. `startNs` is the time (CLOCK_MONOTONIC) that samples count from. Throws
  /// std::runtime_error when the system has none left.
  explicit MeterReader(std::uint64_t startNs);
  ~MeterReader();
  MeterReader(const MeterReader&) = delete;
  MeterReader& operator=(const MeterReader&) = delete;

  /// To wait on; -1 once the meter has gone.
  int Descriptor() const { return socket_; }
  /// For the child to inherit; close-on-exec until CloseChildEnd, or the child itself, changes that.
  int ChildEnd() const { return childEnd_; }
  void CloseChildEnd();

  /// Takes every packet that has arrived. The seconds that are complete with it are added to `seconds`.
  /// Throws UserError for a meter of another version, and for what is no meter.
  void Read(std::vector<MeterSecond>& seconds);

  bool SaidHello() const { return processId_ != 0; }
  const std::string& PlatformPath() const { return platformPath_; }
  bool IsHostPlatform() const { return hostPlatform_; }
  std::uint64_t DelayedSamples() const { return delayedSamples_; }
  std::uint64_t Unmeasured() const { return unmeasured_; }
  /// True when the meter said that the program ends: nothing is missing.
  bool SaidLast() const { return last_; }

  /// Latencies of the whole run by engine and thread.
  const std::map<std::pair<std::string, int>, Histogram>& Latencies() const { return latencies_; }
  std::vector<HistogramRow> HistogramRows() const;

 private:
  void Take(const char* bytes, std::size_t size, std::vector<MeterSecond>& seconds);
  void TakeSample(const char* bytes, std::size_t size, std::vector<MeterSecond>& seconds);
  void Flush(std::uint64_t timeNs, std::vector<MeterSecond>& seconds);

  std::uint64_t startNs_;
  int socket_ = -1;
  int childEnd_ = -1;
  std::int32_t processId_ = 0;
  std::string platformPath_;
  bool hostPlatform_ = false;
  bool last_ = false;
  std::uint64_t delayedSamples_ = 0;
  std::uint64_t unmeasured_ = 0;
  MeterSecond pending_;
  std::map<std::pair<std::string, int>, Histogram> latencies_;
};

}  // namespace scope
