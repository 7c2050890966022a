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
        HARVO_BUS_CONFIG="${PROJECT_SOURCE_DIR}/tests/bus/system-bus.conf")
    add_dependencies(${tool_test_target} bus_peer harvo-bus)
endforeach()
