#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The documentation's links: every page under docs/ is linked from the
# README and from the API reference's front page (docs/mainpage.md), and is
# read by Doxygen (docs/Doxyfile.in); every relative link points at a file
# that exists; links between pages name a page only (page.md, no
# #section), the form that works on a repository browser and in Doxygen.
#
# Usage: links_test.sh SOURCE_DIR
set -uo pipefail

SOURCE=$1
README=$SOURCE/README.md
MAINPAGE=$SOURCE/docs/mainpage.md
DOXYFILE=$SOURCE/docs/Doxyfile.in

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# links FILE: the targets of its markdown links, one a line, without
# absolute URLs; code (fenced blocks, indented blocks, code spans) is not
# read.
links() {
    awk '/^```/ { fenced = !fenced; next } !fenced && !/^    / { gsub(/`[^`]*`/, ""); print }' "$1" |
        grep -oE '\]\([^)[:space:]]+\)' | sed -E 's/^\]\((.*)\)$/\1/' | grep -vE '^[a-z]+:' || true
}

pages=()
for page in "$SOURCE"/docs/*.md; do
    pages+=("$(basename "$page")")
done
echo "pages: ${pages[*]}"
[[ ${#pages[@]} -gt 1 ]] || fail "no pages under docs/"

readme_links=$(links "$README")
mainpage_links=$(links "$MAINPAGE")
input=$(awk '/^INPUT +=/ { sub(/^INPUT +=/, ""); print }' "$DOXYFILE")
for page in "${pages[@]}"; do
    grep -qxF "docs/$page" <<<"$readme_links" || fail "README.md does not link docs/$page"
    if [[ $page != mainpage.md ]]; then
        grep -qxF "$page" <<<"$mainpage_links" || fail "docs/mainpage.md does not link $page"
        [[ " $input " == *" @PROJECT_SOURCE_DIR@/docs/$page "* ]] ||
            fail "docs/Doxyfile.in does not list docs/$page in INPUT"
    fi
done

while read -r target; do
    [[ -z "$target" ]] && continue
    [[ -e "$SOURCE/${target%%#*}" ]] || fail "README.md links $target, which does not exist"
done <<<"$readme_links"

for page in "${pages[@]}"; do
    while read -r target; do
        [[ -z "$target" ]] && continue
        if [[ "$target" == *"#"* ]]; then
            fail "docs/$page links $target: link the page without #section"
        elif [[ "$target" != *.md || "$target" == */* ]]; then
            fail "docs/$page links $target: pages link other pages of docs/ only (name files as code)"
        elif [[ "$target" == mainpage.md ]]; then
            fail "docs/$page links mainpage.md, which is the reference's index, not a page"
        elif [[ ! -e "$SOURCE/docs/$target" ]]; then
            fail "docs/$page links $target, which does not exist"
        fi
    done < <(links "$SOURCE/docs/$page")
done

if [[ $failures -ne 0 ]]; then
    echo "documentation links: $failures failure(s)"
    exit 1
fi
echo "documentation links: OK (${#pages[@]} pages)"
