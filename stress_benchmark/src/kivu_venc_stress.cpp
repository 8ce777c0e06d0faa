// SPDX-License-Identifier: Apache-2.0
#include "kivu_venc_stress.h"

#include "log_site.h"
#include "measuring_period.h"
#include "stress_utils.h"

namespace {

constexpr std::uint32_t kFrameWidth = 1920;
constexpr std::uint32_t kFrameHeight = 1080;
constexpr std::uint32_t kFrameImageType = 2;
constexpr std::uint32_t kFrameBytes = kFrameWidth * kFrameHeight * 3 / 2;
constexpr int kFirstChannel = 25;  // worker i encodes on channel 25 + i

// Sets every member: another platform's class may have other defaults.
void ConfigureEncoder(Ormis::QetVenc& encoder, int channel) {
  encoder.offsetBC = 46;
  encoder.offsetC0 = 25;
  encoder.offsetC4 = 0;
  encoder.width = kFrameWidth;
  encoder.height = kFrameHeight;
  encoder.channel = static_cast<std::uint32_t>(channel);
  encoder.offsetD4 = 1;
  encoder.bitrateKbps = 2000;
  encoder.offsetDC = 0;
  encoder.maxWidth = 4096;
  encoder.maxHeight = 4096;
  encoder.offsetE8 = 128;
  encoder.streamBufferBytes = 9 * 1048576;
  encoder.offsetF0 = 0;
  encoder.offsetF4 = 8;
  encoder.offsetF8 = 16;
  encoder.offset100.clear();
  encoder.offset118 = 15;
  encoder.offset120 = 0;
  encoder.offset128 = 1;
  encoder.offset12C = 0;
  encoder.frameRate = 30;
  encoder.gopSize = 60;
}

}  // namespace

void runVencStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                   volatile int& stopFlag) {
  STBM_LOG_INFO("KIVU VENC threadNum: " << reg->threadNum << " , venc Process start...");
  for (std::uint32_t i = 0; i < reg->threadNum; ++i) {
    threads.push_back(std::thread(VencProcess, std::ref(reg), static_cast<int>(i), std::ref(stopFlag)));
  }
}

std::int32_t VencInit(Ormis::QetContext& context, int /*channel*/, Ormis::QetVenc& encoder) {
  if (const std::int32_t ret = Ormis::QetCreateContext(context); ret != 0) {
    STBM_LOG_ERROR("QetCreateContext fail" << ", ret = " << ret);
    return 10;
  }
  if (const std::int32_t ret = Ormis::QetSetCurrentContext(context); ret != 0) {
    STBM_LOG_ERROR("QetSetCurrentContext fail" << ", ret = " << ret);
    return 10;
  }
  if (const std::int32_t ret = encoder.Init(); ret != 0) {
    STBM_LOG_ERROR("venc init fail" << ", ret = " << ret);
    return 10;
  }
  return 0;
}

std::int32_t VencPrepare(std::unique_ptr<std::uint8_t[]>& testImage, Ormis::ImageData& frame) {
  RandomCvImg(kFrameWidth, static_cast<std::int32_t>(kFrameHeight), kFrameImageType, testImage);
  frame.width = kFrameWidth;
  frame.height = kFrameHeight;
  frame.dataSize = kFrameBytes;
  frame.bufferMode = 0;
  frame.imageType = kFrameImageType;
  frame.data = testImage.get();
  return 0;
}

std::int32_t VencProcess(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stopFlag) {
  Ormis::QetContext context{};
  std::unique_ptr<std::uint8_t[]> testImage;
  Ormis::ImageData frame{};
  {
    Ormis::QetVenc encoder;
    ConfigureEncoder(encoder, index + kFirstChannel);
    // The result is ignored on purpose: after a failed set-up SendFrame fails and ends the worker.
    (void)VencInit(context, index + kFirstChannel, encoder);
    (void)VencPrepare(testImage, frame);

    MeasuringPeriod period(reg, index, STBM_HERE);
    while (stopFlag == 0) {
      period.StartCycle();
      if (const std::int32_t ret = encoder.SendFrame(frame); ret != 0) {
        STBM_LOG_ERROR("venc SendFrame fail" << ", ret = " << ret);
        return 10;  // here and below the encoder is destroyed and the context is not
      }
      ux_venc_stream stream{};
      if (const std::int32_t ret = encoder.GetStream(stream); ret != 0) {
        STBM_LOG_ERROR("venc GetStream fail" << ", ret = " << ret);
        return 10;
      }
      if (const std::int32_t ret = encoder.ReleaseStream(stream); ret != 0) {
        STBM_LOG_ERROR("venc ReleaseStream fail" << ", ret = " << ret);
        return 10;
      }
      period.EndCycle();
    }
  }  // the encoder is destroyed before its context
  if (Ormis::QetDestroyContext(context) != 0) {
    // The text names another stress. Tools that read the log rely on it. The result is 0 all the same.
    STBM_LOG_ERROR("[AicoreStress] AICoreStressNode QetDestroyContext failed.");
  }
  return 0;
}
