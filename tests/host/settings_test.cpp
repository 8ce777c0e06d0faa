// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "link_names.h"
#include "platform_test.h"
#include "yaml_faults.h"

namespace {

bool noLibraryIsFound = false;

}  // namespace

extern "C" __attribute__((visibility("default"))) int dladdr(const void* address, Dl_info* info) noexcept {
  static const auto real = reinterpret_cast<decltype(&dladdr)>(dlsym(RTLD_NEXT, "dladdr"));
  return noLibraryIsFound ? 0 : real(address, info);
}

namespace Ormis::test {
namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// The folder of the library under test.
fs::path LibraryFile() {
  Dl_info library{};
  EXPECT_NE(dladdr(dlsym(RTLD_DEFAULT, LINK_QET_INITIALIZE), &library), 0);
  return library.dli_fname;
}

class SettingsTest : public testing::Test {
 protected:
  SettingsTest() { fs::create_directories(folder_); }
  ~SettingsTest() override {
    EXPECT_EQ(LiveYamlObjects(), 0);
    fs::remove_all(folder_);
  }

  std::string Write(const std::string& text) const {
    std::string path = folder_ / "own.yaml";
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  /// Starts and ends the platform with this file, or its own. Returns what the start logs.
  static std::string LogOf(const std::string& path) {
    QetContext context;
    QetContextParameters parameters;
    parameters.configuration = path;
    CapturedStandardError log;
    EXPECT_EQ(QetInitialize(context, parameters), kQetOk);
    std::string text = log.Text();
    if (context.id != 0) EXPECT_EQ(QetRelease(context), kQetOk);
    EXPECT_THAT(text, HasSubstr("Z INFO - QET "));
    EXPECT_THAT(text, EndsWith(" QetInitialize)\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    return MessageOf(text);
  }

  /// The settings that the start logs, without the file.
  std::string SettingsOf(const std::string& text) const {
    const std::string path = Write(text);
    const std::string head = "QetInitialize: settings: " + path + ": ";
    const std::string line = LogOf(path);
    EXPECT_THAT(line, StartsWith(head));
    return line.substr(std::min(head.size(), line.size()));
  }

  /// Expects that the platform does not start. `where`: what follows the name of the file.
  void ExpectRefused(const std::string& text, const std::string& where) const {
    SCOPED_TRACE(text);
    QetContext context;
    QetContextParameters parameters;
    parameters.configuration = Write(text);
    ExpectFailure(kQetInvalidArgument, "QetInitialize", parameters.configuration + where,
                  [&] { return QetInitialize(context, parameters); });
    EXPECT_EQ(context.id, 0U);
  }

  const fs::path folder_ = fs::temp_directory_path() / ("settings_test_" + std::to_string(getpid()));
};

TEST_F(SettingsTest, ThePlatformsOwnFileHasEveryKeyWithItsDefault) {
  const std::string own = (LibraryFile().parent_path() / "ormis/host.yaml").string();
  errno = ENOENT;  // of something else
  const std::string fromFile = LogOf("");
  const std::string head = "QetInitialize: settings: " + own + ": ";
  ASSERT_THAT(fromFile, StartsWith(head));
  const std::string settings = fromFile.substr(head.size());
  EXPECT_EQ(settings, SettingsOf(""));
  std::ifstream file(own);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  for (const std::string key :
       {"memory", "encoder", "trial_processor_s", "trial_wall_s", "trial_memory_percent"}) {
    EXPECT_THAT(settings, HasSubstr(key + "="));
    EXPECT_THAT(lines, testing::Contains(StartsWith(key + ": "))) << "in " << own;
  }
}

TEST_F(SettingsTest, WithoutTheFileTheDefaultsHold) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer takes a second copy of the library for an error";
  const fs::path copy = folder_ / "libormis.so";
  fs::copy_file(LibraryFile(), copy);
  void* const library = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto initialize = reinterpret_cast<decltype(&QetInitialize)>(dlsym(library, LINK_QET_INITIALIZE));
  const auto release = reinterpret_cast<decltype(&QetRelease)>(dlsym(library, LINK_QET_RELEASE));
  QetContext context;
  CapturedStandardError log;
  EXPECT_EQ(initialize(context, {}), kQetOk);
  const std::string line = MessageOf(log.Text());
  EXPECT_EQ(release(context), kQetOk);
  EXPECT_EQ(line, "QetInitialize: settings: defaults, without the file " +
                      (folder_ / "ormis/host.yaml").string() + ": " + SettingsOf(""));
  std::ofstream(folder_ / "ormis") << "a file where the folder would be";
  ExpectFailure(kQetInvalidArgument, "QetInitialize",
                "cannot read " + (folder_ / "ormis/host.yaml").string() + ": Not a directory",
                [&] { return initialize(context, {}); });
}

TEST_F(SettingsTest, WhereTheLibraryIsNotFoundTheFileIsLookedForHere) {
  noLibraryIsFound = true;
  const std::string line = LogOf("");
  noLibraryIsFound = false;
  EXPECT_EQ(line, "QetInitialize: settings: defaults, without the file ormis/host.yaml: " + SettingsOf(""));
}

TEST_F(SettingsTest, EveryKeyIsReadAndLogged) {
  EXPECT_EQ(
      SettingsOf("memory: cached\nencoder: libx264\ntrial_processor_s: 7\ntrial_wall_s: "
                 "9\ntrial_memory_percent: 30\n"),
      "memory=cached flush=none encoder=libx264 trial_processor_s=7 trial_wall_s=9 trial_memory_percent=30");
  EXPECT_THAT(SettingsOf("{encoder: 'h264_vaapi'} # comment"),
              AllOf(StartsWith("memory=device flush="), EndsWith("encoder=h264_vaapi trial_processor_s=20 "
                                                                 "trial_wall_s=60 trial_memory_percent=50")));
  for (const char* const encoder : {"auto", "libx264", "h264_nvenc", "h264_vaapi", "h264_v4l2m2m"}) {
    EXPECT_THAT(SettingsOf(std::string("encoder: ") + encoder), HasSubstr(std::string("encoder=") + encoder));
  }
  EXPECT_THAT(SettingsOf("trial_processor_s: 86400\ntrial_wall_s: 86400\ntrial_memory_percent: 100"),
              EndsWith("trial_processor_s=86400 trial_wall_s=86400 trial_memory_percent=100"));
  EXPECT_THAT(SettingsOf("trial_processor_s: 1\ntrial_wall_s: 1\ntrial_memory_percent: 1"),
              EndsWith("trial_processor_s=1 trial_wall_s=1 trial_memory_percent=1"));
  EXPECT_EQ(SettingsOf("---\n"), SettingsOf(""));
}

TEST_F(SettingsTest, AnUnknownKeyIsNamedWithItsLine) {
  ExpectRefused("# comment\nmemory: device\nencodr: auto\n",
                ":3: unknown key 'encodr', expected memory, encoder, trial_processor_s, trial_wall_s or "
                "trial_memory_percent");
  ExpectRefused("Memory: device\n",
                ":1: unknown key 'Memory', expected memory, encoder, trial_processor_s, trial_wall_s or "
                "trial_memory_percent");
}

TEST_F(SettingsTest, ABadValueIsNamedWithItsLineAndWhatIsExpected) {
  const std::string encoders = ", expected auto, libx264, h264_nvenc, h264_vaapi or h264_v4l2m2m";
  ExpectRefused("\nmemory: cache\n", ":2: memory is 'cache', expected device or cached");
  ExpectRefused("memory:\n", ":1: memory is '', expected device or cached");
  ExpectRefused("encoder: x264\n", ":1: encoder is 'x264'" + encoders);
  ExpectRefused("encoder: [auto]\n", ":1: encoder has no plain value" + encoders);
  for (const std::string value : {"0", "86401", "-1", "1.5", "20 s", "4294967297", "0x10"}) {
    for (const std::string key : {"trial_processor_s", "trial_wall_s"}) {
      ExpectRefused(key + ": " + value,
                    ":1: " + key + " is '" + value + "', expected a whole number of seconds from 1 to 86400");
    }
  }
  for (const std::string value : {"0", "101"}) {
    ExpectRefused("trial_memory_percent: " + value,
                  ":1: trial_memory_percent is '" + value + "', expected a whole number from 1 to 100");
  }
}

TEST_F(SettingsTest, WhatIsNoListOfKeysIsRefusedWithItsLine) {
  ExpectRefused("device\n", ":1: expected lines of KEY: VALUE");
  ExpectRefused("\n- memory\n", ":2: expected lines of KEY: VALUE");
  ExpectRefused("memory: device\n[a]: b\n", ":2: expected KEY: VALUE");
  ExpectRefused("memory: device\nmemory: device\n", ":2: 'memory' stands there twice, expected it once");
  ExpectRefused("memory: device\n---\nmemory: cached\n", ":2: a second document, expected one");
  ExpectRefused("memory: device\n}\n", ":2: did not find expected key");
  ExpectRefused("memory: {a: 1}\n", ":1: memory has no plain value, expected device or cached");
}

TEST_F(SettingsTest, BytesThatAreNoTextAreRefusedWithTheirLine) {
  ExpectRefused("memory: device\nencoder: \x80\n", ":2: invalid leading UTF-8 octet");
  ExpectRefused("memory: device\n\n# \x01\n", ":3: control characters are not allowed");
  ExpectRefused("\x80", ":1: invalid leading UTF-8 octet");
  ExpectRefused("\n\x80", ":2: invalid leading UTF-8 octet");
  ExpectRefused("\n\xc3\n", ":2: invalid trailing UTF-8 octet");  // the end of the line is the wrong octet
}

TEST_F(SettingsTest, AFileThatCannotBeReadIsNamed) {
  QetContext context;
  QetContextParameters parameters;
  parameters.configuration = folder_ / "none.yaml";
  ExpectFailure(kQetInvalidArgument, "QetInitialize",
                "cannot read " + parameters.configuration + ": No such file or directory",
                [&] { return QetInitialize(context, parameters); });
  parameters.configuration = folder_;
  ExpectFailure(kQetInvalidArgument, "QetInitialize", parameters.configuration + ": not a regular file",
                [&] { return QetInitialize(context, parameters); });
  parameters.configuration = folder_ / "pipe";
  ASSERT_EQ(mkfifo(parameters.configuration.c_str(), 0600), 0);
  ExpectFailure(kQetInvalidArgument, "QetInitialize", parameters.configuration + ": not a regular file",
                [&] { return QetInitialize(context, parameters); });
  parameters.configuration = "/proc/self/mem";
  ExpectFailure(kQetInvalidArgument, "QetInitialize", "cannot read /proc/self/mem: Input/output error",
                [&] { return QetInitialize(context, parameters); });
}

TEST_F(SettingsTest, WantOfMemoryInTheParserIsOutOfMemory) {
  QetContext context;
  QetContextParameters parameters;
  parameters.configuration = Write("memory: device\n");
  const auto expectOutOfMemory = [&] {
    ExpectFailure(kQetOutOfMemory, "QetInitialize", "out of memory",
                  [&] { return QetInitialize(context, parameters); });
    EXPECT_TRUE(YamlFault::Fired());
  };
  {
    const YamlFault fault(YamlFault::Kind::kNoParser);
    expectOutOfMemory();
  }
  for (int call = 1; call <= 8; ++call) {  // start and end of stream, document and mapping, key and value
    SCOPED_TRACE(call);
    const YamlFault fault(YamlFault::Kind::kNoMemory, call);
    expectOutOfMemory();
  }
}

TEST_F(SettingsTest, AParserThatFailsWithoutAReasonIsRefused) {
  const YamlFault fault(YamlFault::Kind::kNoReason, 3);
  ExpectRefused("memory: device\n", ":1: not YAML");
  EXPECT_TRUE(YamlFault::Fired());
}

TEST_F(SettingsTest, AfterARefusalThePlatformStarts) {
  ExpectRefused("a: b\n",
                ":1: unknown key 'a', expected memory, encoder, trial_processor_s, trial_wall_s or "
                "trial_memory_percent");
  EXPECT_EQ(
      SettingsOf("memory: cached"),
      "memory=cached flush=none encoder=auto trial_processor_s=20 trial_wall_s=60 trial_memory_percent=50");
  EXPECT_THAT(SettingsOf(""), StartsWith("memory=device flush="));
}

/// Copies, image copies and resizes of noise, each with this memory.
std::vector<std::uint8_t> ResultsWith(const std::string& path) {
  QetContext process;
  QetContext context;
  QetContextParameters parameters;
  parameters.configuration = path;
  int channel = 0;
  EXPECT_EQ(QetInitialize(process, parameters), kQetOk);
  EXPECT_EQ(QetCreateContext(context), kQetOk);
  EXPECT_EQ(QetSetCurrentContext(context), kQetOk);
  EXPECT_EQ(QetCreateChannel(channel), kQetOk);
  ImageData source = Record(683, 513, 1);
  ImageData copy = Record(683, 513, 1);
  EXPECT_EQ(QetImageMallocAligned(source), kQetOk);
  EXPECT_EQ(QetImageMallocAligned(copy), kQetOk);
  std::uint32_t state = 1;
  for (std::uint32_t i = 0; i < source.dataSize; ++i) {
    state = state * 1664525U + 1013904223U;
    source.data[i] = static_cast<std::uint8_t>(state >> 24U);
  }
  EXPECT_EQ(QetMemcpyToKivu(source, source), kQetOk);
  EXPECT_EQ(QetMemcpyToKivu(source, copy), kQetOk);
  std::vector<std::uint8_t> results(copy.data, copy.data + copy.dataSize);
  for (const std::size_t offset : {0U, 3U}) {
    std::vector<std::uint8_t> bytes(source.dataSize + 64);
    EXPECT_EQ(memcpy_s(bytes.data() + offset, bytes.size() - offset, source.data, source.dataSize), 0);
    results.insert(results.end(), bytes.begin(), bytes.end());
  }
  for (const auto& [width, height] : {std::pair{342U, 257U}, {151U, 115U}, {701U, 520U}}) {
    ImageData result = Record(width, height, 1);
    EXPECT_EQ(QetImageMallocAligned(result), kQetOk);
    EXPECT_EQ(QetImageResize(channel, source, result, kQetInterpolationArea, -1), kQetOk);
    results.insert(results.end(), result.data, result.data + result.dataSize);
  }
  results.insert(results.end(), source.data, source.data + source.dataSize);
  EXPECT_EQ(QetRelease(process), kQetOk);
  return results;
}

TEST_F(SettingsTest, TheResultsAreTheSameWithAndWithoutTheCaches) {
  const std::vector<std::uint8_t> device = ResultsWith(Write("memory: device"));
  const std::vector<std::uint8_t> cached = ResultsWith(Write("memory: cached"));
  EXPECT_GT(device.size(), 5'000'000U);
  EXPECT_TRUE(device == cached);
}

}  // namespace
}  // namespace Ormis::test
