#!/usr/bin/env bash
# The tests on the devices' architecture, 32-bit ARM (armv7l), under
# emulation:
#
#   1. makes an armhf Debian 12 root with debootstrap, once; it is kept in
#      build-arm-root/ and reused while its package list stays the same;
#   2. cross-compiles the library, the tests and the examples for armv7l on
#      this machine (Debug, Debian's armhf cross compiler, the root as the
#      sysroot; cmake/armhf-toolchain.cmake) in build-arm/;
#   3. runs the test suite inside the root (chroot), where every program,
#      from ctest to the test programs, dbus-daemon, bash and python3, is an
#      armhf binary run by qemu-arm through binfmt_misc; prints CTest's
#      summary.
#
# Usage: scripts/test-arm.sh [--demo] [--with-slow] [--mirror URL]
#   --demo        after the build, run the demo (scripts/demo.sh) on the
#                 armv7l binaries instead of the tests
#   --with-slow   run the slow tests too (label "slow"; skipped by default:
#                 under emulation they take longer than the rest together)
#   --mirror URL  the Debian mirror to make the root from (as
#                 HARVO_ARM_MIRROR)
#
# install_consumer, the soak and the tests of the build machine's own tools
# (Doxygen, nm, rpmspec, apt) never run here; the Debug stage of
# scripts/test.sh runs them.
#
# Environment:
#   HARVO_BUILD_PREFIX  directory that holds build-arm-root/ and build-arm/
#                       (default: the repository root)
#   HARVO_JOBS          parallel compile jobs (default 2)
#   HARVO_TEST_JOBS     tests run at once by ctest (default 2)
#   HARVO_ARM_MIRROR    Debian mirror for the root (default: the first
#                       Debian repository for bookworm with the main
#                       component in this machine's APT sources, as APT
#                       reads them: /etc/apt/sources.list, then
#                       /etc/apt/sources.list.d/*.list and *.sources)
#
# Needs root: debootstrap, mount and chroot. Exits non-zero when the root
# cannot be made, the build fails, a test fails or the tests leave a
# process running (listed and ended, as in scripts/test.sh).
set -uo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT" || exit 1

PREFIX=${HARVO_BUILD_PREFIX:-$ROOT}
PREFIX=$(mkdir -p "$PREFIX" && cd "$PREFIX" && pwd)
JOBS=${HARVO_JOBS:-2}
TEST_JOBS=${HARVO_TEST_JOBS:-2}
ARM_ROOT_DIR="$PREFIX/build-arm-root"
ROOTFS="$ARM_ROOT_DIR/rootfs"
BUILD="$PREFIX/build-arm"

demo=0
with_slow=0
while [[ $# -gt 0 ]]; do
    case "$1" in
        --demo) demo=1 ;;
        --with-slow) with_slow=1 ;;
        --mirror)
            [[ $# -ge 2 && -n $2 ]] || {
                echo "test-arm.sh: --mirror needs a URL" >&2
                exit 2
            }
            export HARVO_ARM_MIRROR=$2
            shift
            ;;
        -h | --help)
            awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"
            exit 0
            ;;
        *)
            echo "test-arm.sh: unknown option '$1' (try --help)" >&2
            exit 2
            ;;
    esac
    shift
done

# shellcheck source=SCRIPTDIR/arm-root.sh
source "$ROOT/scripts/arm-root.sh"

banner() {
    echo
    echo "=============================================================================="
    echo "==> $*"
    echo "=============================================================================="
}

if [[ $(id -u) -ne 0 ]]; then
    echo "test-arm.sh: needs root (debootstrap, mount, chroot); run: sudo bash $0 $*" >&2
    exit 1
fi

start=$SECONDS

banner "Dependencies (scripts/install-deps.sh with the emulator and the armhf cross compiler)"
bash "$ROOT/scripts/install-deps.sh" "${ARM_HOST_PACKAGES[@]}" || {
    echo "test-arm.sh: installing the dependencies failed" >&2
    exit 1
}
arm_enable_binfmt || exit 1

banner "armhf root in $ROOTFS"
t0=$SECONDS
arm_make_root "$ARM_ROOT_DIR" || exit 1
root_time=$((SECONDS - t0))
echo "test-arm: root ready in ${root_time} s"

# Everything CMake writes as an absolute path must resolve inside the root
# as well: the sources (with cmake/arm-run.sh) and the build tree.
MOUNTS=("$ROOT")
[[ "$BUILD" == "$ROOT"/* ]] || MOUNTS+=("$PREFIX")
cleanup() { arm_unmount_all "$ROOTFS"; }
trap cleanup EXIT
trap 'exit 130' INT TERM

# The tests run inside the root, so programs they start are the root's: its
# python3 rather than whichever one this machine's PATH finds first.
banner "armv7l build (Debug, cross-compiled) in $BUILD"
t0=$SECONDS
mkdir -p "$BUILD"
HARVO_ARM_SYSROOT="$ROOTFS" cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/armhf-toolchain.cmake" -DHARVO_ARM_SYSROOT="$ROOTFS" \
    -DHARVO_BUILD_EXAMPLES=ON -DHARVO_PYTHON3=/usr/bin/python3 >"$BUILD/configure-arm.log" 2>&1 || {
    cat "$BUILD/configure-arm.log"
    echo "test-arm.sh: configuring the armv7l build failed" >&2
    exit 1
}
if ! cmake --build "$BUILD" -j "$JOBS"; then
    echo "test-arm.sh: the armv7l build failed" >&2
    exit 1
fi
build_time=$((SECONDS - t0))
echo "test-arm: built in ${build_time} s"
readelf -h "$BUILD/src/libharvo-fw.so.0" 2>/dev/null | grep -E "Class:|Machine:" || true

arm_mount "$ROOTFS" "${MOUNTS[@]}" || {
    echo "test-arm.sh: mounting /proc, /dev and the work tree into the root failed" >&2
    exit 1
}

# in_root COMMAND...: runs an armhf command inside the root with a clean
# environment (the host's variables name host paths).
in_root() {
    chroot "$ROOTFS" /usr/bin/env -i PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin \
        HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" "$@"
}

echo "test-arm: inside the root, uname -m says $(in_root uname -m)"

if [[ $demo -eq 1 ]]; then
    banner "The demo on the armv7l binaries (scripts/demo.sh inside the root)"
    in_root env HARVO_DEMO_BUILD_DIR="$BUILD" bash "$ROOT/scripts/demo.sh"
    rc=$?
    echo "test-arm: demo exit status $rc ($((SECONDS - start)) s in all)"
    exit $rc
fi

# Tests of the build machine's tools do not run here; what they check does
# not depend on the architecture, and the Debug stage of scripts/test.sh runs
# them: install_consumer builds programs with a native compiler (under
# emulation longer than its time limit); docs_reference (Doxygen),
# abi_exported_symbols (nm), packaging_recipe_files (rpmspec) and
# scripts_install_deps_without_root (apt) need tools the root does not carry.
# The soak (label soak) runs once, in the Debug stage.
host_only='^(install_consumer|docs_reference|abi_exported_symbols|packaging_recipe_files|scripts_install_deps_without_root)$'
label_args=(-LE 'slow|soak' -E "$host_only")
[[ $with_slow -eq 1 ]] && label_args=(-LE soak -E "$host_only")
banner "Tests on armv7l under emulation (ctest ${label_args[*]})"
t0=$SECONDS
log="$BUILD/ctest-output.log"
since=$(bash "$ROOT/scripts/leftover-processes.sh" --now)
in_root ctest --test-dir "$BUILD" --output-on-failure --parallel "$TEST_JOBS" \
    "${label_args[@]}" 2>&1 | tee "$log"
rc=${PIPESTATUS[0]}
test_time=$((SECONDS - t0))
# What the tests left running inside the root, seen from this machine: the
# sources and the build are mounted at their own paths, and every program
# there lies under the root's directory.
if ! leftovers=$(bash "$ROOT/scripts/leftover-processes.sh" --kill --since "$since" \
    --cwd "$BUILD" --cwd "$ARM_ROOT_DIR" "$ROOT" "$BUILD" "$ARM_ROOT_DIR" 2>&1); then
    echo "$leftovers" | tee -a "$log"
    left=$(grep -c '^leftover process: ' <<<"$leftovers")
    [[ $rc -ne 0 ]] || rc=1
fi

banner "Summary ($(((SECONDS - start) / 60)) min $(((SECONDS - start) % 60)) s)"
echo "  root: ${root_time} s, build: ${build_time} s, tests: ${test_time} s"
line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
echo "  arm: ${line:-ctest did not finish (exit $rc)}"
[[ ${left:-0} -eq 0 ]] || echo "  arm: $left process(es) left running by tests (listed above, ended)"
exit "$rc"
