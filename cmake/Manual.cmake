# SPDX-License-Identifier: Apache-2.0
# install_manual(PROGRAM [PAGE...]): installs its page, man/PROGRAM.1.in with the version written into it, further ones, and
# its completion for bash, completion/PROGRAM.bash.
function(install_manual program)
  foreach(page IN ITEMS ${program} ${ARGN})
    configure_file("man/${page}.1.in" "${PROJECT_BINARY_DIR}/man/${page}.1" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/man/${page}.1" DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endforeach()
  install(FILES "completion/${program}.bash" DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
          RENAME ${program})
endfunction()
