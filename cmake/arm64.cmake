# SPDX-License-Identifier: Apache-2.0
# Toolchain of the arm64 preset: clang, and the libraries that ./scripts/setup-arm64 put into the build folder. The
# build's own programs and the tests run under emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(arm64_sysroot "${CMAKE_CURRENT_LIST_DIR}/../build-arm64/sysroot")
if(NOT EXISTS "${arm64_sysroot}/.packages")
  message(FATAL_ERROR "No libraries for arm64 in ${arm64_sysroot}: run ./scripts/setup-arm64, which fetches them.")
endif()
get_filename_component(CMAKE_SYSROOT "${arm64_sysroot}" REALPATH)
set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
# For CMake's own checks, which run before the project's options apply: there is no libstdc++ to link against.
set(CMAKE_CXX_FLAGS_INIT -stdlib=libc++)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -fuse-ld=lld-19)
endforeach()
set(CMAKE_NM llvm-nm-19)
find_program(QEMU_AARCH64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${QEMU_AARCH64}" -L "${CMAKE_SYSROOT}")

# ONNX Runtime lies beside the sysroot.
get_filename_component(arm64_deps "${CMAKE_CURRENT_LIST_DIR}/../build-arm64/deps" REALPATH)
set(CMAKE_FIND_ROOT_PATH "${arm64_deps}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})
