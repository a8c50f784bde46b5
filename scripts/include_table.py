#!/usr/bin/env python3
"""Prints the library's folder-to-folder include table, read from the tree, and checks
that no layer includes a higher one.

Usage: scripts/include_table.py [--root DIR] [--check]

Library code is what the shipped library is built from: the sources each folder's
CMakeLists.txt adds to kmxc_objects, every header they reach through quoted includes,
and the installed headers (<folder>/<folder>.h). Tests, benchmarks and their helpers
are left out: they may include the virtual phone. Each cell counts the include lines
of the row folder's files that name a header of the column folder.

Below the table, the library headers that code outside the library (the kit, the
tools, the virtual phone, ...) includes, each marked when it is not installed.

--check exits 1 when a folder includes one above it in LAYERS (listed bottom first).
"""
import argparse
import os
import re
import sys

LAYERS = ["common", "platform", "numerics", "smb380", "drivers", "calibration", "orientation"]
OUTSIDE = ["service", "tools", "vphone", "bench", "fuzz", "contract", "packaging"]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def includes_of(root, path):
    with open(os.path.join(root, path), encoding="utf-8") as f:
        return INCLUDE.findall(f.read())


def objects_sources(root, folder):
    """Sources the folder's CMakeLists.txt adds to kmxc_objects, ${VAR} lists expanded."""
    path = os.path.join(root, folder, "CMakeLists.txt")
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as f:
        text = re.sub(r"#[^\n]*", "", f.read())
    variables = {m.group(1): m.group(2).split() for m in re.finditer(r"set\((\w+)\s+([^)]*)\)", text)}
    sources = []
    for m in re.finditer(r"target_sources\(kmxc_objects\s+PRIVATE\s+([^)]*)\)", text):
        for word in m.group(1).split():
            v = re.fullmatch(r"\$\{(\w+)\}", word)
            sources += variables.get(v.group(1), []) if v else [word]
    return [f"{folder}/{s}" for s in sources]


def library_files(root):
    todo = [f"{folder}/{folder}.h" for folder in LAYERS if os.path.exists(os.path.join(root, folder, folder + ".h"))]
    for folder in LAYERS:
        todo += objects_sources(root, folder)
    seen = set()
    while todo:
        path = todo.pop()
        if path in seen or not os.path.exists(os.path.join(root, path)):
            continue
        seen.add(path)
        todo += includes_of(root, path)
    return sorted(p for p in seen if p.split("/")[0] in LAYERS)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--root", default=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    ap.add_argument("--check", action="store_true", help="fail when a layer includes a higher one")
    args = ap.parse_args()
    root = args.root

    layers = [f for f in LAYERS if os.path.isdir(os.path.join(root, f))]
    files = library_files(root)
    cells, upward = {}, []
    for path in files:
        src = path.split("/")[0]
        for inc in includes_of(root, path):
            dst = inc.split("/")[0]
            if dst == src or dst not in layers:
                continue
            cells[(src, dst)] = cells.get((src, dst), 0) + 1
            if layers.index(dst) > layers.index(src):
                upward.append(f"{path} includes {inc}")

    width = max(len(f) for f in layers) + 1
    print("library code (non-test): row folder includes column folder, include lines")
    print(" " * width + " ".join(f"{f[:6]:>6}" for f in layers))
    for src in reversed(layers):
        row = [str(cells.get((src, dst), "")) if dst != src else "." for dst in layers]
        print(f"{src:<{width}}" + " ".join(f"{c:>6}" for c in row))

    installed = {f"{f}/{f}.h" for f in layers}
    print("\nlibrary headers included from outside the library (* not installed):")
    for folder in OUTSIDE:
        if not os.path.isdir(os.path.join(root, folder)):
            continue
        used = {}
        for dirpath, _, names in os.walk(os.path.join(root, folder)):
            for name in names:
                if not name.endswith((".c", ".cpp", ".h")):
                    continue
                rel = os.path.relpath(os.path.join(dirpath, name), root)
                for inc in includes_of(root, rel):
                    if inc.split("/")[0] in layers:
                        used.setdefault(inc, set()).add(rel)
        if used:
            listed = ", ".join(f"{inc}{'' if inc in installed else '*'}" for inc in sorted(used))
            print(f"  {folder}: {listed}")

    if upward:
        print("\nupward includes:\n  " + "\n  ".join(upward))
    if args.check and upward:
        sys.exit(1)


if __name__ == "__main__":
    main()
