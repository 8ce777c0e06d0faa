# SPDX-License-Identifier: Apache-2.0
# docs: API pages of the public headers in api/html of the build folder.
find_program(DOXYGEN doxygen DOC "Doxygen, for the target docs")
if(DOXYGEN)
  configure_file(cmake/Doxyfile.in "${PROJECT_BINARY_DIR}/Doxyfile" @ONLY)
  add_custom_target(docs
    COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/cmake/make_docs" "${DOXYGEN}" "${PROJECT_BINARY_DIR}/Doxyfile"
            "${PROJECT_BINARY_DIR}/api" "${CMAKE_CURRENT_SOURCE_DIR}/include"
    COMMENT "API pages: ${PROJECT_BINARY_DIR}/api/html/index.html" VERBATIM)
else()
  add_custom_target(docs
    COMMAND "${CMAKE_COMMAND}" -E echo "The API pages need Doxygen: install it, then configure again."
    COMMAND "${CMAKE_COMMAND}" -E false VERBATIM)
endif()
