# Every fuzz harness, linked with a plain driver (SeedReplay.cpp) instead of
# libFuzzer, replays its starting inputs (corpus/<harness>/) as a test in
# every build: fuzz_<harness>_seeds. Fuzzing itself is scripts/fuzz.sh's.
# The body harness compares the body's reader and writer with JsonCpp's:
# it is one of the JSON tests (label json).
file(GLOB HARVO_FUZZ_SEED_HARNESSES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_fuzzer.cpp)
foreach(harness_source ${HARVO_FUZZ_SEED_HARNESSES})
    get_filename_component(harness ${harness_source} NAME_WE)
    string(REGEX REPLACE "_fuzzer$" "" harness_name ${harness})
    set(seed_target fuzz_${harness_name}_seeds)
    add_executable(${seed_target} ${harness_source} ${CMAKE_CURRENT_LIST_DIR}/SeedReplay.cpp)
    # The harnesses reach internals (src/BusPayload.h): the internal archive.
    target_include_directories(${seed_target} PRIVATE ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(${seed_target} PRIVATE harvo-fw-internal harvo-host-platform
        Threads::Threads)
    add_test(NAME ${seed_target}
        COMMAND ${seed_target} ${CMAKE_CURRENT_LIST_DIR}/corpus/${harness_name})
    set(seed_labels unit)
    if(harness_name STREQUAL "body")
        list(APPEND seed_labels json)
        add_dependencies(json-tests ${seed_target})
    endif()
    set_tests_properties(${seed_target} PROPERTIES LABELS "${seed_labels}" TIMEOUT 120)
endforeach()
