# SPDX-License-Identifier: Apache-2.0
# The package recipe against the install: rpmspec must parse it, and its
# %files sections must list exactly what `cmake --install` installs.
find_program(HARVO_RPMSPEC rpmspec)
find_program(HARVO_PYTHON3_FOR_PACKAGING python3)
if(HARVO_RPMSPEC AND HARVO_PYTHON3_FOR_PACKAGING)
    add_test(NAME packaging_recipe_files
        COMMAND ${HARVO_PYTHON3_FOR_PACKAGING} ${CMAKE_CURRENT_LIST_DIR}/recipe_files.py
            ${PROJECT_SOURCE_DIR}/packaging/harvo-fw.spec
            ${PROJECT_BINARY_DIR}
            ${CMAKE_CURRENT_BINARY_DIR}/packaging-recipe-files)
    set_tests_properties(packaging_recipe_files PROPERTIES LABELS unit TIMEOUT 120)
else()
    message(WARNING "harvo-fw: rpmspec or python3 missing; the packaging test is skipped "
        "(run scripts/install-deps.sh)")
endif()
