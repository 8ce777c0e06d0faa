# SPDX-License-Identifier: Apache-2.0
# Included before project(): a plain `cmake -B build` takes clang 19, without a preset or a variable.
if(NOT DEFINED CMAKE_CXX_COMPILER AND "$ENV{CXX}" STREQUAL "")
  find_program(STRESS_CLANGXX NAMES clang++-19 clang++)
  find_program(STRESS_CLANG NAMES clang-19 clang)
  if(STRESS_CLANGXX AND STRESS_CLANG)
    set(CMAKE_CXX_COMPILER "${STRESS_CLANGXX}" CACHE FILEPATH "C++ compiler")
    set(CMAKE_C_COMPILER "${STRESS_CLANG}" CACHE FILEPATH "C compiler")
  endif()
endif()
