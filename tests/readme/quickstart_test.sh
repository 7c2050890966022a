#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The README's quick start, as written there: its marked code blocks are
# taken out of README.md verbatim, built against the installed library (a
# scratch prefix, never /usr) once through pkg-config and once through
# CMake's find_package, and run on a private system bus: the service must
# say it is ready, the client must print exactly the README's output line,
# and both must end with status 0 (the service on SIGTERM).
#
# The blocks are the fenced blocks that follow the README's markers
# "<!-- quickstart: NAME -->". From the install block the test runs only its
# export line (it installs the build tree itself); from the build block the
# g++ lines for pkg-config and the cmake line for CMake.
#
# Usage: quickstart_test.sh README BUILD_DIR SCRIPTS_DIR WORK_DIR [CMAKE]
set -uo pipefail

README=$1 BUILD_DIR=$2 SCRIPTS=$3 WORK=$4
CMAKE=${5:-cmake}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}
step() { echo "--- $*"; }

# block NAME: prints the fenced block after the marker NAME, or fails.
block() {
    local text
    text=$(awk -v marker="<!-- quickstart: $1 -->" '
        $0 == marker { found = 1; next }
        found == 1 && /^```/ { found = 2; next }
        found == 2 && /^```/ { exit }
        found == 2 { print }
    ' "$README")
    [[ -n "$text" ]] || fail "README.md has no block after <!-- quickstart: $1 -->"
    printf '%s\n' "$text"
}

rm -rf "$WORK"
mkdir -p "$WORK/src"
step "taking the quick start's blocks out of $README"
block hello_service.cpp >"$WORK/src/hello_service.cpp" || exit 1
block hello_client.cpp >"$WORK/src/hello_client.cpp" || exit 1
block CMakeLists.txt >"$WORK/src/CMakeLists.txt" || exit 1
install_block=$(block install) || exit 1
build_block=$(block build) || exit 1
expected=$(block "client output") || exit 1
wc -l "$WORK"/src/*
for source in hello_service.cpp hello_client.cpp; do
    lines=$(wc -l <"$WORK/src/$source")
    ((lines < 40)) || fail "$source has $lines lines; the quick start keeps each under 40"
    grep -qx '#include <harvo-fw/harvo-fw.h>' "$WORK/src/$source" ||
        fail "$source does not include <harvo-fw/harvo-fw.h>"
done

prefix="$WORK/prefix"
case "$prefix" in
    /usr | /usr/*) fail "the scratch prefix $prefix is below /usr" ;;
esac
step "installing $BUILD_DIR into $prefix"
"$CMAKE" --install "$BUILD_DIR" --prefix "$prefix" >"$WORK/install.log" ||
    { cat "$WORK/install.log"; fail "cmake --install failed"; }

step "the install block's environment"
exports=$(grep '^export ' <<<"$install_block")
[[ -n "$exports" ]] || fail "the install block has no export line"
echo "$exports"
eval "$exports"
pkg-config --exists harvo-fw ||
    fail "with PKG_CONFIG_PATH=$PKG_CONFIG_PATH pkg-config does not find harvo-fw"
[[ -e "$LD_LIBRARY_PATH/libharvo-fw.so.0" ]] ||
    fail "LD_LIBRARY_PATH=$LD_LIBRARY_PATH does not hold libharvo-fw.so.0"

# build WAY PATTERN: runs the build block's lines that match PATTERN in a
# copy of the sources, WORK/WAY.
build() {
    local way=$1 pattern=$2 commands
    commands=$(grep -E "$pattern" <<<"$build_block")
    [[ -n "$commands" ]] || fail "the build block has no line for $way"
    step "building with $way"
    echo "$commands"
    cp -r "$WORK/src" "$WORK/$way"
    (cd "$WORK/$way" && bash -euo pipefail -c "prefix='$prefix'; $commands") \
        >"$WORK/$way.log" 2>&1 || { cat "$WORK/$way.log"; fail "building with $way failed"; }
}
build pkg-config '^g\+\+ '
build cmake '^cmake '

source "$SCRIPTS/private-bus.sh"
harvo_private_bus_start || fail "the private bus did not start"
service_pid=""
cleanup() {
    if [[ -n "$service_pid" ]]; then
        kill "$service_pid" 2>/dev/null
        wait "$service_pid" 2>/dev/null
    fi
    harvo_private_bus_stop
}
trap cleanup EXIT

# run DIR: the service and the client built in DIR, on the private bus.
run() {
    local dir=$1 status
    step "running $dir"
    [[ -x "$dir/hello_service" && -x "$dir/hello_client" ]] || fail "$dir lacks the programs"
    "$dir/hello_service" >"$dir/service.out" 2>"$dir/service.err" &
    service_pid=$!
    for _ in $(seq 1 600); do
        grep -qx 'hello: ready' "$dir/service.out" 2>/dev/null && break
        kill -0 "$service_pid" 2>/dev/null || break
        sleep 0.05
    done
    grep -qx 'hello: ready' "$dir/service.out" ||
        { cat "$dir/service.out" "$dir/service.err"; fail "the service did not say it was ready"; }
    "$dir/hello_client" >"$dir/client.out" 2>"$dir/client.err"
    status=$?
    echo "client (status $status): $(cat "$dir/client.out")"
    [[ $status -eq 0 ]] || { cat "$dir/client.err"; fail "the client ended with status $status"; }
    [[ "$(cat "$dir/client.out")" == "$expected" ]] ||
        fail "the client printed '$(cat "$dir/client.out")', the README shows '$expected'"
    kill -TERM "$service_pid"
    wait "$service_pid"
    status=$?
    service_pid=""
    echo "service ended on SIGTERM with status $status"
    [[ $status -eq 0 ]] || { cat "$dir/service.err"; fail "the service ended with status $status"; }
}
run "$WORK/pkg-config"
run "$WORK/cmake/build"

echo "quick start: OK"
