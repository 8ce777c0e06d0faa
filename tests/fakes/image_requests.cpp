// SPDX-License-Identifier: Apache-2.0
#include "image_requests.h"

#include <memory>

namespace {

thread_local std::vector<ImageRequests::Request>* requests = nullptr;

}  // namespace

// The linker's names for RandomCvImg, whose calls it sends here.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

using ImageBuffer = std::unique_ptr<std::uint8_t[]>;

void __real__Z11RandomCvImgjijRNSt3__110unique_ptrIA_hNS_14default_deleteIS1_EEEE(std::uint32_t width,
                                                                                  std::int32_t height,
                                                                                  std::uint32_t imageType,
                                                                                  ImageBuffer& buffer);
void __wrap__Z11RandomCvImgjijRNSt3__110unique_ptrIA_hNS_14default_deleteIS1_EEEE(std::uint32_t width,
                                                                                  std::int32_t height,
                                                                                  std::uint32_t imageType,
                                                                                  ImageBuffer& buffer);

void __wrap__Z11RandomCvImgjijRNSt3__110unique_ptrIA_hNS_14default_deleteIS1_EEEE(std::uint32_t width,
                                                                                  std::int32_t height,
                                                                                  std::uint32_t imageType,
                                                                                  ImageBuffer& buffer) {
  if (requests != nullptr) requests->push_back({width, height, imageType});
  __real__Z11RandomCvImgjijRNSt3__110unique_ptrIA_hNS_14default_deleteIS1_EEEE(width, height, imageType,
                                                                               buffer);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

ImageRequests::ImageRequests() {
  requests = &requests_;
}

ImageRequests::~ImageRequests() {
  requests = nullptr;
}
