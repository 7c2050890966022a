#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that building, testing, the demo and the
# benchmarks of harvo-fw need. Safe to run again and again: when every
# package is already installed it touches nothing and returns at once.
#
# Usage: scripts/install-deps.sh [extra-package...]
#
# Needs root only when something is missing: run it as root (a fresh Debian
# root shell has no sudo), or through sudo where a user has it.
set -euo pipefail

PACKAGES=(
    # compiler, build system
    build-essential      # g++, make, and the GCC sanitizer runtimes
    cmake
    ninja-build
    pkg-config
    binutils             # objdump (checks the library's SONAME)
    # libraries harvo-fw is built on
    libglib2.0-dev       # glib-2.0, gio-2.0, gthread-2.0
    libglib2.0-bin       # gdbus command-line tool
    libjsoncpp-dev
    # a private D-Bus system bus for the tests and the demo
    dbus-daemon
    dbus-bin             # dbus-send, dbus-monitor
    # tests and benchmarks
    libgtest-dev
    googletest
    libgmock-dev
    libbenchmark-dev
    linux-perf           # scripts/bench-counts.sh: system calls per event (tracepoints)
    valgrind             # instructions per event / round trip (bench-counts.sh, bench/callgrind_roundtrip.sh)
    python3
    python3-dbus         # the guide's dbus-python call of an endpoint (tests/tools)
    strace               # lock tests count wake-up calls; bench-counts.sh where perf cannot
    # the system-bus policy test runs a service as an unprivileged user
    util-linux           # setpriv
    dbus-system-bus-common  # the stock system bus policy the test starts from
    # the API reference (cmake --build build --target docs)
    doxygen
    # source formatting (scripts/format.sh)
    clang-format
    # binary-interface check (scripts/check-abi.sh): abidw, abidiff
    abigail-tools
    # the package recipe's check (rpmspec -P) and harvo-bus's manual page
    rpm
    help2man
)
PACKAGES+=("$@")

# A package counts as installed when dpkg reports "install ok installed".
missing=()
for pkg in "${PACKAGES[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
    if [[ "$status" != "install ok installed" ]]; then
        missing+=("$pkg")
    fi
done

if [[ ${#missing[@]} -eq 0 ]]; then
    echo "install-deps: all ${#PACKAGES[@]} packages already installed"
    exit 0
fi

echo "install-deps: missing packages: ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then
    {
        echo "install-deps: installing the missing packages needs root:"
        echo "  as root (e.g. after su -):  bash $0 $*"
        if command -v sudo >/dev/null 2>&1; then
            echo "  or through sudo:            sudo bash $0 $*"
        else
            echo "  (there is no sudo on this machine)"
        fi
    } >&2
    exit 1
fi

export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
echo "install-deps: done"
