// Every operation of the platform fails under the real program, in its first call and in a later one: what is
// logged, what is called after it, that the others go on, how the program ends. Under AddressSanitizer a leak
// is a failure, too.

#include <algorithm>
#include <csignal>
#include <sstream>

#include "program_test.h"

namespace {

struct Call {
  std::string thread;
  std::string operation;
  int status;
};

class FaultTest : public ProgramTest {
 protected:
  Launch Faulty(const std::string& configuration, const std::string& fault) const {
    Launch launch = Configured("runTimes: 600\nlogLevel: 5\n" + configuration);
    launch.environment["LD_PRELOAD"] = FAULT_SHIM;
    launch.environment["FAULT"] = fault;
    launch.environment["FAULT_CALLS"] = "calls";
    return launch;
  }

  std::vector<Call> Calls() const {
    std::vector<Call> calls;
    for (const std::string& line : SplitLines(Read("calls"))) {
      std::istringstream fields(line);
      Call call;
      fields >> call.thread >> call.operation >> call.status;
      calls.push_back(call);
    }
    return calls;
  }

  // Names of the calls of the thread that got `status`, after it.
  static std::vector<std::string> CallsAfter(const std::vector<Call>& calls, int status) {
    const auto failed =
        std::find_if(calls.begin(), calls.end(), [=](const Call& c) { return c.status == status; });
    std::vector<std::string> names;
    if (failed == calls.end()) return {"the fault did not fire"};
    std::for_each(failed + 1, calls.end(), [&](const Call& call) {
      if (call.thread == failed->thread) names.push_back(call.operation);
    });
    return names;
  }

  static bool CopiedAfter(const std::vector<Call>& calls, int status) {
    const auto failed =
        std::find_if(calls.begin(), calls.end(), [=](const Call& c) { return c.status == status; });
    return std::any_of(failed, calls.end(), [](const Call& call) { return call.operation == "memcpy_s"; });
  }
};

constexpr int kCode = 777;

struct Fault {
  const char* name;
  const char* section;                  // the stress under test
  const char* operation;                // with the number of the call
  const char* message;                  // the error record, to the letter
  const char* last;                     // the error record that ends the worker, if another follows
  std::vector<std::string> callsAfter;  // of the failed worker
  bool inTearDown = false;              // happens after SIGINT
};

std::ostream& operator<<(std::ostream& stream, const Fault& fault) {
  return stream << fault.operation;
}

class WorkerFaultTest : public FaultTest, public testing::WithParamInterface<Fault> {};

TEST_P(WorkerFaultTest, IsLoggedAndTheOthersGoOn) {
  const Fault& fault = GetParam();
  Launch launch = Faulty(std::string(fault.section) + "CPU: {Level: 1}\n",
                         std::string(fault.operation) + ":fail=" + std::to_string(kCode));
  Program program(std::move(launch));
  const std::string end = fault.last == nullptr ? fault.message : fault.last;
  if (fault.inTearDown) {
    ASSERT_TRUE(program.ReadLine().has_value()) << program.Wait(std::chrono::seconds(0));
  } else {
    ASSERT_TRUE(program.WaitForError(end)) << program.Wait(std::chrono::seconds(0));
  }
  // The copies go on after it.
  if (!fault.inTearDown) {
    while (!CopiedAfter(Calls(), kCode) && program.Seconds() < 60)
      program.RunFor(std::chrono::milliseconds(20));
    EXPECT_TRUE(CopiedAfter(Calls(), kCode));
  }
  program.Signal(SIGINT);
  const Ending& ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));

  const std::vector<std::string> texts = Texts(LogFile());
  EXPECT_THAT(texts, Contains(std::string("ERROR ") + fault.message).Times(1));
  EXPECT_THAT(texts, Contains(testing::StartsWith("ERROR " + end)).Times(1));
  const std::vector<Call> calls = Calls();
  EXPECT_EQ(CallsAfter(calls, kCode), fault.callsAfter);
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back().operation, "QetRelease");
  EXPECT_EQ(calls.back().status, 0);
}

const std::string kModel = std::string("AIC: {Level: 1, File: ") + EXAMPLE_NETWORK + "}\n";
const std::string kModels = std::string("AIC: {Level: 2, File: ") + EXAMPLE_NETWORK + "}\n";
const char* const kVpc = "VPC: {Level: 1}\n";
const char* const kVpcs = "VPC: {Level: 2}\n";
const char* const kVenc = "VENC: {Level: 1}\n";
const char* const kVencs = "VENC: {Level: 2}\n";

constexpr char kResizeFailed[] = "VPCResize() | QetImageResize failed, ret = ";
constexpr char kSendFailed[] = "VencProcess() | venc SendFrame fail, ret = ";
constexpr char kNodeFailed[] = "AICoreStressNode() | [AicoreStress] AICore stress node initialize failed.";
constexpr char kInferenceFailed[] =
    "AICoreStressNode() | [AicoreStress] AICore stress node inference failed.";

using Names = std::vector<std::string>;

// A VPC worker whose set-up failed goes on to its first resize, which the real platform refuses.
const Names kPrepareRefused = {"QetImageMallocAligned", "QetImageResize"};
const Names kPrepareWorks = {"QetImageMallocAligned", "QetMemcpyToKivu", "QetImageMallocAligned",
                             "QetImageResize"};

INSTANTIATE_TEST_SUITE_P(
    All, WorkerFaultTest,
    testing::Values(Fault{"VpcFirstCreateContext", kVpcs, "QetCreateContext:1",
                          "VpcInit() | QetCreateContext fail, ret = 777", kResizeFailed, kPrepareRefused},
                    Fault{"VpcLaterCreateContext", kVpcs, "QetCreateContext:2",
                          "VpcInit() | QetCreateContext fail, ret = 777", kResizeFailed, kPrepareRefused},
                    Fault{"VpcFirstSetCurrentContext", kVpcs, "QetSetCurrentContext:1",
                          "VpcInit() | QetSetCurrentContext fail, ret = 777", kResizeFailed, kPrepareRefused},
                    Fault{"VpcLaterSetCurrentContext", kVpcs, "QetSetCurrentContext:2",
                          "VpcInit() | QetSetCurrentContext fail, ret = 777", kResizeFailed, kPrepareRefused},
                    Fault{"VpcCreateChannel", kVpc, "QetCreateChannel:1",
                          "VpcInit() | QetCreateChannel fail, ret = 777", kResizeFailed, kPrepareWorks},
                    Fault{"VpcSourceAllocation",
                          kVpc,
                          "QetImageMallocAligned:1",
                          "VpcPerpare() | QetImageMallocAligned fail, ret = 777",
                          kResizeFailed,
                          {"QetImageResize"}},
                    Fault{"VpcDestinationAllocation",
                          kVpc,
                          "QetImageMallocAligned:2",
                          "VpcPerpare() | QetImageMallocAligned fail, ret = 777",
                          kResizeFailed,
                          {"QetImageResize"}},
                    Fault{"VpcCopy",
                          kVpc,
                          "QetMemcpyToKivu:1",
                          "VpcPerpare() | QetMemcpyToKivu fail, ret = 777",
                          kResizeFailed,
                          {"QetImageResize"}},
                    Fault{"VpcLaterCopy",
                          kVpcs,
                          "QetMemcpyToKivu:2",
                          "VpcPerpare() | QetMemcpyToKivu fail, ret = 777",
                          kResizeFailed,
                          {"QetImageResize"}},
                    Fault{"VpcFirstResize",
                          kVpcs,
                          "QetImageResize:1",
                          "VPCResize() | QetImageResize failed, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VpcLaterResize",
                          kVpcs,
                          "QetImageResize:9",
                          "VPCResize() | QetImageResize failed, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VpcDestroyDestination",
                          kVpc,
                          "QetImageDestroy:1",
                          "VPCResize() | QetImageDestroy(dstImage) failed, ret = 777",
                          nullptr,
                          {},
                          true},
                    Fault{"VpcDestroySource",
                          kVpc,
                          "QetImageDestroy:2",
                          "VPCResize() | QetImageDestroy(srcImage) failed, ret = 777",
                          nullptr,
                          {},
                          true},
                    Fault{"VpcDestroyChannel",
                          kVpc,
                          "QetDestroyChannel:1",
                          "VPCResize() | QetDestroyChannel failed, ret = 777",
                          nullptr,
                          {},
                          true},
                    Fault{"VpcLaterDestroyChannel",
                          kVpcs,
                          "QetDestroyChannel:2",
                          "VPCResize() | QetDestroyChannel failed, ret = 777",
                          nullptr,
                          {},
                          true},
                    Fault{"VpcDestroyContext",
                          kVpc,
                          "QetDestroyContext:1",
                          "VPCResize() | QetDestroyContext failed, ret = 777",
                          nullptr,
                          {},
                          true},
                    Fault{"VencFirstCreateContext",
                          kVencs,
                          "QetCreateContext:1",
                          "VencInit() | QetCreateContext fail, ret = 777",
                          kSendFailed,
                          {"QetVenc::SendFrame"}},
                    Fault{"VencLaterCreateContext",
                          kVencs,
                          "QetCreateContext:2",
                          "VencInit() | QetCreateContext fail, ret = 777",
                          kSendFailed,
                          {"QetVenc::SendFrame"}},
                    Fault{"VencSetCurrentContext",
                          kVenc,
                          "QetSetCurrentContext:1",
                          "VencInit() | QetSetCurrentContext fail, ret = 777",
                          kSendFailed,
                          {"QetVenc::SendFrame"}},
                    Fault{"VencFirstInit",
                          kVencs,
                          "QetVenc::Init:1",
                          "VencInit() | venc init fail, ret = 777",
                          kSendFailed,
                          {"QetVenc::SendFrame"}},
                    Fault{"VencLaterInit",
                          kVencs,
                          "QetVenc::Init:2",
                          "VencInit() | venc init fail, ret = 777",
                          kSendFailed,
                          {"QetVenc::SendFrame"}},
                    Fault{"VencFirstSendFrame",
                          kVencs,
                          "QetVenc::SendFrame:1",
                          "VencProcess() | venc SendFrame fail, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VencLaterSendFrame",
                          kVencs,
                          "QetVenc::SendFrame:9",
                          "VencProcess() | venc SendFrame fail, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VencFirstGetStream",
                          kVencs,
                          "QetVenc::GetStream:1",
                          "VencProcess() | venc GetStream fail, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VencLaterGetStream",
                          kVencs,
                          "QetVenc::GetStream:9",
                          "VencProcess() | venc GetStream fail, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VencFirstReleaseStream",
                          kVencs,
                          "QetVenc::ReleaseStream:1",
                          "VencProcess() | venc ReleaseStream fail, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VencLaterReleaseStream",
                          kVencs,
                          "QetVenc::ReleaseStream:9",
                          "VencProcess() | venc ReleaseStream fail, ret = 777",
                          nullptr,
                          {}},
                    Fault{"VencDestroyContext",
                          kVenc,
                          "QetDestroyContext:1",
                          "VencProcess() | [AicoreStress] AICoreStressNode QetDestroyContext failed.",
                          nullptr,
                          {},
                          true},
                    Fault{"AicFirstCreateContext",
                          kModels.c_str(),
                          "QetCreateContext:1",
                          "AICoreInit() | Create context failed",
                          kNodeFailed,
                          {}},
                    Fault{"AicLaterCreateContext",
                          kModels.c_str(),
                          "QetCreateContext:2",
                          "AICoreInit() | Create context failed",
                          kNodeFailed,
                          {}},
                    Fault{"AicSetCurrentContext",
                          kModels.c_str(),
                          "QetSetCurrentContext:2",
                          "AICoreInit() | QetSetCurrentContext failed",
                          kNodeFailed,
                          {}},
                    Fault{"AicFirstModelInitialize",
                          kModels.c_str(),
                          "QetDNNModelInitialize:1",
                          "AICoreInit() | [AicoreStress] Init dnn model failed!",
                          kNodeFailed,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicLaterModelInitialize",
                          kModels.c_str(),
                          "QetDNNModelInitialize:2",
                          "AICoreInit() | [AicoreStress] Init dnn model failed!",
                          kNodeFailed,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicFirstCreateInput",
                          kModels.c_str(),
                          "QetDNNModelCreateInput:1",
                          "AICoreInit() | Create input failed!",
                          kNodeFailed,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicLaterCreateInput",
                          kModels.c_str(),
                          "QetDNNModelCreateInput:2",
                          "AICoreInit() | Create input failed!",
                          kNodeFailed,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicFirstCreateOutput",
                          kModels.c_str(),
                          "QetDNNModelCreateOutput:1",
                          "AICoreInit() | Create output failed!",
                          kNodeFailed,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicLaterCreateOutput",
                          kModels.c_str(),
                          "QetDNNModelCreateOutput:2",
                          "AICoreInit() | Create output failed!",
                          kNodeFailed,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicFirstProcess",
                          kModels.c_str(),
                          "QetDNNModelProcess:1",
                          kInferenceFailed,
                          nullptr,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicLaterProcess",
                          kModels.c_str(),
                          "QetDNNModelProcess:5",
                          kInferenceFailed,
                          nullptr,
                          {"QetDNNRelease", "QetDestroyContext"}},
                    Fault{"AicRelease",
                          kModel.c_str(),
                          "QetDNNRelease:1",
                          "AICoreRelease() | [AicoreStress] NNProcessPipeline QetDNNRelease failed.",
                          nullptr,
                          {"QetDestroyContext"},
                          true},
                    Fault{"AicDestroyContext",
                          kModel.c_str(),
                          "QetDestroyContext:1",
                          "AICoreRelease() | [AicoreStress] QetDestroyContext failed.",
                          nullptr,
                          {},
                          true}),
    [](const testing::TestParamInfo<Fault>& info) { return std::string(info.param.name); });

TEST_F(FaultTest, FailedInitializeEndsTheProgramWithoutARelease) {
  const Ending ending = Run(Faulty("CPU: {Level: 1}\n", "QetInitialize:1:fail=777"));
  EXPECT_THAT(ending, Exited(255));
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(Texts(LogFile()), Contains("ERROR Init() | QetInitialize failed").Times(1));
  ASSERT_EQ(Calls().size(), 1U);
}

TEST_F(FaultTest, FailedReleaseEndsTheProgramWith255) {
  const Ending ending = RunLines(Faulty("CPU: {Level: 1}\n", "QetRelease:1:fail=777"));
  EXPECT_THAT(ending, Exited(255));
  EXPECT_THAT(Texts(LogFile()), Contains("ERROR Release() | Fail to relase ctx!").Times(1));
}

TEST_F(FaultTest, FailedCopiesAreNotExamined) {
  const Ending ending = RunLines(Faulty("CPU: {Level: 2}\n", "memcpy_s:1-:fail=34"), 2);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(LogFile()), Not(Contains(testing::StartsWith("ERROR"))));
  const std::vector<Call> calls = Calls();
  EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const Call& call) { return call.status == 34; }));
}

TEST_F(FaultTest, WhatFailedWorkersLeftIsGivenBack) {
  Program program(Faulty(std::string("VPC: {Level: 2}\nVENC: {Level: 1}\n"),
                         "QetImageResize:3:fail=777,QetVenc::GetStream:3:fail=778"));
  // The two come in either order, and the log file has both.
  const auto failed = [&](const char* text) { return Contains(HasSubstr(text)); };
  while (program.Seconds() < 60 &&
         !testing::Matches(AllOf(failed("QetImageResize failed, ret = 777"),
                                 failed("venc GetStream fail, ret = 778")))(Texts(LogFile()))) {
    program.RunFor(std::chrono::milliseconds(20));
  }
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
  EXPECT_THAT(Texts(LogFile(), "QET"), Contains(AllOf(HasSubstr("gave back what was left: 2 images"),
                                                      HasSubstr("1 channel"), HasSubstr("2 contexts"))));
}

// Every operation of every engine, in its own section's run: an interrupt inside it ends the run cleanly, and
// a delay changes nothing but time.
class OperationTest : public FaultTest, public testing::WithParamInterface<const char*> {
 protected:
  static std::string EveryEngine() {
    return std::string("VPC: {Level: 1}\nVENC: {Level: 1}\nCPU: {Level: 1}\n") + kModel;
  }
};

TEST_P(OperationTest, InterruptedInItsFirstCallTheRunEndsCleanly) {
  const bool inTearDown = std::string(GetParam()).find("Destroy") != std::string::npos ||
                          std::string(GetParam()).find("Release:") != std::string::npos;
  Program program(Faulty(EveryEngine(), std::string(GetParam()) + "1:sigint"));
  if (inTearDown) {
    ASSERT_TRUE(program.ReadLine().has_value());
    program.Signal(SIGINT);
  }
  const Ending& ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  const std::vector<std::string> texts = Texts(LogFile(), "");
  EXPECT_THAT(texts, Contains(HasSubstr("Signal Interactive attention received. signal: 2")));
  EXPECT_THAT(texts, Not(Contains(testing::StartsWith("ERROR"))));
  EXPECT_THAT(texts, Not(Contains(HasSubstr("gave back"))));
  EXPECT_EQ(Calls().back().operation, "QetRelease");
}

TEST_P(OperationTest, DelayedInItsFirstCallNothingElseChanges) {
  const Ending ending = RunLines(Faulty(EveryEngine(), std::string(GetParam()) + "1:delay=300"), 2);
  EXPECT_THAT(ending, Exited(0));
  const std::vector<std::string> texts = Texts(LogFile(), "");
  EXPECT_THAT(texts, Not(Contains(testing::StartsWith("ERROR"))));
  EXPECT_THAT(texts, Not(Contains(HasSubstr("gave back"))));
}

INSTANTIATE_TEST_SUITE_P(
    All, OperationTest,
    testing::Values("QetInitialize:", "QetRelease:", "QetCreateContext:", "QetSetCurrentContext:",
                    "QetDestroyContext:", "QetCreateChannel:", "QetDestroyChannel:", "QetImageMallocAligned:",
                    "QetMemcpyToKivu:", "QetImageResize:", "QetImageDestroy:", "QetVenc::Init:",
                    "QetVenc::SendFrame:", "QetVenc::GetStream:", "QetVenc::ReleaseStream:",
                    "QetDNNModelInitialize:", "QetDNNModelCreateInput:", "QetDNNModelCreateOutput:",
                    "QetDNNModelProcess:", "QetDNNRelease:", "memcpy_s:"),
    [](const testing::TestParamInfo<const char*>& info) {
      std::string name;
      for (const char* c = info.param; *c != '\0'; ++c) {
        if (*c != ':' && *c != '_') name += *c;
      }
      return name;
    });

// What follows fails calls that a sanitizer replaces itself.
#if !defined(STRESS_ADDRESS_SANITIZER) && !defined(STRESS_THREAD_SANITIZER)

// The buffers of the workers' set-ups, in the order of the calls.
struct Allocation {
  const char* name;
  const char* section;
  const char* fault;
};

std::ostream& operator<<(std::ostream& stream, const Allocation& allocation) {
  return stream << allocation.fault;
}

class AllocationTest : public FaultTest, public testing::WithParamInterface<Allocation> {};

TEST_P(AllocationTest, FailingInAWorkerEndsTheProgramWithTheReason) {
  const Ending ending = Run(Faulty(GetParam().section, GetParam().fault));
  EXPECT_THAT(ending, KilledBy(SIGABRT));
  EXPECT_THAT(ending.error, HasSubstr("std::bad_alloc"));
  EXPECT_THAT(Texts(LogFile()), Not(Contains(testing::StartsWith("ERROR"))));
}

INSTANTIATE_TEST_SUITE_P(All, AllocationTest,
                         testing::Values(Allocation{"CpuSource", "CPU: {Level: 1}\n", "new[]:1:fail=1"},
                                         Allocation{"CpuDestination", "CPU: {Level: 1}\n", "new[]:2:fail=1"},
                                         Allocation{"VpcTestImage", kVpc, "new[]:1:fail=1"},
                                         Allocation{"VencTestImage", kVenc, "new[]:1:fail=1"}),
                         [](const testing::TestParamInfo<Allocation>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(FaultTest, DeviceMemoryThatCannotBeHadIsAStatus) {
  Program program(Faulty(kVpc, "posix_memalign:1:fail=12"));
  ASSERT_TRUE(program.WaitForError("QetImageResize failed")) << program.Wait(std::chrono::seconds(0));
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
  EXPECT_THAT(Texts(LogFile()), Contains("ERROR VpcPerpare() | QetImageMallocAligned fail, ret = 1010"));
}

TEST_F(FaultTest, AThreadThatCannotBeStartedEndsTheProgramWithTheReason) {
  // Of a CPU and a VPC worker, their averagers, the reporter and the limiter.
  for (const std::string nth : {"1", "2", "3", "4", "5", "6"}) {
    const Ending ending =
        Run(Faulty("CPU: {Level: 1}\nVPC: {Level: 1}\n", "pthread_create:" + nth + ":fail=11"));
    EXPECT_THAT(ending, KilledBy(SIGABRT)) << nth;
    EXPECT_THAT(ending.error, HasSubstr("thread constructor failed")) << nth;
  }
}

TEST_F(FaultTest, AClockThatJumpsChangesRatesAlone) {
  for (const std::string seconds : {"3600", "-3600"}) {
    const Ending ending =
        RunLines(Faulty("CPU: {Level: 2}\nVPC: {Level: 1}\n", "clock:500-:fail=" + seconds), 3);
    EXPECT_THAT(ending, Exited(0)) << seconds;
    EXPECT_THAT(Texts(LogFile(), ""), Not(Contains(testing::StartsWith("ERROR"))));
    EXPECT_GE(ending.OutputLines().size(), 3U);
  }
}

#endif

// So that what a soak has found can be looked for again.
TEST_F(FaultTest, ASeedDecidesWhichCallsFailAtRandom) {
  const auto failing = [&](const std::string& seed) {
    Launch launch = Faulty("CPU: {Level: 1}\n", "memcpy_s:1/4:fail=777");
    launch.environment["FAULT_SEED"] = seed;
    std::filesystem::remove(Directory() / "calls");
    EXPECT_THAT(RunLines(launch, 2), Exited(0));
    std::string pattern;
    for (const Call& call : Calls()) {
      if (call.operation == "memcpy_s") pattern += call.status == kCode ? 'x' : '.';
    }
    return pattern.substr(0, 64);
  };
  const std::string pattern = failing("1");
  ASSERT_THAT(pattern, SizeIs(64));
  const auto count = std::count(pattern.begin(), pattern.end(), 'x');
  EXPECT_GT(count, 4) << pattern;
  EXPECT_LT(count, 32) << pattern;
  EXPECT_EQ(failing("1"), pattern);
  EXPECT_NE(failing("2"), pattern);
}

TEST_F(FaultTest, AFullDiskUnderTheLogChangesNothingElse) {
  std::filesystem::create_directory(Directory() / "log");
  std::filesystem::create_symlink("/dev/full", Directory() / "log/STBM.log");
  const Ending ending = RunLines(Configured("runTimes: 600\nCPU: {Level: 1}\n"), 2);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.error, HasSubstr("No space left on device"));
  EXPECT_THAT(ending.error, HasSubstr("CPU threadNum: 1"));
}

}  // namespace
