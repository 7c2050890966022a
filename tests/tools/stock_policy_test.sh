#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# An endpoint on a system bus with the stock Debian policy (deny own "*",
# deny method calls), run by an unprivileged user as on a real system:
#
#   1. without a policy for it, the endpoint logs one error line naming the
#      refused bus name, and a client finds no such service;
#   2. with the policy that `harvo-bus policy` prints in the daemon's
#      system.d directory, a client reaches it, through the framework and
#      through gdbus, and another unprivileged user cannot take its name.
#
# The daemon runs on a copy of /usr/share/dbus-1/system.conf with its
# socket, included directories and process settings moved to a temporary
# directory. Needs root (to start the daemon and switch users): exits 77
# (skipped) otherwise.
#
# Usage: stock_policy_test.sh HARVO_BUS BUS_PEER
set -uo pipefail

TOOL=$1 PEER=$2
STOCK=/usr/share/dbus-1/system.conf
ENDPOINT=weather
BUS_NAME=weather.message
RUNNER=nobody RUNNER_GROUP=nogroup
INTRUDER=daemon INTRUDER_GROUP=daemon

skip() {
    echo "SKIP: $*"
    exit 77
}

[[ $(id -u) -eq 0 ]] || skip "needs root (starts a system bus daemon and switches users)"
for program in dbus-daemon setpriv gdbus; do
    command -v "$program" >/dev/null || skip "$program is not installed (scripts/install-deps.sh)"
done
[[ -r $STOCK ]] || skip "$STOCK is missing (package dbus-system-bus-common)"
getent passwd "$RUNNER" "$INTRUDER" >/dev/null || skip "users $RUNNER and $INTRUDER are needed"

WORK=$(mktemp -d /tmp/harvo-policy-XXXXXX)
# The unprivileged endpoints reach the socket in here.
chmod 755 "$WORK"

# Every program the test starts in the background, oldest first: each is
# the background job itself (no subshell in between), so its pid is the
# program's own.
PIDS=()

# running PID: the process exists and is not a zombie waiting to be reaped.
running() {
    local state
    state=$(ps -o stat= -p "$1" 2>/dev/null) && [[ $state != Z* ]]
}

# stop PID: SIGTERM, up to 10 seconds to end, then SIGKILL; reaps it.
stop() {
    local pid=$1
    kill -TERM "$pid" 2>/dev/null
    for _ in $(seq 1 200); do
        running "$pid" || break
        sleep 0.05
    done
    if running "$pid"; then
        echo "cleanup: $pid did not end on SIGTERM within 10 s; killing it" >&2
        kill -KILL "$pid" 2>/dev/null
    fi
    wait "$pid" 2>/dev/null
}

# Ends what the test started, newest first (the endpoints before the daemon
# they are connected to), and fails the test if anything is left.
cleanup() {
    local status=$? i left=0
    for ((i = ${#PIDS[@]} - 1; i >= 0; i--)); do
        stop "${PIDS[i]}"
    done
    for pid in "${PIDS[@]}"; do
        if running "$pid"; then
            echo "FAIL (cleanup): still running: $(ps -o pid=,user=,args= -p "$pid")" >&2
            left=1
        fi
    done
    rm -rf "$WORK"
    [[ $left -eq 0 ]] || exit 1
    exit "$status"
}
trap cleanup EXIT

failures=0
fail() {
    echo "FAIL ($phase): $*" >&2
    failures=$((failures + 1))
}

# as_user USER GROUP COMMAND...: runs COMMAND with that user's ids and no
# other groups (setpriv executes COMMAND in its own place).
as_user() {
    local user=$1 group=$2
    shift 2
    setpriv --reuid="$user" --regid="$group" --clear-groups -- "$@"
}

# can_run USER GROUP: the build's programs must be reachable for that user.
as_user "$RUNNER" "$RUNNER_GROUP" test -x "$PEER" ||
    skip "$RUNNER cannot run $PEER (a build directory below a private directory?)"

# wait_for FILE PATTERN: polls FILE for the extended regular expression, at
# most 30 seconds.
wait_for() {
    for _ in $(seq 1 600); do
        grep -qE -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

# make_config DIR: the stock configuration, with its socket in $WORK, its
# included policies from DIR/system.d only, and no user switch, fork, pid
# file or syslog (the test runs the daemon in the foreground).
make_config() {
    local dir=$1
    mkdir -p "$dir/system.d"
    sed -e '/<user>/d' -e '/<fork\/>/d' -e '/<pidfile>/d' -e '/<syslog\/>/d' \
        -e "s|<listen>.*</listen>|<listen>unix:path=$dir/socket</listen>|" \
        -e "s|<includedir>system.d</includedir>|<includedir>$dir/system.d</includedir>|" \
        -e '\|<includedir>/etc/dbus-1/system.d</includedir>|d' \
        -e '\|<include ignore_missing="yes">/etc/dbus-1/|d' \
        "$STOCK" >"$dir/system.conf"
    # The copy must still be the stock policy, with only those changes.
    grep -q '<deny own="\*"/>' "$dir/system.conf" || fail "the stock policy no longer denies own"
    grep -q '<deny send_type="method_call"/>' "$dir/system.conf" ||
        fail "the stock policy no longer denies method calls"
    grep -q "<listen>unix:path=$dir/socket</listen>" "$dir/system.conf" ||
        fail "the socket was not moved"
    grep -q "<includedir>$dir/system.d</includedir>" "$dir/system.conf" ||
        fail "the policy directory was not moved"
    if grep -qE '<user>|/etc/dbus-1|<pidfile>' "$dir/system.conf"; then
        fail "the copy still refers to the machine's settings"
    fi
}

# start_daemon DIR: starts dbus-daemon on DIR/system.conf and exports its
# address as the system bus.
start_daemon() {
    local dir=$1
    mkfifo "$dir/address"
    dbus-daemon --config-file="$dir/system.conf" --nofork --print-address=3 \
        3>"$dir/address" 2>"$dir/daemon.log" &
    PIDS+=($!)
    local address=""
    read -r -t 30 address <"$dir/address"
    [[ -n $address ]] || {
        fail "dbus-daemon printed no address: $(cat "$dir/daemon.log")"
        return 1
    }
    export DBUS_SYSTEM_BUS_ADDRESS=$address
}

# start_endpoint NAME USER GROUP: "bus_peer serve weather" as USER, in the
# background. setpriv is started directly, not through as_user: a function
# run in the background is a subshell of its own, and its pid is not the
# program's.
start_endpoint() {
    local name=$1 user=$2 group=$3
    setpriv --reuid="$user" --regid="$group" --clear-groups -- "$PEER" serve "$ENDPOINT" \
        </dev/null >"$WORK/$name.out" 2>"$WORK/$name.err" &
    PIDS+=($!)
}

# The error line of the framework, priority letter and text exactly (in a
# file, without the colour escapes a terminal would get).
refused_line() {
    echo '^E/HarvoFW\([0-9]+\): TCServer\.cpp: m_OnNameLost\([0-9]+\) >  \[[^]]*\]'"$ENDPOINT lost the bus name $BUS_NAME: refused by the bus policy or taken by another owner"
}

# ---------------------------------------------------------------------------
phase="without a policy"
make_config "$WORK/bare"
if start_daemon "$WORK/bare"; then
    start_endpoint bare "$RUNNER" "$RUNNER_GROUP"
    wait_for "$WORK/bare.err" "$(refused_line)" ||
        fail "no error line naming $BUS_NAME; the endpoint said: $(cat "$WORK/bare.err")"
    [[ $(grep -cE -- "lost the bus name" "$WORK/bare.err") -eq 1 ]] ||
        fail "not exactly one lost-name line"
    answer=$("$TOOL" available "$ENDPOINT")
    status=$?
    [[ $status -eq 1 && $answer == no ]] ||
        fail "the client finds the service (status $status, \"$answer\")"
    if gdbus call --system --dest "$BUS_NAME" --object-path /weather/message \
        --method "$BUS_NAME.SendMessage" me 41 echo '{}' >/dev/null 2>&1; then
        fail "gdbus reached an endpoint that has no name"
    fi
fi

# ---------------------------------------------------------------------------
phase="with the generated policy"
make_config "$WORK/policy"
"$TOOL" policy "$ENDPOINT" --user "$RUNNER" >"$WORK/policy/system.d/harvo-fw-$ENDPOINT.conf" ||
    fail "harvo-bus policy failed"
if start_daemon "$WORK/policy"; then
    start_endpoint served "$RUNNER" "$RUNNER_GROUP"
    wait_for "$WORK/served.out" '^READY$' ||
        fail "the endpoint did not get its name: $(cat "$WORK/served.err")"
    if grep -q "lost the bus name" "$WORK/served.err"; then
        fail "the endpoint lost its name: $(grep "lost the bus name" "$WORK/served.err")"
    fi
    answer=$("$TOOL" available "$ENDPOINT")
    [[ $answer == yes ]] || fail "the client does not find the service (\"$answer\")"
    reply=$("$TOOL" send "$ENDPOINT" --type echo --code 6 --json '{"city":"Seoul"}' 2>&1)
    [[ $reply == *'reply from weather: code=7 type="re:echo" body={"city":"Seoul"}'* ]] ||
        fail "harvo-bus send: $reply"
    # A stock tool, run by another unprivileged user.
    reply=$(as_user "$INTRUDER" "$INTRUDER_GROUP" gdbus call --system --dest "$BUS_NAME" \
        --object-path /weather/message --method "$BUS_NAME.SendMessage" \
        me 41 echo '{"hello":"world"}' 2>&1)
    [[ $reply == "('weather', uint32 42, 're:echo', '{\"hello\":\"world\"}', [(byte 0x00,)])" ]] ||
        fail "gdbus call: $reply"
    introspection=$(gdbus introspect --system --dest "$BUS_NAME" --object-path /weather/message 2>&1)
    [[ $introspection == *"interface $BUS_NAME"* ]] || fail "gdbus introspect: $introspection"
    # Only the policy's user may own the name: another user is refused, and
    # the endpoint keeps it.
    start_endpoint intruder "$INTRUDER" "$INTRUDER_GROUP"
    wait_for "$WORK/intruder.err" "$(refused_line)" ||
        fail "another user was not refused the name: $(cat "$WORK/intruder.err")"
    reply=$("$TOOL" send "$ENDPOINT" --type info 2>&1)
    [[ $reply == *'"count":3'* ]] || fail "the first endpoint no longer answers: $reply"
fi

if [[ $failures -ne 0 ]]; then
    echo "stock_policy_test: $failures failure(s)" >&2
    exit 1
fi
echo "stock_policy_test: passed"
