// SPDX-License-Identifier: Apache-2.0

// Every operation of the platform fails under the real program, in its first call and in a later one. The
// tests look at what is logged, what is called afterwards, that the other workers go on, how the program
// ends, and that the fault was made as scripted. Under AddressSanitizer a leak is a failure, too.

#include <algorithm>
#include <cctype>
#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "program_test.h"

namespace {

struct Call {
  std::string thread;
  std::string operation;
  int status;
};

class FaultTest : public ProgramTest {
 protected:
  Launch Faulty(const std::string& configuration, const std::string& fault, int runTimes = 600) const {
    Launch launch = Configured("runTimes: " + std::to_string(runTimes) + "\nlogLevel: 5\n" + configuration);
    launch.environment["LD_PRELOAD"] = FAULT_SHIM;
    launch.environment["FAULT"] = fault;
    launch.environment["FAULT_CALLS"] = "calls";
    launch.environment["FAULT_TOTALS"] = "totals";
    return launch;
  }

  /// The faults that were made, in their order: failed, delayed, interrupted, operation, number of the call.
  std::vector<std::string> Made() const { return SplitLines(Read("totals")); }

  /// The line of Made for "operation:N".
  static std::string Failed(std::string call) { return "1 0 0 " + call.replace(call.rfind(':'), 1, " "); }
  static std::string Delayed(std::string call) { return "0 1 0 " + call.replace(call.rfind(':'), 1, " "); }
  static std::string Interrupted(std::string call) {
    return "0 0 1 " + call.replace(call.rfind(':'), 1, " ");
  }

  /// Prepares the directory for another run.
  void RemoveTraces() const {
    for (const char* name : {"calls", "totals", "log"}) std::filesystem::remove_all(Directory() / name);
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

  // Names of the calls that the thread which got `status` made afterwards.
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

  // Whether a thread other than the one that got `status` called one of the operations afterwards.
  static bool OthersCalledAfter(const std::vector<Call>& calls, int status,
                                const std::vector<std::string>& operations) {
    const auto failed =
        std::find_if(calls.begin(), calls.end(), [=](const Call& c) { return c.status == status; });
    return std::any_of(failed, calls.end(), [&](const Call& call) {
      return call.thread != failed->thread &&
             std::find(operations.begin(), operations.end(), call.operation) != operations.end();
    });
  }
};

constexpr int kCode = 777;

/// A row of worker_faults.txt.
struct Fault {
  std::string name;
  std::string stress;
  int level = 0;
  std::string operation;                // with the number of the call
  bool inTearDown = false;              // the fault happens after SIGINT
  std::string message;                  // the text of the error record
  std::string last;                     // how the error record begins that ends the worker
  std::vector<std::string> callsAfter;  // what the failed worker calls afterwards
};

std::string Section(const std::string& stress, int level) {
  const std::string file = stress == "AIC" ? std::string(", File: ") + TINY_NETWORK : "";
  return stress + ": {Level: " + std::to_string(level) + file + "}\n";
}

/// The rows of a table, without its comments and empty lines.
std::vector<std::string> Rows(const char* path) {
  std::ifstream file(path);
  std::vector<std::string> rows;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.front() != '#') rows.push_back(line);
  }
  if (rows.empty()) throw std::runtime_error(std::string("no rows in ") + path);
  return rows;
}

std::vector<std::string> Columns(const std::string& row) {
  std::vector<std::string> columns;
  for (std::size_t begin = 0; begin <= row.size();) {
    const std::size_t end = std::min(row.find(';', begin), row.size());
    const std::size_t first = std::min(row.find_first_not_of(' ', begin), end);
    columns.push_back(row.substr(first, end - first));
    begin = end + 1;
  }
  return columns;
}

std::vector<Fault> ReadFaults() {
  std::vector<Fault> faults;
  for (const std::string& row : Rows(WORKER_FAULTS)) {
    const std::vector<std::string> columns = Columns(row);
    if (columns.size() != 7 || (columns[3] != "running" && columns[3] != "ending")) {
      throw std::runtime_error("not a row of worker_faults.txt: " + row);
    }
    Fault fault;
    fault.name = columns[0];
    std::istringstream(columns[1]) >> fault.stress >> fault.level;
    fault.operation = columns[2];
    fault.inTearDown = columns[3] == "ending";
    fault.message = columns[4];
    fault.last = columns[5].empty() ? fault.message : columns[5];
    std::istringstream calls(columns[6]);
    for (std::string call; calls >> call;) fault.callsAfter.push_back(call);
    faults.push_back(fault);
  }
  return faults;
}

std::ostream& operator<<(std::ostream& stream, const Fault& fault) {
  return stream << fault.operation;
}

class WorkerFaultTest : public FaultTest, public testing::WithParamInterface<Fault> {};

TEST_P(WorkerFaultTest, IsLoggedAndTheOthersGoOn) {
  const Fault& fault = GetParam();
  Launch launch = Faulty(Section(fault.stress, fault.level) + "CPU: {Level: 1}\n",
                         fault.operation + ":fail=" + std::to_string(kCode));
  Program program(std::move(launch));
  if (fault.inTearDown) {
    ASSERT_TRUE(program.ReadLine().has_value()) << program.Wait(std::chrono::seconds(0));
  } else {
    ASSERT_TRUE(program.WaitForError(fault.last)) << program.Wait(std::chrono::seconds(0));
  }
  // The copies go on, and so does the second worker of the failed worker's stress.
  if (!fault.inTearDown) {
    const auto othersGoOn = [&] {
      const std::vector<Call> calls = Calls();
      return OthersCalledAfter(calls, kCode, {"memcpy_s"}) &&
             (fault.level < 2 ||
              OthersCalledAfter(calls, kCode,
                                {"QetImageResize", "QetVenc::GetStream", "QetDNNModelProcess"}));
    };
    while (!othersGoOn() && program.Seconds() < 60) program.RunFor(std::chrono::milliseconds(20));
    EXPECT_TRUE(othersGoOn());
  }
  program.Signal(SIGINT);
  const Ending& ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));

  const std::vector<std::string> texts = Texts(LogFile());
  EXPECT_THAT(texts, Contains("ERROR " + fault.message).Times(1));
  EXPECT_THAT(texts, Contains(testing::StartsWith("ERROR " + fault.last)).Times(1));
  const std::vector<Call> calls = Calls();
  EXPECT_EQ(CallsAfter(calls, kCode), fault.callsAfter);
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back().operation, "QetRelease");
  EXPECT_EQ(calls.back().status, 0);
  EXPECT_THAT(Made(), ElementsAre(Failed(fault.operation)));
}

const std::string kModel = std::string("AIC: {Level: 1, File: ") + TINY_NETWORK + "}\n";
const std::string kModels = std::string("AIC: {Level: 2, File: ") + TINY_NETWORK + "}\n";
const char* const kVpc = "VPC: {Level: 1}\n";
const char* const kVenc = "VENC: {Level: 1}\n";

INSTANTIATE_TEST_SUITE_P(All, WorkerFaultTest, testing::ValuesIn(ReadFaults()),
                         [](const testing::TestParamInfo<Fault>& info) { return info.param.name; });

TEST_F(FaultTest, FailedInitializeEndsTheProgramWithoutARelease) {
  const Ending ending = Run(Faulty("CPU: {Level: 1}\n", "QetInitialize:1:fail=777"));
  EXPECT_THAT(ending, Exited(255));
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(Texts(LogFile()), Contains("ERROR Init() | QetInitialize failed").Times(1));
  // The configuration is freed, and no other call follows.
  EXPECT_THAT(CallsAfter(Calls(), kCode), Each("QetYamlNode::~QetYamlNode"));
  EXPECT_THAT(Made(), ElementsAre("1 0 0 QetInitialize 1"));
}

TEST_F(FaultTest, FailedReleaseEndsTheProgramWith255) {
  const Ending ending = RunLines(Faulty("CPU: {Level: 1}\n", "QetRelease:1:fail=777"));
  EXPECT_THAT(ending, Exited(255));
  EXPECT_THAT(Texts(LogFile()), Contains("ERROR Release() | Fail to relase ctx!").Times(1));
  EXPECT_THAT(CallsAfter(Calls(), kCode), IsEmpty());
  EXPECT_THAT(Made(), ElementsAre("1 0 0 QetRelease 1"));
}

TEST_F(FaultTest, FailedCopiesAreNotExamined) {
  const Ending ending = RunLines(Faulty("CPU: {Level: 2}\n", "memcpy_s:1-:fail=777"), 2);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(LogFile()), Not(Contains(testing::StartsWith("ERROR"))));
  std::vector<std::string> copies;
  for (const Call& call : Calls()) {
    if (call.operation == "memcpy_s") copies.push_back(std::to_string(call.status));
  }
  EXPECT_THAT(copies, AllOf(SizeIs(testing::Ge(4U)), Each("777")));
  EXPECT_THAT(Made(), AllOf(SizeIs(copies.size()), Each(testing::StartsWith("1 0 0 memcpy_s "))));
}

TEST_F(FaultTest, AfterOneFailedCopyItsWorkerGoesOn) {
  for (const std::string copy : {"memcpy_s:1", "memcpy_s:9"}) {
    SCOPED_TRACE(copy);
    RemoveTraces();
    Program program(Faulty("CPU: {Level: 2}\n", copy + ":fail=777"));
    const auto goesOn = [&] {
      const std::vector<Call> calls = Calls();
      return testing::Matches(Contains("memcpy_s"))(CallsAfter(calls, kCode)) &&
             OthersCalledAfter(calls, kCode, {"memcpy_s"});
    };
    while (!goesOn() && program.Seconds() < 60) program.RunFor(std::chrono::milliseconds(20));
    EXPECT_TRUE(goesOn());
    program.Signal(SIGINT);
    EXPECT_THAT(program.Wait(), Exited(0));
    EXPECT_THAT(Texts(LogFile()), Not(Contains(testing::StartsWith("ERROR"))));
    EXPECT_THAT(Made(), ElementsAre(Failed(copy)));
  }
}

// Faults while the configuration is read. That happens on the main thread, before any other exists. The file
// is read twice. Of the keys runTimes, logLevel, CPU and AIC, logLevel is read first.
struct ConfigurationFault {
  const char* name;
  const char* fault;
  int status;  // exit status; -1: the exception ends the program
  std::vector<std::string> errors;
};

std::ostream& operator<<(std::ostream& stream, const ConfigurationFault& fault) {
  return stream << fault.fault;
}

class ConfigurationFaultTest : public FaultTest, public testing::WithParamInterface<ConfigurationFault> {};

TEST_P(ConfigurationFaultTest, EndsTheProgramAsTheTableSays) {
  const ConfigurationFault& fault = GetParam();
  const Ending ending =
      Run(Faulty(std::string("CPU: {Level: 1}\nAIC: {Level: 0, File: ") + TINY_NETWORK + "}\n",
                 std::string(fault.fault) + ":fail=777"));
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(Made(), ElementsAre(Failed(fault.fault)));
  if (fault.status < 0) {
    EXPECT_THAT(ending, KilledBy(SIGABRT));
    EXPECT_THAT(ending.error, HasSubstr("std::runtime_error: fault 777"));
    EXPECT_THAT(CallsAfter(Calls(), kCode), Each("QetYamlNode::~QetYamlNode"));
    return;
  }
  EXPECT_THAT(ending, Exited(fault.status));
  std::vector<std::string> errors;
  for (const std::string& text : Texts(LogFile())) {
    if (text.compare(0, 6, "ERROR ") == 0) errors.push_back(text.substr(6));
  }
  EXPECT_EQ(errors, fault.errors);
  // Where Init fails there is no release.
  EXPECT_THAT(CallsAfter(Calls(), kCode), Each("QetYamlNode::~QetYamlNode"));
}

constexpr char kParseFailed[] = "Init() | Stress benchamrk parse failed";
constexpr char kLoadFailed[] = "Load() | Load c.yaml happen error, the message is: fault 777";

INSTANTIATE_TEST_SUITE_P(
    All, ConfigurationFaultTest,
    testing::Values(
        ConfigurationFault{"FirstOpen", "QetYamlNode::QetYamlNode:1", -1, {}},
        ConfigurationFault{"LaterOpen", "QetYamlNode::QetYamlNode:2", 255, {kLoadFailed, kParseFailed}},
        ConfigurationFault{"FirstIndex", "QetYamlNode::operator[]:1", -1, {}},
        ConfigurationFault{"LaterIndex", "QetYamlNode::operator[]:2", -1, {}},
        ConfigurationFault{"SectionIndex", "QetYamlNode::operator[]:3", 255, {kLoadFailed, kParseFailed}},
        ConfigurationFault{
            "LaterSectionIndex", "QetYamlNode::operator[]:4", 255, {kLoadFailed, kParseFailed}},
        ConfigurationFault{"FirstLevel",
                           "QetYamlNode::GetValue<unsigned>:1",
                           255,
                           {"Parse() | Cannot find CPU: Level in Config File!", kParseFailed}},
        ConfigurationFault{"LaterLevel",
                           "QetYamlNode::GetValue<unsigned>:2",
                           255,
                           {"Parse() | Cannot find AIC: Level in Config File!", kParseFailed}},
        ConfigurationFault{"File",
                           "QetYamlNode::GetValue<string>:1",
                           255,
                           {"Parse() | Cannot find AIC: File in Config File!", kParseFailed}}),
    [](const testing::TestParamInfo<ConfigurationFault>& info) { return std::string(info.param.name); });

// A setting that does not convert is read as 0.
TEST_F(FaultTest, ALogLevelThatDoesNotConvertIsOff) {
  const Ending ending = RunLines(Faulty("CPU: {Level: 1}\n", "QetYamlNode::AsIf:1:fail=777"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "");
  EXPECT_EQ(Read("log/STBM.log"), "");
  EXPECT_THAT(Made(), ElementsAre("1 0 0 QetYamlNode::AsIf 1"));
}

TEST_F(FaultTest, RunTimesThatDoNotConvertAreRaisedToTheLeast) {
  const Ending ending = RunLines(Faulty("CPU: {Level: 1}\n", "QetYamlNode::AsIf:2:fail=777"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(LogFile()),
              Contains("WARN Init() | RunTimes should be larger 40 , now is: 0. runTimes will be set to 40"));
  EXPECT_THAT(Made(), ElementsAre("1 0 0 QetYamlNode::AsIf 2"));
}

// The first answer goes to the sinks, the second to the program's logger.
TEST_F(FaultTest, AnotherLogLevelIsTakenAsItIs) {
  for (const std::string call : {"ParseLogLevel:1", "ParseLogLevel:2"}) {
    SCOPED_TRACE(call);
    RemoveTraces();
    const Ending ending = RunLines(Faulty("CPU: {Level: 1}\n", call + ":fail=2"));
    EXPECT_THAT(ending, Exited(0));
    EXPECT_THAT(Texts(LogFile()), IsEmpty()) << "only errors are to be logged";
    EXPECT_THAT(Made(), ElementsAre(Failed(call)));
  }
}

TEST_F(FaultTest, AnotherLogModeIsTakenAsItIs) {
  const Ending ending = RunLines(Faulty("CPU: {Level: 1}\n", "ParseLogMode:1:fail=4"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.error, HasSubstr("QetInitialize success"));
  EXPECT_FALSE(Exists("log"));
  EXPECT_THAT(Made(), ElementsAre("1 0 0 ParseLogMode 1"));
}

TEST_F(FaultTest, ReleaseFreesWhatFailedWorkersLeft) {
  Program program(Faulty(std::string("VPC: {Level: 2}\nVENC: {Level: 1}\n"),
                         "QetImageResize:3:fail=777,QetVenc::GetStream:3:fail=778"));
  // The workers fail in either order. The log file has both records.
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
  EXPECT_THAT(Made(), UnorderedElementsAre("1 0 0 QetImageResize 3", "1 0 0 QetVenc::GetStream 3"));
}

// For each row of operations.txt: an interrupt during the call ends the run cleanly, and a delay changes
// nothing but time.
class OperationTest : public FaultTest, public testing::WithParamInterface<std::string> {
 protected:
  static std::string EveryEngine() {
    return std::string("VPC: {Level: 1}\nVENC: {Level: 1}\nCPU: {Level: 1}\n") + kModel;
  }
  static bool IsInTearDown(const std::string& call) {
    return call.find("Destroy") != std::string::npos || call.find("Release:") != std::string::npos ||
           call.find("~QetVenc") != std::string::npos;
  }
};

TEST_P(OperationTest, AnInterruptDuringItEndsTheRunCleanly) {
  const std::string call = GetParam();
  const bool beforeTheLog = call.find("ParseLog") == 0;
  Program program(Faulty(EveryEngine(), call + ":sigint"));
  if (IsInTearDown(call)) {
    ASSERT_TRUE(program.ReadLine().has_value());
    program.Signal(SIGINT);
  }
  const Ending& ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  const std::vector<std::string> texts = Texts(LogFile(), "");
  if (!beforeTheLog) {
    EXPECT_THAT(texts, Contains(HasSubstr("Signal Interactive attention received. signal: 2")));
  }
  EXPECT_THAT(texts, Not(Contains(testing::StartsWith("ERROR"))));
  EXPECT_THAT(texts, Not(Contains(HasSubstr("gave back"))));
  EXPECT_EQ(Calls().back().operation, "QetRelease");
  EXPECT_THAT(Made(), ElementsAre(Interrupted(call)));
}

TEST_P(OperationTest, ADelayOfItChangesNothingElse) {
  if (kAddressSanitized) GTEST_SKIP() << "ThreadSanitizer, which sees freed memory too, runs these";
  const std::string call = GetParam();
  Program program(Faulty(EveryEngine(), call + ":delay=300"));
  ASSERT_TRUE(program.ReadLine().has_value());
  while (!IsInTearDown(call) && Made().empty() && program.Seconds() < 60) {
    program.RunFor(std::chrono::milliseconds(20));
  }
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
  const std::vector<std::string> texts = Texts(LogFile(), "");
  EXPECT_THAT(texts, Not(Contains(testing::StartsWith("ERROR"))));
  EXPECT_THAT(texts, Not(Contains(HasSubstr("gave back"))));
  EXPECT_THAT(Made(), ElementsAre(Delayed(call)));
}

INSTANTIATE_TEST_SUITE_P(All, OperationTest, testing::ValuesIn(Rows(OPERATIONS)),
                         [](const testing::TestParamInfo<std::string>& info) {
                           std::string name;
                           for (const char c : info.param) {
                             if (std::isalnum(static_cast<unsigned char>(c)) != 0) name += c;
                             if (c == '~') name += "End";
                           }
                           return name;
                         });

TEST_F(FaultTest, AnInterruptBeforeTheHandlerIsInstalledKillsTheProgram) {
  for (const std::string call : {"QetYamlNode::QetYamlNode:1", "QetYamlNode::operator[]:1",
                                 "QetYamlNode::AsIf:1", "QetYamlNode::~QetYamlNode:1"}) {
    SCOPED_TRACE(call);
    RemoveTraces();
    const Ending ending = Run(Faulty("CPU: {Level: 1}\n", call + ":sigint"));
    EXPECT_THAT(ending, KilledBy(SIGINT));
    EXPECT_EQ(ending.output, "");
    EXPECT_EQ(ending.error, "");
    EXPECT_FALSE(Exists("log"));
    EXPECT_THAT(Made(), ElementsAre(Interrupted(call)));
  }
}

// A model is first tried in a process of its own. Where that cannot start, the model is loaded all the same.
TEST_F(FaultTest, AProcessThatCannotBeStartedIsReportedOnceAndChangesNothingElse) {
  Program program(Faulty(kModels, "posix_spawn:1-:fail=11"));
  const auto inferred = [&] {
    const std::vector<Call> calls = Calls();
    return std::count_if(calls.begin(), calls.end(), [](const Call& call) {
             return call.operation == "QetDNNModelProcess" && call.status == 0;
           }) >= 4;
  };
  while (!inferred() && program.Seconds() < 60) program.RunFor(std::chrono::milliseconds(20));
  EXPECT_TRUE(inferred());
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
  const std::vector<std::string> texts = Texts(LogFile(), "");
  EXPECT_THAT(texts,
              Contains(AllOf(testing::StartsWith("WARN models are loaded without a trial: cannot run "),
                             testing::EndsWith(": Resource temporarily unavailable")))
                  .Times(1));
  EXPECT_THAT(texts, Not(Contains(testing::StartsWith("ERROR"))));
  EXPECT_THAT(Made(), ElementsAre("1 0 0 posix_spawn 1", "1 0 0 posix_spawn 2"));
}

// With the real limit on the threads of a user. The run needs four: a CPU worker, its averager, the reporter
// and the limiter.
TEST_F(FaultTest, ThreadsBeyondTheLimitOfAUserEndTheProgramWithTheReason) {
  if (kThreadSanitized) GTEST_SKIP() << "the sanitizer itself cannot start under such a limit";
  Launch launch = Configured("logMode: 4\nCPU: {Level: 1}\n");
  if (!RunAsAnother(launch)) {
    GTEST_SKIP() << "root is exempt from the limit, and no other user can start the program here";
  }
  // A limit of 1 leaves only the main thread.
  for (const rlim_t limit : {1U, 2U, 3U, 4U}) {
    SCOPED_TRACE(limit);
    launch.limits[RLIMIT_NPROC] = limit;
    const Ending ending = Run(launch);
    EXPECT_THAT(ending, KilledBy(SIGABRT));
    EXPECT_THAT(ending.error, HasSubstr("thread constructor failed"));
    EXPECT_EQ(ending.output, "");
  }
  // The sanitizer needs one more, to look for leaks at the end.
  launch.limits[RLIMIT_NPROC] = kAddressSanitized ? 6 : 5;
  EXPECT_THAT(RunLines(launch), Exited(0));
}

// The tests below fail calls that a sanitizer replaces itself.
#if !defined(STRESS_ADDRESS_SANITIZER) && !defined(STRESS_THREAD_SANITIZER)

// The buffers that the workers allocate in their set-ups, in the order of the calls.
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
  const std::string fault = GetParam().fault;
  EXPECT_THAT(Made(), ElementsAre(Failed(fault.substr(0, fault.rfind(':')))));
}

INSTANTIATE_TEST_SUITE_P(All, AllocationTest,
                         testing::Values(Allocation{"CpuSource", "CPU: {Level: 1}\n", "new[]:1:fail=1"},
                                         Allocation{"CpuDestination", "CPU: {Level: 1}\n", "new[]:2:fail=1"},
                                         Allocation{"VpcTestImage", kVpc, "new[]:1:fail=1"},
                                         Allocation{"VencTestImage", kVenc, "new[]:1:fail=1"}),
                         [](const testing::TestParamInfo<Allocation>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(FaultTest, WantOfDeviceMemoryIsAStatus) {
  Program program(Faulty(kVpc, "posix_memalign:1:fail=12"));
  ASSERT_TRUE(program.WaitForError("QetImageResize failed")) << program.Wait(std::chrono::seconds(0));
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
  EXPECT_THAT(Texts(LogFile()), Contains("ERROR VpcPerpare() | QetImageMallocAligned fail, ret = 1010"));
  EXPECT_THAT(Made(), ElementsAre("1 0 0 posix_memalign 1"));
}

TEST_F(FaultTest, AThreadThatCannotBeStartedEndsTheProgramWithTheReason) {
  // The threads are a CPU and a VPC worker, their averagers, the reporter and the limiter.
  for (const std::string nth : {"1", "2", "3", "4", "5", "6"}) {
    RemoveTraces();
    const Ending ending =
        Run(Faulty("CPU: {Level: 1}\nVPC: {Level: 1}\n", "pthread_create:" + nth + ":fail=11"));
    EXPECT_THAT(ending, KilledBy(SIGABRT)) << nth;
    EXPECT_THAT(ending.error, HasSubstr("thread constructor failed")) << nth;
    EXPECT_THAT(Made(), ElementsAre("1 0 0 pthread_create " + nth));
  }
}

TEST_F(FaultTest, AClockThatJumpsChangesRatesAlone) {
  for (const std::string seconds : {"3600", "-3600"}) {
    RemoveTraces();
    Program program(Faulty("CPU: {Level: 2}\nVPC: {Level: 1}\n", "clock:500-:fail=" + seconds));
    bool jumped = false;
    for (int lines = 0; lines < 3 || (!jumped && program.Seconds() < 60); ++lines) {
      jumped = !Made().empty();
      ASSERT_TRUE(program.ReadLine().has_value()) << program.Wait(std::chrono::seconds(0));
    }
    program.Signal(SIGINT);
    EXPECT_THAT(program.Wait(), Exited(0)) << seconds;
    EXPECT_THAT(Texts(LogFile(), ""), Not(Contains(testing::StartsWith("ERROR"))));
    EXPECT_THAT(Made(), Contains("1 0 0 clock 500"));
  }
}

// If anything but the log looked at the time of day, each operation would seem to take a day, or a negative
// time.
TEST_F(FaultTest, ATimeOfDayThatJumpsChangesTimeStampsAlone) {
  for (const int seconds : {86400, -86400}) {
    SCOPED_TRACE(seconds);
    RemoveTraces();
    Program program(Faulty("VENC: {Level: 1}\n", "wall-clock:2-:fail=" + std::to_string(seconds)));
    bool published = false;
    while (!published && program.Seconds() < 60) {
      const auto line = program.ReadLine();
      ASSERT_TRUE(line.has_value()) << program.Wait(std::chrono::seconds(0));
      const double rate = std::stod(Rates(*line)["kivuVencStress"]);
      published = rate != 0.0;
      if (published) EXPECT_GT(rate, 0.01) << *line;
    }
    EXPECT_TRUE(published);
    program.Signal(SIGINT);
    EXPECT_THAT(program.Wait(), Exited(0));
    EXPECT_THAT(Texts(LogFile(), ""), Not(Contains(testing::StartsWith("ERROR"))));
    std::vector<std::string> days;
    for (const std::string& line : SplitLines(Read("log/STBM.log"))) days.push_back(line.substr(0, 10));
    ASSERT_THAT(days, SizeIs(testing::Ge(3U)));
    if (seconds < 0) std::reverse(days.begin(), days.end());
    EXPECT_EQ(std::adjacent_find(days.begin(), days.end(), std::greater_equal<>()), days.end());
    EXPECT_THAT(Made(), SizeIs(testing::Ge(days.size() - 1)));
  }
}

#endif

// Each allocation that the program and the platform's libraries make themselves, on the main thread or in a
// worker's set-up and first cycle, is refused in a run of its own. The platform answers with a status, and
// the worker ends as it does for any other status. The program catches exceptions only where it reads the
// configuration: elsewhere the exception ends the program, with the standard library's message.
struct MemorySweep {
  const char* name;
  const char* section;
  const char* memory;
  int fewestReported;
  int fewestEnded;
  int mostEnded;
};

std::ostream& operator<<(std::ostream& stream, const MemorySweep& sweep) {
  return stream << sweep.name;
}

class MemoryTest : public FaultTest, public testing::WithParamInterface<MemorySweep> {};

TEST_P(MemoryTest, EachPieceThatIsRefusedIsReportedOrEndsTheProgram) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer replaces the allocation functions";
  const MemorySweep& sweep = GetParam();
  int reported = 0;
  int ended = 0;
  for (int number = 1;; ++number) {
    const std::string call = std::string(sweep.memory) + ":" + std::to_string(number);
    SCOPED_TRACE(call);
    RemoveTraces();
    Launch launch = Faulty(sweep.section, call + ":fail=12", 40);
    launch.environment["FAULT_NAP"] = "5";  // the run of 40 s takes 0.2 s
    const Ending ending = Run(launch);
    const std::vector<std::string> errors = [&] {
      std::vector<std::string> found;
      for (const std::string& line : ending.ErrorLines()) {
        if (line.find(" ERROR ") != std::string::npos || line.find("ara::log: cannot") == 0) {
          found.push_back(line);
        }
      }
      return found;
    }();
    if (Made().empty()) {
      EXPECT_THAT(ending, Exited(0));
      EXPECT_THAT(errors, IsEmpty());
      break;
    }
    EXPECT_THAT(Made(), ElementsAre(Failed(call)));
    if (ending.signal) {
      EXPECT_THAT(ending, KilledBy(SIGABRT));
      EXPECT_THAT(ending.error, HasSubstr("uncaught exception of type std::bad_alloc"));
      ++ended;
    } else if (ending.status == 255) {
      EXPECT_THAT(ending, Exited(255));
      EXPECT_THAT(errors, Contains(testing::AnyOf(HasSubstr(" happen error, the message is: std::bad_alloc"),
                                                  HasSubstr("QetInitialize: out of memory"))));
      EXPECT_EQ(ending.output, "");
      ++reported;
    } else {
      EXPECT_THAT(ending, Exited(0));
      EXPECT_THAT(errors, Not(IsEmpty()));
      EXPECT_THAT(ending.OutputLines(), SizeIs(testing::Ge(2U))) << "the other workers have to go on";
      ASSERT_FALSE(Calls().empty());
      EXPECT_EQ(Calls().back().operation, "QetRelease");
      ++reported;
    }
    if (HasFailure()) return;
  }
  EXPECT_GE(reported, sweep.fewestReported);
  EXPECT_GE(ended, sweep.fewestEnded);
  EXPECT_LE(ended, sweep.mostEnded);
}

const std::string kEveryLevelZero =
    std::string("VPC: {Level: 0}\nVENC: {Level: 0}\nCPU: {Level: 0}\nAIC: {Level: 0, File: ") + TINY_NETWORK +
    "}\n";

// These end the program: the test images and the CPU worker's two buffers. A copy allocates nothing.
INSTANTIATE_TEST_SUITE_P(
    All, MemoryTest,
    testing::Values(MemorySweep{"Main", kEveryLevelZero.c_str(), "main-memory", 10, 10, 1000},
                    MemorySweep{"Vpc", kVpc, "worker-memory", 5, 1, 1},
                    MemorySweep{"Venc", kVenc, "worker-memory", 3, 1, 1},
                    MemorySweep{"Cpu", "CPU: {Level: 1}\n", "worker-memory", 0, 2, 2},
                    MemorySweep{"Aic", kModel.c_str(), "worker-memory", 20, 0, 0}),
    [](const testing::TestParamInfo<MemorySweep>& info) { return std::string(info.param.name); });

// With the same seed, a failure that a soak found can be looked for again.
TEST_F(FaultTest, ASeedDecidesWhichCallsFailAtRandom) {
  const auto failing = [&](const std::string& seed) {
    Launch launch = Faulty("CPU: {Level: 1}\n", "memcpy_s:1/4:fail=777");
    launch.environment["FAULT_SEED"] = seed;
    std::filesystem::remove(Directory() / "calls");
    Program program(launch);
    std::string pattern;
    while (pattern.size() < 64 && program.Seconds() < 60) {
      program.RunFor(std::chrono::milliseconds(20));
      pattern.clear();
      for (const Call& call : Calls()) {
        if (call.operation == "memcpy_s") pattern += call.status == kCode ? 'x' : '.';
      }
    }
    program.Signal(SIGINT);
    EXPECT_THAT(program.Wait(), Exited(0));
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
