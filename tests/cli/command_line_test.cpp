// SPDX-License-Identifier: Apache-2.0

// The argument and the file that it names: what the program does before it has read a configuration.

#include <csignal>

#include "program_test.h"

namespace {

class CommandLine : public ProgramTest {
 protected:
  /// Expects that an uncaught exception ends the program: standard error has the reader's message, standard
  /// output nothing, and no file is written.
  void ExpectUncaught(const std::string& name, const std::string& message) const {
    const std::vector<std::string> before = Files();
    const Ending ending = Run(With({name}));
    EXPECT_THAT(ending, KilledBy(SIGABRT));
    EXPECT_THAT(ending.error, testing::ContainsRegex("terminating.*" + message));
    EXPECT_EQ(ending.output, "");
    EXPECT_EQ(Files(), before) << "there is no log yet";
  }
};

TEST_F(CommandLine, NoArgumentIsReportedOnStandardErrorAndEndsWithStatusZero) {
  const Ending ending = Run(With({}));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "Input error! Please input config path!\n");
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(CommandLine, FurtherArgumentsAreIgnored) {
  const Ending ending = RunLines(With({Write("c.yaml", "CPU: {Level: 0}\n"), "none.yaml", "--help", "-h"}));
  EXPECT_THAT(ending, Exited(0));
  ExpectRateLines(ending.OutputLines(), {"cpuStress"});
}

TEST_F(CommandLine, AMissingFileEndsTheProgramWithItsName) {
  ExpectUncaught("none.yaml", "cannot read none\\.yaml: No such file or directory\n");
}

TEST_F(CommandLine, AnEmptyPathEndsTheProgram) {
  ExpectUncaught("", "cannot read : No such file or directory\n");
}

TEST_F(CommandLine, ADirectoryEndsTheProgramWithItsName) {
  std::filesystem::create_directory(Directory() / "folder");
  ExpectUncaught("folder", "cannot read folder: Is a directory\n");
}

TEST_F(CommandLine, MalformedYamlEndsTheProgramWithNameLineAndColumn) {
  ExpectUncaught(Write("c.yaml", "CPU:\n  Level: [1\nAIC: 2\n"), "c\\.yaml:3:4: did not find expected");
}

TEST_F(CommandLine, AnUnclosedQuoteEndsTheProgramWithNameLineAndColumn) {
  ExpectUncaught(Write("c.yaml", "CPU:\n  Level: \"1\n"), "c\\.yaml:3:1: found unexpected end of stream");
}

TEST_F(CommandLine, DuplicateKeysEndTheProgramWithNameLineAndColumn) {
  ExpectUncaught(Write("c.yaml", "CPU: {Level: 1}\nVPC: {Level: 1}\nCPU: {Level: 2}\n"),
                 "c\\.yaml:3:1: duplicate key 'CPU'\n");
}

TEST_F(CommandLine, ATooDeepFileEndsTheProgramWithNameLineAndColumn) {
  // The top level counts as one of the 64 levels, so the 64th bracket is one too many. The key has five
  // characters.
  ExpectUncaught(Write("deep.yaml", "CPU: " + std::string(70, '[') + std::string(70, ']') + "\n"),
                 "deep\\.yaml:1:69: more than 64 levels deep\n");
}

TEST_F(CommandLine, BinaryDataEndsTheProgramWithNameLineAndColumn) {
  std::string garbage = "CPU:\n";
  for (int i = 0; i < 4096; ++i) garbage += static_cast<char>(0x80 + i * 31 % 0x80);
  ExpectUncaught(Write("c.yaml", garbage), "c\\.yaml:2:1: ");
}

TEST_F(CommandLine, ATopLevelListEndsTheProgramWithNameLineAndColumn) {
  ExpectUncaught(Write("c.yaml", "- CPU\n- VPC\n"),
                 "c\\.yaml:1:1: the top level is a sequence, expected a mapping\n");
}

TEST_F(CommandLine, AFileOfMoreThanAMebibyteEndsTheProgramWithItsName) {
  ExpectUncaught(Write("c.yaml", "# " + std::string(1 << 20, 'x') + "\n"), "c\\.yaml: larger than 1 MiB");
}

TEST_F(CommandLine, AnEmptyFileIsAConfigurationWithoutSections) {
  const Ending ending = RunLines(Configured(""));
  EXPECT_THAT(ending, Exited(0));
  ExpectRateLines(ending.OutputLines(), {});
}

}  // namespace
