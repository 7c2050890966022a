#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A private D-Bus daemon standing in for the system bus, so that the demo,
# the tools and local experiments never touch the machine's real bus.
#
# Two ways to use it:
#
#   1. Run a command on a private bus (the bus ends with the command):
#        bash scripts/private-bus.sh [--config FILE] -- COMMAND [ARGS...]
#
#   2. Source it from another bash script and start the bus there:
#        source scripts/private-bus.sh
#        harvo_private_bus_start [CONFIG]   # exports DBUS_SYSTEM_BUS_ADDRESS
#        ...                                # the bus is stopped on exit
#
# CONFIG defaults to scripts/system-bus.conf (system-bus semantics, every
# name and call allowed). The daemon listens on a socket in a fresh
# temporary directory; both are removed when the bus stops. The directory
# is open to every user (mode 0755), as a system bus's is: a service run as
# another user (setpriv, su) reaches the socket too.

HARVO_PRIVATE_BUS_DIR=""
HARVO_PRIVATE_BUS_PID=""

harvo_private_bus_stop() {
    if [[ -n "$HARVO_PRIVATE_BUS_PID" ]]; then
        kill "$HARVO_PRIVATE_BUS_PID" 2>/dev/null || true
        HARVO_PRIVATE_BUS_PID=""
    fi
    if [[ -n "$HARVO_PRIVATE_BUS_DIR" ]]; then
        rm -rf "$HARVO_PRIVATE_BUS_DIR"
        HARVO_PRIVATE_BUS_DIR=""
    fi
}

# harvo_private_bus_start [CONFIG]: starts the daemon, exports
# DBUS_SYSTEM_BUS_ADDRESS and arranges for the bus to stop when the
# calling shell exits. Returns non-zero when the daemon does not start.
harvo_private_bus_start() {
    local here
    here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
    local config=${1:-$here/system-bus.conf}
    if ! command -v dbus-daemon >/dev/null; then
        echo "private-bus: dbus-daemon not found (run scripts/install-deps.sh)" >&2
        return 1
    fi
    HARVO_PRIVATE_BUS_DIR=$(mktemp -d "${TMPDIR:-/tmp}/harvo-bus.XXXXXX") || return 1
    trap harvo_private_bus_stop EXIT
    # mktemp makes the directory 0700; other users must reach the socket.
    chmod 0755 "$HARVO_PRIVATE_BUS_DIR" || {
        harvo_private_bus_stop
        return 1
    }
    # --fork returns once the daemon listens and has written its address
    # and pid to the two descriptors.
    if ! dbus-daemon --config-file="$config" \
        --address="unix:path=$HARVO_PRIVATE_BUS_DIR/system_bus_socket" \
        --fork --print-address=3 --print-pid=4 \
        3>"$HARVO_PRIVATE_BUS_DIR/address" 4>"$HARVO_PRIVATE_BUS_DIR/pid"; then
        echo "private-bus: dbus-daemon failed to start with $config" >&2
        harvo_private_bus_stop
        return 1
    fi
    HARVO_PRIVATE_BUS_PID=$(head -n 1 "$HARVO_PRIVATE_BUS_DIR/pid")
    DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$HARVO_PRIVATE_BUS_DIR/address")
    export DBUS_SYSTEM_BUS_ADDRESS
    echo "private-bus: dbus-daemon $HARVO_PRIVATE_BUS_PID at $DBUS_SYSTEM_BUS_ADDRESS" >&2
}

# Executed (not sourced): run the given command on a private bus.
if [[ "${BASH_SOURCE[0]}" == "$0" ]]; then
    set -uo pipefail
    config=""
    while [[ $# -gt 0 ]]; do
        case "$1" in
            --config) config=$2; shift 2 ;;
            --) shift; break ;;
            -h|--help) awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; exit 0 ;;
            *) break ;;
        esac
    done
    if [[ $# -eq 0 ]]; then
        echo "usage: $0 [--config FILE] -- COMMAND [ARGS...]" >&2
        exit 2
    fi
    harvo_private_bus_start ${config:+"$config"} || exit 1
    "$@"
    exit $?
fi
