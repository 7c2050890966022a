# SPDX-License-Identifier: Apache-2.0
# The bus tests: a peer program that plays the other endpoint across
# processes, and the private bus configuration every bus test starts.
add_executable(bus_peer ${CMAKE_CURRENT_LIST_DIR}/peer.cpp)
# The test support brings the race detector's view of GLib's locks (Tsan).
target_link_libraries(bus_peer PRIVATE harvo-fw harvo-host-platform harvo-test-support)

file(GLOB HARVO_BUS_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_test.cpp)
foreach(bus_test_source ${HARVO_BUS_TEST_SOURCES})
    get_filename_component(bus_test_name ${bus_test_source} NAME_WE)
    set(bus_test_target "bus_${bus_test_name}")
    target_compile_definitions(${bus_test_target} PRIVATE
        HARVO_PEER_PATH="$<TARGET_FILE:bus_peer>"
        HARVO_BUS_CONFIG="${CMAKE_CURRENT_LIST_DIR}/system-bus.conf")
    add_dependencies(${bus_test_target} bus_peer)
endforeach()
