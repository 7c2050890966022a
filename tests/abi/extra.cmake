# SPDX-License-Identifier: Apache-2.0
# What the shared libraries export: the public interface only.
add_test(NAME abi_exported_symbols
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/exported_symbols_test.sh
        $<TARGET_FILE:harvo-fw> $<TARGET_FILE:harvo-host-platform>)
set_tests_properties(abi_exported_symbols PROPERTIES LABELS unit TIMEOUT 60)
