#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/leftover-processes.sh, the test command's check for processes a
# test left running, on a scratch tree of its own (never the real one,
# where other tests run at the same time):
#
#   - it finds, lists (pid, user, command line) and with --kill ends what
#     was started since --since: a copy of a program that lies in the tree,
#     a program given a path in the tree as an argument or inside an option
#     (--config-file=PATH), a program whose working directory is under a
#     --cwd directory; and then exits 1;
#   - it leaves alone what was started before --since, what merely runs
#     elsewhere, and its own parents (here a script that lies in the tree);
#   - run again, it finds nothing and exits 0.
#
# Usage: leftover_processes_test.sh SCRIPTS_DIR
set -uo pipefail

CHECK="$1/leftover-processes.sh"
TREE=$(mktemp -d /tmp/harvo-leftover-XXXXXX)
mkdir -p "$TREE/build" "$TREE/elsewhere"
cp "$(command -v sleep)" "$TREE/build/sleeper"

STARTED=()   # every process this test starts, ended by the cleanup
cleanup() {
    local pid
    for pid in "${STARTED[@]}"; do
        kill -KILL "$pid" 2>/dev/null
    done
    rm -rf "$TREE"
}
trap cleanup EXIT

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

alive() {
    [[ -d /proc/$1 ]] && [[ $(ps -o stat= -p "$1" 2>/dev/null) != Z* ]]
}

# orphan DIR COMMAND...: starts COMMAND in DIR, in the background of a
# subshell that ends at once, so that it is left without its parent as a
# test's leftover is; prints its pid.
orphan() {
    local dir=$1
    shift
    (cd "$dir" && exec "$@" </dev/null >/dev/null 2>&1) &
    echo $!
}

# Started before the moment the check looks from: never counted.
before=$(orphan "$TREE/build" "$TREE/build/sleeper" 300)
STARTED+=("$before")
# The start time has a resolution of a clock tick.
sleep 0.1
since=$(bash "$CHECK" --now)
[[ $since =~ ^[0-9]+$ ]] || fail "--now printed '$since'"
sleep 0.1

copy=$(orphan "$TREE/elsewhere" "$TREE/build/sleeper" 301)
argument=$(orphan "$TREE/elsewhere" python3 -c 'import time; time.sleep(302)' "$TREE/build/peer.conf")
option=$(orphan "$TREE/elsewhere" python3 -c 'import time; time.sleep(303)' \
    "--config-file=$TREE/build/bus.conf")
working=$(orphan "$TREE/build" sleep 304)
unrelated=$(orphan "$TREE/elsewhere" sleep 305)
STARTED+=("$copy" "$argument" "$option" "$working" "$unrelated")

# The check run by a script that lies in the tree: its parent is spared.
cat >"$TREE/build/run-check.sh" <<'EOF'
check=$1
shift
bash "$check" "$@"
EOF
output=$(bash "$TREE/build/run-check.sh" "$CHECK" --kill --since "$since" \
    --cwd "$TREE/build" "$TREE" 2>&1)
status=$?
echo "$output"
[[ $status -eq 1 ]] || fail "the check exited $status with leftovers"
user=$(id -un)
for pid in "$copy" "$argument" "$option" "$working"; do
    grep -qE "^leftover process: $pid \(user $user\): " <<<"$output" ||
        fail "process $pid ($(tr '\0' ' ' </proc/"$pid"/cmdline 2>/dev/null)) is not listed"
done
# Under user-mode emulation (the armv7l stage) the kernel's command line
# starts with the emulator's own arguments: only its end is the program's.
grep -qE "^leftover process: $copy \(user $user\): (.* )?$TREE/build/sleeper 301\$" <<<"$output" ||
    fail "the listed command line of $copy is not its own"
[[ $(grep -c '^leftover process: ' <<<"$output") -eq 4 ]] ||
    fail "not exactly the four leftovers are listed"
grep -qx "leftover processes: 4 ended" <<<"$output" || fail "no count of ended processes"
for pid in "$before" "$unrelated"; do
    grep -q "^leftover process: $pid " <<<"$output" && fail "process $pid was listed"
    alive "$pid" || fail "process $pid was ended"
done
for pid in "$copy" "$argument" "$option" "$working"; do
    # Generous: processes under emulation end slowly on a loaded machine.
    for _ in $(seq 1 200); do
        alive "$pid" || break
        sleep 0.05
    done
    alive "$pid" && fail "leftover $pid still runs after --kill: $(ps -o pid=,stat=,args= -p "$pid")"
done

# Nothing is left now.
output=$(bash "$CHECK" --kill --since "$since" --cwd "$TREE/build" "$TREE" 2>&1)
status=$?
[[ $status -eq 0 && -z $output ]] || fail "a second check exited $status: $output"

# Without --cwd, a program in the tree's directory that names nothing in it
# is not counted; without --kill, nothing is ended.
working=$(orphan "$TREE/build" sleep 306)
STARTED+=("$working")
bash "$CHECK" --since "$since" "$TREE" >/dev/null 2>&1 || fail "counted by its working directory alone"
bash "$CHECK" --since "$since" --cwd "$TREE" "$TREE" >/dev/null 2>&1 && fail "--cwd found nothing"
alive "$working" || fail "ended without --kill"

# Usage errors.
bash "$CHECK" --since now "$TREE" >/dev/null 2>&1
[[ $? -eq 2 ]] || fail "a --since that is not a number is not a usage error"
bash "$CHECK" --since "$since" >/dev/null 2>&1
[[ $? -eq 2 ]] || fail "no directory is not a usage error"

if [[ $failures -ne 0 ]]; then
    echo "leftover_processes_test: $failures failure(s)" >&2
    exit 1
fi
echo "leftover_processes_test: passed"
