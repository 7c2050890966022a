# SPDX-License-Identifier: Apache-2.0
# The C interface used from C: records_c is compiled by the C compiler and
# links only the shared library.
add_executable(records_c ${CMAKE_CURRENT_LIST_DIR}/records_c.c)
target_link_libraries(records_c PRIVATE harvo-fw)
set_target_properties(records_c PROPERTIES
    LINKER_LANGUAGE C
    C_STANDARD 99
    C_STANDARD_REQUIRED ON
    C_EXTENSIONS OFF)
target_compile_options(records_c PRIVATE -pedantic)
add_test(NAME c_records COMMAND records_c)
set_tests_properties(c_records PROPERTIES LABELS unit TIMEOUT 60)
