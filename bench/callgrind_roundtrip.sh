#!/usr/bin/env bash
# Instructions per round trip of one case of harvo-roundtrip-driver, in
# each process, from two callgrind runs with different counts:
#   (Ir(N2) - Ir(N1)) / (N2 - N1)
# start-up and shut-down cancel out, and the counts do not depend on the
# machine's load.
#
# Usage: bash bench/callgrind_roundtrip.sh BUILD_DIR CASE N1 N2 [OUT_DIR]
#   CASE: "signal fwk", "signal raw" or "sync"
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

for n in "$N1" "$N2"; do
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
