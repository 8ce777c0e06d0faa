// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>
#include <string>
#include <utility>

#include "diagnostics.h"
#include "ormis/qet_context.h"
#include "ormis/qet_host.h"
#include "settings.h"
#include "state.h"

namespace Ormis {
namespace host {

namespace {

struct Context {};

std::atomic<std::uint64_t> processContextId{0};  // 0: the platform is not initialised
Table<std::uint64_t, Context> contexts;
thread_local std::uint64_t currentContextId{};

constexpr std::uint32_t kDeviceId = 0;               // one machine, one device
constexpr char kSettingsFile[] = "ormis/host.yaml";  // beside the library

/// Reads the settings from the file that `configuration` names, or from the platform's own, which may be
/// missing. `from` says where they come from. Returns the empty string or the reason of the failure.
std::string FindSettings(const std::string& configuration, Settings& settings, std::string& from) {
  from = configuration.empty() ? PathBesideLibrary(kSettingsFile) : configuration;
  if (configuration.empty() && access(from.c_str(), F_OK) != 0 && errno == ENOENT) {
    from = "defaults, without the file " + from;
    return {};
  }
  return ReadSettings(from, settings);
}

std::int32_t RequireInitialized(const char* operation) {
  if (processContextId != 0) return kQetOk;
  return QET_FAIL(operation, kQetNotInitialized, "the platform is not initialised: call QetInitialize first");
}

struct LeftoverKind {
  const char* name;
  Leftover left;
};

/// Lists the kinds of which something was left, with counts.
template <std::size_t kCount>
std::string Describe(const LeftoverKind (&kinds)[kCount]) {
  std::string text;
  for (const auto& [name, left] : kinds) {
    if (left.count == 0) continue;
    if (!text.empty()) text += ", ";
    text += std::to_string(left.count) + " " + name + (left.count == 1 ? "" : "s");
    if (left.bytes != 0) text += " (" + std::to_string(left.bytes) + " bytes)";
  }
  return text;
}

}  // namespace

ara::log::Logger& Log() {
  static ara::log::Logger& logger = ara::log::CreateLogger("QET", "accelerator platform, host implementation",
                                                           ara::log::LogLevel::kVerbose);
  return logger;
}

std::uint64_t NextId() {
  static std::atomic<std::uint64_t> last{};
  return ++last;
}

std::int32_t RequireContext(const char* operation) {
  if (const std::int32_t status = RequireInitialized(operation); status != kQetOk) return status;
  // A thread stays bound to a destroyed context. Ids are never used again, so it is not found here.
  if (contexts.Find(currentContextId) == nullptr) {
    return QET_FAIL(
        operation, kQetNoContext,
        "no live context is bound to this thread: call QetCreateContext and QetSetCurrentContext first");
  }
  return kQetOk;
}

}  // namespace host

std::int32_t QetInitialize(QetContext& context, const QetContextParameters& parameters) {
  return host::Guarded(__func__, [&]() -> std::int32_t {
    host::Settings settings;
    std::string from;
    if (const std::string fault = host::FindSettings(parameters.configuration, settings, from);
        !fault.empty()) {
      return QET_FAIL("QetInitialize", kQetInvalidArgument, fault);
    }
    if (parameters.deviceId != host::kDeviceId) {
      return QET_FAIL("QetInitialize", kQetInvalidArgument,
                      "no device " << parameters.deviceId << ", expected 0");
    }
    // What may throw comes before the platform counts as initialised.
    const std::string effect = from + ":" + host::SettingsText(settings);
    const std::uint64_t id = host::NextId();
    std::uint64_t none{};
    if (!host::processContextId.compare_exchange_strong(none, id)) {
      return QET_FAIL("QetInitialize", kQetAlreadyInitialized, "the platform is initialised already");
    }
    host::UseSettings(std::move(settings));
    context.id = id;
    host::Log().LogInfo({__FILE__, "QetInitialize", __LINE__}) << "QetInitialize: settings: " << effect;
    return kQetOk;
  });
}

std::int32_t QetRelease(QetContext& context) {
  return host::Guarded(__func__, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireInitialized("QetRelease"); status != kQetOk) return status;
    if (context.id != host::processContextId) {
      return QET_FAIL("QetRelease", kQetUnknownContext, "this is not the context that QetInitialize filled");
    }
    // In the order of a worker's tear-down: channels and contexts go after what uses them.
    const host::LeftoverKind kinds[] = {
        {"model", host::ReclaimModels()},
        {"encoder", host::ReclaimEncoders()},
        {"image", host::ReclaimImages()},
        {"channel", host::ReclaimChannels()},
        {"context", {host::contexts.TakeAll().size(), 0}},
    };
    host::processContextId = 0;
    context = QetContext{};
    // The release has succeeded. Want of memory for the log line must not turn it into a failure.
    try {
      const std::string left = host::Describe(kinds);
      if (!left.empty()) {
        host::Log().LogInfo({__FILE__, "QetRelease", __LINE__})
            << "QetRelease: gave back what was left: " << left;
      }
    } catch (const std::bad_alloc&) {
      host::Log().LogInfo({__FILE__, "QetRelease", __LINE__})
          << "QetRelease: gave back what was left; memory is too short to say what";
    }
    return kQetOk;
  });
}

std::int32_t QetCreateContext(QetContext& context) {
  return host::Guarded(__func__, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireInitialized("QetCreateContext"); status != kQetOk)
      return status;
    if (context.deviceId != host::kDeviceId) {
      return QET_FAIL("QetCreateContext", kQetInvalidArgument,
                      "no device " << context.deviceId << ", expected 0");
    }
    if (context.id != 0) {
      return QET_FAIL(
          "QetCreateContext", kQetAlreadyInitialized,
          "the record holds context " << std::to_string(context.id) << " already, expected an empty one");
    }
    const std::uint64_t id = host::NextId();
    host::contexts.Add(id, std::make_shared<host::Context>());
    context.id = id;
    return kQetOk;
  });
}

std::int32_t QetSetCurrentContext(QetContext& context) {
  return host::Guarded(__func__, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireInitialized("QetSetCurrentContext"); status != kQetOk) {
      return status;
    }
    if (host::contexts.Find(context.id) == nullptr) {
      return QET_FAIL(
          "QetSetCurrentContext", kQetUnknownContext,
          "no live context " << std::to_string(context.id) << ", expected one from QetCreateContext");
    }
    host::currentContextId = context.id;
    return kQetOk;
  });
}

std::int32_t QetDestroyContext(QetContext& context) {
  return host::Guarded(__func__, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireInitialized("QetDestroyContext"); status != kQetOk)
      return status;
    if (host::contexts.Take(context.id) == nullptr) {
      return QET_FAIL(
          "QetDestroyContext", kQetUnknownContext,
          "no live context " << std::to_string(context.id) << ", expected one from QetCreateContext");
    }
    context = QetContext{};
    return kQetOk;
  });
}

std::uint32_t QetHostVersion() {
  return 1;
}

}  // namespace Ormis
