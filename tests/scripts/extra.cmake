# The scripts' own tests: install-deps.sh run without root says how to get
# root instead of failing obscurely (needs root to switch users: skipped
# otherwise).
add_test(NAME scripts_install_deps_without_root
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/install_deps_test.sh ${PROJECT_SOURCE_DIR}/scripts)
set_tests_properties(scripts_install_deps_without_root PROPERTIES
    LABELS unit TIMEOUT 60 SKIP_RETURN_CODE 77)
