#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Formats the C and C++ sources with the repository's .clang-format.
#
# Usage: scripts/format.sh [--check]
#   --check   change nothing; list the files that need formatting and exit
#             non-zero if there are any
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT"

check=0
case "${1:-}" in
    --check) check=1 ;;
    "") ;;
    -h|--help) awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; exit 0 ;;
    *) echo "format.sh: unknown option '$1'" >&2; exit 2 ;;
esac

if ! command -v clang-format >/dev/null; then
    echo "format.sh: clang-format not found (run scripts/install-deps.sh)" >&2
    exit 1
fi

dirs=()
for d in include src platform tests examples tools bench; do
    [[ -d "$d" ]] && dirs+=("$d")
done

# Build directories never live under these folders, but skip any that do.
mapfile -d '' files < <(find "${dirs[@]}" \
    \( -name 'build*' -o -name '_install*' \) -prune -o \
    -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \) \
    -print0 | sort -z)

if [[ ${#files[@]} -eq 0 ]]; then
    echo "format.sh: no sources found"
    exit 0
fi

if [[ $check -eq 0 ]]; then
    clang-format -i --style=file "${files[@]}"
    echo "format.sh: formatted ${#files[@]} files"
    exit 0
fi

unformatted=()
for f in "${files[@]}"; do
    if ! clang-format --style=file --dry-run --Werror "$f" >/dev/null 2>&1; then
        unformatted+=("$f")
    fi
done
if [[ ${#unformatted[@]} -gt 0 ]]; then
    echo "format.sh: these files need formatting (run scripts/format.sh):"
    printf '  %s\n' "${unformatted[@]}"
    exit 1
fi
echo "format.sh: all ${#files[@]} files formatted"
