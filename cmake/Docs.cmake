# SPDX-License-Identifier: Apache-2.0
# The API reference: `cmake --build <build> --target docs` runs Doxygen over
# the public headers into <build>/docs/html/. The target, and the test
# docs_reference that runs it, fail on any Doxygen warning (an undocumented
# public class, function or member included).
find_program(HARVO_DOXYGEN_EXECUTABLE doxygen)
if(HARVO_DOXYGEN_EXECUTABLE)
    set(HARVO_DOCS_OUTPUT ${CMAKE_BINARY_DIR}/docs)
    configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${HARVO_DOCS_OUTPUT}/Doxyfile @ONLY)
    set(HARVO_DOCS_COMMAND
        ${CMAKE_COMMAND} -DDOXYGEN=${HARVO_DOXYGEN_EXECUTABLE}
        -DDOXYFILE=${HARVO_DOCS_OUTPUT}/Doxyfile
        -DWARNINGS=${HARVO_DOCS_OUTPUT}/warnings.log
        -P ${PROJECT_SOURCE_DIR}/cmake/RunDoxygen.cmake)
    add_custom_target(docs COMMAND ${HARVO_DOCS_COMMAND}
        WORKING_DIRECTORY ${HARVO_DOCS_OUTPUT}
        COMMENT "API reference in ${HARVO_DOCS_OUTPUT}/html"
        VERBATIM)
    if(HARVO_BUILD_TESTS)
        add_test(NAME docs_reference COMMAND ${HARVO_DOCS_COMMAND}
            WORKING_DIRECTORY ${HARVO_DOCS_OUTPUT})
        set_tests_properties(docs_reference PROPERTIES LABELS unit TIMEOUT 300)
    endif()
else()
    message(STATUS "doxygen not found: no docs target (scripts/install-deps.sh installs it)")
endif()
