// SPDX-License-Identifier: Apache-2.0
#include "memory_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_error.h"

namespace {

using ::testing::IsEmpty;
using namespace scope;

CounterValue Count(double timeS, const char* name, double value) {
  return {timeS, "edac", name, "errors", value};
}

TEST(MemoryErrors, AreWhatACounterGrowsDuringTheRun) {
  MemoryErrors errors;
  EXPECT_THAT(errors.Found({Count(1, "mc0/ce_count", 7), Count(1, "mc0/ue_count", 1)}), IsEmpty())
      << "from before the run";
  EXPECT_THAT(errors.Found({Count(2, "mc0/ce_count", 7), Count(2, "mc0/ue_count", 1)}), IsEmpty());
  const std::vector<RunError> found =
      errors.Found({Count(3, "mc0/ce_count", 10), Count(3, "mc0/ue_count", 2)});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].source, "edac");
  EXPECT_EQ(found[0].what, "corrected");
  EXPECT_EQ(found[0].timeS, 3);
  EXPECT_EQ(ErrorsIn(found[0]), 3U);
  EXPECT_EQ(ErrorText(found[0]), "edac: the memory controller corrected errors (3 more of mc0/ce_count)");
  EXPECT_EQ(found[1].what, "uncorrected");
  EXPECT_THAT(errors.Found({Count(4, "mc0/ce_count", 10)}), IsEmpty());
}

TEST(MemoryErrors, OtherCountersAndCountersThatBeginAnewAreNone) {
  MemoryErrors errors;
  EXPECT_THAT(errors.Found({{1, "throttle", "cpu0", "events", 1}, Count(1, "mc0/ce_count", 9)}), IsEmpty());
  EXPECT_THAT(errors.Found({{2, "throttle", "cpu0", "events", 5}, Count(2, "mc0/ce_count", 0)}), IsEmpty())
      << "the driver was loaded again";
  EXPECT_EQ(errors.Found({Count(3, "mc0/ce_count", 1)}).size(), 1U);
}

}  // namespace
