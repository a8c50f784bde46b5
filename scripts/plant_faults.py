#!/usr/bin/env python3
"""Plants realistic faults in the library, each alone, and names the tests that catch each.

Usage: scripts/plant_faults.py [--only NAME ...] [--list] [--work DIR] [--workers N]

Works on scratch git worktrees (made under build-faults/, removed at the end) of the
tracked files as they stand, uncommitted changes included; never on the checkout
itself. For each fault in scripts/faults.txt it replaces the text, builds the x86-64
tree, runs CTest and restores the text. Faults are planted in several worktrees at
once, one fault in each (--workers, by default one per processor up to four); the
results print in the list's order. A fault that no test catches is a missing
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
import queue
import re
import subprocess
import sys
import threading
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


def plant(fault, tree, build, jobs):
    """Plants one fault in tree, finds the tests that catch it and takes it out again:
    (line to print, whether it was caught)."""
    path = os.path.join(tree, fault["file"])
    with open(path, encoding="utf-8") as fh:
        original = fh.read()
    if original.count(fault["from"]) != 1:
        return f"{fault['name']}: the text occurs {original.count(fault['from'])} times in {fault['file']}; skipped", False
    start = time.time()
    whole_tree_faulted = False
    with open(path, "w", encoding="utf-8") as fh:
        fh.write(original.replace(fault["from"], fault["to"]))
    try:
        caught_by = hinted_test(build, fault["test"], jobs) if "test" in fault else None
        if caught_by is None:
            # Every program now carries the fault: rebuilt whole once it is gone, so no
            # later hinted run starts a stale one.
            whole_tree_faulted = True
            b = run(["cmake", "--build", build, "-j", jobs])
            if b.returncode != 0:
                return f"{fault['name']}: does not build (not a valid fault)", False
            t = run(["ctest", "--test-dir", build, "-j", jobs, "--timeout", "300", "--output-on-failure",
                     "-LE", "sweep"])  # the sweeps: minutes per fault
            caught_by = failures(t.stdout) if t.returncode != 0 else None
        verdict = "caught by " + "; ".join(caught_by) if caught_by else "MISSED"
        line = f"{fault['name']}: {verdict}  [{time.time() - start:.0f} s]"
        first = caught_by[0].split(" ")[0] if caught_by else None
        if first and fault.get("test") != first:
            line += f"\n    hint for its block in faults.txt: test: {first}"
        return line, bool(caught_by)
    finally:
        with open(path, "w", encoding="utf-8") as fh:
            fh.write(original)
        if whole_tree_faulted:
            run(["cmake", "--build", build, "-j", jobs])


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--only", nargs="*", default=None, help="plant only these faults")
    ap.add_argument("--list", action="store_true", help="list the faults and stop")
    ap.add_argument("--work", default="build-faults", help="scratch folder for the worktrees and their builds")
    ap.add_argument("--workers", type=int, default=min(os.cpu_count() or 1, 4),
                    help="faults planted at once, each in its own worktree (1..16)")
    args = ap.parse_args()
    if not 1 <= args.workers <= 16:
        sys.exit(f"--workers {args.workers}: 1..16")
    work = os.path.join(ROOT, args.work)

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

    # Each worktree's build folder inside it, as build/ is inside the checkout: with the
    # checkout's compiler cache (KMXC_COMPILER_CACHE of build/, which the test command
    # sets) the builds' compile commands match and the unchanged tree builds from it.
    workers = min(args.workers, max(len(faults), 1))
    trees = [os.path.join(work, "tree" if i == 0 else f"tree-{i}") for i in range(workers)]
    for tree in trees:
        if os.path.exists(tree):
            sys.exit(f"{tree} exists (a run in progress, or one that was stopped): remove it with "
                     f"'git worktree remove --force {tree}'")
    os.makedirs(work, exist_ok=True)
    # The tracked files as they stand, uncommitted changes included (git stash create
    # records them without touching the checkout); HEAD when there are none.
    snapshot = run(["git", "-C", ROOT, "stash", "create"]).stdout.strip() or "HEAD"
    made = []
    cpus = str(os.cpu_count() or 2)
    jobs = str(max(1, (os.cpu_count() or 2) // workers))
    results = [None] * len(faults)
    try:
        for tree in trees:
            r = run(["git", "-C", ROOT, "worktree", "add", "--detach", tree, snapshot])
            if r.returncode != 0:
                sys.exit(r.stdout)
            made.append(tree)
            build = os.path.join(tree, "build")
            r = run(["cmake", "-S", tree, "-B", build, "-G", "Ninja"] + compiler_cache())
            if r.returncode != 0:
                sys.exit(r.stdout)
            r = run(["cmake", "--build", build, "-j", cpus])
            if r.returncode != 0:
                sys.exit("the unchanged tree does not build:\n" + r.stdout[-3000:])

        todo = queue.Queue()
        for i in range(len(faults)):
            todo.put(i)
        done = threading.Condition()

        def worker(tree):
            while True:
                try:
                    i = todo.get_nowait()
                except queue.Empty:
                    return
                try:
                    outcome = plant(faults[i], tree, os.path.join(tree, "build"), jobs)
                except Exception as e:  # reported as a miss, never left waited for
                    outcome = (f"{faults[i]['name']}: could not be planted: {e}", False)
                with done:
                    results[i] = outcome
                    done.notify()

        threads = [threading.Thread(target=worker, args=(tree,), daemon=True) for tree in trees]
        for t in threads:
            t.start()
        # In the list's order, each as soon as it and every fault before it are done.
        for i in range(len(faults)):
            with done:
                done.wait_for(lambda: results[i] is not None)
            print(results[i][0], flush=True)
        for t in threads:
            t.join()
    finally:
        for tree in made:
            run(["git", "-C", ROOT, "worktree", "remove", "--force", tree])
    missed = sum(1 for r in results if r is None or not r[1])
    print(f"{len(faults) - missed} of {len(faults)} faults caught")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
