# The system-bus policy of the demo service "weather": made by
# `harvo-bus policy weather --user root` and kept in packaging/dbus-1/ (a
# test checks that the file is still exactly what the tool prints).
# Installed where the bus daemon looks for the policies of packages.
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/packaging/dbus-1/harvo-fw-weather.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
