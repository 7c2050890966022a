#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Regenerates the binary-interface baseline under abi/ from a fresh Release
# build (see scripts/check-abi.sh). Run it when a change of the interface is
# deliberate, and commit abi/ with that change.
#
# Usage: scripts/update-abi.sh
set -euo pipefail
exec bash "$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/check-abi.sh" --update "$@"
