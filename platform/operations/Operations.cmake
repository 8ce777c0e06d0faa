# SPDX-License-Identifier: Apache-2.0
# The names in link_names.h. C++ that looks operations up links ormis_link_names and includes the header. Here each LINK_...
# of it is a variable that holds the name, and ORMIS_OPERATIONS lists those that every platform library exports.
add_library(ormis_link_names INTERFACE)
target_include_directories(ormis_link_names INTERFACE "${CMAKE_CURRENT_LIST_DIR}")

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${CMAKE_CURRENT_LIST_DIR}/link_names.h")
file(STRINGS "${CMAKE_CURRENT_LIST_DIR}/link_names.h" definitions REGEX "^#define ")
set(ORMIS_OPERATIONS "")
foreach(definition IN LISTS definitions)
  if(NOT definition MATCHES "^#define (LINK_[A-Z_]+) \"([A-Za-z0-9_]+)\"$")
    message(FATAL_ERROR "link_names.h: expected #define LINK_... \"name\", found ${definition}")
  endif()
  set(operation "${CMAKE_MATCH_1}")
  set(${operation} "${CMAKE_MATCH_2}")
  if(NOT operation MATCHES "^LINK_(HOST|LOG)_")
    list(APPEND ORMIS_OPERATIONS ${operation})
  endif()
endforeach()

# export_operations(TARGET LINK_...): these operations are the only names that the library TARGET exports. Without such a
# list instances of the standard library's templates and symbols of the engines' static parts would be exported as well.
# The linker fails when the library lacks one of them.
function(export_operations target)
  set(names "")
  foreach(operation IN LISTS ARGN)
    list(APPEND names "${${operation}}")
  endforeach()
  set_target_properties(${target} PROPERTIES EXPORTED_OPERATIONS "${names}") # for the tests
  list(JOIN names ";\n    " names)
  set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}_exports.map")
  file(CONFIGURE OUTPUT "${map}" CONTENT "{\n  global:\n    ${names};\n  local:\n    *;\n};\n" @ONLY)
  target_link_options(${target} PRIVATE "-Wl,--version-script=${map}")
  set_target_properties(${target} PROPERTIES LINK_DEPENDS "${map}")
endfunction()
