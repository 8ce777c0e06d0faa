# SPDX-License-Identifier: Apache-2.0
# PkgConfig::FFMPEG: libavcodec and libavutil, for the encoder.
find_package(PkgConfig REQUIRED)
pkg_check_modules(FFMPEG IMPORTED_TARGET libavcodec>=58 libavutil)
if(NOT FFMPEG_FOUND)
  message(FATAL_ERROR "The encoder needs libavcodec and libavutil, which pkg-config does not find: install "
                      "libavcodec-dev and libavutil-dev (./scripts/setup does).")
endif()
