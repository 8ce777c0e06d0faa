// SPDX-License-Identifier: Apache-2.0
#include "aicore_stress.h"

#include <set>

#include "fixture.h"

namespace {

class AicoreStressTest : public UnitTest {
 protected:
  int RunCycles(int cycles) {
    fakePlatform::OnCall("QetDNNModelProcess", [this, cycles](int n) {
      if (n == cycles) stop_ = 1;
    });
    return AICoreStressNode(record_, 1, stop_);
  }

  std::unique_ptr<vorn::StressRegister> record_ = MakeRecord(2, 0);
  volatile int stop_ = 0;
};

TEST_F(AicoreStressTest, LevelZeroLogsItsLineAndStartsNothing) {
  auto record = MakeRecord(0, 1000);
  std::vector<std::thread> threads;
  runAicStress(record, threads, stop_);
  EXPECT_THAT(threads, IsEmpty());
  EXPECT_THAT(Infos(), ElementsAre("runAicStress() | Aicore threadNum: 0 , Aicore Process start..."));
}

TEST_F(AicoreStressTest, StartsOneWorkerPerLevelEachWithItsOwnHandleAndTheFile) {
  auto record = MakeRecord(3, 1000);
  record->file = "net.onnx";
  std::vector<std::thread> threads;
  runAicStress(record, threads, stop_);
  EXPECT_EQ(threads.size(), 3U);
  while (fakePlatform::CountOf("QetDNNModelInitialize") < 3) std::this_thread::yield();
  stop_ = 1;
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(Infos(), ElementsAre("runAicStress() | Aicore threadNum: 3 , Aicore Process start..."));
  std::set<std::thread::id> workers;
  std::set<const void*> handles;
  for (const auto& call : fakePlatform::CallsOf("QetDNNModelInitialize")) {
    workers.insert(call.thread);
    handles.insert(call.object);
    EXPECT_EQ(call.path, "net.onnx");
  }
  EXPECT_EQ(workers.size(), 3U);
  EXPECT_EQ(handles.size(), 3U);  // the three handles exist at the same time
}

TEST_F(AicoreStressTest, EveryCallUsesTheSameContextAndHandle) {
  RunCycles(1);
  const auto calls = fakePlatform::Calls();
  for (const auto& call : calls) {
    const bool ofModel = call.name.rfind("QetDNN", 0) == 0;
    EXPECT_EQ(call.object, calls[ofModel ? 2 : 0].object) << call.name;
  }
}

TEST_F(AicoreStressTest, WholeLifeInOrder) {
  EXPECT_EQ(RunCycles(2), 0);
  EXPECT_THAT(fakePlatform::Names(),
              ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetDNNModelInitialize",
                          "QetDNNModelCreateInput", "QetDNNModelCreateOutput", "QetDNNModelProcess",
                          "QetDNNModelProcess", "QetDNNRelease", "QetDestroyContext"));
  EXPECT_THAT(Errors(), IsEmpty());
  EXPECT_THAT(Debugs(), ElementsAre("AICoreInit() | [AicoreStress] Initialize AicStress finished."));
}

TEST_F(AicoreStressTest, StopFlagSetBeforeTheLoopSetsUpAndReleasesWithoutAnInference) {
  stop_ = 1;
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 0);
  EXPECT_THAT(
      fakePlatform::Names(),
      ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetDNNModelInitialize",
                  "QetDNNModelCreateInput", "QetDNNModelCreateOutput", "QetDNNRelease", "QetDestroyContext"));
}

TEST_F(AicoreStressTest, FlagIsReadAfterTheCycleNotInIt) {
  EXPECT_EQ(RunCycles(1), 0);
  EXPECT_EQ(fakePlatform::CountOf("QetDNNModelProcess"), 1);
}

const char* const kInitializeFailed =
    "AICoreStressNode() | [AicoreStress] AICore stress node initialize failed.";

TEST_F(AicoreStressTest, FailedCreateContextReleasesNothing) {
  fakePlatform::Fail("QetCreateContext", 1, 77);
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetCreateContext"), 1);
  EXPECT_THAT(Errors(), ElementsAre("AICoreInit() | Create context failed", kInitializeFailed));
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetCreateContext"));
}

TEST_F(AicoreStressTest, FailedSetCurrentContextDoesNotDestroyTheContext) {
  fakePlatform::Fail("QetSetCurrentContext", 1, 77);
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetSetCurrentContext"), 1);
  EXPECT_THAT(Errors(), ElementsAre("AICoreInit() | QetSetCurrentContext failed", kInitializeFailed));
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetCreateContext", "QetSetCurrentContext"));
}

TEST_F(AicoreStressTest, FailedModelInitializeReleasesModelAndContext) {
  fakePlatform::Fail("QetDNNModelInitialize", 1, 77);
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetDNNModelInitialize"), 1);
  EXPECT_THAT(Errors(),
              ElementsAre("AICoreInit() | [AicoreStress] Init dnn model failed!", kInitializeFailed));
  EXPECT_THAT(fakePlatform::Names(),
              ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetDNNModelInitialize",
                          "QetDNNRelease", "QetDestroyContext"));
  EXPECT_EQ(record_->threadFps[0], 0.0);
}

TEST_F(AicoreStressTest, FailuresOfTheReleaseAfterAFailedModelAreLoggedToo) {
  fakePlatform::Fail("QetDNNModelInitialize", 1, 77);
  fakePlatform::Fail("QetDNNRelease", 1, 78);
  fakePlatform::Fail("QetDestroyContext", 1, 79);
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 10);
  EXPECT_THAT(Errors(),
              ElementsAre("AICoreInit() | [AicoreStress] Init dnn model failed!",
                          "AICoreRelease() | [AicoreStress] NNProcessPipeline QetDNNRelease failed.",
                          "AICoreRelease() | [AicoreStress] QetDestroyContext failed.", kInitializeFailed));
}

TEST_F(AicoreStressTest, FailedCreateInputReleasesModelAndContext) {
  fakePlatform::Fail("QetDNNModelCreateInput", 1, 77);
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetDNNModelCreateInput"), 1);
  EXPECT_THAT(Errors(), ElementsAre("AICoreInit() | Create input failed!", kInitializeFailed));
  EXPECT_THAT(fakePlatform::Names(),
              ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetDNNModelInitialize",
                          "QetDNNModelCreateInput", "QetDNNRelease", "QetDestroyContext"));
}

TEST_F(AicoreStressTest, FailedCreateOutputReleasesModelAndContext) {
  fakePlatform::Fail("QetDNNModelCreateOutput", 1, 77);
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetDNNModelCreateOutput"), 1);
  EXPECT_THAT(Errors(), ElementsAre("AICoreInit() | Create output failed!", kInitializeFailed));
  EXPECT_THAT(
      fakePlatform::Names(),
      ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetDNNModelInitialize",
                  "QetDNNModelCreateInput", "QetDNNModelCreateOutput", "QetDNNRelease", "QetDestroyContext"));
}

TEST_F(AicoreStressTest, FailedInferenceInMidRunReleasesAndLogsOnce) {
  fakePlatform::Fail("QetDNNModelProcess", 3, 77);
  EXPECT_EQ(AICoreStressNode(record_, 0, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetDNNModelProcess"), 1);
  EXPECT_THAT(Errors(),
              ElementsAre("AICoreStressNode() | [AicoreStress] AICore stress node inference failed."));
  const auto names = fakePlatform::Names();
  EXPECT_EQ(fakePlatform::CountOf("QetDNNModelProcess"), 3);
  EXPECT_THAT(std::vector<std::string>(names.end() - 2, names.end()),
              ElementsAre("QetDNNRelease", "QetDestroyContext"));
}

TEST_F(AicoreStressTest, FailedInferenceOfOneWorkerLeavesTheOthersRunning) {
  auto record = MakeRecord(2, 0);
  std::vector<std::thread> threads;
  fakePlatform::Fail("QetDNNModelProcess", 5, 77);
  runAicStress(record, threads, stop_);
  while (fakePlatform::CountOf("QetDNNModelProcess") < 500) std::this_thread::yield();
  stop_ = 1;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetDNNModelProcess"), 1);
  EXPECT_EQ(Errors().size(), 1U);
  EXPECT_EQ(fakePlatform::CountOf("QetDNNRelease"), 2);
}

TEST_F(AicoreStressTest, TearDownAlwaysDoesBothStepsAndYieldsZero) {
  fakePlatform::Fail("QetDNNRelease", 1, 77);
  fakePlatform::Fail("QetDestroyContext", 1, 78);
  EXPECT_EQ(RunCycles(1), 0);
  EXPECT_THAT(Errors(),
              ElementsAre("AICoreRelease() | [AicoreStress] NNProcessPipeline QetDNNRelease failed.",
                          "AICoreRelease() | [AicoreStress] QetDestroyContext failed."));
  EXPECT_EQ(fakePlatform::CountOf("QetDestroyContext"), 1);
}

TEST_F(AicoreStressTest, SetUpReturnsTenForEachFailureAndZeroOtherwise) {
  Ormis::QetContext context{};
  Ormis::QetDNNHandle handle{};
  EXPECT_EQ(AICoreInit(context, handle, "net.onnx"), 0);
  for (const char* operation : {"QetCreateContext", "QetSetCurrentContext", "QetDNNModelInitialize",
                                "QetDNNModelCreateInput", "QetDNNModelCreateOutput"}) {
    fakePlatform::Reset();
    fakePlatform::Fail(operation, 1, 77);
    EXPECT_EQ(AICoreInit(context, handle, "net.onnx"), 10) << operation;
    EXPECT_EQ(fakePlatform::FailuresDelivered(operation), 1);
  }
}

TEST_F(AicoreStressTest, LoopReturnsTenForAFailedInferenceAndZeroWhenStopped) {
  const Ormis::QetDNNHandle handle{};
  fakePlatform::Fail("QetDNNModelProcess", 2, 77);
  EXPECT_EQ(AICoreInfe(record_, 0, stop_, handle), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetDNNModelProcess"), 1);
  fakePlatform::OnCall("QetDNNModelProcess", [this](int) { stop_ = 1; });
  EXPECT_EQ(AICoreInfe(record_, 0, stop_, handle), 0) << "stopped after an inference";
  EXPECT_EQ(AICoreInfe(record_, 0, stop_, handle), 0) << "stopped before the first one";
  EXPECT_EQ(fakePlatform::CountOf("QetDNNModelProcess"), 3);
  EXPECT_THAT(Errors(), IsEmpty()) << "the caller logs";
}

TEST_F(AicoreStressTest, ReleaseReturnsZeroInEveryCase) {
  Ormis::QetContext context{};
  Ormis::QetDNNHandle handle{};
  EXPECT_EQ(AICoreRelease(context, handle), 0);
  fakePlatform::FailFrom("QetDNNRelease", 1, 77);
  EXPECT_EQ(AICoreRelease(context, handle), 0);
}

}  // namespace
