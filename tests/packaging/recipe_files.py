#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares what `cmake --install` installs with the %files sections of the
package recipe, so that the two cannot drift apart.

    recipe_files.py RECIPE BUILD_DIR WORK_DIR

The recipe is parsed by rpmspec -P (which must succeed) with the install
directories of BUILD_DIR's cache, so the paths agree with a staged install
of BUILD_DIR under prefix /usr. Fails when an installed file is in no
%files section, when one is in two sections, or when a %files entry
matches nothing that is installed. The host platform layer is left out: the
recipe builds against the Tizen platform, where that layer is not built.
Entries marked %license or %doc with a relative path name files of the
source tree (rpm copies them): each must exist beside the recipe's
directory. The main package must carry the licence, and no package may
install a system-bus policy: the only one in the tree is the demo's, which
would let root own its name on every device.

Before the real comparison the check proves it can fail: a recipe without
the harvo-bus line must leave /usr/bin/harvo-bus uncovered, and one with an
extra entry must report it as matching nothing.
"""
import fnmatch
import os
import re
import shutil
import subprocess
import sys

PREFIX = "/usr"
# Files of the host platform layer: not built, so not packaged, on Tizen.
HOST_ONLY = re.compile(r"harvo-host-platform")
# Lines of a %files section that name no path.
DIRECTIVES = re.compile(r"^%(manifest|defattr|exclude)\b")
# Prefixes of an entry that qualify the path after them.
QUALIFIERS = re.compile(r"^(%(config|doc|license|ghost|verify|attr|dir)(\([^)]*\))?\s+)+")
SECTIONS = re.compile(r"^%(package|description|prep|build|install|check|clean|files|changelog|"
                      r"pre|post|preun|postun|pretrans|posttrans|triggerin|triggerun)\b")


def fail(text):
    print("FAIL: " + text)
    sys.exit(1)


def cache_value(build_dir, name):
    with open(os.path.join(build_dir, "CMakeCache.txt")) as cache:
        for line in cache:
            if line.startswith(name + ":"):
                return line.rstrip("\n").split("=", 1)[1]
    fail("%s not in %s/CMakeCache.txt" % (name, build_dir))


def install_dirs(build_dir):
    """The recipe's directory macros as the build tree installs them."""
    # GNUInstallDirs leaves DATADIR and MANDIR empty in the cache when they
    # follow DATAROOTDIR.
    dataroot = cache_value(build_dir, "CMAKE_INSTALL_DATAROOTDIR") or "share"
    fallback = {"DATADIR": dataroot, "MANDIR": dataroot + "/man"}
    dirs = {}
    for var, macro in (("LIBDIR", "_libdir"), ("BINDIR", "_bindir"),
                       ("INCLUDEDIR", "_includedir"), ("DATADIR", "_datadir"),
                       ("MANDIR", "_mandir")):
        value = cache_value(build_dir, "CMAKE_INSTALL_" + var) or fallback[var]
        dirs[macro] = value if os.path.isabs(value) else PREFIX + "/" + value
    lib = cache_value(build_dir, "CMAKE_INSTALL_LIBDIR")
    dirs["_lib"] = os.path.basename(lib)
    dirs["_prefix"] = PREFIX
    return dirs


# A %license or %doc entry with a relative path: a file of the sources.
SOURCE_DOCUMENT = re.compile(r"^%(license|doc)\s+([^/%\s]\S*)$")


def parse_recipe(recipe, dirs, documents):
    """{package: [entry, ...]} of the recipe's %files sections; the source
    documents go to |documents| as (package, path)."""
    command = ["rpmspec", "-P", recipe]
    for macro, value in dirs.items():
        command += ["--define", "%s %s" % (macro, value)]
    parsed = subprocess.run(command, capture_output=True, text=True)
    if parsed.returncode != 0:
        fail("rpmspec -P %s failed:\n%s" % (recipe, parsed.stderr))
    files = {}
    current = None
    for raw in parsed.stdout.splitlines():
        line = raw.strip()
        if SECTIONS.match(line):
            current = None
            if line.startswith("%files"):
                words = line.split()
                current = "main" if len(words) == 1 else words[-1]
                files.setdefault(current, [])
            continue
        if current is None or not line or line.startswith("#") or DIRECTIVES.match(line):
            continue
        document = SOURCE_DOCUMENT.match(line)
        if document:
            documents.append((current, document.group(2)))
            continue
        only_dir = bool(re.search(r"%dir\s", line))
        path = QUALIFIERS.sub("", line)
        files[current].append((path, only_dir))
    if not files:
        fail("no %files section in " + recipe)
    return files


def staged_files(build_dir, root):
    shutil.rmtree(root, ignore_errors=True)
    env = dict(os.environ, DESTDIR=root)
    done = subprocess.run(["cmake", "--install", build_dir, "--prefix", PREFIX],
                          env=env, capture_output=True, text=True)
    if done.returncode != 0:
        fail("cmake --install failed:\n" + done.stdout + done.stderr)
    paths = set()
    for directory, subdirs, names in os.walk(root):
        for name in names + [d for d in subdirs if os.path.islink(os.path.join(directory, d))]:
            paths.add("/" + os.path.relpath(os.path.join(directory, name), root))
    return sorted(paths)


def covers(entry, path):
    pattern, only_dir = entry
    if only_dir:
        return False
    if pattern.endswith("/") or not any(c in pattern for c in "*?["):
        base = pattern.rstrip("/")
        if path == base or path.startswith(base + "/"):
            return True
    return fnmatch.fnmatchcase(path, pattern)


def compare(files, installed):
    """The problems found, one text each."""
    problems = []
    used = set()
    for path in installed:
        owners = [(package, entry) for package, entries in files.items()
                  for entry in entries if covers(entry, path)]
        packages = sorted({package for package, _ in owners})
        used.update(entry for _, entry in owners)
        if not packages:
            problems.append("installed but in no %%files section: %s" % path)
        elif len(packages) > 1:
            problems.append("in the %%files of %s at once: %s" % (", ".join(packages), path))
    for package, entries in files.items():
        for entry in entries:
            if entry not in used and not entry[1]:
                problems.append("%%files %s lists %s, which is not installed" % (package, entry[0]))
    return problems


def main():
    if len(sys.argv) != 4:
        print(__doc__)
        return 2
    recipe, build_dir, work = sys.argv[1:4]
    os.makedirs(work, exist_ok=True)
    dirs = install_dirs(build_dir)
    installed_all = staged_files(build_dir, os.path.join(work, "root"))
    installed = [p for p in installed_all if not HOST_ONLY.search(p)]
    print("installed: %d files (%d of the host platform layer left out)"
          % (len(installed), len(installed_all) - len(installed)))
    documents = []
    files = parse_recipe(recipe, dirs, documents)
    for package, entries in sorted(files.items()):
        print("%%files %s: %s" % (package, " ".join(e[0] for e in entries)))
    source_root = os.path.dirname(os.path.dirname(os.path.abspath(recipe)))
    for package, path in documents:
        print("%%files %s: %s from the sources" % (package, path))
        if not os.path.isfile(os.path.join(source_root, path)):
            fail("%%files %s names %s, which the sources do not have" % (package, path))
    if ("main", "LICENSE") not in documents:
        fail("the main package does not carry the licence (%license LICENSE)")
    policies = [p for p in installed if "/dbus-1/" in p]
    if policies:
        fail("a bus policy is installed: %s" % " ".join(policies))

    # The comparison must be able to fail.
    tool = dirs["_bindir"] + "/harvo-bus"
    without_tool = {p: [e for e in es if e[0] != tool] for p, es in files.items()}
    if not any("no %%files section: %s" % tool in p for p in compare(without_tool, installed)):
        fail("a recipe without %s was not reported" % tool)
    extra = dict(files, main=files.get("main", []) + [("/usr/lib/not-installed.so", False)])
    if not any("not-installed.so" in p for p in compare(extra, installed)):
        fail("a %files entry that matches nothing was not reported")

    problems = compare(files, installed)
    for problem in problems:
        print("FAIL: " + problem)
    if problems:
        return 1
    print("every installed file is in exactly one %files section, every entry is installed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
