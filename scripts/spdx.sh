#!/usr/bin/env bash
# The licence line of every source, header, script and CMake file of the
# tree: "SPDX-License-Identifier: Apache-2.0" in the file's own comment
# syntax, on the first line (the second after a "#!" line).
#
#   bash scripts/spdx.sh            adds the line where it is missing
#   bash scripts/spdx.sh --check    lists the files without it; exits 1
#                                   when there is any, 0 otherwise
#
# Files: those git tracks (every file below the root when it is not a git
# work tree, build directories left out). C++ sources take "//", C sources
# and headers "/* */" (they are included from C too), shell and Python
# scripts, CMake files and extension-less scripts with a "#!" line take
# "#". Other files (documentation, data, configuration) are left alone.
# Running it again changes nothing.
#
# Usage: scripts/spdx.sh [--check] [ROOT]   (ROOT: the repository, default
#        the one this script is in)
set -euo pipefail

IDENTIFIER="SPDX-License-Identifier: Apache-2.0"

check=0
if [[ "${1:-}" == "--check" ]]; then
    check=1
    shift
fi
root=${1:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)}
cd "$root"

# candidate_files: every file of the tree, one a line, relative to the root.
candidate_files() {
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files
    else
        find . -type f -not -path './build*' -not -path './.git/*' | sed 's|^\./||'
    fi
}

# comment_for FILE: the licence line in FILE's comment syntax, or nothing
# when FILE is not a source, header, script or CMake file.
comment_for() {
    local file=$1 name
    name=$(basename "$file")
    case "$name" in
        *.cpp | *.cc | *.cxx | *.hpp) echo "// $IDENTIFIER" ;;
        *.c | *.h) echo "/* $IDENTIFIER */" ;;
        *.sh | *.bash | *.py | *.cmake | *.cmake.in | CMakeLists.txt) echo "# $IDENTIFIER" ;;
        *.*) ;;
        *)
            # An extension-less script: known by its "#!" line.
            if [[ -f "$file" ]] && head -c 2 "$file" | grep -q '^#!'; then
                echo "# $IDENTIFIER"
            fi
            ;;
    esac
}

# has_identifier FILE: the line is among the first five lines.
has_identifier() {
    head -n 5 "$1" | grep -qF "$IDENTIFIER"
}

# add_identifier FILE LINE: LINE goes first, or second after a "#!" line;
# the file keeps its mode.
add_identifier() {
    local file=$1 line=$2 tmp
    tmp=$(mktemp "$file.spdx.XXXXXX")
    if head -n 1 "$file" | grep -q '^#!'; then
        { head -n 1 "$file"; printf '%s\n' "$line"; tail -n +2 "$file"; } >"$tmp"
    else
        { printf '%s\n' "$line"; cat "$file"; } >"$tmp"
    fi
    chmod --reference="$file" "$tmp"
    mv "$tmp" "$file"
}

missing=0
added=0
while IFS= read -r file; do
    [[ -f "$file" && ! -L "$file" ]] || continue
    line=$(comment_for "$file")
    [[ -n "$line" ]] || continue
    has_identifier "$file" && continue
    missing=$((missing + 1))
    if [[ $check -eq 1 ]]; then
        echo "$file"
    else
        add_identifier "$file" "$line"
        added=$((added + 1))
    fi
done < <(candidate_files)

if [[ $check -eq 1 ]]; then
    if [[ $missing -ne 0 ]]; then
        echo "spdx: $missing file(s) without \"$IDENTIFIER\" (run bash scripts/spdx.sh)" >&2
        exit 1
    fi
    echo "spdx: every source, header, script and CMake file carries \"$IDENTIFIER\""
    exit 0
fi
echo "spdx: added the line to $added file(s)"
