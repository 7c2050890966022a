#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Install test: installs a built tree into a scratch prefix (never /usr),
# then proves the installed files are enough to build and run a client:
#   - the library's SONAME is libharvo-fw.so.0, with the usual symlinks;
#   - every installed header compiles on its own with pkg-config's flags,
#     included as <harvo-fw/NAME.h> and by the older spelling <NAME.h>;
#   - consumer/ (main.cpp includes <harvo-fw/harvo-fw.h>, legacy_include.cpp
#     <harvo-fw.h>) builds with `pkg-config --cflags --libs harvo-fw`, and
#     as a CMake project with find_package(harvo-fw);
#   - both programs run, print the copied JSON text and make the framework
#     write its log line for a refused Try;
#   - neither program links the platform library, which it does not call
#     (pkg-config lists it in Requires.private; CMake links it privately);
#   - pkg-config states the minimum versions of the dependencies;
#   - the CMake version file accepts 0.<minor> only, and a missing
#     dependency makes harvo-fw_FOUND false without stopping the consumer;
#   - the installed harvo-bus runs from the prefix without the loader's
#     path, prints its version, and its manual page is installed.
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
case "$prefix" in
    /usr | /usr/*) echo "FAIL: the scratch prefix $prefix is below /usr" >&2; exit 1 ;;
esac

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
[[ " $cflags " == *" -I$prefix/include "* ]] ||
    fail "cflags lack -I$prefix/include, which <harvo-fw/harvo-fw.h> needs"
[[ " $cflags " == *" -I$prefix/include/harvo-fw "* ]] ||
    fail "cflags lack -I$prefix/include/harvo-fw, which the older <harvo-fw.h> needs"
[[ "$libs" == *"-L$libdir"* ]] || fail "libs do not point into the prefix"

step "pkg-config: minimum versions, the platform only where it is needed"
requires=$(pkg-config --print-requires harvo-fw)
echo "requires: $(tr '\n' ' ' <<<"$requires")"
for module in "glib-2.0 >= " "gio-2.0 >= " "jsoncpp >= "; do
    grep -q "^$module[0-9]" <<<"$requires" || fail "harvo-fw.pc: no minimum version for '$module'"
done
grep -q harvo-host-platform <<<"$requires" && fail "harvo-fw.pc: the platform is a public requirement"
requires_private=$(pkg-config --print-requires-private harvo-fw)
grep -q "^harvo-host-platform" <<<"$requires_private" ||
    fail "harvo-fw.pc: the platform is missing from Requires.private"
grep -q "^gthread-2.0 >= [0-9]" <<<"$requires_private" ||
    fail "harvo-fw.pc: gthread-2.0 is missing from Requires.private"
[[ " $libs " == *" -lharvo-host-platform "* ]] && fail "pkg-config --libs links the platform: $libs"
[[ "$cflags" == *"-I$prefix/include/harvo-host-platform"* ]] ||
    fail "pkg-config --cflags lacks the platform headers the public headers include"
static_libs=$(pkg-config --static --libs harvo-fw)
[[ " $static_libs " == *" -lharvo-host-platform "* ]] ||
    fail "pkg-config --static --libs does not link the platform: $static_libs"
host_requires=$(pkg-config --print-requires harvo-host-platform)
grep -q "^glib-2.0 >= [0-9]" <<<"$host_requires" ||
    fail "harvo-host-platform.pc: no minimum version for glib-2.0"

step "compiling every installed header on its own, as <harvo-fw/NAME> and as <NAME>"
for header in "$prefix"/include/harvo-fw/*.h; do
    name=$(basename "$header")
    for spelling in "harvo-fw/$name" "$name"; do
        # shellcheck disable=SC2086  # the flags are words
        echo "#include <$spelling>" |
            "$cxx" -std=c++17 -fsyntax-only -Wall -Wextra -x c++ - $cflags ||
            fail "installed header <$spelling> does not compile on its own"
        case "$name" in
            pelx*.h)
                # shellcheck disable=SC2086
                echo "#include <$spelling>" | cc -std=c11 -fsyntax-only -Wall -Wextra -x c - $cflags ||
                    fail "installed C header <$spelling> does not compile as C"
                ;;
        esac
    done
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
    # The framework log line as the host platform log prints it into a
    # file: without the colour escapes, which only a terminal gets.
    local expected='E/HarvoFW\([0-9]+\): TCHandler\.cpp: Try\([0-9]+\) >  \[nil\]m_EventMutex is NULL$'
    grep -qE "$expected" "$err" || { cat "$err"; fail "$program: framework log line missing"; }
    grep -E 'm_EventMutex' "$err"
}

step "building with g++ and pkg-config"
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -o "$work/consumer-pkgconfig" "$consumer_dir/main.cpp" \
    "$consumer_dir/legacy_include.cpp" $cflags $libs ||
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

# needed_libraries PROGRAM: its DT_NEEDED entries, one a line.
needed_libraries() {
    objdump -p "$1" | awk '$1 == "NEEDED" { print $2 }'
}

step "the consumers link harvo-fw and not the platform they do not call"
for program in "$work/consumer-pkgconfig" "$work/consumer-cmake/consumer"; do
    needed=$(needed_libraries "$program")
    grep -qx 'libharvo-fw.so.0' <<<"$needed" || fail "$program does not link libharvo-fw.so.0"
    if grep -q 'libharvo-host-platform' <<<"$needed"; then
        fail "$program links the platform library: $(tr '\n' ' ' <<<"$needed")"
    fi
done

step "running the CMake consumer without LD_LIBRARY_PATH (its RUNPATH and the library's \$ORIGIN)"
missing=$(env -u LD_LIBRARY_PATH ldd "$work/consumer-cmake/consumer" | grep 'not found' || true)
[[ -z "$missing" ]] || fail "libraries not found without LD_LIBRARY_PATH: $missing"
env -u LD_LIBRARY_PATH ldd "$work/consumer-cmake/consumer" | grep harvo

# probe LABEL [cmake args...]: configures probe/ against the prefix and
# prints its one "probe:" line.
probe() {
    local label=$1
    shift
    local log="$work/probe-$label.log"
    "$cmake_cmd" -S "$consumer_dir/../probe" -B "$work/probe-$label" "${generator[@]}" \
        -DCMAKE_PREFIX_PATH="$prefix" "$@" >"$log" 2>&1 ||
        { cat "$log"; fail "configuring the probe ($label) failed"; }
    grep -m1 -- '-- probe:' "$log" | sed 's/^-- //'
}

step "the CMake version file: 0.<minor> versions are incompatible with each other"
IFS=. read -r major minor _ < <(pkg-config --modversion harvo-fw)
[[ "$major" == 0 ]] || fail "version $major.$minor: these checks assume a 0.x version"
for request in "$major.$minor" "$major.$minor.0"; do
    outcome=$(probe "same-$request" -DPROBE_VERSION="$request")
    echo "asking for $request: $outcome"
    [[ "$outcome" == "probe: found harvo-fw $major.$minor."* ]] || fail "$request was refused"
done
for request in "$major.$((minor + 1))" "$major.$((minor - 1))" "$((major + 1)).0"; do
    [[ "$request" == *-1 ]] && continue
    outcome=$(probe "other-$request" -DPROBE_VERSION="$request")
    echo "asking for $request: $outcome"
    [[ "$outcome" == "probe: harvo-fw not found"* ]] || fail "$request was accepted: $outcome"
done

step "the CMake config file reports a missing dependency through harvo-fw_FOUND"
# A jsoncpp older than the minimum, found first by pkg-config.
old_pc="$work/old-jsoncpp-pc"
mkdir -p "$old_pc"
printf '%s\n' 'Name: jsoncpp' 'Description: too old' 'Version: 0.1.0' 'Libs:' 'Cflags:' \
    >"$old_pc/jsoncpp.pc"
outcome=$(PKG_CONFIG_PATH="$old_pc:$PKG_CONFIG_PATH" probe old-jsoncpp)
echo "with jsoncpp 0.1.0: $outcome"
[[ "$outcome" == "probe: harvo-fw not found: harvo-fw needs jsoncpp >= "* ]] ||
    fail "an old jsoncpp was not reported: $outcome"
PKG_CONFIG_PATH="$old_pc:$PKG_CONFIG_PATH" pkg-config --exists harvo-fw &&
    fail "pkg-config accepts harvo-fw with jsoncpp 0.1.0"
outcome=$(probe plain)
echo "with the real dependencies: $outcome"
[[ "$outcome" == "probe: found harvo-fw "* ]] || fail "harvo-fw not found: $outcome"

step "the installed harvo-bus runs from the prefix, with its version and manual page"
tool="$prefix/bin/harvo-bus"
[[ -x "$tool" ]] || fail "harvo-bus not installed in $prefix/bin"
missing=$(env -u LD_LIBRARY_PATH ldd "$tool" | grep 'not found' || true)
[[ -z "$missing" ]] || fail "harvo-bus: libraries not found without LD_LIBRARY_PATH: $missing"
runpath=$(objdump -p "$tool" | awk '$1 == "RUNPATH" { print $2 }')
echo "harvo-bus RUNPATH: $runpath"
[[ "$runpath" == '$ORIGIN/'* ]] || fail "harvo-bus has no run path relative to itself: '$runpath'"
version=$(env -u LD_LIBRARY_PATH "$tool" --version) || fail "harvo-bus --version failed"
echo "$version"
[[ "$version" == "harvo-bus (harvo-fw) $(pkg-config --modversion harvo-fw)" ]] ||
    fail "unexpected version line '$version'"
man_page="$prefix/share/man/man1/harvo-bus.1"
[[ -f "$man_page" ]] || fail "manual page not installed at $man_page"
grep -q '^\.TH HARVO-BUS "1"' "$man_page" || fail "$man_page is not a section 1 page"
grep -qF -- '\-\-version' "$man_page" || fail "$man_page does not describe --version"

echo "install test: OK"
