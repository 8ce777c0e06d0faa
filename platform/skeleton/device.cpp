// SPDX-License-Identifier: Apache-2.0
#include "ormis/qet_context.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"
#include "unsupported.h"

namespace Ormis {

using skeleton::Unsupported;

std::int32_t QetInitialize(QetContext&, const QetContextParameters&) {
  return Unsupported("QetInitialize");
}

std::int32_t QetRelease(QetContext&) {
  return Unsupported("QetRelease");
}

std::int32_t QetCreateContext(QetContext&) {
  return Unsupported("QetCreateContext");
}

std::int32_t QetSetCurrentContext(QetContext&) {
  return Unsupported("QetSetCurrentContext");
}

std::int32_t QetDestroyContext(QetContext&) {
  return Unsupported("QetDestroyContext");
}

std::int32_t QetCreateChannel(int&) {
  return Unsupported("QetCreateChannel");
}

std::int32_t QetDestroyChannel(int) {
  return Unsupported("QetDestroyChannel");
}

std::int32_t QetImageMallocAligned(ImageData&) {
  return Unsupported("QetImageMallocAligned");
}

std::int32_t QetMemcpyToKivu(const ImageData&, ImageData&) {
  return Unsupported("QetMemcpyToKivu");
}

std::int32_t QetImageResize(int, const ImageData&, const ImageData&, QetImageInterpolationType, int) {
  return Unsupported("QetImageResize");
}

std::int32_t QetImageDestroy(ImageData&) {
  return Unsupported("QetImageDestroy");
}

std::int32_t QetVenc::Init() {
  return Unsupported("QetVenc::Init");
}

std::int32_t QetVenc::SendFrame(const ImageData&) {
  return Unsupported("QetVenc::SendFrame");
}

std::int32_t QetVenc::GetStream(ux_venc_stream&) {
  return Unsupported("QetVenc::GetStream");
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream&) {
  return Unsupported("QetVenc::ReleaseStream");
}

// There is never an encoder to end.
QetVenc::~QetVenc() = default;

std::int32_t QetDNNModelInitialize(QetDNNHandle&, const std::string&) {
  return Unsupported("QetDNNModelInitialize");
}

std::int32_t QetDNNModelCreateInput(QetDNNHandle&) {
  return Unsupported("QetDNNModelCreateInput");
}

std::int32_t QetDNNModelCreateOutput(QetDNNHandle&) {
  return Unsupported("QetDNNModelCreateOutput");
}

std::int32_t QetDNNModelProcess(const QetDNNHandle&) {
  return Unsupported("QetDNNModelProcess");
}

std::int32_t QetDNNRelease(QetDNNHandle&) {
  return Unsupported("QetDNNRelease");
}

}  // namespace Ormis
