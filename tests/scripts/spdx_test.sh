#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/spdx.sh on a scratch tree: the licence line goes first, or second
# after a "#!" line, in each file type's comment syntax; data and
# documentation are left alone; a second run changes nothing; --check lists
# the files without the line and exits 1, and exits 0 once every file has
# it.
#
# Usage: spdx_test.sh SCRIPTS_DIR
set -uo pipefail

SCRIPT=$1/spdx.sh
ID="SPDX-License-Identifier: Apache-2.0"

# A scratch tree outside any git work tree: the script lists its files.
tree=$(mktemp -d) || exit 1
trap 'rm -rf "$tree"' EXIT
export GIT_CEILING_DIRECTORIES=$(dirname "$tree")

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

mkdir -p "$tree/src" "$tree/scripts" "$tree/docs" "$tree/cmake"
printf '// A class.\nint a;\n' >"$tree/src/a.cpp"
printf '/* A C file. */\nint b;\n' >"$tree/src/b.c"
printf '#ifndef C_H\n#define C_H\n#endif\n' >"$tree/src/c.h"
printf '#!/usr/bin/env bash\necho hi\n' >"$tree/scripts/run.sh"
printf '#!/usr/bin/env python3\n"""Doc."""\n' >"$tree/scripts/tool.py"
printf '#!/bin/sh\nexit 0\n' >"$tree/scripts/noext"
printf 'project(x)\n' >"$tree/CMakeLists.txt"
printf 'set(a 1)\n' >"$tree/cmake/Rules.cmake"
printf '@PACKAGE_INIT@\n' >"$tree/cmake/xConfig.cmake.in"
printf '# Title\n' >"$tree/docs/page.md"
printf 'plain data\n' >"$tree/data"
printf '// %s\nint d;\n' "$ID" >"$tree/src/done.cpp"
chmod 755 "$tree/scripts/run.sh"

echo "--- --check before"
listed=$(bash "$SCRIPT" --check "$tree" 2>"$tree.err")
status=$?
echo "$listed"
[[ $status -eq 1 ]] || fail "--check exited $status with files missing the line, not 1"
expected_list=$(printf '%s\n' CMakeLists.txt cmake/Rules.cmake cmake/xConfig.cmake.in \
    scripts/noext scripts/run.sh scripts/tool.py src/a.cpp src/b.c src/c.h)
[[ "$(sort <<<"$listed")" == "$(sort <<<"$expected_list")" ]] || fail "--check listed: $listed"
grep -q "9 file(s) without" "$tree.err" || fail "--check did not count: $(cat "$tree.err")"
rm -f "$tree.err"

echo "--- adding"
bash "$SCRIPT" "$tree" || fail "the script failed"

# expect FILE CONTENT: the file's exact content.
expect() {
    [[ "$(cat "$tree/$1")" == "$2" ]] || fail "$1 is now: $(cat "$tree/$1")"
}
expect src/a.cpp "// $ID"$'\n'"// A class."$'\n'"int a;"
expect src/b.c "/* $ID */"$'\n'"/* A C file. */"$'\n'"int b;"
expect src/c.h "/* $ID */"$'\n'"#ifndef C_H"$'\n'"#define C_H"$'\n'"#endif"
expect scripts/run.sh "#!/usr/bin/env bash"$'\n'"# $ID"$'\n'"echo hi"
expect scripts/tool.py "#!/usr/bin/env python3"$'\n'"# $ID"$'\n'"\"\"\"Doc.\"\"\""
expect scripts/noext "#!/bin/sh"$'\n'"# $ID"$'\n'"exit 0"
expect CMakeLists.txt "# $ID"$'\n'"project(x)"
expect cmake/Rules.cmake "# $ID"$'\n'"set(a 1)"
expect cmake/xConfig.cmake.in "# $ID"$'\n'"@PACKAGE_INIT@"
expect docs/page.md "# Title"
expect data "plain data"
expect src/done.cpp "// $ID"$'\n'"int d;"
[[ $(stat -c %a "$tree/scripts/run.sh") == 755 ]] || fail "run.sh lost its mode"

echo "--- again: nothing changes"
before=$(cd "$tree" && find . -type f -exec md5sum {} + | sort)
bash "$SCRIPT" "$tree" | grep -qx 'spdx: added the line to 0 file(s)' || fail "the second run added lines"
after=$(cd "$tree" && find . -type f -exec md5sum {} + | sort)
[[ "$before" == "$after" ]] || fail "the second run changed files"

echo "--- --check after"
bash "$SCRIPT" --check "$tree" || fail "--check failed although every file has the line"

if [[ $failures -ne 0 ]]; then
    echo "spdx script test: $failures failure(s)"
    exit 1
fi
echo "spdx script test: OK"
