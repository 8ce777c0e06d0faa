// SPDX-License-Identifier: Apache-2.0
#include "aicore_stress.h"

#include "log_site.h"
#include "measuring_period.h"

void runAicStress(std::unique_ptr<vorn::StressRegister>& reg, std::vector<std::thread>& threads,
                  volatile int& stop) {
  STBM_LOG_INFO("Aicore threadNum: " << reg->threadNum << " , Aicore Process start...");
  for (unsigned int index = 0; index < reg->threadNum; ++index) {
    threads.push_back(std::thread(AICoreStressNode, std::ref(reg), index, std::ref(stop)));
  }
}

int AICoreStressNode(std::unique_ptr<vorn::StressRegister>& reg, unsigned int index, volatile int& stop) {
  Ormis::QetContext ctx{};
  Ormis::QetDNNHandle handle{};
  if (AICoreInit(ctx, handle, reg->file) != 0) {
    STBM_LOG_ERROR("[AicoreStress] AICore stress node initialize failed.");
    return 10;
  }
  const int result = AICoreInfe(reg, static_cast<int>(index), stop, handle);
  AICoreRelease(ctx, handle);
  if (result != 0) {
    STBM_LOG_ERROR("[AicoreStress] AICore stress node inference failed.");
    return 10;
  }
  return 0;
}

int AICoreInit(Ormis::QetContext& ctx, Ormis::QetDNNHandle& handle, const std::string& file) {
  if (Ormis::QetCreateContext(ctx) != 0) {
    STBM_LOG_ERROR("Create context failed");
    return 10;
  }
  if (Ormis::QetSetCurrentContext(ctx) != 0) {
    STBM_LOG_ERROR("QetSetCurrentContext failed");
    return 10;  // the new context is not destroyed; this is deliberate
  }
  if (Ormis::QetDNNModelInitialize(handle, file) != 0) {
    STBM_LOG_ERROR("[AicoreStress] Init dnn model failed!");
    AICoreRelease(ctx, handle);
    return 10;
  }
  if (Ormis::QetDNNModelCreateInput(handle) != 0) {
    STBM_LOG_ERROR("Create input failed!");
    AICoreRelease(ctx, handle);
    return 10;
  }
  if (Ormis::QetDNNModelCreateOutput(handle) != 0) {
    STBM_LOG_ERROR("Create output failed!");
    AICoreRelease(ctx, handle);
    return 10;
  }
  STBM_LOG_DEBUG("[AicoreStress] Initialize AicStress finished.");
  return 0;
}

int AICoreInfe(std::unique_ptr<vorn::StressRegister>& reg, int index, volatile int& stop,
               const Ormis::QetDNNHandle& handle) {
  if (stop != 0) return 0;
  MeasuringPeriod period(reg, index, STBM_HERE);
  // The other stresses read the flag at the top of their loop; this one reads it at the end.
  do {
    period.StartCycle();
    if (Ormis::QetDNNModelProcess(handle) != 0) return 10;
    period.EndCycle();
  } while (stop == 0);
  return 0;
}

int AICoreRelease(Ormis::QetContext& ctx, Ormis::QetDNNHandle& handle) {
  if (Ormis::QetDNNRelease(handle) != 0) {
    STBM_LOG_ERROR("[AicoreStress] NNProcessPipeline QetDNNRelease failed.");
  }
  if (Ormis::QetDestroyContext(ctx) != 0) {
    STBM_LOG_ERROR("[AicoreStress] QetDestroyContext failed.");
  }
  return 0;
}
