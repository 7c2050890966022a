#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Stock D-Bus clients call an endpoint's two methods the way the guide
# (docs/guide.md, "Calling an endpoint from stock tools") shows, against the
# test peer on a private bus. The interface describes the buffer as "a*",
# which introspecting clients cannot fill, so each form gives the types
# itself:
#
#   gdbus      SendMessage with typed GVariant text; SendMessageWithBuffer
#              is refused by gdbus itself (it parses arguments against the
#              introspected "a*"), as the guide says
#   dbus-send  both methods, the buffer as array:byte
#   busctl     both methods, with the signatures "suss", "sussay", "sussa(y)"
#   python     dbus-python: the signature given with the call, with and
#              without introspection
#
# The peer answers "echo" with code + 1 and "info" with what arrived (size
# and sum of the buffer). A client that is not installed makes the test
# exit 77 (skipped), saying which package brings it.
#
# Usage: stock_clients_test.sh CLIENT BUS_PEER SCRIPTS_DIR
#        CLIENT: gdbus | dbus-send | busctl | python
set -uo pipefail

CLIENT=$1 PEER=$2 SCRIPTS=$3
NAME=stock
DEST=$NAME.message
OBJECT=/$NAME/message

skip() {
    echo "SKIP: $*"
    exit 77
}

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# expect LABEL ACTUAL PATTERN: ACTUAL must match the extended regex.
expect() {
    echo "$1: $2"
    [[ "$2" =~ $3 ]] || fail "$1: expected /$3/"
}

# dbus-python is a Debian package for Debian's interpreter: prefer that one
# to another python3 earlier on the PATH.
python=""
case "$CLIENT" in
    gdbus) command -v gdbus >/dev/null || skip "gdbus is not installed (package libglib2.0-bin)" ;;
    dbus-send) command -v dbus-send >/dev/null || skip "dbus-send is not installed (package dbus-bin)" ;;
    busctl) command -v busctl >/dev/null || skip "busctl is not installed (package systemd)" ;;
    python)
        for candidate in /usr/bin/python3 "$(command -v python3 || true)"; do
            if [[ -x "$candidate" ]] && "$candidate" -c 'import dbus' 2>/dev/null; then
                python=$candidate
                break
            fi
        done
        [[ -n "$python" ]] || skip "no python3 with the dbus module (package python3-dbus)"
        ;;
    *)
        echo "usage: $0 gdbus|dbus-send|busctl|python BUS_PEER SCRIPTS_DIR" >&2
        exit 2
        ;;
esac

# shellcheck source=/dev/null
source "$SCRIPTS/private-bus.sh"
harvo_private_bus_start || {
    echo "FAIL: the private bus did not start" >&2
    exit 1
}
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

"$PEER" serve-quiet "$NAME" </dev/null >"$work/peer.out" 2>"$work/peer.err" &
peer_pid=$!
for _ in $(seq 1 600); do
    grep -q READY "$work/peer.out" 2>/dev/null && break
    kill -0 "$peer_pid" 2>/dev/null || break
    sleep 0.05
done
grep -q READY "$work/peer.out" || {
    cat "$work/peer.out" "$work/peer.err"
    echo "FAIL: the peer did not get onto the bus" >&2
    exit 1
}

# What the peer's "info" answer says about a buffer of the bytes 1 and 2.
INFO_1_2='"size":2,"sum":3'

case "$CLIENT" in
    gdbus)
        out=$(gdbus call --system --dest "$DEST" --object-path "$OBJECT" \
            --method "$DEST.SendMessage" "'me'" 'uint32 41' "'echo'" "'{\"hello\":\"world\"}'" 2>&1) ||
            fail "gdbus SendMessage failed"
        expect "gdbus SendMessage" "$out" \
            "^\('stock', uint32 42, 're:echo', '\{\"hello\":\"world\"\}', \[.*\]\)$"
        # Plain words work too: gdbus types them from the introspection.
        out=$(gdbus call --system --dest "$DEST" --object-path "$OBJECT" \
            --method "$DEST.SendMessage" me 41 echo '{}' 2>&1) || fail "gdbus SendMessage (untyped) failed"
        expect "gdbus SendMessage, untyped" "$out" "^\('stock', uint32 42, 're:echo', '\{\}', "
        if out=$(gdbus call --system --dest "$DEST" --object-path "$OBJECT" \
            --method "$DEST.SendMessageWithBuffer" me 1 info '{}' '@ay [1, 2]' 2>&1); then
            fail "gdbus sent a buffer, which the guide says it cannot: update the guide ($out)"
        else
            expect "gdbus SendMessageWithBuffer (refused by gdbus)" "$out" \
                'Error parsing parameter 5 of type .a\*.'
        fi
        ;;
    dbus-send)
        out=$(dbus-send --system --print-reply --dest="$DEST" "$OBJECT" "$DEST.SendMessage" \
            string:me uint32:41 string:echo string:'{"hello":"world"}' 2>&1) ||
            fail "dbus-send SendMessage failed"
        expect "dbus-send SendMessage" "$(tr -s ' \n' ' ' <<<"$out")" \
            'string "stock" uint32 42 string "re:echo" string "\{"hello":"world"\}"'
        out=$(dbus-send --system --print-reply --dest="$DEST" "$OBJECT" \
            "$DEST.SendMessageWithBuffer" string:me uint32:1 string:info string:'{}' \
            array:byte:1,2 2>&1) || fail "dbus-send SendMessageWithBuffer failed"
        expect "dbus-send SendMessageWithBuffer" "$(tr -s ' \n' ' ' <<<"$out")" "$INFO_1_2"
        ;;
    busctl)
        out=$(busctl --system call "$DEST" "$OBJECT" "$DEST" SendMessage suss \
            me 41 echo '{"hello":"world"}' 2>&1) || fail "busctl SendMessage failed"
        expect "busctl SendMessage" "$out" '^sussa\(y\) "stock" 42 "re:echo" "\{\\"hello\\":\\"world\\"\}" '
        out=$(busctl --system call "$DEST" "$OBJECT" "$DEST" SendMessageWithBuffer sussay \
            me 1 info '{}' 2 1 2 2>&1) || fail "busctl SendMessageWithBuffer (ay) failed"
        expect "busctl SendMessageWithBuffer, ay" "$out" "${INFO_1_2//\"/\\\\\"}"
        out=$(busctl --system call "$DEST" "$OBJECT" "$DEST" SendMessageWithBuffer 'sussa(y)' \
            me 1 echo '{}' 2 1 2 2>&1) || fail "busctl SendMessageWithBuffer (a(y)) failed"
        expect "busctl SendMessageWithBuffer, a(y)" "$out" '^sussa\(y\) "stock" 2 "re:echo" "\{\}" 2 1 2$'
        ;;
    python)
        out=$("$python" - "$DEST" "$OBJECT" <<'PY' 2>&1
import sys

import dbus

dest, path = sys.argv[1], sys.argv[2]
bus = dbus.SystemBus()

# Introspection on: the call names its signature, so the "a*" of the
# introspection data is not used.
service = bus.get_object(dest, path)
reply = service.SendMessage("me", 41, "echo", '{"hello":"world"}',
                            dbus_interface=dest, signature="suss")
print("SendMessage:", str(reply[0]), int(reply[1]), str(reply[2]), str(reply[3]))
reply = service.SendMessageWithBuffer("me", 1, "info", "{}", b"\x01\x02",
                                      dbus_interface=dest, signature="sussay")
print("SendMessageWithBuffer ay:", str(reply[3]))

# Introspection off, the buffer as the framework sends it: a(y).
service = bus.get_object(dest, path, introspect=False)
buffer = dbus.Array([dbus.Struct((dbus.Byte(b),), signature="y") for b in (1, 2)],
                    signature="(y)")
reply = service.SendMessageWithBuffer("me", 1, "echo", "{}", buffer,
                                      dbus_interface=dest, signature="sussa(y)")
print("SendMessageWithBuffer a(y):", [int(s[0]) for s in reply[4]])

# Without a signature an introspecting proxy refuses the buffer.
service = bus.get_object(dest, path)
try:
    service.SendMessageWithBuffer("me", 1, "echo", "{}", b"\x01", dbus_interface=dest)
    print("untyped: sent")
except ValueError as error:
    print("untyped: refused:", error)
PY
        ) || fail "the python client failed"
        echo "$out"
        for pattern in 'SendMessage: stock 42 re:echo \{"hello":"world"\}' \
            "SendMessageWithBuffer ay: .*$INFO_1_2" 'SendMessageWithBuffer a\(y\): \[1, 2\]' \
            'untyped: refused: Corrupt type signature'; do
            [[ "$out" =~ $pattern ]] || fail "python: expected /$pattern/"
        done
        ;;
esac

if [[ $failures -ne 0 ]]; then
    echo "stock client $CLIENT: $failures failure(s)"
    exit 1
fi
echo "stock client $CLIENT: OK"
