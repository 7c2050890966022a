#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Guards the binary interface of the shared libraries against accidental
# change. Builds libharvo-fw and the host platform layer in Release with
# debug information, describes their interface with abidw (libabigail) and
# compares it with abidiff against the baseline committed under abi/.
# Any difference fails, added functions included: a change of the
# interface is made on purpose, by regenerating the baseline
# (scripts/update-abi.sh) in the same commit.
#
# Before comparing, the check proves that it can fail: a copy of the
# baseline with one data member moved must be reported as a change.
#
# Usage: scripts/check-abi.sh [--update]
#   --update   write the fresh description over the baseline instead
#
# Environment:
#   HARVO_BUILD_PREFIX  directory that holds build-abi/ (default: the
#                       repository root)
#   HARVO_JOBS          parallel compile jobs (default 2)
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
PREFIX=${HARVO_BUILD_PREFIX:-$ROOT}
JOBS=${HARVO_JOBS:-2}
BUILD="$PREFIX/build-abi"
BASELINE_DIR="$ROOT/abi"

update=0
case "${1:-}" in
    --update) update=1 ;;
    "") ;;
    -h|--help) awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; exit 0 ;;
    *) echo "check-abi.sh: unknown option '$1' (try --help)" >&2; exit 2 ;;
esac

for tool in abidw abidiff nm; do
    if ! command -v "$tool" >/dev/null; then
        echo "check-abi.sh: $tool not found (run scripts/install-deps.sh)" >&2
        exit 1
    fi
done

# library file below $BUILD, baseline name, public header directory, a
# public record of the library (the check's own proof moves its members)
LIBRARIES=(
    "src/libharvo-fw.so.0|libharvo-fw.so.0.abi|include|pelx_message_s"
    "platform/host/libharvo-host-platform.so.0|libharvo-host-platform.so.0.abi|platform/host/include|ui_app_lifecycle_callback_s"
)

# The build that the baseline describes: Release code with debug
# information (abidw reads the types from it), the host platform layer, no
# tests or examples.
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_FLAGS=-g -DCMAKE_CXX_FLAGS=-g \
    -DHARVO_FORCE_HOST_PLATFORM=ON -DHARVO_BUILD_TESTS=OFF -DHARVO_BUILD_EXAMPLES=OFF \
    -DHARVO_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD" -j "$JOBS" --target harvo-fw harvo-host-platform

# describe LIBRARY HEADERS OUT: the interface as seen through the public
# headers. Source locations are left out so that comment edits in the
# headers do not touch the baseline.
describe() {
    abidw --headers-dir "$ROOT/$2" --drop-private-types --no-corpus-path --no-comp-dir-path \
        --no-show-locs --out-file "$3" "$1"
}

# tamper BASELINE RECORD OUT: a copy of the baseline in which the second
# data member of RECORD has moved by 64 bits, in every description of the
# record: what a new member in front of it would do.
tamper() {
    python3 - "$1" "$2" "$3" <<'PY'
import re, sys
source, record, out = sys.argv[1:4]
text = open(source).read()
pattern = re.compile(r"(<class-decl name='" + re.escape(record) + r"'.*?"
                     r"<data-member access='[a-z]+' layout-offset-in-bits=')([1-9][0-9]*)'", re.S)
text, count = pattern.subn(lambda m: m.group(1) + str(int(m.group(2)) + 64) + "'", text)
if count == 0:
    sys.exit("check-abi.sh: no member of " + record + " to move in " + source)
open(out, "w").write(text)
PY
}

mkdir -p "$BUILD/abi"
failed=0
for entry in "${LIBRARIES[@]}"; do
    IFS='|' read -r lib_rel abi_name headers record <<<"$entry"
    lib="$BUILD/$lib_rel"
    fresh="$BUILD/abi/$abi_name"
    baseline="$BASELINE_DIR/$abi_name"
    describe "$lib" "$headers" "$fresh"
    exported=$(nm -D --defined-only "$lib" | wc -l)

    if [[ $update -eq 1 ]]; then
        mkdir -p "$BASELINE_DIR"
        cp "$fresh" "$baseline"
        echo "check-abi.sh: $abi_name updated ($exported exported symbols)"
        continue
    fi

    if [[ ! -f "$baseline" ]]; then
        echo "check-abi.sh: no baseline $baseline (run scripts/update-abi.sh)" >&2
        failed=1
        continue
    fi

    # The check must be able to fail.
    tamper "$baseline" "$record" "$BUILD/abi/$abi_name.moved"
    if abidiff "$BUILD/abi/$abi_name.moved" "$fresh" >/dev/null; then
        echo "check-abi.sh: abidiff did not notice a moved member of $record; the check is blind" >&2
        failed=1
        continue
    fi

    set +e
    abidiff "$baseline" "$fresh" >"$BUILD/abi/$abi_name.diff" 2>&1
    rc=$?
    set -e
    if [[ $rc -eq 0 ]]; then
        echo "check-abi.sh: $abi_name unchanged ($exported exported symbols)"
    else
        cat "$BUILD/abi/$abi_name.diff"
        echo "check-abi.sh: $abi_name differs from the baseline (abidiff exit $rc)." >&2
        echo "  If the change is deliberate, run scripts/update-abi.sh and commit abi/." >&2
        failed=1
    fi
done
exit $failed
