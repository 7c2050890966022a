# SPDX-License-Identifier: Apache-2.0
include(CMakePackageConfigHelpers)

set(HARVO_INCLUDE_INSTALL_DIR ${CMAKE_INSTALL_INCLUDEDIR}/harvo-fw)
set(HARVO_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/harvo-fw)

install(EXPORT harvo-fw-targets
    NAMESPACE harvo-fw::
    DESTINATION ${HARVO_CMAKE_INSTALL_DIR})

configure_package_config_file(
    ${CMAKE_CURRENT_SOURCE_DIR}/cmake/harvo-fwConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fwConfig.cmake
    INSTALL_DESTINATION ${HARVO_CMAKE_INSTALL_DIR})
# While the major version is 0, every minor version may break the
# interface: a request for 0.1 accepts 0.1.x only.
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(HARVO_VERSION_COMPATIBILITY SameMinorVersion)
else()
    set(HARVO_VERSION_COMPATIBILITY SameMajorVersion)
endif()
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fwConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY ${HARVO_VERSION_COMPATIBILITY})
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fwConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fwConfigVersion.cmake
    DESTINATION ${HARVO_CMAKE_INSTALL_DIR})

include(${CMAKE_CURRENT_LIST_DIR}/HarvoPkgConfig.cmake)
harvo_install_pkgconfig(${CMAKE_CURRENT_SOURCE_DIR}/cmake/harvo-fw.pc.in harvo-fw)

# On host builds the platform layer is installed beside the library: let
# the library find it there without LD_LIBRARY_PATH, wherever the prefix is.
if(HARVO_HOST_PLATFORM)
    set_target_properties(harvo-fw PROPERTIES INSTALL_RPATH "\$ORIGIN")
endif()
