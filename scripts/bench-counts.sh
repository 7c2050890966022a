#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Counts per event / per round trip for the event and signal rows of the
# bench: system calls (the kernel's syscall tracepoints through perf stat,
# or strace -f -c where perf cannot read them) and instructions
# (callgrind), each
# case run alone by `harvo-bench --only CASE N`. Every case runs twice,
# with N1 and N2 operations; the figures are (count(N2) - count(N1)) /
# (N2 - N1), so the process's start-up and shutdown drop out. Counts do
# not depend on the machine's load the way wall times do (the system calls
# of the cross-thread cases do depend a little on how the threads happen
# to interleave).
#
# Usage: bash scripts/bench-counts.sh     (as root, like scripts/bench.sh)
#
# Builds Release in build-bench/ (HARVO_BUILD_PREFIX=DIR puts it under DIR;
# JOBS sets the build's parallelism, default 2), starts a private system
# bus for the signal cases and prints one markdown table on standard
# output; progress goes to standard error. Takes a few minutes.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${HARVO_BUILD_PREFIX:-$ROOT}/build-bench
JOBS=${JOBS:-2}
BENCH=$BUILD/bench/harvo-bench

die() {
    echo "bench-counts.sh: $*" >&2
    exit 1
}

for tool in valgrind cmake; do
    command -v "$tool" >/dev/null ||
        die "$tool not found: install the dependencies as root (bash scripts/install-deps.sh)"
done

WORK=$(mktemp -d "${TMPDIR:-/tmp}/harvo-counts.XXXXXX")
source "$ROOT/scripts/private-bus.sh"
cleanup() {
    harvo_private_bus_stop
    rm -rf "$WORK"
}
trap cleanup EXIT

echo "bench-counts: building $BENCH (Release)" >&2
if ! { cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DHARVO_BUILD_BENCH=ON -DHARVO_BUILD_TESTS=OFF -DHARVO_BUILD_EXAMPLES=OFF &&
    cmake --build "$BUILD" -j "$JOBS" --target harvo-bench; } >"$WORK/build.log" 2>&1; then
    cat "$WORK/build.log" >&2
    die "the build failed (see above)"
fi

bus_rc=0
harvo_private_bus_start 2>"$WORK/bus.log" || bus_rc=$?
trap cleanup EXIT # the private bus's start put its own in place of ours
if [[ $bus_rc -ne 0 ]]; then
    cat "$WORK/bus.log" >&2
    die "the private bus did not start"
fi

# How system calls are counted. perf reads the kernel's tracepoints and
# leaves the threads' timing alone; strace stops every thread at every call,
# which makes a lock held across a system call far more contended than it
# is, and so inflates the futex figures of the cross-thread cases.
if perf stat -e syscalls:sys_enter_futex -- true >/dev/null 2>&1; then
    SYSCALL_COUNTER=perf
else
    SYSCALL_COUNTER=strace
    command -v strace >/dev/null ||
        die "neither perf nor strace can count system calls: install the dependencies as root (bash scripts/install-deps.sh)"
    echo "bench-counts: perf cannot read the syscall tracepoints here; counting with strace" >&2
fi

# perf_counts CASE N: the same figures as strace_counts, from perf stat.
perf_counts() {
    local out=$WORK/perf.$1.$2
    perf stat -x, -o "$out" -e raw_syscalls:sys_enter,syscalls:sys_enter_futex \
        -e syscalls:sys_enter_write,syscalls:sys_enter_read \
        -e syscalls:sys_enter_poll,syscalls:sys_enter_ppoll \
        -- "$BENCH" --only "$1" "$2" >/dev/null 2>"$WORK/run.log" || {
        cat "$WORK/run.log" >&2
        die "harvo-bench --only $1 $2 failed under perf stat"
    }
    # CSV lines: count,unit,event,...
    awk -F, '$3 ~ /sys_enter_futex$/ { f = $1 } $3 ~ /sys_enter_write$/ { w = $1 }
         $3 ~ /sys_enter_read$/ { r = $1 } $3 ~ /sys_enter_p?poll$/ { p += $1 }
         $3 ~ /raw_syscalls:sys_enter$/ { t = $1 }
         END { if (t == 0) exit 1; print f + 0, w + 0, r + 0, p + 0, t }' "$out" ||
        die "no perf counts in $out"
}

syscall_counts() {
    if [[ $SYSCALL_COUNTER == perf ]]; then
        perf_counts "$@"
    else
        strace_counts "$@"
    fi
}

# strace_counts CASE N: "futex write read poll all" calls of one run, all
# threads and child processes together (poll and ppoll count as one).
strace_counts() {
    local out=$WORK/strace.$1.$2
    strace -f -c -o "$out" "$BENCH" --only "$1" "$2" >/dev/null 2>"$WORK/run.log" || {
        cat "$WORK/run.log" >&2
        die "harvo-bench --only $1 $2 failed under strace"
    }
    # A summary line: % time, seconds, usecs/call, calls, [errors,] name.
    awk '$NF == "futex" { f += $4 } $NF == "write" { w += $4 } $NF == "read" { r += $4 }
         $NF == "poll" || $NF == "ppoll" { p += $4 } $NF == "total" { t += $4 }
         END { if (t == 0) exit 1; print f + 0, w + 0, r + 0, p + 0, t }' "$out" ||
        die "no strace summary in $out"
}

# callgrind_ir CASE N: "all self peer" instructions of one run: the whole
# run, harvo-bench itself and its peer process (0 when there is none).
callgrind_ir() {
    local dir=$WORK/callgrind.$1.$2
    mkdir -p "$dir"
    valgrind -q --tool=callgrind --trace-children=yes --callgrind-out-file="$dir/out.%p" \
        "$BENCH" --only "$1" "$2" >/dev/null 2>"$WORK/run.log" || {
        cat "$WORK/run.log" >&2
        die "harvo-bench --only $1 $2 failed under callgrind"
    }
    local file ir self=0 peer=0
    for file in "$dir"/out.*; do
        ir=$(awk '/^summary:/ { print $2; exit }' "$file")
        [[ -n "$ir" ]] || die "no instruction total in $file"
        if grep -q '^cmd:.*harvo-bench-peer' "$file"; then
            peer=$((peer + ir))
        else
            self=$((self + ir))
        fi
    done
    echo "$((self + peer)) $self $peer"
}

# per_op A B OPS DECIMALS: (B - A) / OPS.
per_op() {
    awk -v a="$1" -v b="$2" -v n="$3" -v d="$4" 'BEGIN { printf "%.*f", d, (b - a) / n }'
}

ROWS=()
NOTES=()

# measure LABEL CASE N1 N2
measure() {
    local label=$1 name=$2 n1=$3 n2=$4 ops=$(($4 - $3))
    echo "bench-counts: $label ($name, $n1 and $n2 operations)" >&2
    # Plain assignments, so that a failed run stops the script.
    local run1 run2 s1 s2 c1 c2
    run1=$(syscall_counts "$name" "$n1")
    run2=$(syscall_counts "$name" "$n2")
    read -r -a s1 <<<"$run1"
    read -r -a s2 <<<"$run2"
    run1=$(callgrind_ir "$name" "$n1")
    run2=$(callgrind_ir "$name" "$n2")
    read -r -a c1 <<<"$run1"
    read -r -a c2 <<<"$run2"
    local row="| $label | $ops"
    local i
    for i in 0 1 2 3 4; do
        row+=" | $(per_op "${s1[$i]}" "${s2[$i]}" "$ops" 2)"
    done
    row+=" | $(per_op "${c1[0]}" "${c2[0]}" "$ops" 0) |"
    ROWS+=("$row")
    if [[ ${c2[2]} -ne 0 ]]; then
        NOTES+=("- $label: $(per_op "${c1[1]}" "${c2[1]}" "$ops" 0) instructions in harvo-bench, $(per_op "${c1[2]}" "${c2[2]}" "$ops" 0) in harvo-bench-peer")
    fi
}

measure "async events, 1 producer: framework (\`SendEvent\`)" async-framework 2000 22000
measure "async events, 1 producer: design floor" async-floor 2000 22000
measure "async events, 1 producer: \`g_main_context_invoke\`" async-invoke 2000 22000
measure "\`SendSyncEvent\` round trip: framework" sync-framework 500 5500
measure "\`SendSyncEvent\` round trip: pipe ping-pong" sync-pipe 500 5500
measure "signal ping-pong round trip: framework" signal-framework 50 550
measure "signal ping-pong round trip: raw GDBus" signal-raw 50 550

echo "Counts per operation (an event, or a round trip), harvo-bench --only, Release;"
echo "tree $(git -C "$ROOT" describe --always --dirty 2>/dev/null || echo '?'), library sources (src/)" \
    "last changed in $(git -C "$ROOT" log -1 --format=%h -- src 2>/dev/null || echo '?'), $(date -u '+%Y-%m-%d %H:%M UTC')."
echo
echo "| case | ops | futex | write | read | poll | all syscalls | instructions |"
echo "| --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: |"
printf '%s\n' "${ROWS[@]}"
echo
if [[ $SYSCALL_COUNTER == perf ]]; then
    echo "System calls: the kernel's syscall tracepoints (\`perf stat -e syscalls:sys_enter_*\`),"
    echo "every thread and the peer process; poll counts"
else
    echo "System calls: \`strace -f -c\`, every thread and the peer process (strace slows every"
    echo "call, which inflates the futex figures of the cross-thread cases); poll counts"
fi
echo "poll and ppoll. Instructions: callgrind's total (Ir) of every traced process"
echo "(user space only; the bus daemon is not traced). Each figure is"
echo "(count(N2) - count(N1)) / (N2 - N1); the system calls of the cross-thread"
echo "cases move a little from run to run with how the threads interleave."
if [[ ${#NOTES[@]} -gt 0 ]]; then
    echo "Signal round trips by process:"
    printf '%s\n' "${NOTES[@]}"
fi
