# SPDX-License-Identifier: Apache-2.0
# The lifetime tests: every place where GLib or GDBus calls the framework
# back, closed, deleted, or both on another thread while calls are in
# flight. They run on a private bus, with the bus tests' peer, and link the
# library's internal archive so that they can shorten its waits.
file(GLOB HARVO_LIFETIME_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_test.cpp)
foreach(lifetime_test_source ${HARVO_LIFETIME_TEST_SOURCES})
    get_filename_component(lifetime_test_name ${lifetime_test_source} NAME_WE)
    set(lifetime_test_target "lifetimes_${lifetime_test_name}")
    target_compile_definitions(${lifetime_test_target} PRIVATE
        HARVO_PEER_PATH="$<TARGET_FILE:bus_peer>"
        HARVO_BUS_CONFIG="${CMAKE_CURRENT_LIST_DIR}/../bus/system-bus.conf")
    target_include_directories(${lifetime_test_target} PRIVATE ${CMAKE_CURRENT_LIST_DIR}/..)
    add_dependencies(${lifetime_test_target} bus_peer)
endforeach()
