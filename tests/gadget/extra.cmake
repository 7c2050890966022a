# SPDX-License-Identifier: Apache-2.0
# Gadget modules for the gadget tests, loaded through the host UI gadget
# library from one directory (GADGET_TEST_MODULE_DIR).
set(HARVO_GADGET_MODULE_DIR ${CMAKE_CURRENT_BINARY_DIR}/gadget-modules)
set(HARVO_GADGET_MODULES)
function(harvo_gadget_module name source)
    add_library(ug-${name} MODULE ${CMAKE_CURRENT_LIST_DIR}/modules/${source})
    set_target_properties(ug-${name} PROPERTIES PREFIX "lib"
        LIBRARY_OUTPUT_DIRECTORY ${HARVO_GADGET_MODULE_DIR})
    target_include_directories(ug-${name} PRIVATE ${CMAKE_CURRENT_LIST_DIR}/modules)
    target_link_libraries(ug-${name} PRIVATE harvo-fw harvo-host-platform ${CMAKE_DL_LIBS})
    target_compile_definitions(ug-${name} PRIVATE ${ARGN})
endfunction()
harvo_gadget_module(cppgadget cpp_gadget.cpp GADGET_NAME="cppgadget")
harvo_gadget_module(cppgadgetbus cpp_gadget.cpp GADGET_NAME="cppgadgetbus" GADGET_BUS=true)
harvo_gadget_module(cppdefault cpp_gadget.cpp GADGET_NAME="cppdefault" GADGET_DEFAULT_HOOKS)
harvo_gadget_module(cgadget c_gadget.c)
harvo_gadget_module(cgadgetmin c_gadget.c C_GADGET_MINIMAL)
harvo_gadget_module(keyprobe key_probe.c)
harvo_gadget_module(cgadgetbus c_gadget.c C_GADGET_BUS=true C_GADGET_NAME="cgadgetbus")

foreach(test_target gadget_gadget_activity_test gadget_gadget_proxy_test gadget_pelx_gadget_test
        gadget_gadget_bus_test gadget_gadget_exceptions_test)
    if(TARGET ${test_target})
        add_dependencies(${test_target} ug-cppgadget ug-cppgadgetbus ug-cppdefault ug-cgadget
            ug-cgadgetmin ug-cgadgetbus ug-keyprobe)
        set_target_properties(${test_target} PROPERTIES ENABLE_EXPORTS ON)
        target_compile_definitions(${test_target} PRIVATE
            GADGET_TEST_MODULE_DIR="${HARVO_GADGET_MODULE_DIR}")
    endif()
endforeach()

# The bus tests of gadgets use the private bus and the bus tests' peer.
if(TARGET gadget_gadget_bus_test AND TARGET bus_peer)
    target_compile_definitions(gadget_gadget_bus_test PRIVATE
        HARVO_PEER_PATH="$<TARGET_FILE:bus_peer>"
        HARVO_BUS_CONFIG="${PROJECT_SOURCE_DIR}/tests/bus/system-bus.conf")
    add_dependencies(gadget_gadget_bus_test bus_peer)
endif()
