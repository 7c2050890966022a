#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The main job: installs the dependencies, builds harvo-fw and its examples
# (RelWithDebInfo, in build-demo/) and runs the demo:
#
#   act 1  the building blocks, one small program each (foundation_demo,
#           event_core), narration and framework log lines interleaved;
#   act 2  a service and a client talking over a private system bus
#           (demo_service, demo_client): a transcript of both on standard
#           output, their framework log lines in files under build-demo/;
#   act 3  UI gadgets: a host application embeds a gadget written in C++
#           and one written in C (gadget_host, libug-hello_cpp.so,
#           libug-hello_c.so); its log lines in a file under build-demo/.
#
# Exits 0 only when both programs of act 2 and the host of act 3 ended
# with status 0.
#
# Usage: scripts/demo.sh [--bus-only]     (--bus-only: skip act 1)
#
# Environment:
#   HARVO_BUILD_PREFIX  directory that holds build-demo/ (default: the repository root)
#   HARVO_JOBS          parallel compile jobs (default 2)
#   HARVO_DEMO_TIMEOUT  seconds after which a hanging demo program is stopped (default 60)
#   HARVO_DEMO_BUILD_DIR  run the programs of an existing build (with examples)
#                       instead of installing and building; scripts/test-arm.sh
#                       --demo uses it for the armv7l build
set -euo pipefail

BUS_ONLY=0
case "${1:-}" in
    --bus-only) BUS_ONLY=1 ;;
    "") ;;
    *) echo "usage: $0 [--bus-only]" >&2; exit 2 ;;
esac

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT"
PREFIX=${HARVO_BUILD_PREFIX:-$ROOT}
JOBS=${HARVO_JOBS:-2}
DEMO_TIMEOUT=${HARVO_DEMO_TIMEOUT:-60}
BUILD="${HARVO_DEMO_BUILD_DIR:-$PREFIX/build-demo}"

# shellcheck source=SCRIPTDIR/private-bus.sh
source "$ROOT/scripts/private-bus.sh"

banner() {
    echo
    echo "=============================================================================="
    echo "==> $*"
    echo "=============================================================================="
}

if [[ -n "${HARVO_DEMO_BUILD_DIR:-}" ]]; then
    banner "Running the programs built in $BUILD"
else
    banner "Installing the Debian packages harvo-fw needs"
    if ! bash "$ROOT/scripts/install-deps.sh"; then
        echo "demo.sh: installing the dependencies failed (see above: run as root, or through sudo)" >&2
        exit 1
    fi

    banner "Building harvo-fw and the examples in $BUILD (RelWithDebInfo)"
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DHARVO_BUILD_TESTS=OFF -DHARVO_BUILD_EXAMPLES=ON >/dev/null
    cmake --build "$BUILD" -j "$JOBS"
fi

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

if [[ $BUS_ONLY -eq 0 ]]; then
    run_example foundation_demo "Act 1a. Foundation: log lines, locks and the message record" \
"examples/foundation_demo.cpp walks through the building blocks every harvo-fw
process uses: the framework's log line, the recursive TCMutex, and TCMessage
with its JSON body and optional byte buffer."

    run_example event_core "Act 1b. Event core: events, tasks and alarms" \
"examples/event_core.cpp shows the event core at work: events posted from one
thread and handled on another, worker tasks with their own main loops, alarms."
fi

# Act 2: the service and the client, each in its own process, on a private
# system bus that stops when this script ends.
SERVICE="$BUILD/examples/demo_service"
CLIENT="$BUILD/examples/demo_client"
LOGS="$BUILD/demo-logs"
mkdir -p "$LOGS"

banner "Act 2. A service and a client talking over the bus"
echo "Two processes, each with one application object run by Quelt::AppMain:

  [service]  examples/demo_service.cpp: a TCDaemonService named \"weather\".
             It handles bus messages on its worker task (IfHandleInEventIO),
             and an alarm on that task broadcasts the signal \"forecast\".
  [client]   examples/demo_client.cpp: a TCEFLApplication (a UI application)
             that waits until \"weather\" is on the bus, sends it a
             synchronous message with a JSON body and a byte buffer and an
             asynchronous one whose reply comes back later, listens to three
             forecasts, then tells the service to quit.

Both run on a private dbus-daemon with system-bus semantics
(scripts/private-bus.sh): the machine's own bus is never touched.
Below are both programs' standard output, line by line as printed
((main) and (worker) say which thread of the service printed the line).
The framework's own log lines (standard error) go to
  $LOGS/demo_service.log
  $LOGS/demo_client.log
"
harvo_private_bus_start 2>"$LOGS/private-bus.log"

# --foreground: Ctrl-C reaches the programs, which then end through their
# terminate paths; after DEMO_TIMEOUT seconds a hanging program is stopped.
timeout --foreground "$DEMO_TIMEOUT" "$SERVICE" 2>"$LOGS/demo_service.log" &
service_pid=$!
client_status=0
timeout --foreground "$DEMO_TIMEOUT" "$CLIENT" 2>"$LOGS/demo_client.log" || client_status=$?
if [[ $client_status -ne 0 ]]; then
    # The client never said "quit": do not make the service wait for the timeout.
    kill "$service_pid" 2>/dev/null || true
fi
service_status=0
wait "$service_pid" || service_status=$?

# Act 3: UI gadgets, one process (no bus needed): the host loads both
# gadget modules from its own directory.
banner "Act 3. UI gadgets: a host and two gadgets"
echo "One UI application embeds two UI gadgets, shared objects it loads by name:

  [host]        examples/gadget_host.cpp: one TCGadgetProxy per gadget. It
                asks each gadget a question and answers theirs, then closes
                hello_cpp with ug_destroy and asks hello_c to close itself
                (the destroy request, REQUEST / DESTROY).
  [gadget cpp]  examples/gadget_cpp.cpp (libug-hello_cpp.so): a
                TCGadgetActivity; it asks the host with GetHostInformation
                and answers in t_GadgetInformationRequested.
  [gadget c]    examples/gadget_c.c (libug-hello_c.so): callbacks given
                through the pelx_ interface; it talks with plain messages
                and results.

The framework's own log lines go to
  $LOGS/gadget_host.log
"
gadget_status=0
timeout --foreground "$DEMO_TIMEOUT" stdbuf -oL "$BUILD/examples/gadget_host" \
    2>"$LOGS/gadget_host.log" || gadget_status=$?

banner "Demo finished"
echo "service exit status: $service_status, client exit status: $client_status, gadget host exit status: $gadget_status"
if [[ $service_status -ne 0 || $client_status -ne 0 || $gadget_status -ne 0 ]]; then
    echo "The demo FAILED; the framework's log lines are in $LOGS/." >&2
    exit 1
fi
echo "Every program ended through its terminate path. Read examples/demo_service.cpp,
examples/demo_client.cpp and the gadget examples next to the transcript above;
the log files in $LOGS/ show the framework's side of the same conversations."
