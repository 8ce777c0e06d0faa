// SPDX-License-Identifier: Apache-2.0
#include "channel.h"

#include "diagnostics.h"
#include "ormis/qet_image.h"
#include "state.h"

namespace Ormis {
namespace host {

namespace {

constexpr int kMaxChannels = 256;  // well above 40 workers; a caller that leaks channels gets an error

Table<int, Channel> channels;

}  // namespace

std::shared_ptr<Channel> FindChannel(int channel) {
  return channels.Find(channel);
}

Leftover ReclaimChannels() noexcept {
  return {channels.TakeAll().size(), 0};
}

}  // namespace host

std::int32_t QetCreateChannel(int& channel) {
  constexpr const char* kOperation = "QetCreateChannel";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireContext(kOperation); status != kQetOk) return status;
    const auto made = std::make_shared<host::Channel>();
    const auto wish = static_cast<unsigned int>(channel);  // a large number where it is negative
    if (wish < host::kMaxChannels && host::channels.Add(channel, made)) return kQetOk;
    // No look first: between a look and Add another thread could take the number.
    for (int number = 0; number < host::kMaxChannels; ++number) {
      if (host::channels.Add(number, made)) {
        channel = number;
        return kQetOk;
      }
    }
    return QET_FAIL(kOperation, kQetBusy,
                    "all " << host::kMaxChannels << " channels are in use: destroy one first");
  });
}

std::int32_t QetDestroyChannel(int channel) {
  constexpr const char* kOperation = "QetDestroyChannel";
  return host::Guarded(kOperation, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireContext(kOperation); status != kQetOk) return status;
    if (host::channels.Take(channel) == nullptr) {
      return QET_FAIL(kOperation, kQetUnknownChannel,
                      "no channel " << channel << ", expected a live one from QetCreateChannel");
    }
    return kQetOk;
  });
}

}  // namespace Ormis
