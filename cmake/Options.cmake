# SPDX-License-Identifier: Apache-2.0
# stress_options: how every target of the project is compiled.
add_library(stress_options INTERFACE)
target_compile_features(stress_options INTERFACE cxx_std_17)
target_compile_options(stress_options INTERFACE
  -stdlib=libc++
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast
  -Wimplicit-fallthrough -Wthread-safety
  # Log locations are paths within the source tree, not this machine's.
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/="
  -fno-omit-frame-pointer)
target_compile_definitions(stress_options INTERFACE _LIBCPP_HARDENING_MODE=_LIBCPP_HARDENING_MODE_FAST)
target_link_options(stress_options INTERFACE -stdlib=libc++ -fuse-ld=lld)
if(STRESS_WERROR)
  target_compile_options(stress_options INTERFACE -Werror)
endif()

# compile_together(TARGET SOURCES): with STRESS_UNITY, compiles SOURCES sources at a time as one. For targets whose
# headers take most of the compile time.
function(compile_together target sources)
  if(STRESS_UNITY)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${sources})
  endif()
endfunction()

# read_together(TARGET): the linter reads its sources as one. Headers take most of its time, too.
function(read_together target)
  if(STRESS_LINT)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
  endif()
endfunction()

find_package(Threads REQUIRED)
target_link_libraries(stress_options INTERFACE Threads::Threads)

# stress_version: for the sources that print the project's version.
add_library(stress_version INTERFACE)
target_compile_definitions(stress_version INTERFACE "STRESS_VERSION=\"${PROJECT_VERSION}\"")

# STRESS_SANITIZE=address,undefined or thread. Reports need line numbers, but no other debug information.
if(STRESS_SANITIZE)
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS "-stdlib=libc++ -fsanitize=${STRESS_SANITIZE}")
  check_cxx_source_compiles("int main() {}" STRESS_HAVE_SANITIZERS)
  unset(CMAKE_REQUIRED_FLAGS)
  if(NOT STRESS_HAVE_SANITIZERS)
    unset(STRESS_HAVE_SANITIZERS CACHE)  # looked for again next time
    message(FATAL_ERROR "Programs with -fsanitize=${STRESS_SANITIZE} cannot be linked: install libclang-rt-19-dev "
                        "(./scripts/setup --dev does).")
  endif()
  target_compile_options(stress_options INTERFACE -fsanitize=${STRESS_SANITIZE} -fno-sanitize-recover=all
                         -gline-tables-only)
  # UndefinedBehaviorSanitizer is for the product. In the tests it would take as long to compile, and find less.
  if(STRESS_SANITIZE MATCHES "undefined")
    set(folder "$<TARGET_PROPERTY:SOURCE_DIR>")
    target_compile_options(stress_options INTERFACE
      $<$<BOOL:$<FILTER:${folder},INCLUDE,^${PROJECT_SOURCE_DIR}/tests>>:-fno-sanitize=undefined>)
  endif()
  target_link_options(stress_options INTERFACE -fsanitize=${STRESS_SANITIZE})
endif()

if(STRESS_SANITIZE STREQUAL "thread")
  add_library(tsan_volatile STATIC "${CMAKE_CURRENT_LIST_DIR}/tsan_volatile.c")
  target_compile_options(stress_options INTERFACE "SHELL:-mllvm -tsan-distinguish-volatile=1")
  target_link_libraries(stress_options INTERFACE tsan_volatile)
endif()

# Coverage for the fuzzers: which code an input reached.
if(STRESS_FUZZ)
  target_compile_options(stress_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
