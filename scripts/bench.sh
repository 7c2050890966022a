#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds harvo-fw and its benchmarks in Release (build-bench/) and prints
# one table: every row runs the framework case and its reference in the
# same process, alternating, with both figures and their ratio.
#
# Usage: bash scripts/bench.sh [--quick]      (as root, or through sudo, when
#        packages are missing: scripts/install-deps.sh installs them)
#   --quick   fewer repetitions and iterations (a smoke run, ~15 s)
#
# HARVO_BUILD_PREFIX=DIR puts build-bench/ under DIR; JOBS sets the build's
# parallelism (default 2). Finishes in a few minutes on a 2-core machine.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${HARVO_BUILD_PREFIX:-$ROOT}/build-bench
JOBS=${JOBS:-2}

echo "==> Dependencies (scripts/install-deps.sh)"
if ! bash "$ROOT/scripts/install-deps.sh"; then
    echo "bench.sh: installing the dependencies failed (see above: run as root, or through sudo)" >&2
    exit 1
fi

echo "==> Building in $BUILD (Release)"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DHARVO_BUILD_BENCH=ON -DHARVO_BUILD_TESTS=OFF -DHARVO_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$BUILD" -j "$JOBS" --target harvo-bench

echo "==> Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "==> Running $BUILD/bench/harvo-bench $*"
# The bus rows (when built) need a private system bus; the others do not.
source "$ROOT/scripts/private-bus.sh"
harvo_private_bus_start
"$BUILD/bench/harvo-bench" "$@"
