#!/usr/bin/env bash
# The armv7l stage's Debian mirror, read from APT sources as scripts/arm-root.sh
# reads them (arm_apt_mirror), on sample configurations written here: the
# one-line and the deb822 forms, the order APT reads the files in, and what
# must not be taken (source repositories, other suites, other components,
# disabled stanzas, files APT does not read). Then the override: a mirror
# named by HARVO_ARM_MIRROR is used without reading the APT sources.
#
# The sample hosts are under .invalid, a name that never resolves.
#
# Usage: apt_mirror_test.sh SCRIPTS_DIR
set -uo pipefail

# shellcheck source=/dev/null
source "$1/arm-root.sh"

WORK=$(mktemp -d /tmp/harvo-apt-XXXXXX)
trap 'rm -rf "$WORK"' EXIT

failures=0
# expect NAME WANTED: arm_apt_mirror on the sample $WORK/NAME prints WANTED
# (and exits 0), or, for an empty WANTED, prints nothing and exits 1.
expect() {
    local name=$1 wanted=$2 got status
    got=$(arm_apt_mirror "$WORK/$name" bookworm)
    status=$?
    if [[ -n $wanted && ($status -ne 0 || $got != "$wanted") ]] ||
        [[ -z $wanted && ($status -ne 1 || -n $got) ]]; then
        echo "FAIL ($name): wanted '${wanted:-nothing, exit 1}', got '$got' (exit $status)" >&2
        failures=$((failures + 1))
    fi
}

# sample NAME FILE: standard input becomes $WORK/NAME/FILE.
sample() {
    mkdir -p "$(dirname "$WORK/$1/$2")"
    cat >"$WORK/$1/$2"
}

# The one-line form: comments, a source repository, other suites and
# components first, options in brackets with and without blanks.
sample one-line sources.list <<'EOF'
# deb http://commented.invalid/debian bookworm main
deb-src http://source.invalid/debian bookworm main
deb http://security.invalid/debian-security bookworm-security main
deb http://contrib.invalid/debian bookworm contrib non-free
deb ftp://old.invalid/debian bookworm main
deb [ arch=amd64 signed-by=/usr/share/keyrings/k.gpg ] http://mirror-a.invalid/debian bookworm contrib main # here
deb http://mirror-b.invalid/debian bookworm main
EOF
expect one-line http://mirror-a.invalid/debian

sample one-line-bracket sources.list <<'EOF'
deb [arch=amd64] https://mirror-c.invalid/debian/ bookworm main non-free-firmware
EOF
expect one-line-bracket https://mirror-c.invalid/debian/

# The deb822 form: a comment inside a stanza, field names in any case, a
# value continued on the next line, several URIs, disabled and source-only
# stanzas first.
sample deb822 sources.list.d/debian.sources <<'EOF'
Types: deb-src
URIs: http://source.invalid/debian
Suites: bookworm
Components: main

Types: deb
URIs: http://disabled.invalid/debian
Suites: bookworm
Components: main
Enabled: no

Types: deb
# http://commented.invalid/debian
URIs: http://updates.invalid/debian
Suites: bookworm-updates
Components: main

types: deb deb-src
uris: cdrom:[Debian]/ http://mirror-d.invalid/debian
  http://mirror-e.invalid/debian
suites: bookworm
  bookworm-updates
components: contrib
  main
EOF
expect deb822 http://mirror-d.invalid/debian

# The last stanza of a file, with no blank line after it.
printf 'Types: deb\nURIs: http://mirror-f.invalid/debian\nSuites: bookworm\nComponents: main' |
    sample deb822-last sources.list.d/last.sources
expect deb822-last http://mirror-f.invalid/debian

# APT's order: sources.list first, then sources.list.d/ by name, both forms
# alike; names APT does not read are skipped.
sample order sources.list <<'EOF'
deb http://first.invalid/debian bookworm-updates main
EOF
sample order sources.list.d/00-disabled.list.disabled <<'EOF'
deb http://ignored.invalid/debian bookworm main
EOF
sample order sources.list.d/05-old.list.save <<'EOF'
deb http://ignored.invalid/debian bookworm main
EOF
sample order sources.list.d/10-other.list <<'EOF'
deb http://other.invalid/apt stable main
EOF
sample order sources.list.d/20-debian.sources <<'EOF'
Types: deb
URIs: http://mirror-g.invalid/debian
Suites: bookworm
Components: main
EOF
sample order sources.list.d/30-more.list <<'EOF'
deb http://mirror-h.invalid/debian bookworm main
EOF
expect order http://mirror-g.invalid/debian

sample sources-list-first sources.list <<'EOF'
deb http://mirror-i.invalid/debian bookworm main
EOF
sample sources-list-first sources.list.d/00-first.list <<'EOF'
deb http://mirror-j.invalid/debian bookworm main
EOF
expect sources-list-first http://mirror-i.invalid/debian

# Nothing that fits: another suite only; no configuration at all.
sample none sources.list <<'EOF'
deb http://mirror-k.invalid/debian trixie main
EOF
sample none sources.list.d/x.sources <<'EOF'
Types: deb
URIs: http://mirror-l.invalid/debian
Suites: bookworm
Components: contrib
EOF
expect none ""
mkdir -p "$WORK/empty"
expect empty ""

# The override: a mirror given by HARVO_ARM_MIRROR is the one used, and the
# APT sources are not needed; without it the machine's sources are read.
(
    ARM_MIRROR=http://override.invalid/debian
    arm_apt_mirror() {
        echo "the APT sources were read" >&2
        return 1
    }
    arm_resolve_mirror && [[ $ARM_MIRROR == http://override.invalid/debian ]]
) || {
    echo "FAIL (override): the mirror given was not used as it is" >&2
    failures=$((failures + 1))
}
overridden=$(HARVO_ARM_MIRROR=http://override.invalid/debian bash -c \
    'source "$1/arm-root.sh" && echo "$ARM_MIRROR"' _ "$1")
[[ $overridden == http://override.invalid/debian ]] || {
    echo "FAIL (override): HARVO_ARM_MIRROR gives '$overridden'" >&2
    failures=$((failures + 1))
}
message=$(
    ARM_MIRROR=""
    arm_apt_mirror() { return 1; }
    arm_resolve_mirror 2>&1
)
[[ $message == *"HARVO_ARM_MIRROR=URL or --mirror URL"* ]] || {
    echo "FAIL (no mirror): the message does not say how to name one: $message" >&2
    failures=$((failures + 1))
}

if [[ $failures -ne 0 ]]; then
    echo "apt_mirror_test: $failures failure(s)" >&2
    exit 1
fi
echo "apt_mirror_test: passed"
