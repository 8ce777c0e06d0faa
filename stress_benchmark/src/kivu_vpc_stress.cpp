// SPDX-License-Identifier: Apache-2.0
#include "kivu_vpc_stress.h"

#include "log_site.h"
#include "measuring_period.h"
#include "stress_utils.h"

namespace {

constexpr std::uint32_t kSourceWidth = 1920;
constexpr std::uint32_t kSourceHeight = 1080;
constexpr std::uint32_t kDestinationWidth = 416;
constexpr std::uint32_t kDestinationHeight = 234;
constexpr std::uint32_t kTestImageType = 0;
constexpr auto kInterpolation = static_cast<Ormis::QetImageInterpolationType>(1);

void DescribeDeviceImage(Ormis::ImageData& image, std::uint32_t width, std::uint32_t height) {
  image.width = width;
  image.height = height;
  image.bufferMode = 1;
  image.imageType = 1;
  image.data = nullptr;
}

}  // namespace

void runVpcStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                  volatile int& stopFlag) {
  STBM_LOG_INFO("KIVU VPC threadNum: " << reg->threadNum << " , resize Process start...");
  for (std::uint32_t i = 0; i < reg->threadNum; ++i) {
    threads.push_back(std::thread(VPCResize, std::ref(reg), static_cast<int>(i), std::ref(stopFlag)));
  }
}

std::int32_t VpcInit(Ormis::QetContext& context, int& channel, std::unique_ptr<std::uint8_t[]>& testImage) {
  if (const std::int32_t ret = Ormis::QetCreateContext(context); ret != 0) {
    STBM_LOG_ERROR("QetCreateContext fail" << ", ret = " << ret);
    return 10;
  }
  if (const std::int32_t ret = Ormis::QetSetCurrentContext(context); ret != 0) {
    STBM_LOG_ERROR("QetSetCurrentContext fail" << ", ret = " << ret);
    return 10;
  }
  if (const std::int32_t ret = Ormis::QetCreateChannel(channel); ret != 0) {
    STBM_LOG_ERROR("QetCreateChannel fail" << ", ret = " << ret);
    return 10;
  }
  RandomCvImg(kSourceWidth, kSourceHeight, kTestImageType, testImage);
  return 0;
}

std::int32_t VpcPerpare(std::unique_ptr<std::uint8_t[]>& /*testImage*/, Ormis::ImageData& source,
                        Ormis::ImageData& destination) {
  DescribeDeviceImage(source, kSourceWidth, kSourceHeight);
  if (const std::int32_t ret = Ormis::QetImageMallocAligned(source); ret != 0) {
    STBM_LOG_ERROR("QetImageMallocAligned fail" << ", ret = " << ret);
    return 10;
  }
  // The record is both source and destination; this is deliberate. The test image is never copied into it.
  if (const std::int32_t ret = Ormis::QetMemcpyToKivu(source, source); ret != 0) {
    STBM_LOG_ERROR("QetMemcpyToKivu fail" << ", ret = " << ret);
    return 10;
  }
  DescribeDeviceImage(destination, kDestinationWidth, kDestinationHeight);
  if (const std::int32_t ret = Ormis::QetImageMallocAligned(destination); ret != 0) {
    STBM_LOG_ERROR("QetImageMallocAligned fail" << ", ret = " << ret);
    return 10;
  }
  return 0;
}

std::int32_t VPCResize(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stopFlag) {
  Ormis::QetContext context{};
  int channel = index;
  std::unique_ptr<std::uint8_t[]> testImage;
  Ormis::ImageData source{};
  Ormis::ImageData destination{};
  // The results are ignored on purpose: after a failed set-up the first resize fails and ends the worker.
  (void)VpcInit(context, channel, testImage);
  (void)VpcPerpare(testImage, source, destination);

  MeasuringPeriod period(reg, index, STBM_HERE);
  while (stopFlag == 0) {
    period.StartCycle();
    if (const std::int32_t ret = Ormis::QetImageResize(channel, source, destination, kInterpolation, -1);
        ret != 0) {
      STBM_LOG_ERROR("QetImageResize failed" << ", ret = " << ret);
      return 10;  // releases nothing; QetRelease frees what is left
    }
    period.EndCycle();
  }

  // The first failure ends the tear-down; the remaining resources are not destroyed.
  if (const std::int32_t ret = Ormis::QetImageDestroy(destination); ret != 0) {
    STBM_LOG_ERROR("QetImageDestroy(dstImage) failed" << ", ret = " << ret);
    return 10;
  }
  if (const std::int32_t ret = Ormis::QetImageDestroy(source); ret != 0) {
    STBM_LOG_ERROR("QetImageDestroy(srcImage) failed" << ", ret = " << ret);
    return 10;
  }
  if (const std::int32_t ret = Ormis::QetDestroyChannel(channel); ret != 0) {
    STBM_LOG_ERROR("QetDestroyChannel failed" << ", ret = " << ret);
    return 10;
  }
  if (const std::int32_t ret = Ormis::QetDestroyContext(context); ret != 0) {
    STBM_LOG_ERROR("QetDestroyContext failed" << ", ret = " << ret);
    return 10;
  }
  return 0;
}
