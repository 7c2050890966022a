#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the Python example (examples/python: hello_service.py and
# hello_client.py) on a private bus under the given interpreter, and checks
# what both print. Prints "N passed, N failed".
#
# Usage: run_hello_example.sh PYTHON SCRIPTS_DIR EXAMPLES_DIR LIBHARVO
set -euo pipefail
PYTHON=$1 SCRIPTS=$2 LIB=$4
EXAMPLES=$(cd "$3" && pwd)
source "$SCRIPTS/private-bus.sh"
harvo_private_bus_start
export HARVO_FW_LIBRARY=$LIB
# Only warnings and errors of the library on stderr.
export HARVO_LOG=W

passed=0 failed=0
check() {  # check WHAT EXPECTED ACTUAL
    if [[ "$3" == "$2" ]]; then
        passed=$((passed + 1)); echo "ok   - $1"
    else
        failed=$((failed + 1)); echo "FAIL - $1: expected [$2], got [$3]"
    fi
}

coproc SERVICE { exec "$PYTHON" "$EXAMPLES/hello_service.py"; }
service_pid=$SERVICE_PID
# Replaces the bus's own trap: both go at the end.
trap 'kill "$service_pid" 2>/dev/null || true; harvo_private_bus_stop' EXIT
# Our own copy of its output: bash forgets the coprocess's once it ends.
exec {service_out}<&"${SERVICE[0]}"
read -r -t 60 first <&"$service_out" || first="(nothing)"
check "the service starts" "hello_py is serving" "$first"

client_out=$(cd /tmp && timeout 60 "$PYTHON" "$EXAMPLES/hello_client.py") && client_rc=0 || client_rc=$?
check "the client ends well" 0 "$client_rc"
mapfile -t lines <<<"$client_out"
check "the greeting" \
    'hello: True {"code":7,"from":"hello_py_client","greeting":"hello, python"}' \
    "${lines[0]:-}"
check "the failed post is reported" "failed: nobody_home org.freedesktop.DBus.Error.ServiceUnknown" \
    "${lines[1]:-}"
check "the goodbye" 'bye: True {"bye":true,"served":1}' "${lines[2]:-}"

read -r -t 60 last <&"$service_out" || last="(nothing)"
check "the service ends after bye" "hello_py served 1 greetings" "$last"
# Ended by now, unless something went wrong above.
[[ "$last" == "(nothing)" ]] && kill "$service_pid" 2>/dev/null
wait "$service_pid" && service_rc=0 || service_rc=$?
check "the service exits well" 0 "$service_rc"

echo "$passed passed, $failed failed"
[[ $failed -eq 0 ]]
