# SPDX-License-Identifier: Apache-2.0
# Sanitizer build types. Asan = AddressSanitizer + UndefinedBehaviorSanitizer,
# Tsan = ThreadSanitizer. Both keep debug information and frame pointers so
# reports are readable, and UBSan findings abort instead of being printed.
set(_harvo_asan_flags "-O1 -g -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all")
set(_harvo_tsan_flags "-O1 -g -fno-omit-frame-pointer -fsanitize=thread")

foreach(_lang C CXX)
    set(CMAKE_${_lang}_FLAGS_ASAN "${_harvo_asan_flags}" CACHE STRING "" FORCE)
    set(CMAKE_${_lang}_FLAGS_TSAN "${_harvo_tsan_flags}" CACHE STRING "" FORCE)
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_ASAN "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_ASAN "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_MODULE_LINKER_FLAGS_ASAN "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_EXE_LINKER_FLAGS_TSAN "-fsanitize=thread" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_TSAN "-fsanitize=thread" CACHE STRING "" FORCE)
set(CMAKE_MODULE_LINKER_FLAGS_TSAN "-fsanitize=thread" CACHE STRING "" FORCE)
mark_as_advanced(
    CMAKE_C_FLAGS_ASAN CMAKE_CXX_FLAGS_ASAN CMAKE_C_FLAGS_TSAN CMAKE_CXX_FLAGS_TSAN
    CMAKE_EXE_LINKER_FLAGS_ASAN CMAKE_SHARED_LINKER_FLAGS_ASAN CMAKE_MODULE_LINKER_FLAGS_ASAN
    CMAKE_EXE_LINKER_FLAGS_TSAN CMAKE_SHARED_LINKER_FLAGS_TSAN CMAKE_MODULE_LINKER_FLAGS_TSAN)

string(TOUPPER "${CMAKE_BUILD_TYPE}" HARVO_BUILD_TYPE_UPPER)
