# SPDX-License-Identifier: Apache-2.0
# The README's main job as a test: the demo's service and client run on a
# private bus and must end with status 0 after the whole conversation.
# The programs are the examples themselves, so the test needs them built;
# a last run points the command-line tool (tools/harvo-bus) at the service.
if(HARVO_BUILD_EXAMPLES)
    add_test(NAME demo_conversation
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/demo_test.sh
            $<TARGET_FILE:demo_service>
            $<TARGET_FILE:demo_client>
            ${PROJECT_SOURCE_DIR}/scripts
            ${CMAKE_CURRENT_BINARY_DIR}/demo-test
            $<TARGET_FILE:harvo-bus>)
    set_tests_properties(demo_conversation PROPERTIES LABELS unit TIMEOUT 120)
endif()

# The gadget example: a host embeds the C++ and the C gadget module, both
# answer and both close, and the host ends with status 0.
if(HARVO_BUILD_EXAMPLES)
    add_test(NAME demo_gadgets
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/gadget_demo_test.sh
            $<TARGET_FILE:gadget_host>
            $<TARGET_FILE_DIR:ug-hello_cpp>
            ${CMAKE_CURRENT_BINARY_DIR}/gadget-demo-test)
    set_tests_properties(demo_gadgets PROPERTIES LABELS unit TIMEOUT 90)
endif()
