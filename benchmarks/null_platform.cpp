// SPDX-License-Identifier: Apache-2.0

/// A platform library whose operations do nothing.
#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"

int memcpy_s(void* /*destination*/, std::size_t /*destinationMax*/, const void* /*source*/,
             std::size_t /*count*/) {
  return 0;
}

namespace Ormis {

std::int32_t QetImageResize(int /*channel*/, const ImageData& /*source*/, const ImageData& /*destination*/,
                            QetImageInterpolationType /*interpolation*/, int /*timeoutMs*/) {
  return 0;
}

QetVenc::~QetVenc() {}

std::int32_t QetVenc::SendFrame(const ImageData& /*frame*/) {
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
  return 0;
}

}  // namespace Ormis
