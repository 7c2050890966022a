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
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fwConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fwConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fwConfigVersion.cmake
    DESTINATION ${HARVO_CMAKE_INSTALL_DIR})

configure_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/harvo-fw.pc.in
    ${CMAKE_CURRENT_BINARY_DIR}/harvo-fw.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/harvo-fw.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
