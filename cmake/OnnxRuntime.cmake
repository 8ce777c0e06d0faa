# SPDX-License-Identifier: Apache-2.0
# OnnxRuntime::OnnxRuntime: the inference engine, through its C interface. Looked for in this order: ONNXRUNTIME_ROOT,
# the system, what ./scripts/setup fetched for this build folder, what it fetched for the default one.
set(ONNXRUNTIME_ROOT "" CACHE PATH "Folder with include/onnxruntime_c_api.h and lib/libonnxruntime.so.1")

set(onnxruntime_roots "${ONNXRUNTIME_ROOT}")
if(NOT ONNXRUNTIME_ROOT)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(ONNXRUNTIME QUIET IMPORTED_TARGET GLOBAL libonnxruntime>=1.21)
  set(onnxruntime_roots "${PROJECT_BINARY_DIR}/deps/onnxruntime" "${PROJECT_SOURCE_DIR}/build/deps/onnxruntime")
endif()

add_library(OnnxRuntime::OnnxRuntime INTERFACE IMPORTED GLOBAL)
set(beside_platform "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/libonnxruntime.so.1")
if(NOT ONNXRUNTIME_ROOT AND ONNXRUNTIME_FOUND)
  file(REMOVE "${beside_platform}")  # left from a fetched one, it would be loaded
  target_link_libraries(OnnxRuntime::OnnxRuntime INTERFACE PkgConfig::ONNXRUNTIME)
else()
  # By path: header and library must come from the same place.
  find_path(ONNXRUNTIME_INCLUDE_DIR onnxruntime_c_api.h PATHS ${onnxruntime_roots}
            PATH_SUFFIXES include include/onnxruntime NO_DEFAULT_PATH)
  find_file(ONNXRUNTIME_LIBRARY NAMES libonnxruntime.so.1 PATHS ${onnxruntime_roots}
            PATH_SUFFIXES lib lib64 NO_DEFAULT_PATH)
  if(NOT ONNXRUNTIME_INCLUDE_DIR OR NOT ONNXRUNTIME_LIBRARY)
    unset(ONNXRUNTIME_INCLUDE_DIR CACHE)
    unset(ONNXRUNTIME_LIBRARY CACHE)
    message(FATAL_ERROR
      "The AI core stress needs ONNX Runtime 1.21 or later, which is neither in the system nor in: ${onnxruntime_roots}.\n"
      "Run ./scripts/setup, which fetches it, or set -DONNXRUNTIME_ROOT=DIR.")
  endif()
  add_library(onnxruntime_fetched SHARED IMPORTED GLOBAL)
  set_target_properties(onnxruntime_fetched PROPERTIES
    IMPORTED_LOCATION "${ONNXRUNTIME_LIBRARY}"
    IMPORTED_SONAME libonnxruntime.so.1
    INTERFACE_INCLUDE_DIRECTORIES "${ONNXRUNTIME_INCLUDE_DIR}")
  target_link_libraries(OnnxRuntime::OnnxRuntime INTERFACE onnxruntime_fetched)
  # Beside the platform library, which looks in its own folder first: a link in the build folder, a copy where installed.
  file(MAKE_DIRECTORY "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
  file(CREATE_LINK "${ONNXRUNTIME_LIBRARY}" "${beside_platform}" SYMBOLIC)
  install(FILES "${ONNXRUNTIME_LIBRARY}" DESTINATION ${CMAKE_INSTALL_LIBDIR}
          PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  get_filename_component(onnxruntime_root "${ONNXRUNTIME_LIBRARY}/../.." ABSOLUTE)
  install_notice(onnxruntime "${onnxruntime_root}/copyright")
  # What is inside the library. ./scripts/setup --packaging fetches it.
  install(FILES "${onnxruntime_root}/ThirdPartyNotices.txt" DESTINATION "${CMAKE_INSTALL_DOCDIR}/notices"
          RENAME onnxruntime-parts OPTIONAL)
endif()
