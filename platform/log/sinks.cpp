// SPDX-License-Identifier: Apache-2.0
#include "sinks.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "remote_port.h"
#include "remote_sink.h"

namespace ara::log {

namespace {

constexpr off_t kMaxLogFileBytes = off_t{10} << 20;

static_assert(64 +  // "\nara::log: " and the longest text that begins a message
                      2 * kMaxReportedBytes + Sink::kTailBytes <=
                  kMaxLineBytes,
              "the longest message about a sink must fit into one line");

// All of these are constant-initialised: other libraries log from their static initialisers.
[[clang::require_constant_initialization]] Sink console{STDERR_FILENO, Sink::Blocking::kPossible};
[[clang::require_constant_initialization]] Sink logFile{-1, Sink::Blocking::kNever};
[[clang::require_constant_initialization]] std::atomic<bool> fileLossReported{false};
// Created once and never destroyed: a thread may be about to log when the process ends.
[[clang::require_constant_initialization]] std::atomic<RemoteSink*> remote{nullptr};

// When a process is started without standard error, the first file that it opens gets that descriptor, and
// must not receive the log. This runs before any file is opened.
__attribute__((constructor)) void NoteMissingStandardError() {
  const int error = errno;
  if (fcntl(STDERR_FILENO, F_GETFD) < 0) console.Disable();
  errno = error;
}

/// Renames a log file that is larger than the limit. It replaces the file that was renamed before.
void RotateLogFile(const std::string& path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= kMaxLogFileBytes)
    return;
  if (std::rename(path.c_str(), (path + ".1").c_str()) != 0)
    ReportProblem("cannot move ", path, ErrorText(errno));
}

void StopRemoteSink() {
  const std::uint64_t lost = remote.load()->Stop();
  if (lost == 0) return;
  ReportProblem("records lost on the way to the DLT daemon", "",
                (remote.load()->LostIsUpperBound() ? "up to " : "") + std::to_string(lost));
}

void AbandonRemoteSink() {
  remote.load()->Abandon();
}

}  // namespace

void ReportProblem(FixedText::View what, FixedText::View item, FixedText::View reason) {
  char buffer[kMaxLineBytes];
  FixedText line(buffer, sizeof buffer);
  line.Append("\nara::log: ");
  line.Append(what);
  line.AppendEscaped(item, kMaxReportedBytes);
  line.Append(reason.empty() ? "" : ": ");
  line.AppendEscaped(reason, kMaxReportedBytes);
  console.Deliver(line);
}

void DeliverToConsole(const FixedText& line) {
  console.Deliver(line);
}

bool OpenLogFile(const std::string& folder, const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    ReportProblem("cannot make folder ", folder, error.message());
    return false;
  }
  RotateLogFile(path);
  // Non-blocking: to open a pipe without a reader would block the application.
  const int opened =
      open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
  // Never one of the standard streams: if one of them is closed, output that is meant for it would go to the
  // log.
  const int descriptor = opened < 0 ? -1 : fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int duplicationError = errno;
  if (opened >= 0) close(opened);
  errno = duplicationError;
  if (descriptor < 0 || !logFile.Replace(descriptor)) {
    ReportProblem("cannot open ", path, ErrorText(errno));
    return false;
  }
  fileLossReported.store(false);
  return true;
}

void DeliverToFile(const FixedText& line, const char* path) {
  const char* const reason = logFile.Deliver(line);
  if (reason != nullptr && !fileLossReported.exchange(true)) ReportProblem("cannot write ", path, reason);
}

bool StartRemoteSink(const std::string& appId, const std::string& appDescription) {
  static bool reported = false;
  if (remote.load() == nullptr) {
    std::string reason;
    std::unique_ptr<RemotePort> port = MakeDltPort(console.Disabled(), &reason);
    if (port != nullptr) {
      auto sink = std::make_unique<RemoteSink>(std::move(port));
      sink->SetApplication(appId, appDescription);
      reason = sink->Start();
      if (reason.empty()) {
        remote.store(sink.release());
        // Registered after the start, so that it runs before libdlt's own handler.
        (void)std::atexit(StopRemoteSink);
        (void)pthread_atfork(nullptr, nullptr, AbandonRemoteSink);
        return true;
      }
    }
    if (!reported) {
      ReportProblem("the remote sink is not available", reason.empty() ? " in this build" : "", reason);
    }
    reported = true;
    return false;
  }
  remote.load()->SetApplication(appId, appDescription);
  return true;
}

bool DeliverToRemoteSink(const RemoteHeader& header, FixedText::View text) {
  return remote.load(std::memory_order_relaxed)->Deliver(header, text);
}

}  // namespace ara::log
