# SPDX-License-Identifier: Apache-2.0
# The C interface from another language: a Python program that uses only
# the standard library's ctypes, on a private bus. Not in sanitizer builds:
# an uninstrumented interpreter cannot load an instrumented library.
# The system's own interpreter, as it is installed ("python3" is a link to
# "python3.11" on Debian 12): not whatever python3 comes first on PATH.
find_program(HARVO_STOCK_PYTHON3 python3 PATHS /usr/bin NO_DEFAULT_PATH)
find_program(HARVO_STOCK_PYTHON3 python3)
if(HARVO_STOCK_PYTHON3 AND EXISTS ${PROJECT_SOURCE_DIR}/tools/CMakeLists.txt
   AND NOT CMAKE_BUILD_TYPE MATCHES "^(Asan|Tsan)$")
    add_test(NAME python_ctypes_signals
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/run_ctypes_signal.sh
            ${HARVO_STOCK_PYTHON3} ${PROJECT_SOURCE_DIR}/scripts ${CMAKE_CURRENT_BINARY_DIR}/python-test
            $<TARGET_FILE:harvo-fw> $<TARGET_FILE:harvo-bus>)
    set_tests_properties(python_ctypes_signals PROPERTIES LABELS unit TIMEOUT 120)
    # The Python example of the guide: a service and a client in Python.
    add_test(NAME python_hello_example
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/run_hello_example.sh
            ${HARVO_STOCK_PYTHON3} ${PROJECT_SOURCE_DIR}/scripts ${PROJECT_SOURCE_DIR}/examples/python
            $<TARGET_FILE:harvo-fw>)
    set_tests_properties(python_hello_example PROPERTIES LABELS unit TIMEOUT 180)
endif()
