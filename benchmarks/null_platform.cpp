// SPDX-License-Identifier: Apache-2.0

/// A platform library whose operations touch no memory: they do nothing, or compute in registers for
/// WORK_STEPS steps and a small multiple of that.
#include <cstdint>

#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"

namespace {

void Compute(std::uint64_t units) {
  std::uint64_t word = 1;
  for (std::uint64_t step = 0; step < units * WORK_STEPS; ++step) {
    word = word * 6364136223846793005U + 1;
    // The result is used, as far as the compiler knows.
    asm volatile("" : "+r"(word));
  }
}

}  // namespace

int memcpy_s(void* /*destination*/, std::size_t /*destinationMax*/, const void* /*source*/,
             std::size_t /*count*/) {
  Compute(1);
  return 0;
}

namespace Ormis {

std::int32_t QetImageResize(int /*channel*/, const ImageData& /*source*/, const ImageData& /*destination*/,
                            QetImageInterpolationType /*interpolation*/, int /*timeoutMs*/) {
  Compute(2);
  return 0;
}

QetVenc::~QetVenc() {}

std::int32_t QetVenc::SendFrame(const ImageData& /*frame*/) {
  Compute(3);
  return 0;
}

std::int32_t QetVenc::GetStream(ux_venc_stream& /*stream*/) {
  return 0;
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& /*stream*/) {
  return 0;
}

std::int32_t QetDNNModelInitialize(QetDNNHandle& /*handle*/, const std::string& /*path*/) {
  return 0;
}

std::int32_t QetDNNModelProcess(const QetDNNHandle& /*handle*/) {
  Compute(4);
  return 0;
}

}  // namespace Ormis
