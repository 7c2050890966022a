# SPDX-License-Identifier: Apache-2.0
# The command-line tool's tests run it as a child process against the bus
# tests' private bus and peer program.
file(GLOB HARVO_TOOL_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_test.cpp)
foreach(tool_test_source ${HARVO_TOOL_TEST_SOURCES})
    get_filename_component(tool_test_name ${tool_test_source} NAME_WE)
    set(tool_test_target "tools_${tool_test_name}")
    target_compile_definitions(${tool_test_target} PRIVATE
        HARVO_PEER_PATH="$<TARGET_FILE:bus_peer>"
        HARVO_BUS_TOOL_PATH="$<TARGET_FILE:harvo-bus>"
        HARVO_FW_VERSION="${PROJECT_VERSION}"
        HARVO_BUS_CONFIG="${PROJECT_SOURCE_DIR}/tests/bus/system-bus.conf"
        HARVO_WEATHER_POLICY="${PROJECT_SOURCE_DIR}/examples/dbus-1/harvo-fw-weather.conf")
    add_dependencies(${tool_test_target} bus_peer harvo-bus)
endforeach()

# The tool's policy on a daemon with the stock system bus policy, the
# endpoints run by unprivileged users (needs root: skipped otherwise).
add_test(NAME tools_stock_policy
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/stock_policy_test.sh
        $<TARGET_FILE:harvo-bus> $<TARGET_FILE:bus_peer>)
set_tests_properties(tools_stock_policy PROPERTIES LABELS unit TIMEOUT 120 SKIP_RETURN_CODE 77)

# Stock clients (gdbus, dbus-send, busctl, dbus-python) call the peer's two
# methods with explicit types, as the guide shows; one test per client,
# skipped with the reason when the client is not installed.
foreach(stock_client gdbus dbus-send busctl python)
    string(REPLACE "-" "_" stock_client_test "tools_stock_client_${stock_client}")
    add_test(NAME ${stock_client_test}
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/stock_clients_test.sh
            ${stock_client} $<TARGET_FILE:bus_peer> ${PROJECT_SOURCE_DIR}/scripts)
    set_tests_properties(${stock_client_test} PROPERTIES LABELS unit TIMEOUT 60 SKIP_RETURN_CODE 77)
endforeach()

# Impersonation on the stock policy: an unprivileged user emitting a signal
# as a live endpoint and calling with another live endpoint's name (needs
# root: skipped otherwise).
add_test(NAME tools_stock_identity
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/stock_identity_test.sh
        $<TARGET_FILE:harvo-bus> $<TARGET_FILE:bus_peer>)
set_tests_properties(tools_stock_identity PROPERTIES LABELS unit TIMEOUT 120 SKIP_RETURN_CODE 77)
