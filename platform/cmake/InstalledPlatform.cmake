# SPDX-License-Identifier: Apache-2.0
# Makes the targets ormis_interface, ormis and ara_log from what is installed in ORMIS_ROOT. Where headers or a logging
# library are missing there, takes this project's.
find_path(ORMIS_INCLUDE_DIR ormis/ormis.h PATHS "${ORMIS_ROOT}" PATH_SUFFIXES include NO_DEFAULT_PATH
          DOC "Folder with ormis/ormis.h and ara/log/logging.h")
if(NOT ORMIS_INCLUDE_DIR)
  message(STATUS "No ormis/ormis.h in ${ORMIS_ROOT}: taking the headers of this project")
  set(ORMIS_INCLUDE_DIR "${CMAKE_CURRENT_SOURCE_DIR}/include")
endif()

set(suffixes ${CMAKE_INSTALL_LIBDIR} lib lib64 .)
find_library(ORMIS_LIBRARY NAMES ormis PATHS "${ORMIS_ROOT}" PATH_SUFFIXES ${suffixes} NO_DEFAULT_PATH
             DOC "The platform library, under whatever name it has")
if(NOT ORMIS_LIBRARY)
  message(FATAL_ERROR "No libormis.so in ${ORMIS_ROOT} (${suffixes}). A library of another name: -DORMIS_LIBRARY=FILE.")
endif()
find_library(ARA_LOG_LIBRARY NAMES ara_log PATHS "${ORMIS_ROOT}" PATH_SUFFIXES ${suffixes} NO_DEFAULT_PATH
             DOC "The logging library, under whatever name it has")

add_library(ormis_interface INTERFACE)
target_include_directories(ormis_interface INTERFACE "${ORMIS_INCLUDE_DIR}")

if(ARA_LOG_LIBRARY)
  add_library(ara_log SHARED IMPORTED GLOBAL)
  set_target_properties(ara_log PROPERTIES IMPORTED_LOCATION "${ARA_LOG_LIBRARY}")
  target_link_libraries(ara_log INTERFACE ormis_interface)
else()
  message(STATUS "No libara_log.so in ${ORMIS_ROOT}: building the one of this project")
  add_subdirectory(log)
endif()

add_library(ormis SHARED IMPORTED GLOBAL)
set_target_properties(ormis PROPERTIES IMPORTED_LOCATION "${ORMIS_LIBRARY}")
target_link_libraries(ormis INTERFACE ormis_interface ara_log)
# After installation the programs of this build find the platform in its folder.
foreach(library IN ITEMS "${ORMIS_LIBRARY}" "${ARA_LOG_LIBRARY}")
  if(library)
    get_filename_component(folder "${library}" DIRECTORY)
    list(APPEND CMAKE_INSTALL_RPATH "${folder}")
  endif()
endforeach()
list(REMOVE_DUPLICATES CMAKE_INSTALL_RPATH)
set(CMAKE_INSTALL_RPATH "${CMAKE_INSTALL_RPATH}" PARENT_SCOPE)
message(STATUS "Platform library: ${ORMIS_LIBRARY}")
