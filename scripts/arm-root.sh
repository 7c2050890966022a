# Helpers for the armhf root that scripts/test-arm.sh builds and tests in.
# Sourced, not run. Needs root (debootstrap, mount, chroot).
#
# The root is a Debian 12 armhf tree made by debootstrap; its programs run
# on this machine through qemu-user-static and binfmt_misc. It is made once
# and reused: ARM_ROOT_DIR/stamp records the suite, mirror and package list
# it was made with, and a different list makes it anew.

ARM_SUITE=bookworm
# The Debian mirror the root is made from: HARVO_ARM_MIRROR (test-arm.sh
# --mirror sets it) or, when that is empty, the first Debian repository of
# the suite with the main component in this machine's own APT configuration
# (arm_resolve_mirror). The repository names no mirror of its own.
ARM_MIRROR=${HARVO_ARM_MIRROR:-}

# What the tests need inside the root: the libraries to link against (also
# the sysroot of the cross compiler, whose C++ headers and runtime are its
# own), the programs the tests start (bus daemon, gdbus, python3, bash) and
# ctest. No compiler: the one test that compiles (install_consumer) does not
# run here.
ARM_ROOT_PACKAGES=(
    libglib2.0-dev libglib2.0-bin libjsoncpp-dev
    dbus-daemon dbus-bin
    libgtest-dev libgmock-dev
    python3
    cmake pkg-config
    procps
)

# Host packages: the emulator, its binfmt_misc registration, the root's
# maker and the cross compiler.
ARM_HOST_PACKAGES=(qemu-user-static binfmt-support debootstrap g++-arm-linux-gnueabihf)

# arm_apt_mirror [APT_DIR [SUITE]]: prints the URI of the first repository
# in APT_DIR's sources (default /etc/apt) of type deb, for SUITE (default
# ARM_SUITE) exactly, with the component main, and an http, https or file
# URI. APT's order: APT_DIR/sources.list, then the files of
# sources.list.d/ by name, one-line *.list files and deb822 *.sources files
# alike (other names, such as *.list.save or *.disabled, are not read).
# Exits 1, printing nothing, when there is none.
arm_apt_mirror() {
    local apt_dir=${1:-/etc/apt} suite=${2:-$ARM_SUITE}
    local files=() file
    [[ -f "$apt_dir/sources.list" ]] && files+=("$apt_dir/sources.list")
    while IFS= read -r -d '' file; do
        files+=("$file")
    done < <(find "$apt_dir/sources.list.d" -maxdepth 1 -type f \( -name '*.list' -o -name '*.sources' \) \
        -print0 2>/dev/null | sort -z)
    local uri
    for file in "${files[@]}"; do
        if [[ $file == *.sources ]]; then
            uri=$(arm_apt_deb822_mirror "$suite" <"$file")
        else
            uri=$(arm_apt_one_line_mirror "$suite" <"$file")
        fi
        if [[ -n $uri ]]; then
            echo "$uri"
            return 0
        fi
    done
    return 1
}

# One-line sources ("deb [options] URI SUITE COMPONENT...") on standard
# input: the first matching URI.
arm_apt_one_line_mirror() {
    awk -v suite="$1" '
        { sub(/#.*/, "") }
        $1 != "deb" { next }
        {
            i = 2
            if ($i ~ /^\[/) {            # options, which may hold blanks
                while (i <= NF && $i !~ /\]$/) i++
                i++
            }
            uri = $i; dist = $(i + 1)
            if (dist != suite || uri !~ /^(https?|file):/) next
            for (c = i + 2; c <= NF; c++) {
                if ($c == "main") { print uri; exit }
            }
        }'
}

# deb822 sources (stanzas of "Field: value" lines, separated by blank lines;
# field names in any case, values continued on lines that start with a
# blank, "#" lines ignored) on standard input: the first URI of the first
# matching stanza that is not disabled.
arm_apt_deb822_mirror() {
    awk -v suite="$1" '
        function has(list, word,   n, parts, k) {
            n = split(list, parts, /[ \t]+/)
            for (k = 1; k <= n; k++) if (parts[k] == word) return 1
            return 0
        }
        function finish(   n, uris, k) {
            if (has(f["types"], "deb") && has(f["suites"], suite) &&
                has(f["components"], "main") && !has(tolower(f["enabled"]), "no")) {
                n = split(f["uris"], uris, /[ \t]+/)
                for (k = 1; k <= n; k++) {
                    if (uris[k] ~ /^(https?|file):/) { print uris[k]; found = 1; exit }
                }
            }
            delete f
            key = ""
        }
        /^#/ { next }
        /^[ \t]*$/ { finish(); next }
        /^[ \t]/ { if (key != "") f[key] = f[key] " " $0; next }
        {
            colon = index($0, ":")
            if (colon == 0) next
            key = tolower(substr($0, 1, colon - 1))
            f[key] = substr($0, colon + 1)
        }
        END { if (!found) finish() }'
}

# Sets ARM_MIRROR from the machine's APT configuration unless it is set.
arm_resolve_mirror() {
    [[ -n $ARM_MIRROR ]] && return 0
    if ! ARM_MIRROR=$(arm_apt_mirror /etc/apt "$ARM_SUITE"); then
        echo "test-arm: no Debian repository for $ARM_SUITE with the main component in" \
            "/etc/apt/sources.list or /etc/apt/sources.list.d/; name a mirror with" \
            "HARVO_ARM_MIRROR=URL or --mirror URL" >&2
        return 1
    fi
}

arm_root_stamp_text() {
    printf 'suite=%s\nmirror=%s\npackages=%s\n' "$ARM_SUITE" "$ARM_MIRROR" "${ARM_ROOT_PACKAGES[*]}"
}

# Registers the emulator for armhf executables with the kernel. The "F"
# flag of Debian's registration opens the interpreter now, so it also works
# inside the chroot, where no qemu binary exists.
arm_enable_binfmt() {
    if [[ ! -e /proc/sys/fs/binfmt_misc/status ]]; then
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc || {
            echo "test-arm: cannot mount binfmt_misc; armhf programs cannot run here" >&2
            return 1
        }
    fi
    update-binfmts --enable qemu-arm >/dev/null 2>&1 || true
    if ! grep -q '^enabled' /proc/sys/fs/binfmt_misc/qemu-arm 2>/dev/null; then
        echo "test-arm: the qemu-arm binfmt_misc entry is not enabled" >&2
        return 1
    fi
}

# Lists the mount points under DIR, deepest first.
arm_mounts_under() {
    local dir
    [[ -d "$1" ]] || return 0
    dir=$(realpath "$1") || return 1
    awk -v d="$dir" '$2 == d || index($2, d "/") == 1 { print $2 }' /proc/self/mounts | sort -r
}

arm_unmount_all() {
    local root=$1 mp
    [[ -d "$root" ]] || return 0
    while read -r mp; do
        [[ -n "$mp" ]] && umount -l "$mp" 2>/dev/null
    done < <(arm_mounts_under "$root")
    return 0
}

# arm_make_root ROOT_DIR: makes ROOT_DIR/rootfs unless the stamp matches.
arm_make_root() {
    local dir=$1
    local rootfs="$dir/rootfs" stamp="$dir/stamp"
    arm_resolve_mirror || return 1
    echo "test-arm: Debian mirror $ARM_MIRROR"
    if [[ -f "$stamp" && "$(cat "$stamp")" == "$(arm_root_stamp_text)" && -x "$rootfs/usr/bin/ctest" ]]; then
        echo "test-arm: reusing the armhf root in $rootfs"
        return 0
    fi
    arm_unmount_all "$rootfs"
    if [[ -n "$(arm_mounts_under "$rootfs" 2>/dev/null)" ]]; then
        echo "test-arm: $rootfs still has mounts; not removing it" >&2
        return 1
    fi
    rm -rf --one-file-system "$rootfs" "$stamp"
    mkdir -p "$dir"
    echo "test-arm: making the armhf root in $rootfs (a few minutes, once)"
    local include
    include=$(
        IFS=,
        echo "${ARM_ROOT_PACKAGES[*]}"
    )
    if ! debootstrap --arch=armhf --variant=minbase --include="$include" \
        "$ARM_SUITE" "$rootfs" "$ARM_MIRROR" >"$dir/debootstrap.log" 2>&1; then
        tail -n 30 "$dir/debootstrap.log" >&2
        echo "test-arm: debootstrap failed (log: $dir/debootstrap.log)" >&2
        return 1
    fi
    arm_root_stamp_text >"$stamp"
}

# arm_mount ROOTFS DIR...: /proc, /dev and each DIR (at the same path) into
# the root, so absolute paths written by CMake resolve inside it too.
arm_mount() {
    local rootfs=$1
    shift
    mountpoint -q "$rootfs/proc" || mount -t proc proc "$rootfs/proc" || return 1
    mountpoint -q "$rootfs/dev" || mount --rbind /dev "$rootfs/dev" || return 1
    local d
    for d in "$@"; do
        mkdir -p "$rootfs$d"
        mountpoint -q "$rootfs$d" || mount --bind "$d" "$rootfs$d" || return 1
    done
}
