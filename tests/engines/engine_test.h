// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>

#include "ormis/ormis.h"

/// Starts the platform and binds a context to the test's thread. A test may release both itself.
class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override { StartPlatform(); }

  /// `settings`: a file of settings; empty: the platform's own.
  void StartPlatform(const std::string& settings = {}) {
    context_ = Ormis::QetContext{};
    ASSERT_EQ(Ormis::QetInitialize(process_, {settings, 0}), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetCreateContext(context_), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetSetCurrentContext(context_), Ormis::kQetOk);
  }

  void TearDown() override {
    if (process_.id == 0) return;
    if (context_.id != 0) EXPECT_EQ(Ormis::QetDestroyContext(context_), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetRelease(process_), Ormis::kQetOk);
  }

  void ReleasePlatform() { ASSERT_EQ(Ormis::QetRelease(process_), Ormis::kQetOk); }

  Ormis::QetContext process_;
  Ormis::QetContext context_;
};

/// Runs `work` on a new thread with a context of its own.
template <typename Work>
std::thread WithContext(Work work) {
  return std::thread([work = std::move(work)] {
    Ormis::QetContext context;
    ASSERT_EQ(Ormis::QetCreateContext(context), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetSetCurrentContext(context), Ormis::kQetOk);
    work();
    EXPECT_EQ(Ormis::QetDestroyContext(context), Ormis::kQetOk);
  });
}

/// Returns what `work` writes to standard error. The log goes there until it is started.
template <typename Work>
std::string StandardErrorOf(Work work) {
  ::testing::internal::CaptureStderr();
  work();
  return ::testing::internal::GetCapturedStderr();
}

inline std::size_t LineCount(const std::string& text) {
  std::size_t lines = 0;
  for (const char letter : text) lines += letter == '\n' ? 1 : 0;
  return lines;
}
