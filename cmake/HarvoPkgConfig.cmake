# SPDX-License-Identifier: Apache-2.0
# harvo_install_pkgconfig(TEMPLATE NAME)
#
# Installs NAME.pc made from TEMPLATE. Every @VAR@ of the template is
# filled in at configure time except @HARVO_PC_PREFIX@, which is filled in
# at install time with the prefix actually installed to, so that
# `cmake --install <build> --prefix <dir>` yields a .pc file that points
# into <dir> (DESTDIR staging, as packaging uses, is not part of it).
function(harvo_install_pkgconfig template name)
    set(staged ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${name}.pc.in)
    set(installed ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${name}.pc)
    # Keep the placeholder for the install step.
    set(HARVO_PC_PREFIX "@HARVO_PC_PREFIX@")
    if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
        set(HARVO_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
    else()
        set(HARVO_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    endif()
    if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
        set(HARVO_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
    else()
        set(HARVO_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
    endif()
    configure_file(${template} ${staged} @ONLY)
    install(CODE "
        set(HARVO_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
        configure_file(\"${staged}\" \"${installed}\" @ONLY)
    ")
    install(FILES ${installed} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
