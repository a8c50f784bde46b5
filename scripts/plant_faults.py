#!/usr/bin/env python3
"""Plants realistic faults in the library one at a time and names the tests that catch each.

Usage: scripts/plant_faults.py [--only NAME ...] [--list] [--work DIR]

Works on a scratch git worktree (made under build-faults/, removed at the end) of the
tracked files as they stand, uncommitted changes included; never on the checkout
itself. For each fault in scripts/faults.txt it replaces the text, builds the x86-64
tree, runs CTest and restores the text. A fault that no test catches is a missing
test, and a fault whose text is no longer in its file must be brought up to date: the
script exits 1 on either.

faults.txt: blocks separated by blank lines, each
    name: a short name (what the fault is)
    file: path/in/tree.cpp
    from: the exact text (must occur once in the file)
    to:   the text that replaces it
    test: (optional) the CTest test that caught it last time
where \n in from and to stands for a line break. With a test named, that test's
target alone is built and run first; only when it passes (or it has no target of its
name) is the whole tree built and every test run, so a fault costs one program's
build and run instead of the tree's. A fault caught without a hint, or by another
test than its hint, prints the line to put in its block.
"""
import argparse
import os
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def load_faults(path):
    faults, block = [], {}
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    for line in lines + [""]:
        if line.startswith("#"):
            continue
        if not line.strip():
            if block:
                missing = {"name", "file", "from", "to"} - block.keys()
                if missing:
                    sys.exit(f"faults.txt: '{block.get('name', '?')}' lacks {', '.join(sorted(missing))}")
                faults.append(block)
            block = {}
            continue
        key, sep, value = line.partition(":")
        if not sep or key.strip() not in ("name", "file", "from", "to", "test"):
            sys.exit(f"faults.txt: cannot read line '{line}'")
        value = value[1:] if value.startswith(" ") else value
        block[key.strip()] = value.replace("\\n", "\n") if key.strip() in ("from", "to") else value
    return faults


def failures(ctest_output):
    """The failed CTest tests, each with the GoogleTest cases that failed in it."""
    tests, current = {}, None
    for line in ctest_output.splitlines():
        m = re.search(r"Test +#\d+: (\S+) \.+\**(Failed|Timeout|Exception|Not Run|Subprocess)", line)
        if m:
            current = m.group(1)
            tests.setdefault(current, [])
            continue
        m = re.match(r"\[  FAILED  \] ([\w/.]+)( \(|,| *$)", line)
        if m and current is not None and m.group(1) not in tests[current]:
            tests[current].append(m.group(1))
    return [f"{t} ({', '.join(cases)})" if cases else t for t, cases in tests.items()]


def hinted_test(build, test, jobs):
    """Builds the hinted test's target and runs that test: its failing entries, or None
    when it passed or cannot be run on its own (no target of its name)."""
    b = run(["cmake", "--build", build, "-j", jobs, "--target", test])
    if b.returncode != 0:
        return None
    t = run(["ctest", "--test-dir", build, "-R", f"^{re.escape(test)}$", "--timeout", "300", "--output-on-failure"])
    if "No tests were found" in t.stdout:
        return None
    return failures(t.stdout) if t.returncode != 0 else None


def compiler_cache():
    """The checkout's build's compiler cache setting, to share: [] when it has none."""
    try:
        with open(os.path.join(ROOT, "build", "CMakeCache.txt"), encoding="utf-8") as f:
            m = re.search(r"^KMXC_COMPILER_CACHE:PATH=(.+)$", f.read(), re.M)
    except OSError:
        return []
    return [f"-DKMXC_COMPILER_CACHE={m.group(1)}"] if m else []


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--only", nargs="*", default=None, help="plant only these faults")
    ap.add_argument("--list", action="store_true", help="list the faults and stop")
    ap.add_argument("--work", default="build-faults", help="scratch folder for the worktree and its build")
    args = ap.parse_args()
    work = os.path.join(ROOT, args.work)
    # The build folder inside the worktree, as build/ is inside the checkout: with the
    # checkout's compiler cache (KMXC_COMPILER_CACHE of build/, which the test command
    # sets) the two builds' compile commands match and the unchanged tree builds from it.
    tree = os.path.join(work, "tree")
    build = os.path.join(tree, "build")

    faults = load_faults(os.path.join(ROOT, "scripts", "faults.txt"))
    if args.only:
        unknown = set(args.only) - {f["name"].split(" ")[0] for f in faults}
        if unknown:
            sys.exit(f"unknown fault(s): {', '.join(sorted(unknown))}")
        faults = [f for f in faults if f["name"].split(" ")[0] in args.only]
    if args.list:
        for f in faults:
            print(f"{f['name']}  ({f['file']})")
        return 0

    if os.path.exists(tree):
        sys.exit(f"{tree} exists (a run in progress, or one that was stopped): remove it with "
                 f"'git worktree remove --force {tree}'")
    os.makedirs(work, exist_ok=True)
    # The tracked files as they stand, uncommitted changes included (git stash create
    # records them without touching the checkout); HEAD when there are none.
    snapshot = run(["git", "-C", ROOT, "stash", "create"]).stdout.strip() or "HEAD"
    r = run(["git", "-C", ROOT, "worktree", "add", "--detach", tree, snapshot])
    if r.returncode != 0:
        sys.exit(r.stdout)
    missed = 0
    try:
        r = run(["cmake", "-S", tree, "-B", build, "-G", "Ninja"] + compiler_cache())
        if r.returncode != 0:
            sys.exit(r.stdout)
        r = run(["cmake", "--build", build, "-j", str(os.cpu_count() or 2)])
        if r.returncode != 0:
            sys.exit("the unchanged tree does not build:\n" + r.stdout[-3000:])
        for f in faults:
            path = os.path.join(tree, f["file"])
            with open(path, encoding="utf-8") as fh:
                original = fh.read()
            if original.count(f["from"]) != 1:
                print(f"{f['name']}: the text occurs {original.count(f['from'])} times in {f['file']}; skipped")
                missed += 1
                continue
            start = time.time()
            whole_tree_faulted = False
            with open(path, "w", encoding="utf-8") as fh:
                fh.write(original.replace(f["from"], f["to"]))
            try:
                jobs = str(os.cpu_count() or 2)
                caught_by = hinted_test(build, f["test"], jobs) if "test" in f else None
                if caught_by is None:
                    # Every program now carries the fault: rebuilt whole once it is gone,
                    # so no later hinted run starts a stale one.
                    whole_tree_faulted = True
                    b = run(["cmake", "--build", build, "-j", jobs])
                    if b.returncode != 0:
                        print(f"{f['name']}: does not build (not a valid fault)")
                        missed += 1
                        continue
                    t = run(["ctest", "--test-dir", build, "-j", jobs, "--timeout", "300", "--output-on-failure",
                             "-LE", "sweep"])  # the sweeps: minutes per fault
                    caught_by = failures(t.stdout) if t.returncode != 0 else None
                verdict = "caught by " + "; ".join(caught_by) if caught_by else "MISSED"
                print(f"{f['name']}: {verdict}  [{time.time() - start:.0f} s]", flush=True)
                first = caught_by[0].split(" ")[0] if caught_by else None
                if first and f.get("test") != first:
                    print(f"    hint for its block in faults.txt: test: {first}", flush=True)
                missed += 0 if caught_by else 1
            finally:
                with open(path, "w", encoding="utf-8") as fh:
                    fh.write(original)
                if whole_tree_faulted:
                    run(["cmake", "--build", build, "-j", str(os.cpu_count() or 2)])
    finally:
        run(["git", "-C", ROOT, "worktree", "remove", "--force", tree])
    print(f"{len(faults) - missed} of {len(faults)} faults caught")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
