// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fake_log.h"
#include "fake_platform.h"
#include "log_site.h"
#include "stress_register.h"
#include "virtual_clock.h"

/// Before each unit test: resets the fakes and gives the singleton a logger "STBM" at debug level.
class UnitTest : public testing::Test {
 protected:
  UnitTest() {
    fakeLog::Reset();
    SetLevel(ara::log::LogLevel::kDebug);
    fakeLog::Reset();
    fakePlatform::Reset();
  }

  static void SetLevel(ara::log::LogLevel level) {
    Ormis::OrmisLogger::GetInstance().logger = &ara::log::CreateLogger("STBM", "STBM", level);
  }

  static std::vector<std::string> Errors() { return fakeLog::Texts(ara::log::LogLevel::kError); }
  static std::vector<std::string> Infos() { return fakeLog::Texts(ara::log::LogLevel::kInfo); }
  static std::vector<std::string> Debugs() { return fakeLog::Texts(ara::log::LogLevel::kDebug); }
  static std::vector<std::string> Warnings() { return fakeLog::Texts(ara::log::LogLevel::kWarn); }

  static std::unique_ptr<vorn::StressRegister> MakeRecord(std::uint32_t threadNum, std::uint32_t sleepUs) {
    auto record = std::make_unique<vorn::StressRegister>();
    record->threadNum = threadNum;
    record->sleepUs = sleepUs;
    record->threadFps.resize(threadNum);
    return record;
  }
};

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
