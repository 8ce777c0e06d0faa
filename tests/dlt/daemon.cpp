// SPDX-License-Identifier: Apache-2.0
#include "daemon.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <string_view>
#include <thread>

namespace {

std::filesystem::path FindTool(const std::string& name) {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "/usr/bin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::filesystem::path file = std::filesystem::path(folder) / name;
    if (access(file.c_str(), X_OK) == 0) return file;
  }
  return {};
}

/// Returns a port that is free at the moment; 0 when there is no IPv6.
int FreePort() {
  const int descriptor = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  socklen_t length = sizeof address;
  int port = 0;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (descriptor >= 0 && bind(descriptor, generic, length) == 0 &&
      getsockname(descriptor, generic, &length) == 0) {
    port = ntohs(address.sin6_port);
  }
  if (descriptor >= 0) close(descriptor);
  return port;
}

/// How to start a tool whose output is dropped, so that it never waits for a reader.
Launch Silent(const std::string& tool, const std::filesystem::path& folder) {
  Launch launch;
  launch.program = FindTool(tool);
  launch.directory = folder;
  launch.standardOutput = Launch::Output::kFull;
  launch.standardError = false;
  return launch;
}

// "12 2025/01/31 23:59:59.123456 62430001 003 ECU1 STBM STBM log info V 2 [4711 text]". Not by a regular
// expression, which takes a sanitizer a minute for a flood of messages.
std::optional<DltMessage> ParseMessage(std::string_view line) {
  const auto nextWord = [&line] {
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(word.size());
    return std::string(word);
  };
  for (int skipped = 0; skipped < 6; ++skipped) (void)nextWord();  // up to the control unit
  DltMessage message;
  message.application = nextWord();
  message.context = nextWord();
  if (nextWord() != "log") return std::nullopt;
  message.level = nextWord();
  if (nextWord() != "V") return std::nullopt;
  (void)nextWord();  // the number of arguments
  message.threadId = nextWord();
  const std::size_t end = line.find_last_not_of(' ');
  if (message.threadId.size() < 2 || message.threadId[0] != '[' ||
      message.threadId.find_first_not_of("0123456789", 1) != std::string::npos ||
      end == std::string_view::npos || end == 0 || line[end] != ']') {
    return std::nullopt;
  }
  message.threadId.erase(0, 1);
  message.text = line.substr(1, end - 1);
  // The protocol's ids have four characters; the tool prints missing ones as hyphens.
  for (std::string* id : {&message.application, &message.context}) id->erase(id->find_last_not_of('-') + 1);
  return message;
}

}  // namespace

void WaitUntil(const std::function<bool()>& condition, const std::string& what) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      FAIL() << "waited too long for " << what;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string DltDaemon::Missing() {
#if !STRESS_HAVE_DLT
  return "the build has no remote sink: libdlt's headers were not found";
#endif
  for (const std::string tool : {"dlt-daemon", "dlt-receive", "dlt-convert"}) {
    if (FindTool(tool).empty()) {
      return tool +
             " is not installed (Debian packages dlt-daemon and dlt-tools; ./scripts/setup --dev installs "
             "them)";
    }
  }
  return FreePort() == 0 ? "there is no IPv6 loopback, which the daemon needs" : "";
}

void DltDaemon::Start() {
  const std::string port = std::to_string(FreePort());
  const std::string received = "received" + std::to_string(starts_++);
  std::ofstream(folder_ / "dlt.conf") << "BindAddress = ::1\n"
                                      << "LoggingMode = 2\n"
                                      << "LoggingLevel = " << (logsRegistrations_ ? 7 : 6) << "\n"
                                      << "LoggingFilename = " << (folder_ / "daemon.log").string() << "\n"
                                      << "PersistanceStoragePath = " << folder_.string() << "\n"
                                      << "ControlSocketPath = " << (folder_ / "control").string() << "\n";
  Launch daemon = Silent("dlt-daemon", folder_);
  daemon.arguments = {"-t", folder_.string(), "-c", (folder_ / "dlt.conf").string(), "-p", port};
  daemon_ = std::make_unique<Program>(daemon);
  WaitUntil([&] { return std::filesystem::is_fifo(folder_ / "dlt"); }, "the daemon's pipe");

  // The daemon does not listen at once, so the receiver may have to be started again.
  WaitUntil(
      [&] {
        if (receiver_ == nullptr || !receiver_->Running()) {
          Launch receiver = Silent("dlt-receive", folder_);
          receiver.arguments = {"-o", (folder_ / received).string(), "-p", port, "::1"};
          receiver_ = std::make_unique<Program>(receiver);
          receiver_->RunFor(std::chrono::milliseconds(100));
        }
        return std::filesystem::exists(folder_ / received) &&
               std::filesystem::file_size(folder_ / received) > 0;
      },
      "the receiver's first message");
}

void DltDaemon::KillUnderTheReceiver() {
  daemon_->Signal(SIGKILL);
  (void)daemon_->Wait();
  (void)receiver_->Wait();
}

void DltDaemon::Kill() {
  receiver_.reset();
  daemon_.reset();
}

int DltDaemon::UnreadBytes() const {
  const int pipe = open((folder_ / "dlt").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  int bytes = 0;
  EXPECT_EQ(ioctl(pipe, FIONREAD, &bytes), 0);
  (void)close(pipe);
  return bytes;
}

std::string DltDaemon::Raw() const {
  std::ostringstream content;
  for (int i = 0; i < starts_; ++i) {
    content << std::ifstream(folder_ / ("received" + std::to_string(i)), std::ios::binary).rdbuf();
  }
  return content.str();
}

void DltDaemon::WaitFor(const std::string& text) const {
  WaitUntil([&] { return Raw().find(text) != std::string::npos; }, text);
}

void DltDaemon::WaitForOwnLog(const std::string& text) const {
  const auto content = [&] {
    std::ostringstream log;
    log << std::ifstream(folder_ / "daemon.log", std::ios::binary).rdbuf();
    return log.str();
  };
  WaitUntil([&] { return content().find(text) != std::string::npos; }, text);
}

std::vector<DltMessage> DltDaemon::Received(const std::string& application) const {
  std::vector<DltMessage> messages;
  for (int i = 0; i < starts_; ++i) {
    Launch convert;
    convert.program = FindTool("dlt-convert");
    convert.arguments = {"-a", (folder_ / ("received" + std::to_string(i))).string()};
    Program program(convert);
    for (const std::string& line : program.Wait().OutputLines()) {
      const std::optional<DltMessage> message = ParseMessage(line);
      if (message && message->application == application) messages.push_back(*message);
    }
  }
  return messages;
}

void DltTest::SetUp() {
  const std::string missing = DltDaemon::Missing();
  if (!missing.empty()) GTEST_SKIP() << missing;
}

Launch DltTest::Probe(std::vector<std::string> words) const {
  Launch launch = With(std::move(words));
  launch.program = LOG_PROBE;
  launch.environment["DLT_PIPE_DIR"] = Directory().string();
  return launch;
}

Launch DltTest::RemoteProbe(const std::vector<std::string>& words) const {
  std::vector<std::string> all = {"init", "STBM", "4", "1", "./log", "logger", "STBM", "6"};
  all.insert(all.end(), words.begin(), words.end());
  return Probe(all);
}

void DltTest::WaitForFile(const std::string& name) const {
  WaitUntil([&] { return Exists(name); }, name);
}

std::uint64_t ReportedLosses(const Ending& ending) {
  static const std::regex shape("ara::log: records lost on the way to the DLT daemon: (?:up to )?(\\d+)");
  std::uint64_t lost = 0;
  int reports = 0;
  for (const std::string& line : ending.ErrorLines()) {
    std::smatch match;
    if (!std::regex_match(line, match, shape)) continue;
    lost = std::stoull(match[1]);
    ++reports;
  }
  EXPECT_LE(reports, 1) << ending;
  return lost;
}
