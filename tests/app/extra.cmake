# SPDX-License-Identifier: Apache-2.0
# The application tests run against the private bus of the bus tests, with
# the bus tests' peer program as the endpoint in another process.
file(GLOB HARVO_APP_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_test.cpp)
foreach(app_test_source ${HARVO_APP_TEST_SOURCES})
    get_filename_component(app_test_name ${app_test_source} NAME_WE)
    set(app_test_target "app_${app_test_name}")
    target_compile_definitions(${app_test_target} PRIVATE
        HARVO_PEER_PATH="$<TARGET_FILE:bus_peer>"
        HARVO_BUS_CONFIG="${PROJECT_SOURCE_DIR}/tests/bus/system-bus.conf")
    add_dependencies(${app_test_target} bus_peer)
endforeach()
