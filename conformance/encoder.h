// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "ormis/ormis.h"

namespace conformance {

/// Sets the members as the encode worker of that index does.
void Configure(Ormis::QetVenc& encoder, unsigned int index);

/// The encode worker's frame, in the caller's memory: 1920x1080, image type 2.
class Frame {
 public:
  Frame();

  /// Changes the picture a little, like the next picture of a film.
  void Next();

  /// Adds 100 to every byte of the picture, modulo 256.
  void ChangeAll();
  const Ormis::ImageData& Record() const { return record_; }

 private:
  std::vector<std::uint8_t> pixels_;
  Ormis::ImageData record_;
  std::uint32_t row_ = 0;
};

/// One cycle of the worker. Throws Failure if a status is not 0.
void EncodeOne(Ormis::QetVenc& encoder, Frame& frame);

}  // namespace conformance
