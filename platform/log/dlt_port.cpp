// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <dlt/dlt_common.h>
#include <dlt/dlt_types.h>
#include <dlt/dlt_user.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "remote_port.h"

namespace ara::log {

namespace {

// The protocol has the same numbers for the levels.
static_assert(static_cast<int>(LogLevel::kFatal) == DLT_LOG_FATAL &&
              static_cast<int>(LogLevel::kError) == DLT_LOG_ERROR &&
              static_cast<int>(LogLevel::kWarn) == DLT_LOG_WARN &&
              static_cast<int>(LogLevel::kInfo) == DLT_LOG_INFO &&
              static_cast<int>(LogLevel::kDebug) == DLT_LOG_DEBUG &&
              static_cast<int>(LogLevel::kVerbose) == DLT_LOG_VERBOSE);

// The headers of a message to the daemon: libdlt's own, and the protocol's standard and extended header.
constexpr std::size_t kUserHeaderBytes = 8;
constexpr std::size_t kHeaderBytes =
    kUserHeaderBytes + sizeof(DltStandardHeader) + sizeof(DltStandardHeaderExtra) + sizeof(DltExtendedHeader);
// Each argument begins with its type. A text also has its length and a terminator.
constexpr std::size_t kThreadIdBytes = sizeof(std::uint32_t) + sizeof(std::uint32_t);
constexpr std::size_t kTextOverheadBytes = sizeof(std::uint32_t) + sizeof(std::uint16_t) + 1;
static_assert(kHeaderBytes + kThreadIdBytes + kTextOverheadBytes + RemoteRecord::kTextCapacity <=
                  DLT_USER_BUF_MAX_SIZE,
              "the longest record must fit into a message");

/// The functions of libdlt. The library is loaded only when the remote sink is asked for; other runs neither
/// need nor load it.
struct LibDlt {
  decltype(&dlt_init) init;
  decltype(&dlt_free) free;
  decltype(&dlt_register_app) registerApp;
  decltype(&dlt_unregister_app) unregisterApp;
  decltype(&dlt_register_context_ll_ts) registerContext;
  decltype(&dlt_unregister_context) unregisterContext;
  decltype(&dlt_user_log_write_start) writeStart;
  decltype(&dlt_user_log_write_uint32) writeUint32;
  decltype(&dlt_user_log_write_sized_utf8_string) writeText;
  decltype(&dlt_user_log_write_finish) writeFinish;
  decltype(&dlt_user_log_resend_buffer) resend;
  decltype(&dlt_user_check_buffer) checkBuffer;
  decltype(&dlt_set_resend_timeout_atexit) setTimeoutAtExit;
  decltype(&dlt_log_init) initOwnLog;
  decltype(&dlt_log_set_level) setOwnLogLevel;

  /// Loads the library. Returns false and sets `reason` when that failed.
  bool Load(std::string* reason) {
    void* const library = dlopen("libdlt.so.2", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      *reason = dlerror();
      return false;
    }
    const auto find = [&](auto& function, const char* name) {
      function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
      if (function == nullptr) *reason = std::string("libdlt.so.2 has no ") + name;
      return function != nullptr;
    };
    return find(init, "dlt_init") && find(free, "dlt_free") && find(registerApp, "dlt_register_app") &&
           find(unregisterApp, "dlt_unregister_app") && find(registerContext, "dlt_register_context_ll_ts") &&
           find(unregisterContext, "dlt_unregister_context") &&
           find(writeStart, "dlt_user_log_write_start") && find(writeUint32, "dlt_user_log_write_uint32") &&
           find(writeText, "dlt_user_log_write_sized_utf8_string") &&
           find(writeFinish, "dlt_user_log_write_finish") && find(resend, "dlt_user_log_resend_buffer") &&
           find(checkBuffer, "dlt_user_check_buffer") &&
           find(setTimeoutAtExit, "dlt_set_resend_timeout_atexit") && find(initOwnLog, "dlt_log_init") &&
           find(setOwnLogLevel, "dlt_log_set_level");
  }
};

/// Removes a variable from the environment while this object exists, if the variable has this value.
class VariableHidden {
 public:
  VariableHidden(const char* name, const char* value) : name_(name), value_(value) {
    const char* const current = std::getenv(name);
    hidden_ = current != nullptr && std::strcmp(current, value) == 0;
    if (hidden_) (void)unsetenv(name);
  }
  ~VariableHidden() {
    if (hidden_) (void)setenv(name_, value_, 1);
  }
  VariableHidden(const VariableHidden&) = delete;
  VariableHidden& operator=(const VariableHidden&) = delete;

 private:
  const char* const name_;
  const char* const value_;
  bool hidden_;
};

/// Watches the pipe through which libdlt sends its messages to the daemon. The protocol acknowledges nothing,
/// so the pipe alone tells how many bytes a daemon that died has not read. It does not tell whose they are:
/// all applications of the machine write to one pipe. Where libdlt reaches the daemon in another way, this
/// sees nothing.
class DaemonPipe {
 public:
  DaemonPipe() {
    const char* const folder = std::getenv("DLT_PIPE_DIR");
    path_ = std::string(folder != nullptr ? folder : "/tmp") + "/dlt";
  }
  ~DaemonPipe() { Close(); }
  DaemonPipe(const DaemonPipe&) = delete;
  DaemonPipe& operator=(const DaemonPipe&) = delete;

  /// Opens the pipe of the present daemon, unless one is open already.
  void Open() {
    if (descriptor_ >= 0) return;
    descriptor_ = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  }
  void Close() {
    if (descriptor_ >= 0) close(descriptor_);
    descriptor_ = -1;
  }
  /// True when the pipe is open here and has no reader any more.
  bool Broken() const {
    pollfd request{descriptor_, 0, 0};
    return descriptor_ >= 0 && poll(&request, 1, 0) > 0 && (request.revents & POLLERR) != 0;
  }
  std::size_t UnreadBytes() const {
    int bytes = 0;
    return ioctl(descriptor_, FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
  }

 private:
  std::string path_;
  int descriptor_ = -1;
};

/// The sizes of the last messages.
class SentSizes {
 public:
  void Add(std::size_t bytes) { sizes_[count_++ % sizes_.size()] = static_cast<std::uint16_t>(bytes); }
  void Clear() { count_ = 0; }

  /// Returns how many of the last messages make up this many bytes.
  std::uint64_t MessagesIn(std::size_t bytes) const {
    std::uint64_t messages = 0;
    for (std::size_t sum = 0; sum < bytes && messages < std::min<std::uint64_t>(count_, sizes_.size());) {
      ++messages;
      sum += sizes_[(count_ - messages) % sizes_.size()];
    }
    return messages;
  }

 private:
  std::array<std::uint16_t, 16384> sizes_{};  // enough for the shortest messages in the largest pipe, 1 MiB
  std::uint64_t count_ = 0;
};

class DltPort : public RemotePort {
 public:
  DltPort(const LibDlt& dlt, bool silent) : dlt_(dlt), silent_(silent) {}

  const char* Open() override {
    // Standard output belongs to the application. With these settings libdlt would write its own messages and
    // the records there.
    const VariableHidden noMessages("DLT_LOG_MODE", "0");
    const VariableHidden noRecords("DLT_LOCAL_PRINT_MODE", "FORCE_ON");
    const VariableHidden noUnsentRecords("DLT_LOCAL_PRINT_MODE", "AUTOMATIC");
    dlt_.initOwnLog(DLT_LOG_TO_STDERR);
    if (silent_) dlt_.setOwnLogLevel(LOG_EMERG);

    // libdlt makes the whole process ignore SIGPIPE; that is undone here. libdlt writes only in threads in
    // which the signal is blocked: this one and those that it starts here.
    struct sigaction onBrokenPipe{};
    (void)sigaction(SIGPIPE, nullptr, &onBrokenPipe);
    const DltReturnValue result = dlt_.init();
    (void)sigaction(SIGPIPE, &onBrokenPipe, nullptr);
    if (result < DLT_RETURN_OK) {
      Finish();
      return "libdlt cannot be initialised";
    }
    // Otherwise the exit of the process would wait up to 10 s for a daemon.
    (void)dlt_.setTimeoutAtExit(0);
    return nullptr;
  }

  void SetApplication(const std::string& id, const std::string& description) override {
    if (registered_) {
      for (auto& [number, handle] : contexts_) (void)dlt_.unregisterContext(&handle);
      contexts_.clear();
      (void)dlt_.unregisterApp();
    }
    (void)dlt_.registerApp(id.c_str(), description.c_str());
    registered_ = true;
    if (Waiting() == 0) pipe_.Open();
  }

  bool Send(const RemoteRecord& record) override {
    DltContext* const context = ContextOf(record);
    if (context == nullptr) return false;
    DltContextData message{};
    const DltReturnValue enabled =
        dlt_.writeStart(context, &message, static_cast<DltLogLevelType>(record.header.level));
    // The daemon's user has switched this level off for the context. Nothing is sent, and nothing is lost.
    if (enabled == DLT_RETURN_OK) return true;
    if (enabled < DLT_RETURN_OK) return false;
    message.use_timestamp = DLT_USER_TIMESTAMP;
    message.user_timestamp = record.uptime;
    // They fail when DLT_LOG_MSG_BUF_LEN leaves too little room. The message is then sent without them.
    (void)dlt_.writeUint32(&message, record.header.threadId);
    (void)dlt_.writeText(&message, record.text, static_cast<std::uint16_t>(record.textLength));
    if (dlt_.writeFinish(&message) < DLT_RETURN_OK) return false;
    unsettledBytes_ = kHeaderBytes + kThreadIdBytes + kTextOverheadBytes + record.textLength;
    return true;
  }

  State Settle() override {
    // libdlt keeps in its buffer what the daemon has not taken.
    if (Waiting() > 0) {
      NoteLeftBehind();
      const DltReturnValue result = dlt_.resend();
      if (Waiting() > 0) return result == DLT_RETURN_PIPE_FULL ? State::kBusy : State::kAway;
    }
    pipe_.Open();
    if (unsettledBytes_ > 0) sizes_.Add(unsettledBytes_);
    unsettledBytes_ = 0;
    return State::kIdle;
  }

  std::uint64_t TakeLeftBehind() override {
    const std::uint64_t taken = leftBehind_;
    leftBehind_ = 0;
    return taken;
  }

  void Close() override {
    NoteLeftBehind();
    Finish();
  }

 private:
  /// Returns null when there is no memory.
  DltContext* ContextOf(const RemoteRecord& record) {
    auto context = contexts_.find(record.header.context);
    if (context == contexts_.end()) {
      try {
        context = contexts_.try_emplace(record.header.context).first;
      } catch (const std::bad_alloc&) {
        return nullptr;
      }
      char id[sizeof record.header.contextId + 1] = {};
      std::memcpy(id, &record.header.contextId, sizeof record.header.contextId);
      // All levels are enabled: the application's thresholds have been applied already.
      (void)dlt_.registerContext(
          &context->second, id,
          record.header.contextDescription != nullptr ? record.header.contextDescription : "",
          DLT_LOG_VERBOSE, DLT_TRACE_STATUS_OFF);
    }
    return &context->second;
  }

  int Waiting() const {
    int total = 0;
    int used = 0;
    return dlt_.checkBuffer(&total, &used) < DLT_RETURN_OK ? 0 : used;
  }

  void NoteLeftBehind() {
    if (!pipe_.Broken()) return;
    leftBehind_ += sizes_.MessagesIn(pipe_.UnreadBytes());
    sizes_.Clear();
    pipe_.Close();
  }

  /// Ends libdlt here, so that its exit handler has nothing to do. libdlt would write a message about that at
  /// every exit; the level suppresses it.
  void Finish() {
    dlt_.setOwnLogLevel(silent_ ? LOG_EMERG : LOG_CRIT);
    (void)dlt_.unregisterApp();
    (void)dlt_.free();
  }

  const LibDlt dlt_;
  const bool silent_;
  std::map<std::uint32_t, DltContext> contexts_;
  bool registered_ = false;
  DaemonPipe pipe_;
  SentSizes sizes_;                 ///< of the messages in the pipe and some before them
  std::size_t unsettledBytes_ = 0;  ///< size of the last message, which is in the pipe or in libdlt's buffer
  std::uint64_t leftBehind_ = 0;
};

}  // namespace

std::unique_ptr<RemotePort> MakeDltPort(bool silent, std::string* reason) {
  LibDlt dlt{};
  if (!dlt.Load(reason)) return nullptr;
  return std::make_unique<DltPort>(dlt, silent);
}

}  // namespace ara::log
