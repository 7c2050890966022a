#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Instructions per round trip of one case of harvo-roundtrip-driver, in
# each process, from two callgrind runs with different counts:
#   (Ir(N2) - Ir(N1)) / (N2 - N1)
# start-up and shut-down cancel out, and the counts do not depend on the
# machine's load.
#
# Usage: bash bench/callgrind_roundtrip.sh BUILD_DIR CASE N1 N2 [OUT_DIR]
#   CASE: "signal fwk", "signal raw", "sync" or "bus BODY_BYTES" (a
#   synchronous bus message with a body of that size, to the bench peer)
# The profiles stay in OUT_DIR (default: a fresh temporary directory) as
# cg.N1.<process> and cg.N2.<process>, for callgrind_annotate.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=$1
CASE=$2
N1=$3
N2=$4
OUT=${5:-$(mktemp -d)}
mkdir -p "$OUT"
DRIVER=$BUILD/bench/harvo-roundtrip-driver

source "$ROOT/scripts/private-bus.sh"
harvo_private_bus_start >/dev/null

# ANALYSE_ONLY=1: read the profiles already in OUT_DIR, run nothing.
for n in "$N1" "$N2"; do
    [[ "${ANALYSE_ONLY:-0}" == 1 ]] && break
    rm -f "$OUT"/cg.raw.*
    # shellcheck disable=SC2086 # CASE is two words on purpose
    valgrind --tool=callgrind --trace-children=yes --callgrind-out-file="$OUT/cg.raw.%p" \
        "$DRIVER" $CASE "$n" 2>/dev/null
    for f in "$OUT"/cg.raw.*; do
        cmd=$(sed -n "s/^cmd: *//p" "$f" | head -1)
        name=$(basename "${cmd%% *}")
        mv "$f" "$OUT/cg.$n.$name"
    done
done

echo "case: $CASE, N = $N1 and $N2, profiles in $OUT"
for f in "$OUT"/cg."$N1".*; do
    name=${f##*/cg.$N1.}
    ir1=$(sed -n "s/^summary: //p" "$f")
    ir2=$(sed -n "s/^summary: //p" "$OUT/cg.$N2.$name")
    echo "$name: $ir1 -> $ir2 instructions, per round trip $(((ir2 - ir1) / (N2 - N1)))"
done

# Inclusive instructions per round trip of the framework's functions (and
# the bench's callbacks), whose counts do not depend on how often the loops
# happened to wake up.
inclusive() {
    callgrind_annotate --inclusive=yes --threshold=100 "$1" 2>/dev/null |
        sed 's/(anonymous namespace)/anon/g' |
        sed -n 's/^ *\([0-9,]*\) ([^)]*) *[^:]*:\(Quelt::[^( ]*\|anon::On[A-Za-z]*\|g_dbus_connection_emit_signal\)[( ].*/\2 \1/p' |
        tr -d , | awk '{ sum[$1] += $2 } END { for (k in sum) print k, sum[k] }'
}
for f in "$OUT"/cg."$N1".*; do
    name=${f##*/cg.$N1.}
    echo "$name, inclusive per round trip:"
    join <(inclusive "$f" | sort) <(inclusive "$OUT/cg.$N2.$name" | sort) |
        awk -v d=$((N2 - N1)) '{ v = ($3 - $2) / d; if (v >= 50) printf "  %9.0f  %s\n", v, $1 }' |
        sort -rn | head -"${TOP:-12}"
done
