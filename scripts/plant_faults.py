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
where \n in from and to stands for a line break.
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
        if not sep or key.strip() not in ("name", "file", "from", "to"):
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


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--only", nargs="*", default=None, help="plant only these faults")
    ap.add_argument("--list", action="store_true", help="list the faults and stop")
    ap.add_argument("--work", default="build-faults", help="scratch folder for the worktree and its build")
    args = ap.parse_args()
    work = os.path.join(ROOT, args.work)
    tree, build = os.path.join(work, "tree"), os.path.join(work, "build")

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
        r = run(["cmake", "-S", tree, "-B", build, "-G", "Ninja"])
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
            with open(path, "w", encoding="utf-8") as fh:
                fh.write(original.replace(f["from"], f["to"]))
            try:
                b = run(["cmake", "--build", build, "-j", str(os.cpu_count() or 2)])
                if b.returncode != 0:
                    print(f"{f['name']}: does not build (not a valid fault)")
                    missed += 1
                    continue
                t = run(["ctest", "--test-dir", build, "-j", str(os.cpu_count() or 2), "--timeout", "300",
                         "--output-on-failure", "-LE", "sweep"])  # the sweeps: minutes per fault
                caught = t.returncode != 0
                verdict = "caught by " + "; ".join(failures(t.stdout)) if caught else "MISSED"
                print(f"{f['name']}: {verdict}  [{time.time() - start:.0f} s]", flush=True)
                missed += 0 if caught else 1
            finally:
                with open(path, "w", encoding="utf-8") as fh:
                    fh.write(original)
    finally:
        run(["git", "-C", ROOT, "worktree", "remove", "--force", tree])
    print(f"{len(faults) - missed} of {len(faults)} faults caught")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
