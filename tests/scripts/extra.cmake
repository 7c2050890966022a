# The scripts' own tests: install-deps.sh run without root says how to get
# root instead of failing obscurely (needs root to switch users: skipped
# otherwise).
add_test(NAME scripts_install_deps_without_root
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/install_deps_test.sh ${PROJECT_SOURCE_DIR}/scripts)
set_tests_properties(scripts_install_deps_without_root PROPERTIES
    LABELS unit TIMEOUT 60 SKIP_RETURN_CODE 77)

# The test command's check for processes that tests leave running, on a
# scratch tree of its own.
add_test(NAME scripts_leftover_processes
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/leftover_processes_test.sh ${PROJECT_SOURCE_DIR}/scripts)
set_tests_properties(scripts_leftover_processes PROPERTIES LABELS unit TIMEOUT 60)

# The armv7l stage's Debian mirror, read from sample APT sources.
add_test(NAME scripts_apt_mirror
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/apt_mirror_test.sh ${PROJECT_SOURCE_DIR}/scripts)
set_tests_properties(scripts_apt_mirror PROPERTIES LABELS unit TIMEOUT 60)
