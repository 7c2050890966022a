#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the demo's service and client on a private bus, twice: the service
# first (the client finds it with IsServiceAvailable), then the client first
# (it waits for the service's "service_start_default" announcement). Each
# run must end with both programs' status 0 and a transcript holding the key
# lines of the conversation. With TOOL (tools/harvo-bus), a third run talks
# to the service with the command-line tool instead of the client. A last
# run plays a foreign peer with dbus-send.
#
# Usage: demo_test.sh SERVICE CLIENT SCRIPTS_DIR WORK_DIR [TOOL]
set -uo pipefail

SERVICE=$1 CLIENT=$2 SCRIPTS=$3 WORK=$4 TOOL=${5:-}
mkdir -p "$WORK"
# shellcheck source=../../scripts/private-bus.sh
source "$SCRIPTS/private-bus.sh"
harvo_private_bus_start || exit 1

failures=0
fail() {
    echo "FAIL ($run): $*" >&2
    failures=$((failures + 1))
}

expect_line() {
    grep -qF -- "$1" "$WORK/$run.out" || fail "missing line: $1"
}

# wait_for_line FILE TEXT: polls FILE for TEXT, at most 30 seconds.
wait_for_line() {
    for _ in $(seq 1 600); do
        grep -qF -- "$2" "$1" && return 0
        sleep 0.05
    done
    return 1
}

# run_demo NAME ORDER: ORDER is "service-first" or "client-first".
run_demo() {
    run=$1
    local order=$2 service_pid client_pid service_status=0 client_status=0
    : >"$WORK/$run.out"
    if [[ $order == service-first ]]; then
        timeout 60 "$SERVICE" >>"$WORK/$run.out" 2>"$WORK/$run.service.log" &
        service_pid=$!
        timeout 60 "$CLIENT" >>"$WORK/$run.out" 2>"$WORK/$run.client.log" &
        client_pid=$!
    else
        timeout 60 "$CLIENT" >>"$WORK/$run.out" 2>"$WORK/$run.client.log" &
        client_pid=$!
        # Start the service only once the client has found it missing (by
        # then its subscription to the announcement is in place).
        wait_for_line "$WORK/$run.out" 'not yet, waiting for its announcement' ||
            fail "the client did not report the service missing"
        timeout 60 "$SERVICE" >>"$WORK/$run.out" 2>"$WORK/$run.service.log" &
        service_pid=$!
    fi
    wait "$client_pid" || client_status=$?
    wait "$service_pid" || service_status=$?
    echo "---- transcript ($run) ----"
    cat "$WORK/$run.out"
    [[ $client_status -eq 0 ]] || fail "client exit status $client_status (log: $WORK/$run.client.log)"
    [[ $service_status -eq 0 ]] || fail "service exit status $service_status (log: $WORK/$run.service.log)"

    expect_line '[service] (main  ) started: endpoint "weather" on the bus, worker task running'
    expect_line '[service] (worker) message "sum" from weather_client: {"city":"Seoul","note":"sum these bytes"}, buffer [1 2 3 4 5]'
    expect_line '[client]  sync reply: type "re:sum", code 42, json {"city":"Seoul","sum":15}, buffer [5 4 3 2 1]'
    expect_line '[client]  async reply from weather: type "re:start_forecast", code 8, json {"days":3,"started":true}, buffer []'
    expect_line '[service] (worker) alarm tick 3: broadcasting signal "forecast"'
    expect_line '[client]  signal "forecast" from weather (1/3): {"celsius":19,"day":1,"sky":"sunny"}'
    expect_line '[client]  signal "forecast" from weather (3/3): {"celsius":21,"day":3,"sky":"rain"}'
    expect_line '[client]  sync send "quit": type "re:quit", code 1, json {"bye":"weather_client"}, buffer []'
    expect_line '[client]  AppMain returned 0, conversation complete'
    expect_line '[service] (main  ) terminating: alarm and worker stopped'
    expect_line '[service] (main  ) AppMain returned 0'
    if [[ $order == client-first ]]; then
        expect_line '[client]  signal "service_start_default": {"service_name":"weather"}'
    fi
    # Each signal is delivered once.
    local forecasts
    forecasts=$(grep -c '^\[client\]  signal "forecast"' "$WORK/$run.out")
    [[ $forecasts -eq 3 ]] || fail "$forecasts forecasts received, expected 3"
}

# The command-line tool against the demo's service: a reply with a buffer,
# two signals, and "quit".
run_tool() {
    run=tool
    local out="$WORK/tool.out" service_pid listen_pid service_status=0
    : >"$out"
    timeout 60 "$SERVICE" >>"$out" 2>"$WORK/tool.service.log" &
    service_pid=$!
    wait_for_line "$out" 'started: endpoint "weather"' || fail "the service did not start"
    printf '\x0a\x14\x1e' >"$WORK/tool.blob"
    "$TOOL" send weather --type sum --json '{"city":"Busan"}' --buffer-file "$WORK/tool.blob" \
        >>"$out" 2>"$WORK/tool.send.log" || fail "harvo-bus send sum failed"
    timeout 60 "$TOOL" listen weather forecast --count 2 >>"$out" 2>"$WORK/tool.listen.log" &
    listen_pid=$!
    wait_for_line "$out" 'listening for forecast' || fail "harvo-bus listen did not start"
    "$TOOL" send weather --type start_forecast --json '{"days":2,"interval_ms":100}' \
        >>"$out" 2>>"$WORK/tool.send.log" || fail "harvo-bus send start_forecast failed"
    wait "$listen_pid" || fail "harvo-bus listen failed"
    "$TOOL" send weather --type quit >>"$out" 2>>"$WORK/tool.send.log" ||
        fail "harvo-bus send quit failed"
    wait "$service_pid" || service_status=$?
    echo "---- transcript (tool) ----"
    cat "$out"
    [[ $service_status -eq 0 ]] || fail "service exit status $service_status"
    expect_line '[service] (worker) message "sum" from harvo-bus: {"city":"Busan"}, buffer [10 20 30]'
    expect_line '{"city":"Busan","sum":60}'
    expect_line '1e 14 0a'
    expect_line '[service] (main  ) AppMain returned 0'
    local signals
    signals=$(grep -c '^signal forecast from weather' "$out")
    [[ $signals -eq 2 ]] || fail "$signals signals received by the tool, expected 2"
}

# A foreign peer against the demo's service: a buffer sent as a plain byte
# array (what dbus-send makes of array:byte) is summed like any other, and
# a body whose shape the service's handler does not expect ([1] where it
# reads a member) makes the handler throw: the caller gets the framework's
# error reply and the service goes on serving.
run_hostile() {
    run=hostile
    local out="$WORK/hostile.out" service_pid service_status=0 reply
    : >"$out"
    timeout 60 "$SERVICE" >>"$out" 2>"$WORK/hostile.service.log" &
    service_pid=$!
    wait_for_line "$out" 'started: endpoint "weather"' || fail "the service did not start"
    reply=$(dbus-send --system --print-reply --dest=weather.message /weather/message \
        weather.message.SendMessageWithBuffer string:shell uint32:1 string:sum \
        'string:{"city":"Jeju"}' array:byte:1,2 2>&1) || fail "dbus-send with a byte array failed: $reply"
    grep -qF '{"city":"Jeju","sum":3}' <<<"$reply" || fail "byte-array buffer not summed: $reply"
    reply=$(dbus-send --system --print-reply --dest=weather.message /weather/message \
        weather.message.SendMessage string:shell uint32:1 string:sum 'string:[1]' 2>&1) ||
        fail "dbus-send with the body [1] failed: $reply"
    grep -qF '{"dbus_result":"fail","errmsg":"error handling"}' <<<"$reply" ||
        fail "no error reply for the body [1]: $reply"
    grep -qF 'exception from IfMessageReceived: ' "$WORK/hostile.service.log" ||
        fail "the service logged no exception line"
    # Still serving: quit ends it normally.
    dbus-send --system --print-reply --dest=weather.message /weather/message \
        weather.message.SendMessage string:shell uint32:1 string:quit 'string:{}' >/dev/null 2>&1 ||
        fail "quit was not answered"
    wait "$service_pid" || service_status=$?
    echo "---- transcript (hostile) ----"
    cat "$out"
    [[ $service_status -eq 0 ]] || fail "service exit status $service_status (log: $WORK/hostile.service.log)"
    expect_line '[service] (worker) message "sum" from shell: {"city":"Jeju"}, buffer [1 2]'
    expect_line '[service] (main  ) AppMain returned 0'
}

run_demo service-first service-first
run_demo client-first client-first
if [[ -n $TOOL ]]; then
    run_tool
fi
run_hostile

if [[ $failures -ne 0 ]]; then
    echo "$failures failure(s)" >&2
    exit 1
fi
echo "demo conversation: every run passed"
