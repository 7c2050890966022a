#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the gadget example host (examples/gadget_host.cpp) with its two
# gadget modules and checks that it ends with status 0 after both gadgets
# answered and closed.
#
# Usage: gadget_demo_test.sh HOST MODULE_DIR WORK_DIR
set -uo pipefail

HOST=$1 MODULES=$2 WORK=$3
mkdir -p "$WORK"
status=0
timeout 60 "$HOST" "$MODULES" >"$WORK/gadget.out" 2>"$WORK/gadget.log" || status=$?

failures=0
expect_line() {
    grep -qF -- "$1" "$WORK/gadget.out" || {
        echo "FAIL: missing line: $1" >&2
        failures=$((failures + 1))
    }
}
expect_line '[gadget cpp] host answered: type "theme", {"answer":"blue","host":"gadget_host"}'
expect_line '[host]       hello_c asks "which language?": answering "English"'
expect_line '[gadget c]   host answered: "English"'
expect_line '[host]       hello_cpp answered: type "status", {"answer":"all fine, 3 items shown","gadget":"hello_cpp"}'
expect_line '[host]       hello_c answered: {"gadget":"hello_c","answer":"written in C, all fine"}'
expect_line '[gadget cpp] t_OnDestroy: closing'
expect_line '[host]       hello_cpp closed: yes'
expect_line '[gadget c]   destroy_cb: closing (1 question(s) answered)'
expect_line '[host]       hello_c closed itself: yes'
expect_line '[gadget cpp] UG_MODULE_EXIT: deleting the activity'
expect_line '[gadget c]   UG_MODULE_EXIT: deleting the activity'
expect_line '[host]       ui_app_main returned 0, all done'
# The destroy request ran the gadget's own destroy; the library's later
# destroy finds the activity already closed.
grep -qF 'Activity is already destroyed.' "$WORK/gadget.log" || {
    echo "FAIL: missing log line: Activity is already destroyed." >&2
    failures=$((failures + 1))
}

if [[ $status -ne 0 ]]; then
    echo "FAIL: gadget_host exited with status $status" >&2
    failures=$((failures + 1))
fi
if [[ $failures -ne 0 ]]; then
    echo "--- transcript ---" >&2
    cat "$WORK/gadget.out" >&2
    echo "--- log ---" >&2
    tail -40 "$WORK/gadget.log" >&2
    exit 1
fi
echo "gadget demo: both gadgets answered and closed"
