#!/usr/bin/env bash
# Install test: installs a built tree into a scratch prefix, then proves the
# installed files are enough to build and run a client:
#   - the library's SONAME is libharvo-fw.so.0, with the usual symlinks;
#   - every installed header compiles on its own with pkg-config's flags;
#   - consumer/main.cpp builds with `pkg-config --cflags --libs harvo-fw`;
#   - consumer/ builds as a CMake project with find_package(harvo-fw);
#   - both programs run, print the copied JSON text and make the framework
#     write its log line for a refused Try.
#
# Usage: consumer_test.sh BUILD_DIR CONSUMER_DIR WORK_DIR [CMAKE] [CXX]
set -euo pipefail

build_dir=$1
consumer_dir=$2
work=$3
cmake_cmd=${4:-cmake}
cxx=${5:-c++}

prefix="$work/prefix"
rm -rf "$work"
mkdir -p "$work"

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

step() { echo "--- $*"; }

step "installing $build_dir into $prefix"
"$cmake_cmd" --install "$build_dir" --prefix "$prefix" >"$work/install.log" ||
    { cat "$work/install.log"; fail "cmake --install failed"; }

lib=$(find "$prefix" -name 'libharvo-fw.so.0' | head -n 1)
[[ -n "$lib" ]] || fail "libharvo-fw.so.0 not installed"
libdir=$(dirname "$lib")
echo "library directory: $libdir"

step "checking the library's files and SONAME"
[[ -L "$libdir/libharvo-fw.so" ]] || fail "libharvo-fw.so is not a symlink"
[[ -L "$libdir/libharvo-fw.so.0" ]] || fail "libharvo-fw.so.0 is not a symlink"
real=$(readlink -f "$libdir/libharvo-fw.so")
[[ "$real" =~ libharvo-fw\.so\.0\.[0-9]+\.[0-9]+$ ]] || fail "unexpected library file $real"
soname=$(objdump -p "$lib" | awk '$1 == "SONAME" { print $2 }')
echo "SONAME: $soname"
[[ "$soname" == "libharvo-fw.so.0" ]] || fail "SONAME is '$soname', expected libharvo-fw.so.0"

[[ -f "$libdir/pkgconfig/harvo-fw.pc" ]] || fail "harvo-fw.pc not installed"
[[ -f "$libdir/cmake/harvo-fw/harvo-fwConfig.cmake" ]] || fail "harvo-fwConfig.cmake not installed"
[[ -f "$prefix/include/harvo-fw/harvo-fw.h" ]] || fail "headers not installed in include/harvo-fw"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
export LD_LIBRARY_PATH="$libdir"

step "pkg-config"
cflags=$(pkg-config --cflags harvo-fw) || fail "pkg-config --cflags harvo-fw failed"
libs=$(pkg-config --libs harvo-fw) || fail "pkg-config --libs harvo-fw failed"
echo "cflags: $cflags"
echo "libs:   $libs"
[[ "$cflags" == *"-I$prefix/include/harvo-fw"* ]] || fail "cflags do not point into the prefix"
[[ "$libs" == *"-L$libdir"* ]] || fail "libs do not point into the prefix"

step "compiling every installed header on its own"
for header in "$prefix"/include/harvo-fw/*.h; do
    name=$(basename "$header")
    # shellcheck disable=SC2086  # the flags are words
    echo "#include <$name>" | "$cxx" -std=c++17 -fsyntax-only -Wall -Wextra -x c++ - $cflags ||
        fail "installed header $name does not compile on its own"
    case "$name" in
        pelx*.h)
            # shellcheck disable=SC2086
            echo "#include <$name>" | cc -std=c11 -fsyntax-only -Wall -Wextra -x c - $cflags ||
                fail "installed C header $name does not compile as C"
            ;;
    esac
done

# check_run PROGRAM: runs a consumer and checks its output and log line.
check_run() {
    local program=$1 out err
    out="$work/$(basename "$program").out"
    err="$work/$(basename "$program").err"
    "$program" >"$out" 2>"$err" || { cat "$out" "$err"; fail "$program exited non-zero"; }
    cat "$out"
    grep -qxF 'copy: {"hello":"world","n":1}' "$out" || fail "$program: copied JSON text missing"
    grep -qxF 'consumer: OK' "$out" || fail "$program: did not report OK"
    # The framework log line as the host platform log prints it.
    local expected='E/HarvoFW\([0-9]+\): TCHandler\.cpp: Try\([0-9]+\) > .\[31m \[nil\]m_EventMutex is NULL.\[0m$'
    grep -qE "$expected" "$err" || { cat "$err"; fail "$program: framework log line missing"; }
    grep -E 'm_EventMutex' "$err"
}

step "building with g++ and pkg-config"
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -o "$work/consumer-pkgconfig" "$consumer_dir/main.cpp" $cflags $libs ||
    fail "building the consumer with pkg-config's flags failed"
check_run "$work/consumer-pkgconfig"

step "building with CMake and find_package(harvo-fw)"
generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
"$cmake_cmd" -S "$consumer_dir" -B "$work/consumer-cmake" "${generator[@]}" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" >"$work/cmake-configure.log" 2>&1 ||
    { cat "$work/cmake-configure.log"; fail "configuring the CMake consumer failed"; }
"$cmake_cmd" --build "$work/consumer-cmake" >"$work/cmake-build.log" 2>&1 ||
    { cat "$work/cmake-build.log"; fail "building the CMake consumer failed"; }
check_run "$work/consumer-cmake/consumer"

step "running the CMake consumer without LD_LIBRARY_PATH (its RUNPATH and the library's \$ORIGIN)"
missing=$(env -u LD_LIBRARY_PATH ldd "$work/consumer-cmake/consumer" | grep 'not found' || true)
[[ -z "$missing" ]] || fail "libraries not found without LD_LIBRARY_PATH: $missing"
env -u LD_LIBRARY_PATH ldd "$work/consumer-cmake/consumer" | grep harvo

echo "install test: OK"
