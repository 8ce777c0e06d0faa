// SPDX-License-Identifier: Apache-2.0

// Runs stress_scope report as a user does: the page that it writes, and its errors for bad input.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "made_run.h"
#include "run_tool.h"
#include "run_writer.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class ReportProgramTest : public ::testing::Test {
 protected:
  ReportProgramTest() { made_run::Write(made_run::Run(), run_); }

  static ToolResult Report(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "report");
    return RunProgram(STRESS_SCOPE, std::move(arguments));
  }

  // Expects an error with these words and no page.
  void Refused(const std::vector<std::string>& arguments, const std::string& words) const {
    const ToolResult result = Report(arguments);
    EXPECT_EQ(result.status, 2) << words << "\n" << result.errors;
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_EQ(result.output, "");
    EXPECT_FALSE(fs::exists(run_ + "/report.html"));
    EXPECT_FALSE(fs::exists(run_ + "/report.html.new"));
  }

  TemporaryFolder folder_;
  std::string run_ = folder_ / "before";
};

TEST_F(ReportProgramTest, WritesAPageIntoTheFolderAndASummary) {
  const ToolResult result = Report({run_ + "/"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("before\n"), HasSubstr("  cpu "), HasSubstr("before/report.html\n")));
  EXPECT_THAT(folder_.Get("before/report.html"), AllOf(HasSubstr("<!DOCTYPE html>"), HasSubstr("</html>\n")));
}

TEST_F(ReportProgramTest, PutsSeveralRunsOnOnePage) {
  made_run::Write(made_run::Run(), folder_ / "after");
  const ToolResult result = Report({run_, folder_ / "after", "-o", folder_ / "both.html"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(folder_.Get("both.html"), AllOf(HasSubstr("A: before"), HasSubstr("B: after")));
  EXPECT_FALSE(fs::exists(run_ + "/report.html"));
}

TEST_F(ReportProgramTest, ShowsNamesOfFoldersWithoutWhatControlsATerminal) {
  const std::string hostile = folder_ / "a\033[2Jb";
  made_run::Write(made_run::Run(), hostile);
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"report", hostile}, {"compare", hostile, hostile}}) {
    const ToolResult result = RunProgram(STRESS_SCOPE, arguments);
    EXPECT_THAT(result.output, AllOf(HasSubstr("a\\x1b[2Jb"), Not(HasSubstr("\033")))) << result.errors;
  }
}

TEST_F(ReportProgramTest, TextWritesNoPage) {
  const ToolResult result = Report({run_, "--text"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(HasSubstr("  cpu "), Not(HasSubstr("report.html"))));
  EXPECT_FALSE(fs::exists(run_ + "/report.html"));
}

TEST_F(ReportProgramTest, ReplacesTheReportThatWasThere) {
  folder_.Put("before/report.html", "old");
  EXPECT_EQ(Report({run_}).status, 0);
  EXPECT_THAT(folder_.Get("before/report.html"), HasSubstr("<!DOCTYPE html>"));
}

// To open a pipe for writing is to wait for a reader.
TEST_F(ReportProgramTest, ReplacesAPipeThatStandsInTheFolder) {
  ASSERT_EQ(mkfifo((run_ + "/report.html").c_str(), 0600), 0);
  const ToolResult result = Report({run_});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_TRUE(fs::is_regular_file(run_ + "/report.html"));
}

TEST_F(ReportProgramTest, RefusesWrongArguments) {
  Refused({}, "DIR is missing");
  Refused({run_, "--bogus"}, "--bogus");
  Refused({run_, run_, run_, run_, run_, run_, run_, run_, run_}, "1 to 8 run folders, got 9");
}

TEST_F(ReportProgramTest, RefusesFoldersThatAreNoRun) {
  fs::create_directories(folder_ / "empty");
  Refused({folder_ / "none"}, "none: there is no such folder");
  Refused({folder_ / "empty"},
          "empty: not a run folder: cannot read run.json: No such file or directory; give a folder that "
          "stress_scope record or rates made\n");
  Refused({folder_.Put("a file", "")}, "a file: there is no such folder");
  Refused({run_, folder_ / "empty"}, "empty: not a run folder");
}

TEST_F(ReportProgramTest, RefusesForeignAndTruncatedDescriptions) {
  folder_.Put("before/run.json", "{\"format\": 1}");
  Refused({run_}, "before: a run folder of format 1, and " + std::string(scope::kToolVersion) +
                      " reads format 2. Record the run again, or read it with the version that wrote it.");
  folder_.Put("before/run.json", "{\"name\": \"a package\"}");
  Refused({run_}, "not the description of a run");
  folder_.Put("before/run.json", "");
  Refused({run_}, "run.json: ");
  folder_.Put("before/run.json", "{\"format\": 2, \"kind\": \"record\", \"conditions\": {\"cpu_model\": \"A");
  Refused({run_}, "run.json: ");
  folder_.Put("before/run.json",
              "{\"format\": 2, \"kind\": \"record\", \"conditions\": {\"load_average\": 3}}");
  Refused({run_}, "run.json: ");
  folder_.Put("before/run.json", "\xff\xfe{}");
  Refused({run_}, "run.json: ");
}

TEST_F(ReportProgramTest, RefusesForeignTables) {
  const std::string samples = folder_.Get("before/samples.csv");
  folder_.Put("before/samples.csv", "a,b\n1,2\n");
  Refused({run_}, "samples.csv:1: expected the header");
  folder_.Put("before/samples.csv", samples + "1,1e999,cpu,0,1,1,1,0,1,1,1\n");
  Refused({run_}, "expected a number as time_s, found \"1e999\"");
  folder_.Put("before/samples.csv", samples + std::string("\0\0\0\n", 4));
  Refused({run_}, "expected 11 fields");
  fs::remove(run_ + "/samples.csv");
  Refused({run_}, "the file is missing, although the run is complete");
}

TEST_F(ReportProgramTest, ShowsWhatATruncatedRunHasAndSaysSo) {
  scope::Run run = made_run::Run();
  run.info.complete = false;
  run.info.incompleteReason = "the power went";
  scope::RunWriter(run_, true).WriteInfo(run.info);
  const ToolResult nothing = Report({run_});
  EXPECT_EQ(nothing.status, 0) << nothing.errors;
  EXPECT_THAT(nothing.output, AllOf(HasSubstr("nothing was recorded"), HasSubstr("the power went"),
                                    HasSubstr("samples.csv is missing")));
  fs::remove(run_ + "/report.html");

  made_run::Write(run, folder_ / "cut");
  const std::string samples = folder_.Get("cut/samples.csv");
  folder_.Put("cut/samples.csv", samples.substr(0, samples.size() / 2));
  const std::string seconds = folder_.Get("cut/seconds.csv");
  folder_.Put("cut/seconds.csv", seconds.substr(0, seconds.size() / 2));
  const ToolResult half = Report({folder_ / "cut"});
  EXPECT_EQ(half.status, 0) << half.errors;
  EXPECT_THAT(half.output, AllOf(HasSubstr("  cpu           2"), HasSubstr("samples.csv: line"),
                                 HasSubstr("seconds.csv: line"), HasSubstr("is cut and was left out")));
}

TEST_F(ReportProgramTest, ShowsSamplesWithGapsAndSaysSo) {
  scope::Run run = made_run::Run();
  std::vector<scope::Sample> kept;
  for (const scope::Sample& sample : run.samples) {
    if (sample.timeS <= 10 || sample.timeS >= 20) kept.push_back(sample);
  }
  run.samples = kept;
  made_run::Write(run, folder_ / "gap");
  const ToolResult result = Report({folder_ / "gap"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output,
              HasSubstr("warning: no sample of cpu thread 0 and 4 more between 10.000 s and 20.000 s"));
  EXPECT_THAT(result.output, HasSubstr("800.0")) << "the rate of the seconds that are there";
}

// Numbers at the limits of their range.
TEST_F(ReportProgramTest, SurvivesAbsurdFigures) {
  const std::string columns = ",operations,busy_ns,bytes,failures,p50_ns,p99_ns,max_ns\n";
  const std::string most = "18446744073709551615";
  const std::string rows =
      "5,5,cpu,0,1,1,1,0,1,1,1\n6,5,cpu,0,1,1,1,0,1,1,1\n0,0,aic,0,0,0,,0,0,0,0\n"
      "1000000,1e300,vpc,1000000," +
      most + "," + most + "," + most + "," + most + "," + most + "," + most + "," + most + "\n";
  folder_.Put("before/samples.csv", "second,time_s,engine,thread" + columns + rows);
  folder_.Put("before/seconds.csv", "second,time_s,engine,threads" + columns + rows);
  folder_.Put("before/histogram.csv",
              "engine,thread,low_ns,high_ns,count\nvpc,1000000,0," + most + "," + most + "\ncpu,0,0,1,2\n");
  folder_.Put("before/rates.csv", "time_s,stress,fps\n-1,cpuStress,1e300\n1,x,-5\n");
  const ToolResult result = Report({run_});
  EXPECT_EQ(result.status, 0) << result.errors;
}

TEST_F(ReportProgramTest, RefusesAPlaceThatItCannotWriteTo) {
  Refused({run_, "-o", "/proc/none/report.html"}, "cannot write /proc/none/report.html");
  Refused({run_, "-o", folder_.Path()}, "cannot write " + folder_.Path());
}

TEST_F(ReportProgramTest, SaysThatTheDiskIsFullAndKeepsTheReportThatWasThere) {
  Refused({run_, "-o", "/dev/full"}, "cannot write /dev/full: No space left on device");
  folder_.Put("report.html", "old");
  const ToolResult result =
      RunProgram("/bin/sh", {"-c", std::string("ulimit -f 16; exec '") + STRESS_SCOPE + "' report '" + run_ +
                                       "' -o '" + (folder_ / "report.html") + "'"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("report.html.new: File too large"));
  EXPECT_EQ(folder_.Get("report.html"), "old");
}

TEST_F(ReportProgramTest, SaysThatStandardOutputIsFull) {
  const ToolResult result = RunProgram(
      "/bin/sh", {"-c", std::string("'") + STRESS_SCOPE + "' report --text '" + run_ + "' >/dev/full"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("cannot write to standard output: No space left on device"));
}

TEST_F(ReportProgramTest, ShowsRateLinesAlone) {
  const std::string line = "cpuStress : 250.000000 fps. ispStress : 30.0 fps.\n";
  ASSERT_EQ(
      RunProgram(STRESS_SCOPE, {"rates", folder_.Put("lines", line + line + line), "-o", folder_ / "board"})
          .status,
      0);
  const ToolResult result = Report({folder_ / "board"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(HasSubstr("no meter: only rate lines"), HasSubstr("250.0")));
}

}  // namespace
