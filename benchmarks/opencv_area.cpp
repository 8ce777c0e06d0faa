// SPDX-License-Identifier: Apache-2.0
#include "opencv_area.h"

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

int OpenCvArea(const std::uint8_t* source, int sourceWidth, int sourceHeight, std::uint8_t* result, int width,
               int height) try {
  cv::setNumThreads(1);
  // OpenCV's matrices have no const view; resize only reads this one.
  const cv::Mat from(sourceHeight, sourceWidth, CV_8UC3, const_cast<std::uint8_t*>(source));
  cv::Mat to(height, width, CV_8UC3, result);
  cv::resize(from, to, to.size(), 0, 0, cv::INTER_AREA);
  return to.data == result ? 0 : -1;
} catch (...) {
  return -1;
}
