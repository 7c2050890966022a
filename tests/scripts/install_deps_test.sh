#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/install-deps.sh run by a user who is not root, with a package
# missing: it must not try to install, exit 1, and say how to run it as
# root (and through sudo only where sudo exists). With nothing missing it
# must succeed without root. Runs the script as "nobody" (needs root to
# switch: exits 77, skipped, otherwise).
#
# Usage: install_deps_test.sh SCRIPTS_DIR
set -uo pipefail

SCRIPT=$1/install-deps.sh
[[ $(id -u) -eq 0 ]] || {
    echo "SKIP: needs root (runs the script as nobody)"
    exit 77
}
command -v setpriv >/dev/null || {
    echo "SKIP: setpriv is not installed"
    exit 77
}
as_nobody() { setpriv --reuid=nobody --regid=nogroup --clear-groups -- "$@"; }

# The work tree may sit below a directory that nobody cannot enter (a
# private temporary directory, a home directory): nobody runs a copy.
copy_dir=$(mktemp -d) || exit 1
trap 'rm -rf "$copy_dir"' EXIT
chmod 755 "$copy_dir"
cp "$SCRIPT" "$copy_dir/install-deps.sh" && chmod 755 "$copy_dir/install-deps.sh" || exit 1
SCRIPT=$copy_dir/install-deps.sh

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# A package name that no repository has: always missing.
missing=harvo-no-such-package
output=$(cd / && as_nobody bash "$SCRIPT" "$missing" 2>&1)
status=$?
[[ $status -eq 1 ]] || fail "status $status, not 1, without root"
[[ $output == *"install-deps: missing packages: $missing"* ]] || fail "no list of missing packages: $output"
[[ $output == *"installing the missing packages needs root:"* ]] || fail "no reason given: $output"
[[ $output == *"as root (e.g. after su -):  bash $SCRIPT $missing"* ]] ||
    fail "no root command given: $output"
if command -v sudo >/dev/null; then
    [[ $output == *"or through sudo:            sudo bash $SCRIPT $missing"* ]] ||
        fail "no sudo command given: $output"
else
    [[ $output == *"(there is no sudo on this machine)"* ]] || fail "sudo offered without sudo: $output"
    [[ $output != *"sudo bash"* ]] || fail "a sudo command on a machine without sudo: $output"
fi
[[ $output != *"apt-get"*"Reading"* ]] || fail "it tried to install: $output"

# Everything the project needs is installed here (the build ran): no root needed.
output=$(cd / && as_nobody bash "$SCRIPT" 2>&1)
status=$?
[[ $status -eq 0 && $output == *"already installed"* ]] ||
    fail "with nothing missing: status $status: $output"

if [[ $failures -ne 0 ]]; then
    exit 1
fi
echo "install_deps_test: passed"
