// SPDX-License-Identifier: Apache-2.0

// Tests which engine an encoder takes. Uses a part of the host platform directly: through the public headers
// only the log shows the choice.
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
#include <libavutil/opt.h>
}

#include <cstdlib>
#include <string>
#include <vector>

#include "h264_encoder.h"

namespace {

using Ormis::host::H264Encoder;
using Ormis::host::H264EnginesToTry;
using Ormis::host::H264Packet;
using Ormis::host::H264Settings;

constexpr H264Settings kSettings{64, 48, 30, 60, 200000};
const std::vector<std::uint8_t> grey(64 * 48 * 3 / 2, 90);

std::vector<std::string> NamesToTry(const std::string& encoder, const std::vector<std::string>& patterns) {
  std::vector<std::string> names;
  for (const auto& engine : H264EnginesToTry(encoder, [&](const char* pattern) {
         for (const std::string& one : patterns) {
           if (one == pattern) return true;
         }
         return false;
       })) {
    names.emplace_back(engine.name);
  }
  return names;
}

TEST(EncoderChoice, WithoutADeviceOnlyTheSoftwareEngineIsTried) {
  EXPECT_EQ(NamesToTry("auto", {}), std::vector<std::string>{"libx264"});
}

TEST(EncoderChoice, ADeviceIsTriedBeforeTheSoftwareEngine) {
  EXPECT_EQ(NamesToTry("auto", {"/dev/video*"}), (std::vector<std::string>{"h264_v4l2m2m", "libx264"}));
  EXPECT_EQ(NamesToTry("auto", {"/dev/dri/renderD*"}), (std::vector<std::string>{"h264_vaapi", "libx264"}));
  EXPECT_EQ(NamesToTry("auto", {"/dev/video*", "/dev/nvidia[0-9]*", "/dev/dri/renderD*"}),
            (std::vector<std::string>{"h264_nvenc", "h264_vaapi", "h264_v4l2m2m", "libx264"}));
}

TEST(EncoderChoice, AnEngineThatIsAskedForIsTheOnlyOneTried) {
  for (const std::string name : {"libx264", "h264_nvenc", "h264_vaapi", "h264_v4l2m2m"}) {
    EXPECT_EQ(NamesToTry(name, {}), std::vector<std::string>{name});
    EXPECT_EQ(NamesToTry(name, {"/dev/video*", "/dev/nvidia[0-9]*", "/dev/dri/renderD*"}),
              std::vector<std::string>{name});
  }
}

// libavcodec only warns of options that it does not know, and this machine need not have the device.
TEST(EncoderChoice, EachEngineKnowsItsOptions) {
  int known = 0;
  for (const auto& engine : H264EnginesToTry("auto", [](const char*) { return true; })) {
    SCOPED_TRACE(engine.name);
    const AVCodec* const encoder = avcodec_find_encoder_by_name(engine.name);
    if (encoder == nullptr) continue;  // libavcodec is built without it
    ++known;
    AVDictionary* options = nullptr;
    ASSERT_EQ(av_dict_parse_string(&options, engine.options, "=", ",", 0), 0);
    const AVClass* const ofEncoder = encoder->priv_class;
    for (const AVDictionaryEntry* one = nullptr;
         (one = av_dict_get(options, "", one, AV_DICT_IGNORE_SUFFIX));) {
      const AVOption* const option =
          av_opt_find(const_cast<const AVClass**>(&ofEncoder), one->key, nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ);
      ASSERT_NE(option, nullptr) << one->key;
      char* end = nullptr;
      (void)std::strtol(one->value, &end, 10);
      if (option->unit == nullptr || *end == '\0') continue;
      EXPECT_NE(av_opt_find(const_cast<const AVClass**>(&ofEncoder), one->value, option->unit, 0,
                            AV_OPT_SEARCH_FAKE_OBJ),
                nullptr)
          << one->key << "=" << one->value;
    }
    av_dict_free(&options);
  }
  EXPECT_GE(known, 1) << "libx264";
}

TEST(EncoderChoice, DevicesAreFoundByPattern) {
  EXPECT_TRUE(Ormis::host::DeviceExists("/dev/nul[l]"));
  EXPECT_TRUE(Ormis::host::DeviceExists("/dev/zer*"));
  EXPECT_FALSE(Ormis::host::DeviceExists("/dev/no_such_device*"));
}

TEST(EncoderChoice, FallsBackToTheSoftwareEngineWithTheReasons) {
  std::string reason;
  const auto encoder =
      H264Encoder::Open(kSettings, H264EnginesToTry("auto", [](const char*) { return true; }), reason);
  ASSERT_NE(encoder, nullptr) << reason;
  if (std::string(encoder->EngineName()) != "libx264")
    GTEST_SKIP() << "this machine has " << encoder->EngineName();
  EXPECT_NE(reason.find("h264_nvenc: "), std::string::npos) << reason;
  EXPECT_NE(reason.find("; h264_vaapi: "), std::string::npos) << reason;
  EXPECT_NE(reason.find("; h264_v4l2m2m: "), std::string::npos) << reason;
  H264Packet packet;
  EXPECT_EQ(encoder->Encode(grey.data(), packet), "");
}

TEST(EncoderChoice, ReturnsNullWithTheReasonWhenNothingOpens) {
  std::string reason;
  EXPECT_EQ(H264Encoder::Open(kSettings, {{"no_such_engine", nullptr, ""}}, reason), nullptr);
  EXPECT_EQ(reason, "no_such_engine: this build of libavcodec does not have it");
}

// A software engine in place of a device shows what the trial detects.
TEST(EncoderChoice, ADeviceThatKeepsFramesBackIsNotTaken) {
  std::string reason;
  const auto encoder = H264Encoder::Open(
      kSettings,
      {{"libx264", "/dev/null", "preset=medium"}, {"libx264", nullptr, "preset=ultrafast,tune=zerolatency"}},
      reason);
  ASSERT_NE(encoder, nullptr);
  EXPECT_NE(reason.find("kept back"), std::string::npos) << reason;
  H264Packet packet;
  EXPECT_EQ(encoder->Encode(grey.data(), packet), "");
}

TEST(EncoderChoice, TheTrialFrameIsNotPartOfTheStream) {
  std::string reason;
  const auto encoder =
      H264Encoder::Open(kSettings, {{"libx264", "/dev/null", "preset=ultrafast,tune=zerolatency"}}, reason);
  ASSERT_NE(encoder, nullptr) << reason;
  EXPECT_EQ(reason, "");
  H264Packet packet;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(encoder->Encode(grey.data(), packet), "");
    EXPECT_EQ(packet.FrameIndex(), i);
    EXPECT_EQ(packet.IsKeyFrame(), i == 0);
  }
}

}  // namespace
