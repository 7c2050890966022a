#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer harnesses of tests/fuzz (clang, AddressSanitizer +
# UndefinedBehaviorSanitizer, in build-fuzz/) and runs each of them in turn
# on a fresh copy of its starting inputs (tests/fuzz/corpus/<harness>/; the
# repository's corpus is never written to).
#
# Usage: scripts/fuzz.sh [--runs N] [seconds] [harness...]
#   seconds     how long each harness runs (default 60)
#   --runs N    run each harness for N executions instead of a time
#   harness     body, payload, records (default: all of them)
#
# Prints one line per harness (executions, executions per second, corpus
# size, findings) and a last line with the totals. A finding (crash, broken
# invariant, leak, sanitizer report, timeout, memory limit) is kept under
# build-fuzz/findings/ and makes the command exit non-zero.
#
# Environment:
#   HARVO_BUILD_PREFIX  directory that holds build-fuzz/ (default: the
#                       repository root)
#   HARVO_JOBS          parallel compile jobs (default 2)
set -uo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT" || exit 1

PREFIX=${HARVO_BUILD_PREFIX:-$ROOT}
JOBS=${HARVO_JOBS:-2}
BUILD="$PREFIX/build-fuzz"
FINDINGS="$BUILD/findings"
ALL_HARNESSES=(body payload records)

seconds=60
runs=0
harnesses=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --runs)
            [[ $# -ge 2 && "$2" =~ ^[0-9]+$ ]] || { echo "fuzz.sh: --runs needs a number" >&2; exit 2; }
            runs=$2
            shift 2 ;;
        -h|--help)
            awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"
            exit 0 ;;
        *)
            if [[ "$1" =~ ^[0-9]+$ ]]; then
                seconds=$1
            elif [[ -d "$ROOT/tests/fuzz/corpus/$1" ]]; then
                harnesses+=("$1")
            else
                echo "fuzz.sh: unknown argument '$1' (try --help)" >&2
                exit 2
            fi
            shift ;;
    esac
done
[[ ${#harnesses[@]} -eq 0 ]] && harnesses=("${ALL_HARNESSES[@]}")

# clang and its runtimes (libFuzzer, the sanitizers) on top of the usual
# build dependencies.
if ! bash "$ROOT/scripts/install-deps.sh" clang libclang-rt-14-dev; then
    echo "fuzz.sh: installing the dependencies failed" >&2
    exit 1
fi

echo "fuzz.sh: building the harnesses in $BUILD"
mkdir -p "$BUILD"
if ! { CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -G Ninja \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHARVO_BUILD_FUZZERS=ON \
        -DHARVO_BUILD_TESTS=OFF -DHARVO_BUILD_EXAMPLES=OFF >"$BUILD/configure.log" 2>&1 &&
        cmake --build "$BUILD" -j "$JOBS" --target fuzzers; }; then
    echo "fuzz.sh: building the harnesses failed (configure log: $BUILD/configure.log)" >&2
    exit 1
fi
mkdir -p "$FINDINGS"

work=$(mktemp -d "${TMPDIR:-/tmp}/harvo-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT

total_runs=0
total_findings=0
failed=()
lines=()
for name in "${harnesses[@]}"; do
    binary="$BUILD/tests/fuzz/${name}_fuzzer"
    corpus="$work/$name"
    mkdir -p "$corpus"
    cp "$ROOT/tests/fuzz/corpus/$name"/* "$corpus"/
    initial=$(find "$corpus" -type f | wc -l)
    # Resident memory of a long run creeps up through the sanitizer's
    # allocator caches while the live heap stays flat (about 120 KB for the
    # body harness after millions of inputs), hence a generous limit for
    # the whole process; a single allocation above 2 GB is still a finding.
    args=(-print_final_stats=1 -artifact_prefix="$FINDINGS/$name-" -timeout=25
        -rss_limit_mb=6144 -malloc_limit_mb=2048)
    if [[ $runs -gt 0 ]]; then
        args+=(-runs="$runs")
        limit=()
    else
        args+=(-max_total_time="$seconds")
        # A harness that does not stop on its own is a finding too.
        limit=(timeout --kill-after=10 $((seconds * 2 + 60)))
    fi
    dict="$ROOT/tests/fuzz/corpus/$name.dict"
    [[ -f "$dict" ]] && args+=(-dict="$dict")
    log="$BUILD/$name.log"
    before=$(find "$FINDINGS" -name "$name-*" -type f | wc -l)
    echo "fuzz.sh: running ${name}_fuzzer ($([[ $runs -gt 0 ]] && echo "$runs executions" || echo "$seconds s")), log $log"
    started=$SECONDS
    "${limit[@]}" "$binary" "${args[@]}" "$corpus" >"$log" 2>&1
    rc=$?
    elapsed=$((SECONDS - started))
    executed=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+).*/\1/p' "$log" | tail -n 1)
    executed=${executed:-0}
    after=$(find "$FINDINGS" -name "$name-*" -type f | wc -l)
    findings=$((after - before))
    if [[ $rc -ne 0 && $findings -eq 0 ]]; then
        findings=1  # e.g. killed by the time limit: no artifact, still a finding
    fi
    size=$(find "$corpus" -type f | wc -l)
    rate=$((executed / (elapsed > 0 ? elapsed : 1)))
    line=$(printf '%-16s %12s executions in %5s s (%s/s), corpus %s -> %s files, %s finding(s)' \
        "${name}_fuzzer" "$executed" "$elapsed" "$rate" "$initial" "$size" "$findings")
    echo "$line"
    lines+=("$line")
    total_runs=$((total_runs + executed))
    total_findings=$((total_findings + findings))
    if [[ $findings -ne 0 ]]; then
        failed+=("$name")
        echo "fuzz.sh: ${name}_fuzzer exited $rc; the report is in $log:" >&2
        grep -E 'ERROR|harvo fuzz finding|SUMMARY|Test unit written' "$log" | head -n 20 >&2
    fi
done

echo
for line in "${lines[@]}"; do
    echo "  $line"
done
echo "fuzz: ${#harnesses[@]} harnesses, $total_runs executions, $total_findings finding(s)${failed[*]:+ (${failed[*]})}"
[[ $total_findings -eq 0 ]]
