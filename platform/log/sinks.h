// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/limits.h>

#include <cstddef>
#include <string>

#include "fixed_text.h"
#include "record_queue.h"
#include "sink.h"

namespace ara::log {

/// The places that records go to: the console, the log file and the remote sink. A process has one of each.
/// Threads: unless said otherwise the functions may be called from any thread and from signal handlers.

/// The most bytes of a line. A longer write to a pipe may be torn.
constexpr std::size_t kMaxLineBytes = PIPE_BUF;

/// The most bytes of a path or of a reason in a message about a sink.
constexpr std::size_t kMaxReportedBytes = 1023;

/// Writes one line about a problem to standard error: "ara::log: WHAT ITEM: REASON", without ": REASON" when
/// the reason is empty.
void ReportProblem(FixedText::View what, FixedText::View item, FixedText::View reason);

/// Writes a record's line to standard error.
void DeliverToConsole(const FixedText& line);

/// Opens `path` in `folder` as the log file; from here on lines go to it. Creates the folder if it is missing
/// and renames a file that has grown too large. Returns false when that failed; the reason has been reported
/// then. Threads: one caller at a time, no signal handler.
bool OpenLogFile(const std::string& folder, const std::string& path);

/// Writes a record's line to the log file. The first line that a file loses is reported under `path`.
void DeliverToFile(const FixedText& line, const char* path);

/// Starts the remote sink, or names the application when it runs already. Returns false when there is none;
/// the reason is reported once. Threads: one caller at a time, no signal handler.
bool StartRemoteSink(const std::string& appId, const std::string& appDescription);

/// Queues a record for the remote sink. Requires: StartRemoteSink has returned true. Returns false when the
/// sink has been stopped.
bool DeliverToRemoteSink(const RemoteHeader& header, FixedText::View text);

}  // namespace ara::log
