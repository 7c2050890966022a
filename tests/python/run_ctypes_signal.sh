#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs ctypes_signal.py on a private bus under the given interpreter, as it
# is (a "python3.11" gives the bus name element "_11", which is legal).
#
# Usage: run_ctypes_signal.sh PYTHON SCRIPTS_DIR WORK_DIR LIBHARVO HARVO_BUS
set -euo pipefail
PYTHON=$1 SCRIPTS=$2 LIB=$4 TOOL=$5
exec bash "$SCRIPTS/private-bus.sh" -- "$PYTHON" \
    "$(dirname "${BASH_SOURCE[0]}")/ctypes_signal.py" "$LIB" "$TOOL"
