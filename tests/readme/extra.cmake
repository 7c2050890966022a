# SPDX-License-Identifier: Apache-2.0
# The README's quick start, taken out of README.md verbatim, built against
# the installed library with pkg-config and with find_package, and run on a
# private bus. Sanitizer builds skip it, as they skip install_consumer: the
# programs would need the sanitizer runtime of the installed library.
if(NOT CMAKE_BUILD_TYPE MATCHES "^(Asan|Tsan)$")
    add_test(NAME readme_quickstart
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/quickstart_test.sh
            ${PROJECT_SOURCE_DIR}/README.md
            ${PROJECT_BINARY_DIR}
            ${PROJECT_SOURCE_DIR}/scripts
            ${CMAKE_CURRENT_BINARY_DIR}/readme-quickstart
            ${CMAKE_COMMAND})
    # cmake --install of the same build tree as install_consumer: one at a time.
    set_tests_properties(readme_quickstart PROPERTIES LABELS unit TIMEOUT 300
        RESOURCE_LOCK build_tree_install)
endif()
