# SPDX-License-Identifier: Apache-2.0
# The platform's records have fixed layouts, with 24-byte strings and maps, which only libc++ has. A build with another
# standard library would pass records of the wrong size to the platform.
include(CheckCXXSourceCompiles)

set(CMAKE_REQUIRED_FLAGS "-stdlib=libc++")
set(CMAKE_REQUIRED_LINK_OPTIONS "-stdlib=libc++")
check_cxx_source_compiles("
#include <map>
#include <string>
#ifndef _LIBCPP_VERSION
#error not libc++
#endif
static_assert(sizeof(std::string) == 24 && sizeof(std::map<std::string, int>) == 24, \"\");
int main() {}
" STRESS_HAVE_LIBCXX)
unset(CMAKE_REQUIRED_FLAGS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)

if(NOT STRESS_HAVE_LIBCXX)
  message(FATAL_ERROR
    "This needs clang++ with LLVM's libc++ on a 64-bit target, found ${CMAKE_CXX_COMPILER_ID} "
    "${CMAKE_CXX_COMPILER_VERSION} (${CMAKE_CXX_COMPILER}) without it.\n"
    "The platform's records have fixed layouts (24-byte std::string and std::map) that other standard libraries "
    "do not have: with libstdc++ the 80-byte image record would be 88 bytes.\n"
    "Install clang-19, libc++-19-dev and libc++abi-19-dev (./scripts/setup does), use a fresh build folder, and "
    "leave CXX unset or set it to clang++-19.")
endif()
