# SPDX-License-Identifier: Apache-2.0
# Tests that cannot be built here, because a program or a library that they need is missing.
option(STRESS_REQUIRE_ALL_TESTS "Fail where tests are left out because something that they need is missing" OFF)

# leave_out(TESTS NEED): TESTS are not built, since NEED is missing.
function(leave_out tests need)
  set_property(GLOBAL APPEND PROPERTY STRESS_LEFT_OUT "${tests}: ${need}")
endfunction()

# tell_left_out(): prints them at the end of the configuration, or fails if all tests are required.
function(tell_left_out)
  get_property(left_out GLOBAL PROPERTY STRESS_LEFT_OUT)
  if(NOT left_out)
    return()
  endif()
  list(JOIN left_out "\n  " lines)
  set(text "These tests are left out. They need what ./scripts/setup --dev installs, on Debian 13 all but LAVA's schema:\n  ${lines}")
  if(STRESS_REQUIRE_ALL_TESTS)
    message(FATAL_ERROR "${text}\nSTRESS_REQUIRE_ALL_TESTS is ON, so that this is an error.")
  endif()
  message(STATUS "${text}")
endfunction()
