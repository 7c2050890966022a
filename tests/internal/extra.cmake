# SPDX-License-Identifier: Apache-2.0
# The internal tests that need the private bus and the peer program: they
# link the library's internal archive, so the test support (which links the
# shared library) is compiled in instead.
foreach(internal_bus_test internal_name_owners_test)
    target_sources(${internal_bus_test} PRIVATE
        ${CMAKE_CURRENT_LIST_DIR}/../support/PrivateBus.cpp
        ${CMAKE_CURRENT_LIST_DIR}/../support/TsanGlibSync.cpp)
    target_include_directories(${internal_bus_test} PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../bus)
    target_compile_definitions(${internal_bus_test} PRIVATE
        HARVO_PEER_PATH="$<TARGET_FILE:bus_peer>"
        HARVO_BUS_CONFIG="${CMAKE_CURRENT_LIST_DIR}/../bus/system-bus.conf")
    add_dependencies(${internal_bus_test} bus_peer)
endforeach()
