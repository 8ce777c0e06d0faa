#include "record.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>

#include "child_process.h"
#include "conditions.h"
#include "configuration.h"
#include "counters.h"
#include "errors.h"
#include "meter_reader.h"
#include "rate_line.h"
#include "run_folder.h"
#include "tool_version.h"
#include "view.h"

#ifndef STRESS_SCOPE_BUILD_TYPE
#define STRESS_SCOPE_BUILD_TYPE ""
#endif
#ifndef STRESS_SCOPE_LIBDIR
#define STRESS_SCOPE_LIBDIR "lib"
#endif

namespace scope {
namespace {

namespace fs = std::filesystem;

constexpr int kPollMs = 200;
constexpr double kCounterPeriodS = 1;
// The run-time limiter ends a second after it raised the flag; set-up and tear-down of the engines come on
// top.
constexpr double kUsualEndS = 2;
constexpr double kSameSignalS = 1;
constexpr double kShownSecondS = 0.5;

void Tell(const std::string& text) {
  std::cerr << "stress_scope: " << text << std::endl;
}

std::uint64_t NowNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

std::string OwnFolder() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  return error ? std::string(".") : self.parent_path().string();
}

std::string FindBenchmark(const std::string& given) {
  const std::string path = given.empty() ? OwnFolder() + "/stress_benchmark" : given;
  if (access(path.c_str(), X_OK) != 0) {
    throw RunFolderError("cannot run the benchmark " + path + ": " + std::strerror(errno) +
                         (given.empty() ? ". Say where it is with --benchmark." : ""));
  }
  return path;
}

std::string FindMeter(const std::string& given) {
  std::vector<std::string> candidates;
  if (!given.empty()) {
    candidates = {given};
  } else {
    candidates = {OwnFolder() + "/../lib/libstress_scope.so",
                  OwnFolder() + "/../" STRESS_SCOPE_LIBDIR "/libstress_scope.so"};
  }
  for (const std::string& candidate : candidates) {
    if (access(candidate.c_str(), R_OK) != 0) continue;
    const std::string path = fs::absolute(candidate).lexically_normal().string();
    if (path.find_first_of(": ") != std::string::npos) {
      throw RunFolderError("the meter's path has a blank or a colon, which cannot be preloaded: " + path);
    }
    return path;
  }
  throw RunFolderError(
      "cannot read the meter " + candidates.front() + ": " + std::strerror(errno) +
      ". Say where libstress_scope.so is with --meter, or record without it with --no-meter.");
}

std::string SignalText(int signal) {
  const char* const name = sigabbrev_np(signal);
  return name == nullptr ? "signal " + std::to_string(signal) : "SIG" + std::string(name);
}

/// SIGINT, SIGTERM and SIGCHLD as something to wait for. As long as it lives they have no other effect, and a
/// closed pipe does not end this program.
class Signals {
 public:
  Signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&set, signal);
    (void)pthread_sigmask(SIG_BLOCK, &set, &before_);
    brokenPipe_ = std::signal(SIGPIPE, SIG_IGN);
    descriptor_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (descriptor_ < 0)
      throw std::runtime_error(std::string("cannot wait for signals: ") + std::strerror(errno));
  }
  ~Signals() {
    // One that came late would be delivered when the mask goes.
    int ignored = 0;
    while (Next(ignored)) continue;
    (void)close(descriptor_);
    (void)std::signal(SIGPIPE, brokenPipe_);
    (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  int Descriptor() const { return descriptor_; }

  bool Next(int& signal) const {
    signalfd_siginfo info{};
    if (read(descriptor_, &info, sizeof(info)) != ssize_t{sizeof(info)}) return false;
    signal = static_cast<int>(info.ssi_signo);
    return true;
  }

 private:
  int descriptor_ = -1;
  sigset_t before_{};
  void (*brokenPipe_)(int) = SIG_DFL;
};

/// One recording, from the start of the benchmark to the last file.
class Recording {
 public:
  Recording(const RecordOptions& options, View& view)
      : options_(options),
        view_(view),
        benchmark_(FindBenchmark(options.benchmark)),
        meterPath_(options.useMeter ? FindMeter(options.meter) : std::string()) {
    info_.config = ReadConfiguration(options.config, runTimeS_);
    if (options.runTimeS != 0) runTimeS_ = options.runTimeS;
    if (options.stopAfterS > 0)
      runTimeS_ = std::min(runTimeS_, static_cast<unsigned int>(std::ceil(options.stopAfterS)));
    writer_ = std::make_unique<RunWriter>(options.folder, options.force);
    info_.tool = kToolVersion;
    info_.kind = "record";
    info_.label = options.label;
    info_.conditions = ReadConditions(options.systemRoot);
    // Known of the benchmark that was built with this program, and of no other.
    if (options.benchmark.empty()) info_.conditions.buildType = STRESS_SCOPE_BUILD_TYPE;
    counters_ = std::make_unique<Counters>(options.systemRoot, KernelPerfEvents());
    info_.counters = counters_->Sources();
    info_.incompleteReason = "the recorder did not get to the end of the run";
  }

  RecordResult Run() {
    const Signals signals;
    info_.started = UtcNow();
    Save([this] {
      writer_->WriteInfo(info_);
      writer_->Add(std::vector<Rate>());
      if (options_.useMeter) writer_->Add(std::vector<Sample>());
    });
    Start();
    try {
      while (!childEnded_) Step(signals);
    } catch (...) {
      view_.End();
      throw;
    }
    view_.End();
    RecordResult result = Finish();
    // One that came since the last step: there is nothing to stop any more, and the caller is to know.
    for (int signal = 0; signals.Next(signal);) result.stopped = result.stopped || signal != SIGCHLD;
    return result;
  }

 private:
  void Start() {
    startNs_ = NowNs();
    lastLifeS_ = 0;
    meter_ = std::make_unique<MeterReader>(startNs_);
    ChildProcess::Options child;
    child.program = benchmark_;
    child.arguments = {options_.config};
    child.arguments.insert(child.arguments.end(), options_.extra.begin(), options_.extra.end());
    child.takeErrors = view_.TakesErrors();
    if (options_.useMeter) {
      const char* const others = std::getenv("LD_PRELOAD");
      const bool more = others != nullptr && *others != '\0';
      child.environment = {{"LD_PRELOAD", more ? meterPath_ + ":" + others : meterPath_},
                           {kDescriptorVariable, std::to_string(meter_->ChildEnd())}};
      child.inherit = meter_->ChildEnd();
    }
    child_ = std::make_unique<ChildProcess>(child);
    meter_->CloseChildEnd();
    outputOpen_ = true;
    errorsOpen_ = child.takeErrors;
  }

  double TimeS() const { return static_cast<double>(NowNs() - startNs_) * 1e-9; }

  void Step(const Signals& signals) {
    std::array<pollfd, 4> waits{{{signals.Descriptor(), POLLIN, 0},
                                 {meter_->Descriptor(), POLLIN, 0},
                                 {outputOpen_ ? child_->Output() : -1, POLLIN, 0},
                                 {errorsOpen_ ? child_->Errors() : -1, POLLIN, 0}}};
    (void)poll(waits.data(), waits.size(), kPollMs);
    for (int signal = 0; signals.Next(signal);) {
      if (signal == SIGCHLD) continue;
      signalled_ = true;
      Stop();
    }
    if (options_.stopAfterS > 0 && !stopped_ && TimeS() >= options_.stopAfterS) Stop();
    // Looked at before the pipes are read: what it wrote before it ended is in them then.
    childEnded_ = child_->HasEnded();
    ReadOutput();
    ReadMeter();
    if (counterTimeS_ <= TimeS()) ReadCounters();
    if (!childEnded_) WatchForHang();
  }

  void ReadOutput() {
    std::vector<std::string> lines;
    if (outputOpen_) outputOpen_ = output_.Read(child_->Output(), lines);
    for (const std::string& line : lines) {
      const double timeS = TimeS();
      lastLifeS_ = timeS;
      Save([&] { writer_->AddRateLine(line); });
      try {
        const std::vector<Rate> rates = ParseRateLine(line, timeS);
        Save([&] { writer_->Add(rates); });
      } catch (const RateLineError& error) {
        if (!toldBadLine_)
          Tell("the benchmark printed a line that is no rate line: " + std::string(error.what()));
        toldBadLine_ = true;
      }
    }
    lines.clear();
    if (errorsOpen_) errorsOpen_ = errors_.Read(child_->Errors(), lines);
    for (const std::string& line : lines) view_.ErrorLine(line);
  }

  void ReadMeter() {
    std::vector<MeterSecond> seconds;
    try {
      meter_->Read(seconds);
    } catch (const MeterError& error) {
      Fail(error.what());
      meterFailed_ = true;
      meter_ = std::make_unique<MeterReader>(startNs_);
      meter_->CloseChildEnd();
      child_->Signal(SIGINT);
    }
    for (const MeterSecond& second : seconds) {
      if (librariesDue_) ReadLibraries();
      const bool worked = std::any_of(second.samples.begin(), second.samples.end(),
                                      [](const Sample& sample) { return sample.operations != 0; });
      if (worked) lastLifeS_ = second.timeS;
      Save([&] { writer_->Add(second.samples); });
      const bool whole = second.timeS > figures_.TimeS() + kShownSecondS;
      figures_.Add(second);
      // The rates of what is left at the end are of a few operations.
      if (whole) view_.Second(figures_, second.timeS, runTimeS_);
    }
  }

  void ReadLibraries() {
    librariesDue_ = false;
    info_.conditions.meter = true;
    info_.conditions.libraryVersions =
        LibraryVersions("/proc/" + std::to_string(child_->Id()) + "/maps", meter_->PlatformPath());
    Save([this] { writer_->WriteInfo(info_); });
  }

  void ReadCounters() {
    const double timeS = TimeS();
    counterTimeS_ = timeS + kCounterPeriodS;
    const std::vector<CounterValue> values = counters_->Read(timeS);
    Save([&] { writer_->Add(values); });
  }

  // The first time asks it to end as it does at Ctrl-C; after that there is no asking. One Ctrl-C may come
  // twice: from the terminal, and from a program in between that passes it on.
  void Stop() {
    if (!stopped_) {
      stopped_ = true;
      stopTimeS_ = TimeS();
      child_->Signal(SIGINT);
    } else if (TimeS() > stopTimeS_ + kSameSignalS) {
      child_->Signal(SIGKILL);
    }
  }

  void WatchForHang() {
    const double nowS = TimeS();
    if (hung_) {
      if (nowS > stopTimeS_ + options_.graceS) child_->Signal(SIGKILL);
    } else if (stopped_ && nowS > stopTimeS_ + options_.graceS) {
      hung_ = true;
      Fail("the benchmark did not end within " + Seconds(options_.graceS) + " of SIGINT and was killed");
      child_->Signal(SIGKILL);
    } else if (!stopped_ && nowS > runTimeS_ + kUsualEndS && nowS > lastLifeS_ + options_.graceS) {
      hung_ = true;
      stopTimeS_ = nowS;
      Fail("the benchmark hangs: its run time of " + Seconds(runTimeS_) +
           " is over, and there was neither a rate line "
           "nor an operation for " +
           Seconds(options_.graceS));
      child_->Signal(SIGINT);
    }
  }

  static std::string Seconds(double seconds) {
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), "%.3g s", seconds);
    return text.data();
  }

  // Keeps what was recorded so far when the files cannot take more, and ends the run: its rest would be lost.
  template <typename Write>
  void Save(Write write) {
    if (writeFailed_) return;
    try {
      write();
    } catch (const RunFolderError& error) {
      writeFailed_ = true;
      Fail(std::string(error.what()) + "; what was recorded so far stays in " + writer_->Folder());
      if (child_ != nullptr && !stopped_) Stop();
    }
  }

  // The first reason is the one that the others follow from.
  void Fail(const std::string& reason) {
    if (!reason_.empty()) return;
    reason_ = reason;
    view_.End();
    Tell(reason);
  }

  RecordResult Finish() {
    info_.durationS = TimeS();
    info_.exitStatus = child_->ExitStatus();
    info_.signal = child_->EndSignal();
    if (info_.signal != 0) {
      Fail("the benchmark was ended by " + SignalText(info_.signal));
    } else if (info_.exitStatus != 0) {
      Fail("the benchmark ended with status " + std::to_string(info_.exitStatus) + "; its log says why");
    } else if (options_.useMeter && !meterFailed_ && !meter_->SaidHello()) {
      Fail("the meter did not answer: " + benchmark_ +
           " calls no platform library, or could not load the meter. "
           "There are rate lines at most.");
    } else if (options_.useMeter && !meterFailed_ && !meter_->SaidLast()) {
      Fail("the meter did not say that the program ends: its last samples are missing");
    }
    if (meter_->Unmeasured() != 0) {
      Tell(std::to_string(meter_->Unmeasured()) +
           " calls were not measured: more threads than the meter has room for");
    }
    if (meter_->DelayedSamples() != 0) {
      Tell(std::to_string(meter_->DelayedSamples()) +
           " samples came with the next second: the recorder was too slow");
    }
    info_.complete = reason_.empty();
    info_.incompleteReason = reason_;
    // Even after a failed write: there may be room for these again, and each stands on its own.
    writeFailed_ = false;
    if (options_.useMeter) Save([this] { writer_->WriteHistogram(meter_->HistogramRows()); });
    writeFailed_ = false;
    info_.complete = reason_.empty();
    info_.incompleteReason = reason_;
    Save([this] { writer_->WriteInfo(info_); });
    return {reason_.empty(), signalled_, reason_};
  }

  RecordOptions options_;
  View& view_;
  std::string benchmark_;
  std::string meterPath_;
  unsigned int runTimeS_ = 0;
  RunInfo info_;
  std::unique_ptr<RunWriter> writer_;
  std::unique_ptr<Counters> counters_;
  std::unique_ptr<MeterReader> meter_;
  std::unique_ptr<ChildProcess> child_;
  LineReader output_;
  LineReader errors_;
  Figures figures_;
  std::uint64_t startNs_ = 0;
  double counterTimeS_ = 0;
  double lastLifeS_ = 0;
  double stopTimeS_ = 0;
  std::string reason_;
  bool librariesDue_ = true;
  bool outputOpen_ = false;
  bool errorsOpen_ = false;
  bool childEnded_ = false;
  bool stopped_ = false;
  bool signalled_ = false;
  bool hung_ = false;
  bool writeFailed_ = false;
  bool meterFailed_ = false;
  bool toldBadLine_ = false;
};

}  // namespace

RecordResult Record(const RecordOptions& options, View& view) {
  Recording recording(options, view);
  return recording.Run();
}

void CheckRecord(const RecordOptions& options) {
  (void)FindBenchmark(options.benchmark);
  if (options.useMeter) (void)FindMeter(options.meter);
}

}  // namespace scope
