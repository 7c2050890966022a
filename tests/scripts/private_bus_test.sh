#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/private-bus.sh serves every user, as a system bus does: a bus
# started by root is reached by a process run as "nobody", both when the
# script runs a command and when another script sources it; a service run
# as nobody owns its name and answers root's call. Needs root to switch
# users: exits 77 (skipped) otherwise, saying why.
#
# Usage: private_bus_test.sh SCRIPTS_DIR BUS_PEER
set -uo pipefail

SCRIPTS=$1 PEER=$2
RUNNER=nobody RUNNER_GROUP=nogroup

skip() {
    echo "SKIP: $*"
    exit 77
}

[[ $(id -u) -eq 0 ]] || skip "needs root (runs clients and a service as $RUNNER with setpriv)"
for program in dbus-daemon dbus-send gdbus setpriv; do
    command -v "$program" >/dev/null || skip "$program is not installed (scripts/install-deps.sh)"
done
getent passwd "$RUNNER" >/dev/null || skip "user $RUNNER is needed"

as_runner() { setpriv --reuid="$RUNNER" --regid="$RUNNER_GROUP" --clear-groups -- "$@"; }
as_runner test -x "$PEER" ||
    skip "$RUNNER cannot run $PEER (a build directory below a private directory?)"

# The bus's directory goes below /tmp, which every user may enter.
export TMPDIR=/tmp

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# Asks the bus daemon itself for its id: any connected client may.
bus_id_call=(dbus-send --system --print-reply --dest=org.freedesktop.DBus
    /org/freedesktop/DBus org.freedesktop.DBus.GetId)

echo "--- run mode: a command run as $RUNNER on the bus"
if output=$(bash "$SCRIPTS/private-bus.sh" -- setpriv --reuid="$RUNNER" \
    --regid="$RUNNER_GROUP" --clear-groups -- "${bus_id_call[@]}" 2>&1); then
    echo "$output"
    grep -q 'string "' <<<"$output" || fail "no bus id in the reply: $output"
else
    echo "$output"
    fail "$RUNNER could not talk to the bus that private-bus.sh runs"
fi

echo "--- sourced mode: a service run as $RUNNER, called by root"
# shellcheck source=/dev/null
source "$SCRIPTS/private-bus.sh"
harvo_private_bus_start || {
    echo "FAIL: the private bus did not start" >&2
    exit 1
}
mode=$(stat -c %a "$HARVO_PRIVATE_BUS_DIR")
echo "bus directory $HARVO_PRIVATE_BUS_DIR, mode $mode"
[[ $mode == 755 ]] || fail "the bus directory has mode $mode, not 755"

as_runner "${bus_id_call[@]}" >/dev/null || fail "$RUNNER could not call the bus daemon"

work=$(mktemp -d)
peer_pid=""
cleanup() {
    if [[ -n "$peer_pid" ]]; then
        kill "$peer_pid" 2>/dev/null
        wait "$peer_pid" 2>/dev/null
    fi
    rm -rf "$work"
    harvo_private_bus_stop
}
trap cleanup EXIT
chmod 755 "$work"

# setpriv itself in the background (not the shell function): it execs the
# peer, so $! is the peer's pid and the cleanup ends the peer.
setpriv --reuid="$RUNNER" --regid="$RUNNER_GROUP" --clear-groups -- "$PEER" serve-quiet shared \
    </dev/null >"$work/peer.out" 2>"$work/peer.err" &
peer_pid=$!
ready=0
for _ in $(seq 1 600); do
    if grep -q READY "$work/peer.out" 2>/dev/null; then
        ready=1
        break
    fi
    kill -0 "$peer_pid" 2>/dev/null || break
    sleep 0.05
done
if [[ $ready -eq 1 ]]; then
    owner=$(gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
        --method org.freedesktop.DBus.GetConnectionUnixUser shared.message)
    echo "shared.message is owned by uid $owner"
    [[ "$owner" == "(uint32 $(id -u "$RUNNER"),)" ]] || fail "the service does not run as $RUNNER"
    reply=$(gdbus call --system --dest shared.message --object-path /shared/message \
        --method shared.message.SendMessage root 6 echo '{"asked":"by root"}') ||
        fail "root's call to the service run by $RUNNER failed"
    echo "reply: $reply"
    [[ "$reply" == "('shared', uint32 7, 're:echo', '{\"asked\":\"by root\"}', "* ]] ||
        fail "unexpected reply: $reply"
else
    cat "$work/peer.out" "$work/peer.err"
    fail "the service run as $RUNNER did not get onto the bus"
fi

if [[ $failures -ne 0 ]]; then
    echo "private bus test: $failures failure(s)"
    exit 1
fi
echo "private bus test: OK"
