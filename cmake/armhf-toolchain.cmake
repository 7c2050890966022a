# SPDX-License-Identifier: Apache-2.0
# Cross-compiles for 32-bit ARM (armv7l, hard float), the architecture of
# the devices, with Debian's armhf cross compiler. The libraries come from an
# armhf Debian root (scripts/test-arm.sh makes one) used as the sysroot.
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DHARVO_ARM_SYSROOT=/path/to/rootfs ...
#
# Programs built here (the test programs, whose tests CMake lists at build
# time) run through cmake/arm-run.sh: under qemu-arm on the build machine,
# directly inside the armhf root.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(HARVO_ARM_SYSROOT "" CACHE PATH "armhf Debian root used as the sysroot")
if(NOT HARVO_ARM_SYSROOT AND DEFINED ENV{HARVO_ARM_SYSROOT})
    set(HARVO_ARM_SYSROOT "$ENV{HARVO_ARM_SYSROOT}")
endif()
if(NOT HARVO_ARM_SYSROOT)
    message(FATAL_ERROR "armhf-toolchain: set HARVO_ARM_SYSROOT to an armhf Debian root")
endif()
# The toolchain file is read again for each compiler check; those runs see
# the value through the environment only.
set(ENV{HARVO_ARM_SYSROOT} "${HARVO_ARM_SYSROOT}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HARVO_ARM_SYSROOT)

set(HARVO_ARM_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${HARVO_ARM_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${HARVO_ARM_TRIPLET}-g++)
set(CMAKE_SYSROOT "${HARVO_ARM_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH "${HARVO_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the root's .pc files and prefixes their paths with it.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${HARVO_ARM_SYSROOT}/usr/lib/${HARVO_ARM_TRIPLET}/pkgconfig:${HARVO_ARM_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${HARVO_ARM_SYSROOT}")

set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/arm-run.sh;${HARVO_ARM_SYSROOT}")
