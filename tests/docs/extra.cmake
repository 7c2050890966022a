# SPDX-License-Identifier: Apache-2.0
# The documentation's links: every page under docs/ is reachable from the
# README and from the API reference's front page, and the links between
# pages work both on a repository browser and in the Doxygen reference.
add_test(NAME docs_links
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/links_test.sh ${PROJECT_SOURCE_DIR})
set_tests_properties(docs_links PROPERTIES LABELS unit TIMEOUT 60)
