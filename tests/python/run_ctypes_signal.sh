#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs ctypes_signal.py on a private bus under an interpreter named
# "harvo_python". Without an application in the process, a gadget's bus name
# starts with the executable's file name, and an interpreter called, say,
# "python3.11" would give the element "11", which D-Bus refuses (an element
# must not start with a digit). A copy of the interpreter under a plain name
# avoids that; the interpreter finds its library from its compiled-in prefix.
#
# Usage: run_ctypes_signal.sh PYTHON SCRIPTS_DIR WORK_DIR LIBHARVO HARVO_BUS
set -euo pipefail
PYTHON=$1 SCRIPTS=$2 WORK=$3 LIB=$4 TOOL=$5
mkdir -p "$WORK"
# The interpreter itself, not a wrapper script in front of it.
real_python=$(readlink -f "$("$PYTHON" -c 'import sys; print(sys.executable)')")
cp "$real_python" "$WORK/harvo_python"
home=$("$real_python" -c 'import sys; print(sys.base_prefix)')
export PYTHONHOME=$home
exec bash "$SCRIPTS/private-bus.sh" -- "$WORK/harvo_python" \
    "$(dirname "${BASH_SOURCE[0]}")/ctypes_signal.py" "$LIB" "$TOOL"
