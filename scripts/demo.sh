#!/usr/bin/env bash
# The main job: installs the dependencies, builds harvo-fw and its examples
# (RelWithDebInfo, in build-demo/) and runs the demo programs one after
# the other, each introduced by a short explanation.
#
# Usage: scripts/demo.sh
#
# Environment:
#   HARVO_BUILD_PREFIX  directory that holds build-demo/ (default: the repository root)
#   HARVO_JOBS          parallel compile jobs (default 2)
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT"
PREFIX=${HARVO_BUILD_PREFIX:-$ROOT}
JOBS=${HARVO_JOBS:-2}
BUILD="$PREFIX/build-demo"

# shellcheck source=SCRIPTDIR/private-bus.sh
source "$ROOT/scripts/private-bus.sh"

banner() {
    echo
    echo "=============================================================================="
    echo "==> $*"
    echo "=============================================================================="
}

banner "Installing the Debian packages harvo-fw needs"
bash "$ROOT/scripts/install-deps.sh"

banner "Building harvo-fw and the examples in $BUILD (RelWithDebInfo)"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DHARVO_BUILD_TESTS=OFF -DHARVO_BUILD_EXAMPLES=ON >/dev/null
cmake --build "$BUILD" -j "$JOBS"

# run_example NAME TITLE EXPLANATION: runs one example if it was built,
# with its log lines (standard error) interleaved with its narration.
run_example() {
    local name=$1 title=$2 explanation=$3
    local program="$BUILD/examples/$name"
    if [[ ! -x "$program" ]]; then
        return 0
    fi
    banner "$title"
    echo "$explanation"
    echo
    # Line-buffered standard output keeps narration and log lines in order
    # even when the demo's output goes to a pipe or a file.
    stdbuf -oL "$program" 2>&1
}

run_example foundation_demo "Foundation: log lines, locks and the message record" \
"examples/foundation_demo.cpp walks through the building blocks every harvo-fw
process uses: the framework's log line, the recursive TCMutex, and TCMessage
with its JSON body and optional byte buffer."

run_example event_core "Event core: events, tasks and alarms" \
"examples/event_core.cpp shows the event core at work: events posted from one
thread and handled on another, worker tasks with their own main loops, alarms."

# Programs that talk over the bus run on a private system bus:
#   harvo_private_bus_start
#   run_example ...

banner "Demo finished"
