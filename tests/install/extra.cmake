# SPDX-License-Identifier: Apache-2.0
# Installs the build tree into a scratch prefix and builds a consumer
# program against the installed files, once through pkg-config and once
# through find_package(harvo-fw). Sanitizer builds skip it: the consumer
# would need the sanitizer runtime, and packaging is the same there.
if(NOT CMAKE_BUILD_TYPE MATCHES "^(Asan|Tsan)$")
    add_test(NAME install_consumer
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/consumer_test.sh
            ${PROJECT_BINARY_DIR}
            ${CMAKE_CURRENT_LIST_DIR}/consumer
            ${CMAKE_CURRENT_BINARY_DIR}/install-consumer
            ${CMAKE_COMMAND}
            ${CMAKE_CXX_COMPILER})
    # cmake --install of the same build tree as readme_quickstart: one at a time.
    set_tests_properties(install_consumer PROPERTIES LABELS unit TIMEOUT 300
        RESOURCE_LOCK build_tree_install)
endif()
