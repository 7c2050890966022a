# SPDX-License-Identifier: Apache-2.0
# The plain-function tests run against the private bus of the bus tests, with
# the bus tests' peer program as the endpoint in another process.
file(GLOB HARVO_MANAGED_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_test.cpp)
foreach(managed_test_source ${HARVO_MANAGED_TEST_SOURCES})
    get_filename_component(managed_test_name ${managed_test_source} NAME_WE)
    set(managed_test_target "managed_${managed_test_name}")
    target_compile_definitions(${managed_test_target} PRIVATE
        HARVO_PEER_PATH="$<TARGET_FILE:bus_peer>"
        HARVO_BUS_CONFIG="${PROJECT_SOURCE_DIR}/tests/bus/system-bus.conf")
    add_dependencies(${managed_test_target} bus_peer)
endforeach()
