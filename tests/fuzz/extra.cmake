# SPDX-License-Identifier: Apache-2.0
# Every fuzz harness, linked with a plain driver (CorpusReplay.cpp) instead of
# libFuzzer, replays its starting inputs (corpus/<harness>/) as a test in
# every build: fuzz_<harness>_corpus. Fuzzing itself is scripts/fuzz.sh's.
# The body harness compares the body's reader and writer with JsonCpp's:
# it is one of the JSON tests (label json).
file(GLOB HARVO_FUZZ_REPLAY_HARNESSES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_fuzzer.cpp)
foreach(harness_source ${HARVO_FUZZ_REPLAY_HARNESSES})
    get_filename_component(harness ${harness_source} NAME_WE)
    string(REGEX REPLACE "_fuzzer$" "" harness_name ${harness})
    set(replay_target fuzz_${harness_name}_corpus)
    add_executable(${replay_target} ${harness_source} ${CMAKE_CURRENT_LIST_DIR}/CorpusReplay.cpp)
    # The harnesses reach internals (src/BusPayload.h): the internal archive.
    target_include_directories(${replay_target} PRIVATE ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(${replay_target} PRIVATE harvo-fw-internal harvo-host-platform
        Threads::Threads)
    add_test(NAME ${replay_target}
        COMMAND ${replay_target} ${CMAKE_CURRENT_LIST_DIR}/corpus/${harness_name})
    set(replay_labels unit)
    if(harness_name STREQUAL "body")
        list(APPEND replay_labels json)
        add_dependencies(json-tests ${replay_target})
    endif()
    set_tests_properties(${replay_target} PROPERTIES LABELS "${replay_labels}" TIMEOUT 120)
endforeach()
