# SPDX-License-Identifier: Apache-2.0
# install_notice(NAME FILE): installs a third party's copyright and licence beside what carries its code.
# THIRD_PARTY.md says what that is. A missing notice is only a warning: a build for one's own use distributes nothing.
function(install_notice name file)
  if(EXISTS "${file}")
    install(FILES "${file}" DESTINATION "${CMAKE_INSTALL_DOCDIR}/notices" RENAME "${name}")
  else()
    message(WARNING "No copyright and licence of ${name} were found (${file}). What is installed needs them before "
                    "it is passed on: see THIRD_PARTY.md.")
  endif()
endfunction()

install(FILES LICENSE THIRD_PARTY.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")
