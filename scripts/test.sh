#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The test command: installs the dependencies, then builds and runs the
# test suite in three configurations, and runs the stages below:
#
#   1. Debug      (build/)       every test, the slow ones included; then,
#                                once, the soak (label soak: two minutes of
#                                sustained calls between two processes)
#   2. Asan       (build-asan/)  AddressSanitizer + UndefinedBehaviorSanitizer,
#                                every test but the slow ones
#   3. Tsan       (build-tsan/)  ThreadSanitizer, the threaded suites
#                                (events, tasks, alarms, locks, bus)
#   3b. JSON      (build-json-fallback/) the JSON tests (label json) again,
#                                with HARVO_JSON_FAST_PATHS=OFF: JsonCpp reads
#                                and writes every body (not with --quick)
#   4. Fuzz       (build-fuzz/)  scripts/fuzz.sh: each libFuzzer harness of
#                                tests/fuzz for a short while (clang,
#                                ASan + UBSan); any finding fails the stage
#   5. Bench      (build-bench/) the bench command's short run: the table
#                                must come out whole
#   6. ABI        (build-abi/)   Release libraries compared with the baseline
#                                under abi/ (scripts/check-abi.sh); runs in
#                                every mode, --quick included
#   7. Arm        (build-arm/)   scripts/test-arm.sh (--no-arm leaves it out):
#                                the armv7l build, tests but the slow ones
#                                run under emulation (6 to 25 minutes from
#                                scratch, 3 to 6 with its root and build kept)
#
# Usage: scripts/test.sh [--quick] [--no-sanitizers] [--arm | --no-arm]
#   --quick           Debug only, slow tests and the soak skipped
#   --no-sanitizers   Debug and JSON only, slow tests included
#                     (both skip the fuzz stage and the bench stage)
#   --arm             run the armv7l stage (the default in a full run)
#   --no-arm          leave it out
#
# Environment:
#   HARVO_BUILD_PREFIX  directory that holds build/, build-asan/, build-tsan/
#                       (default: the repository root)
#   HARVO_JOBS          parallel compile jobs (default 2)
#   HARVO_TEST_JOBS     tests run at once by ctest (default 2)
#   HARVO_FUZZ_SECONDS  how long the fuzz stage runs each harness (default 20)
#
# After each ctest stage, a process started during the stage that still
# runs from the tree or the stage's build directory (its executable, an
# argument or its working directory; scripts/leftover-processes.sh) is
# listed, ended, and fails the stage: tests end what they start.
#
# Exits non-zero when any stage fails to build, has a failing test or
# leaves a process running.
set -uo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT" || exit 1

PREFIX=${HARVO_BUILD_PREFIX:-$ROOT}
JOBS=${HARVO_JOBS:-2}
TEST_JOBS=${HARVO_TEST_JOBS:-2}

# Test directories whose suites exercise threads; they run under TSan.
TSAN_DIRS=(event task alarm bus signals lifetimes)
# Single files elsewhere that do the same.
TSAN_FILES_GLOB='tests/foundation/lock*_test.cpp tests/foundation/reuse_test.cpp'

quick=0
sanitizers=1
arm=1
for arg in "$@"; do
    case "$arg" in
        --quick) quick=1; sanitizers=0 ;;
        --no-sanitizers) sanitizers=0 ;;
        --arm) arm=1 ;;
        --no-arm) arm=0 ;;
        -h|--help)
            awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"
            exit 0 ;;
        *) echo "test.sh: unknown option '$arg' (try --help)" >&2; exit 2 ;;
    esac
done

SUMMARY=()        # one line per stage
TOTAL_PASSED=0
TOTAL_FAILED=0
FAILED_STAGES=()

banner() {
    echo
    echo "=============================================================================="
    echo "==> $*"
    echo "=============================================================================="
}

# configure DIR BUILD_TYPE [extra cmake args...]
configure_and_build() {
    local dir=$1 type=$2
    shift 2
    local targets=()
    if [[ ${#BUILD_TARGETS[@]} -gt 0 ]]; then
        targets=(--target "${BUILD_TARGETS[@]}")
    fi
    cmake -S "$ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" "$@" &&
        cmake --build "$dir" -j "$JOBS" "${targets[@]}"
}

# run_ctest STAGE DIR [ctest args...]: runs ctest, keeps its summary line
# and adds its counts to the totals.
run_ctest() {
    local stage=$1 dir=$2
    shift 2
    local log="$dir/ctest-output.log"
    local since
    since=$(bash "$ROOT/scripts/leftover-processes.sh" --now)
    ctest --test-dir "$dir" --output-on-failure --parallel "$TEST_JOBS" "$@" 2>&1 | tee "$log"
    local rc=${PIPESTATUS[0]}
    local leftovers left=0
    if ! leftovers=$(bash "$ROOT/scripts/leftover-processes.sh" --kill --since "$since" \
        --cwd "$dir" "$ROOT" "$dir" 2>&1); then
        echo "$leftovers" | tee -a "$log"
        left=$(grep -c '^leftover process: ' <<<"$leftovers")
        FAILED_STAGES+=("$stage leftover processes")
        rc=1
    fi
    local line total failed
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
    if [[ -n "$line" ]]; then
        failed=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
        total=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$line")
        TOTAL_PASSED=$((TOTAL_PASSED + total - failed))
        TOTAL_FAILED=$((TOTAL_FAILED + failed))
        SUMMARY+=("$(printf '%-6s %s' "$stage:" "$line")")
        # The names too: a reader of the summary alone (CI's tail) sees
        # which tests failed without the whole log.
        local name
        while IFS= read -r name; do
            [[ -n "$name" ]] && SUMMARY+=("$(printf '%-6s %s' "" "failed: $name")")
        done < <(failed_test_names "$log")
    elif grep -q 'No tests were found' "$log"; then
        SUMMARY+=("$(printf '%-6s %s' "$stage:" "no tests selected")")
    else
        SUMMARY+=("$(printf '%-6s %s' "$stage:" "ctest did not finish (exit $rc)")")
    fi
    [[ $left -eq 0 ]] || SUMMARY+=("$(printf '%-6s %s' "$stage:" "$left process(es) left running by tests (listed above, ended)")")
    if [[ $rc -ne 0 ]]; then
        FAILED_STAGES+=("$stage tests")
        return 1
    fi
    return 0
}

# failed_test_names LOG: the tests ctest listed as failed in LOG, one per
# line, at most ten.
failed_test_names() {
    sed -n '/^The following tests FAILED:/,/^Errors while running CTest/p' "$1" |
        sed -nE 's/^[[:space:]]+[0-9]+ - (.*)$/\1/p' | head -n 10
}

# CMake target / CTest prefix of a test source: its directory below tests/
# with "/" turned into "_", then the file name without extension.
test_target_of() {
    local rel=${1#tests/}
    local dir name
    dir=$(dirname "$rel")
    name=$(basename "$rel")
    name=${name%%.*}
    if [[ "$dir" == "." ]]; then
        echo "$name"
    else
        echo "${dir//\//_}_$name"
    fi
}

start=$SECONDS

banner "Dependencies (scripts/install-deps.sh)"
if ! bash "$ROOT/scripts/install-deps.sh"; then
    echo "test.sh: installing the dependencies failed (see above: run as root, or through sudo)" >&2
    exit 1
fi

# ---------------------------------------------------------------------------
BUILD_TARGETS=()
debug_dir="$PREFIX/build"
if [[ $quick -eq 1 ]]; then
    banner "Debug build in $debug_dir, tests without the slow ones"
else
    banner "Debug build in $debug_dir, every test"
fi
if configure_and_build "$debug_dir" Debug; then
    if [[ $quick -eq 1 ]]; then
        run_ctest debug "$debug_dir" -LE 'slow|soak'
    else
        run_ctest debug "$debug_dir" -LE soak
        run_ctest soak "$debug_dir" -L soak
    fi
else
    FAILED_STAGES+=("debug build")
    SUMMARY+=("debug: build failed")
fi

if [[ $sanitizers -eq 1 ]]; then
    # -----------------------------------------------------------------------
    asan_dir="$PREFIX/build-asan"
    banner "Asan (AddressSanitizer + UndefinedBehaviorSanitizer) build in $asan_dir, tests without the slow ones"
    if configure_and_build "$asan_dir" Asan -DHARVO_BUILD_EXAMPLES=OFF; then
        lsan_supp=""
        if [[ -f "$ROOT/tests/lsan.supp" ]]; then
            lsan_supp="suppressions=$ROOT/tests/lsan.supp:print_suppressions=0"
        fi
        ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" \
            LSAN_OPTIONS="$lsan_supp" \
            UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
            run_ctest asan "$asan_dir" -LE 'slow|soak'
    else
        FAILED_STAGES+=("asan build")
        SUMMARY+=("asan:  build failed")
    fi

    # -----------------------------------------------------------------------
    tsan_dir="$PREFIX/build-tsan"
    # Only the library, the platform layer and the threaded suites are built.
    BUILD_TARGETS=()
    tsan_regex=""
    shopt -s nullglob globstar
    tsan_sources=()
    for d in "${TSAN_DIRS[@]}"; do
        tsan_sources+=(tests/"$d"/**/*_test.cpp)
    done
    # shellcheck disable=SC2206  # the glob is meant to expand here
    tsan_sources+=($TSAN_FILES_GLOB)
    shopt -u nullglob globstar
    for src in "${tsan_sources[@]}"; do
        # The soak runs once, in the Debug stage.
        [[ "$src" == *_soak_test.cpp ]] && continue
        target=$(test_target_of "$src")
        BUILD_TARGETS+=("$target")
        tsan_regex+="${tsan_regex:+|}^${target}\\."
    done
    banner "Tsan (ThreadSanitizer) build in $tsan_dir, threaded suites: ${BUILD_TARGETS[*]:-none yet}"
    if [[ ${#BUILD_TARGETS[@]} -eq 0 ]]; then
        SUMMARY+=("tsan:  no threaded suites yet")
    else
        tsan_opts="halt_on_error=1 second_deadlock_stack=1"
        if [[ -f "$ROOT/tests/tsan.supp" ]]; then
            tsan_opts="suppressions=$ROOT/tests/tsan.supp $tsan_opts"
        fi
        if configure_and_build "$tsan_dir" Tsan -DHARVO_BUILD_EXAMPLES=OFF; then
            TSAN_OPTIONS="$tsan_opts" run_ctest tsan "$tsan_dir" -R "$tsan_regex"
        else
            FAILED_STAGES+=("tsan build")
            SUMMARY+=("tsan:  build failed")
        fi
    fi
fi

# ---------------------------------------------------------------------------
# The JSON tests with the plain JSON reader and writer turned off, as in a
# build against a JsonCpp version they are not proven with: the body's
# results are then JsonCpp's own. Only those tests are built.
if [[ $quick -eq 0 ]]; then
    json_dir="$PREFIX/build-json-fallback"
    banner "JSON fallback (HARVO_JSON_FAST_PATHS=OFF) build in $json_dir, the JSON tests"
    BUILD_TARGETS=(json-tests)
    if configure_and_build "$json_dir" Debug -DHARVO_JSON_FAST_PATHS=OFF \
        -DHARVO_BUILD_EXAMPLES=OFF; then
        run_ctest json "$json_dir" -L json
    else
        FAILED_STAGES+=("json build")
        SUMMARY+=("json:  build failed")
    fi
fi

# ---------------------------------------------------------------------------
# The fuzz harnesses, briefly each: proves on every full run that they build
# and that the starting inputs and a short exploration find nothing. Long runs
# are recorded in tests/fuzz/README.md.
if [[ $sanitizers -eq 1 ]]; then
    fuzz_seconds=${HARVO_FUZZ_SECONDS:-20}
    banner "Fuzz (scripts/fuzz.sh $fuzz_seconds, clang + ASan + UBSan in $PREFIX/build-fuzz)"
    fuzz_log="$PREFIX/fuzz-smoke.log"
    HARVO_BUILD_PREFIX="$PREFIX" bash "$ROOT/scripts/fuzz.sh" "$fuzz_seconds" 2>&1 | tee "$fuzz_log"
    fuzz_rc=${PIPESTATUS[0]}
    fuzz_line=$(grep -E '^fuzz: [0-9]+ harnesses' "$fuzz_log" | tail -n 1)
    if [[ -n "$fuzz_line" ]]; then
        SUMMARY+=("$(printf '%-6s %s' "fuzz:" "${fuzz_line#fuzz: }")")
    else
        SUMMARY+=("$(printf '%-6s %s' "fuzz:" "did not finish (exit $fuzz_rc)")")
    fi
    if [[ $fuzz_rc -ne 0 ]]; then
        FAILED_STAGES+=("fuzz")
    fi
fi

# ---------------------------------------------------------------------------
# The README's bench command, in its short form: proves on every full run that
# it builds and prints the whole table. The figures themselves are not
# judged here (one short run on a shared machine).
if [[ $sanitizers -eq 1 ]]; then
    banner "Bench smoke run (scripts/bench.sh --quick, Release in $PREFIX/build-bench)"
    bench_log="$PREFIX/bench-smoke.log"
    HARVO_BUILD_PREFIX="$PREFIX" bash "$ROOT/scripts/bench.sh" --quick 2>&1 | tee "$bench_log"
    bench_rc=${PIPESTATUS[0]}
    bench_rows=(
        "1a. async events, 1 producer" "1b. async events, 1 producer"
        "1a. async events, 4 producers" "1b. async events, 4 producers" "2a. SendSyncEvent"
        "2b. SendSyncEvent" "3. in-process sync SendMessage" "4a. bus sync message"
        "4b. bus sync message" "4c. bus sync message" "4d. bus sync message"
        "4e. bus sync message" "4f. bus sync message"
        "5. signal ping-pong" "6a. body parse" "6b. body generate" "6c. body copy"
        "7a. heap bytes per queued event" "7b. heap bytes per bus endpoint" "7c. RSS after")
    missing=()
    for row in "${bench_rows[@]}"; do
        # A table row: the name followed by two figures.
        grep -qE "^${row//./\\.}.* [0-9]+\.[0-9] +[0-9]+\.[0-9] " "$bench_log" || missing+=("$row")
    done
    if [[ $bench_rc -eq 0 && ${#missing[@]} -eq 0 ]]; then
        SUMMARY+=("bench: table printed, all ${#bench_rows[@]} rows")
    else
        SUMMARY+=("bench: exit $bench_rc, rows missing: ${missing[*]:-none}")
        FAILED_STAGES+=("bench")
    fi
fi

# ---------------------------------------------------------------------------
# The binary interface: any difference from the committed baseline fails
# until the baseline is deliberately regenerated (scripts/update-abi.sh).
banner "ABI check (scripts/check-abi.sh, Release in $PREFIX/build-abi)"
abi_log="$PREFIX/build-abi-check.log"
HARVO_BUILD_PREFIX="$PREFIX" HARVO_JOBS="$JOBS" bash "$ROOT/scripts/check-abi.sh" 2>&1 | tee "$abi_log"
abi_rc=${PIPESTATUS[0]}
abi_lines=$(grep -E '^check-abi.sh: .*(unchanged|differs|no baseline|blind)' "$abi_log" |
    sed -E 's/^check-abi.sh: //; s/ \(abidiff exit [0-9]+\)\.$//' | paste -sd ';' -)
if [[ $abi_rc -eq 0 ]]; then
    SUMMARY+=("abi:   ${abi_lines:-unchanged}")
else
    SUMMARY+=("abi:   FAILED (exit $abi_rc): ${abi_lines:-see the log above}")
    FAILED_STAGES+=("abi")
fi

# ---------------------------------------------------------------------------
# The devices' architecture: armv7l binaries, tested under emulation in an
# armhf root (made once, then reused). From scratch it takes about a third
# of the whole command (6 to 13 minutes on a fresh clone); --no-arm skips it.
if [[ $sanitizers -eq 1 && $arm -eq 1 ]]; then
    banner "Arm (armv7l, cross-compiled, tests under emulation; scripts/test-arm.sh)"
    arm_log="$PREFIX/test-arm.log"
    HARVO_BUILD_PREFIX="$PREFIX" bash "$ROOT/scripts/test-arm.sh" 2>&1 | tee "$arm_log"
    arm_rc=${PIPESTATUS[0]}
    line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$arm_log" | tail -n 1)
    if [[ -n "$line" ]]; then
        failed=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
        total=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$line")
        TOTAL_PASSED=$((TOTAL_PASSED + total - failed))
        TOTAL_FAILED=$((TOTAL_FAILED + failed))
        SUMMARY+=("$(printf '%-6s %s' "arm:" "$line")")
        while IFS= read -r name; do
            [[ -n "$name" ]] && SUMMARY+=("$(printf '%-6s %s' "" "failed: $name")")
        done < <(failed_test_names "$arm_log")
    else
        SUMMARY+=("$(printf '%-6s %s' "arm:" "did not reach its tests (exit $arm_rc, log $arm_log)")")
    fi
    [[ $arm_rc -eq 0 ]] || FAILED_STAGES+=("arm")
fi

# ---------------------------------------------------------------------------
elapsed=$((SECONDS - start))
banner "Summary ($((elapsed / 60)) min $((elapsed % 60)) s)"
for line in "${SUMMARY[@]}"; do
    echo "  $line"
done
if [[ ${#FAILED_STAGES[@]} -gt 0 ]]; then
    echo "  FAILED: ${FAILED_STAGES[*]}"
fi
# Test runs over all stages (a test run in two configurations counts twice).
echo "Total: $TOTAL_PASSED passed, $TOTAL_FAILED failed"
[[ ${#FAILED_STAGES[@]} -eq 0 ]]
