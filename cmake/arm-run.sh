#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs an armv7l program built with armhf-toolchain.cmake.
#
# Usage: arm-run.sh ROOT PROGRAM [ARG...]
#
# Inside the armhf root (where uname, itself emulated, says armv7l) the
# program runs as it is: the kernel hands it to qemu-arm through binfmt_misc.
# On the build machine it runs under qemu-arm with ROOT as the prefix for its
# loader and libraries.
root=$1
shift
case "$(uname -m)" in
    arm*) exec "$@" ;;
esac
exec qemu-arm-static -L "$root" "$@"
