// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>

#include "area_scaler.h"

namespace Ormis::host {

/// One media-unit channel. Operations on it run one after the other.
struct Channel {
  std::mutex mutex;   ///< held for the whole of an operation on this channel
  AreaScaler scaler;  ///< holds scratch memory for the last sizes; guarded by `mutex`
};

/// Returns null when there is no such channel.
std::shared_ptr<Channel> FindChannel(int channel);

}  // namespace Ormis::host
