# SPDX-License-Identifier: Apache-2.0
# What another project needs to build against the installed platform: headers, CMake package, pkg-config file.
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/ormis")

install(DIRECTORY include/ormis include/ara DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(EXPORT ormisTargets NAMESPACE ormis:: DESTINATION "${package_dir}")
configure_package_config_file(cmake/ormisConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/ormisConfig.cmake"
                              INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/ormisConfigVersion.cmake"
                                 VERSION ${ORMIS_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/ormisConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/ormisConfigVersion.cmake"
        DESTINATION "${package_dir}")

# Relative to the file itself, so that the installed tree can be moved.
file(RELATIVE_PATH ORMIS_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/ormis.pc.in "${CMAKE_CURRENT_BINARY_DIR}/ormis.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/ormis.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
