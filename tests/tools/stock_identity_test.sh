#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Impersonation on a system bus with the stock Debian policy, tried by an
# unprivileged user (nobody) with stock tools, while the endpoints run with
# the policies that `harvo-bus policy NAME --user root` prints:
#
#   1. a signal "forecast" that nobody emits on weather's object and
#      interface, with "weather" in the payload, does not reach a subscriber
#      of weather's "forecast"; the real weather's signal does;
#   2. a request to weather whose "from" names the live endpoint "alice" is
#      answered with the error reply, and weather writes one warning naming
#      the claimed endpoint and the caller; the same request with a "from"
#      that names no endpoint is answered as usual.
#
# The daemon runs on a copy of /usr/share/dbus-1/system.conf with its socket
# and included directories moved to a temporary directory. Every process
# started here ends with the script: each is killed and waited for on exit,
# and the kernel kills it if the script itself is killed. Needs root (to
# start the daemon and switch users): exits 77 (skipped) otherwise.
#
# Usage: stock_identity_test.sh HARVO_BUS BUS_PEER
set -uo pipefail

TOOL=$1 PEER=$2
STOCK=/usr/share/dbus-1/system.conf
INTRUDER=nobody INTRUDER_GROUP=nogroup
ERROR_REPLY="('', uint32 0, '', '{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}', [(byte 0x00,)])"

skip() {
    echo "SKIP: $*"
    exit 77
}

[[ $(id -u) -eq 0 ]] || skip "needs root (starts a system bus daemon and switches users)"
for program in dbus-daemon setpriv gdbus; do
    command -v "$program" >/dev/null || skip "$program is not installed (scripts/install-deps.sh)"
done
[[ -r $STOCK ]] || skip "$STOCK is missing (package dbus-system-bus-common)"
getent passwd "$INTRUDER" >/dev/null || skip "user $INTRUDER is needed"
setpriv --pdeathsig KILL true 2>/dev/null || skip "setpriv cannot set the parent-death signal"

WORK=$(mktemp -d /tmp/harvo-identity-XXXXXX)
chmod 755 "$WORK"
PIDS=()
cleanup() {
    exec 7>&- 2>/dev/null
    for pid in "${PIDS[@]}"; do
        kill "$pid" 2>/dev/null
    done
    for pid in "${PIDS[@]}"; do
        for _ in $(seq 1 100); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.05
        done
        kill -KILL "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    rm -rf "$WORK"
}
trap cleanup EXIT

failures=0
fail() {
    echo "FAIL ($phase): $*" >&2
    failures=$((failures + 1))
}

# Background processes run under "setpriv --pdeathsig KILL" (killed with
# us) and go into PIDS right after their "&" (redirections stay with them).
KILLED_WITH_US=(setpriv --pdeathsig KILL --)

as_intruder() {
    setpriv --reuid="$INTRUDER" --regid="$INTRUDER_GROUP" --clear-groups -- "$@"
}

# wait_for FILE PATTERN: polls FILE for the extended regular expression, at
# most 30 seconds.
wait_for() {
    for _ in $(seq 1 600); do
        grep -qE -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

# ---------------------------------------------------------------------------
phase="setup"
dir=$WORK/bus
mkdir -p "$dir/system.d"
sed -e '/<user>/d' -e '/<fork\/>/d' -e '/<pidfile>/d' -e '/<syslog\/>/d' \
    -e "s|<listen>.*</listen>|<listen>unix:path=$dir/socket</listen>|" \
    -e "s|<includedir>system.d</includedir>|<includedir>$dir/system.d</includedir>|" \
    -e '\|<includedir>/etc/dbus-1/system.d</includedir>|d' \
    -e '\|<include ignore_missing="yes">/etc/dbus-1/|d' \
    "$STOCK" >"$dir/system.conf"
grep -q '<deny own="\*"/>' "$dir/system.conf" || fail "the stock policy no longer denies own"
grep -q '<deny send_type="method_call"/>' "$dir/system.conf" ||
    fail "the stock policy no longer denies method calls"
for endpoint in weather alice; do
    "$TOOL" policy "$endpoint" --user root >"$dir/system.d/harvo-fw-$endpoint.conf" ||
        fail "harvo-bus policy $endpoint failed"
done

mkfifo "$dir/address"
"${KILLED_WITH_US[@]}" dbus-daemon --config-file="$dir/system.conf" --nofork --print-address=3 \
    3>"$dir/address" 2>"$dir/daemon.log" &
PIDS+=($!)
address=""
read -r -t 30 address <"$dir/address"
[[ -n $address ]] || {
    fail "dbus-daemon printed no address: $(cat "$dir/daemon.log")"
    exit 1
}
export DBUS_SYSTEM_BUS_ADDRESS=$address

# weather takes commands on a pipe; alice just lives.
mkfifo "$WORK/weather.in"
"${KILLED_WITH_US[@]}" "$PEER" serve weather <"$WORK/weather.in" >"$WORK/weather.out" \
    2>"$WORK/weather.err" &
PIDS+=($!)
exec 7>"$WORK/weather.in"
"${KILLED_WITH_US[@]}" "$PEER" serve alice </dev/null >"$WORK/alice.out" 2>"$WORK/alice.err" &
PIDS+=($!)
wait_for "$WORK/weather.out" '^READY$' || fail "weather did not get its name: $(cat "$WORK/weather.err")"
wait_for "$WORK/alice.out" '^READY$' || fail "alice did not get her name: $(cat "$WORK/alice.err")"

# ---------------------------------------------------------------------------
phase="a signal as weather"
"${KILLED_WITH_US[@]}" "$TOOL" listen weather forecast --count 1 --timeout 30000 \
    >"$WORK/listen.out" 2>"$WORK/listen.err" &
listener=$!
PIDS+=($listener)
wait_for "$WORK/listen.out" '^listening for forecast from weather$' ||
    fail "the listener did not start: $(cat "$WORK/listen.err")"
# The bus takes the signal from nobody (the stock policy lets everyone
# emit); the subscriber must not hear it as weather's.
as_intruder gdbus emit --system --object-path /weather/message \
    --signal weather.message.forecast "'weather'" "uint32 0" "''" "'{\"spoofed\":true}'" ||
    fail "gdbus emit failed"
# Once this call is answered, the daemon has routed the signal before it.
as_intruder gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.GetId >/dev/null || fail "the daemon did not answer nobody"
echo 'emit forecast {"real":true}' >&7
wait_for "$WORK/weather.out" '^EMITTED 1$' || fail "weather did not emit"
wait "$listener"
status=$?
[[ $status -eq 0 ]] || fail "the listener ended with status $status: $(cat "$WORK/listen.err")"
expected='signal forecast from weather: code=0 type="" body={"real":true} no buffer'
[[ $(sed -n 2p "$WORK/listen.out") == "$expected" ]] ||
    fail "the subscriber heard: $(cat "$WORK/listen.out")"

# ---------------------------------------------------------------------------
phase="a request as alice"
reply=$(as_intruder gdbus call --system --dest weather.message --object-path /weather/message \
    --method weather.message.SendMessage alice 41 echo '{}' 2>&1)
[[ $reply == "$ERROR_REPLY" ]] || fail "the request claiming alice got: $reply"
warning='request for weather refused: :[0-9.]+ claims to be alice, whose bus name alice\.message is owned by :[0-9.]+ \(1 refused from :[0-9.]+ since its last line\)'
wait_for "$WORK/weather.err" "$warning" || fail "no warning line: $(grep -c . "$WORK/weather.err") lines"
[[ $(grep -cE -- "claims to be" "$WORK/weather.err") -eq 1 ]] || fail "not exactly one warning line"
# A "from" that names no endpoint is an ordinary caller.
reply=$(as_intruder gdbus call --system --dest weather.message --object-path /weather/message \
    --method weather.message.SendMessage me 41 echo '{}' 2>&1)
[[ $reply == "('weather', uint32 42, 're:echo', '{}', [(byte 0x00,)])" ]] ||
    fail "the ordinary request got: $reply"

if [[ $failures -ne 0 ]]; then
    echo "stock_identity_test: $failures failure(s)" >&2
    exit 1
fi
echo "stock_identity_test: passed"
