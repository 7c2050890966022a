#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Finds the processes a test run left behind: those started since a given
# moment whose executable or command line lies under one of the given
# directories (an argument that is such a path, or an option such as
# --config-file=PATH), or whose working directory lies under a --cwd
# directory. This command, its parents and its own children are never
# counted. Prints one line per process (pid, user, command line) and, with
# --kill, ends each (SIGTERM, then SIGKILL after 5 seconds).
#
# Usage: scripts/leftover-processes.sh --now
#          prints the moment to pass to --since (the start time, in clock
#          ticks since boot, of a process started now)
#        scripts/leftover-processes.sh [--kill] --since TICKS [--cwd DIR]... DIR...
#
# Exits 0 when nothing is left, 1 when something was (killed or not), 2 on
# a usage error. Run as root to see every user's executable and working
# directory; otherwise only the command lines of other users' processes
# are visible.
set -uo pipefail

usage() {
    awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0" >&2
    exit 2
}

# read_stat PID: sets STARTED (field 22 of /proc/PID/stat: the start time,
# in clock ticks since boot) and PARENT (field 4). The fields are counted
# after the command name, which may hold blanks and parentheses and ends at
# the last ")". Without forking: the scan reads every process.
read_stat() {
    local stat fields
    { read -r stat <"/proc/$1/stat"; } 2>/dev/null || return 1
    stat=${stat##*) }
    read -r -a fields <<<"$stat"
    PARENT=${fields[1]}
    STARTED=${fields[19]}
    [[ -n $STARTED ]]
}

if [[ $# -eq 1 && $1 == --now ]]; then
    # A command substitution is a new process: its start is now.
    now=$(read_stat self && echo "$STARTED")
    [[ -n $now ]] || exit 1
    echo "$now"
    exit 0
fi

kill_them=0
since=""
dirs=()
cwd_dirs=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --kill) kill_them=1 ;;
        --since)
            [[ $# -ge 2 && $2 =~ ^[0-9]+$ ]] || usage
            since=$2
            shift ;;
        --cwd)
            [[ $# -ge 2 ]] || usage
            cwd_dirs+=("$(realpath -m "$2")")
            shift ;;
        -h | --help) usage ;;
        -*) usage ;;
        *) dirs+=("$(realpath -m "$1")") ;;
    esac
    shift
done
[[ -n $since && $((${#dirs[@]} + ${#cwd_dirs[@]})) -gt 0 ]] || usage

# under PATH DIR...: PATH is one of the DIRs or lies below one.
under() {
    local path=$1 dir
    shift
    for dir in "$@"; do
        [[ $path == "$dir" || $path == "$dir"/* ]] && return 0
    done
    return 1
}

# mentions ARG DIR...: a command-line argument that is such a path, or an
# option that carries one after "=".
mentions() {
    local arg=$1
    shift
    under "$arg" "$@" && return 0
    [[ $arg == *=* ]] && under "${arg#*=}" "$@"
}

# This command and its parents (up to the first process), and below it its
# own command substitutions: none of them is a leftover.
self=$$
declare -A spared=([$self]=1)
pid=$self
while [[ $pid -gt 1 ]] && read_stat "$pid"; do
    pid=$PARENT
    spared[$pid]=1
done
descends_from_self() {
    local pid=$1 hops=0
    while [[ $pid -gt 1 && $hops -lt 64 ]]; do
        [[ $pid -eq $self ]] && return 0
        read_stat "$pid" || return 1
        pid=$PARENT
        hops=$((hops + 1))
    done
    return 1
}

found=()
for entry in /proc/[0-9]*; do
    pid=${entry#/proc/}
    [[ -n ${spared[$pid]:-} ]] && continue
    read_stat "$pid" || continue
    [[ $STARTED -ge $since ]] || continue
    match=0
    exe=$(readlink "/proc/$pid/exe" 2>/dev/null)
    exe=${exe% (deleted)}
    if [[ -n $exe && ${#dirs[@]} -gt 0 ]] && under "$exe" "${dirs[@]}"; then
        match=1
    fi
    if [[ $match -eq 0 && ${#dirs[@]} -gt 0 ]]; then
        while IFS= read -r -d '' arg; do
            if mentions "$arg" "${dirs[@]}"; then
                match=1
                break
            fi
        done 2>/dev/null <"/proc/$pid/cmdline"
    fi
    if [[ $match -eq 0 && ${#cwd_dirs[@]} -gt 0 ]]; then
        cwd=$(readlink "/proc/$pid/cwd" 2>/dev/null)
        [[ -n $cwd ]] && under "$cwd" "${cwd_dirs[@]}" && match=1
    fi
    [[ $match -eq 1 ]] || continue
    descends_from_self "$pid" && continue
    found+=("$pid")
done

[[ ${#found[@]} -eq 0 ]] && exit 0

for pid in "${found[@]}"; do
    line=$(ps -o pid=,user=,args= -p "$pid" 2>/dev/null) || continue
    echo "leftover process: $(sed -E 's/^ *([0-9]+) +([^ ]+) +/\1 (user \2): /' <<<"$line")"
done
if [[ $kill_them -eq 1 ]]; then
    kill -TERM "${found[@]}" 2>/dev/null
    for _ in $(seq 1 50); do
        alive=()
        for pid in "${found[@]}"; do
            [[ -d /proc/$pid ]] && [[ $(ps -o stat= -p "$pid" 2>/dev/null) != Z* ]] && alive+=("$pid")
        done
        [[ ${#alive[@]} -eq 0 ]] && break
        sleep 0.1
    done
    if [[ ${#alive[@]} -gt 0 ]]; then
        kill -KILL "${alive[@]}" 2>/dev/null
        # Gone before we return (under emulation that can take a moment).
        for _ in $(seq 1 50); do
            still=()
            for pid in "${alive[@]}"; do
                [[ -d /proc/$pid ]] && [[ $(ps -o stat= -p "$pid" 2>/dev/null) != Z* ]] && still+=("$pid")
            done
            [[ ${#still[@]} -eq 0 ]] && break
            sleep 0.1
        done
    fi
    echo "leftover processes: ${#found[@]} ended"
fi
exit 1
