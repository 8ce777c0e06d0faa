// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

/// While one exists, the calls of RandomCvImg are recorded (the test executable is linked with --wrap for
/// it); the images are made as usual. One object at a time; only calls on the thread of the test are
/// recorded.
class ImageRequests {
 public:
  struct Request {
    std::uint32_t width;
    std::int32_t height;
    std::uint32_t imageType;
  };

  ImageRequests();
  ~ImageRequests();
  ImageRequests(const ImageRequests&) = delete;
  ImageRequests& operator=(const ImageRequests&) = delete;

  const std::vector<Request>& All() const { return requests_; }

 private:
  std::vector<Request> requests_;
};
