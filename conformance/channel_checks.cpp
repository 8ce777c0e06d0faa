// SPDX-License-Identifier: Apache-2.0
#include <set>

#include "check.h"
#include "worker.h"

namespace conformance {

namespace {

void CreateAndDestroy(Session&) {
  const Device device;
  for (int round = 0; round < 3; ++round) {
    int channel = 0;
    RequireOk(Ormis::QetCreateChannel(channel), "QetCreateChannel");
    RequireOk(Ormis::QetDestroyChannel(channel), "QetDestroyChannel");
  }
}

void NumberHandedBack(Session&) {
  constexpr int kWorkers = 10;  // the highest level
  const Device device;
  const Image source(64, 64);
  const Image destination(32, 32);
  std::set<int> numbers;
  for (int index = 0; index < kWorkers; ++index) {
    int channel = index;
    RequireOk(Ormis::QetCreateChannel(channel), "QetCreateChannel");
    const std::string which =
        "channel " + std::to_string(channel) + ", created with " + std::to_string(index) + ", ";
    Require(numbers.insert(channel).second, which + "is in use already");
    const std::int32_t status =
        Ormis::QetImageResize(channel, source.record, destination.record, Ormis::kQetInterpolationArea, -1);
    Require(status == 0, which + "does not resize: QetImageResize returned " + std::to_string(status));
  }
  for (const int channel : numbers) (void)Ormis::QetDestroyChannel(channel);
}

}  // namespace

std::vector<Check> ChannelChecks() {
  return {
      {"channel.create-destroy", "QetCreateChannel and QetDestroyChannel return 0, again and again",
       CreateAndDestroy},
      {"channel.number-handed-back",
       "QetCreateChannel leaves the number of a channel that resizes, another one for each of ten workers",
       NumberHandedBack},
  };
}

}  // namespace conformance
