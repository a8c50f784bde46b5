#!/usr/bin/env python3
"""Checks the tree's size limits: no C or C++ source file over 400 lines, no function
over 80. Lists what is over and exits 1; with --top N, also the N longest functions.

Usage: scripts/check_lengths.py [--top N] [ROOT]

Files are those git tracks. A function is a brace block at namespace level whose
opening line (or the lines before it, back to the previous statement) ends a parameter
list; its length runs from its signature's first line to its closing brace. Strings,
characters and comments are skipped when braces are counted.
"""
import argparse
import os
import re
import subprocess
import sys

MAX_FILE_LINES = 400
MAX_FUNCTION_LINES = 80


def code_only(text):
    """The text with comments, strings and character literals blanked (line breaks kept)."""
    out, i, n = [], 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            out.append(" " * (j - i))
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        else:
            out.append(c)
            i += 1
    return "".join(out)


def functions(path):
    """(name, first line, line count) of each function defined at namespace level."""
    with open(path, encoding="utf-8") as f:
        code = code_only(f.read())
    found, stack, since = [], [], 0  # stack: kinds of the open blocks; since: start of the current statement
    line_of = lambda pos: code.count("\n", 0, pos) + 1
    for m in re.finditer(r"[{};]", code):
        ch, pos = m.group(), m.start()
        if ch == "{":
            head = code[since:pos]
            at_namespace = all(k == "namespace" for k in stack)
            words = head.split()
            if re.search(r"\bnamespace\b|extern\s*\"", head) or head.strip().endswith('extern') or (words and words[0] == "extern"):
                kind = "namespace"
            elif at_namespace and re.search(r"\)\s*(const|noexcept|override|final|->[^{]*|\s)*$", head) and not re.search(
                    r"=\s*$|\b(struct|class|enum|union)\b[^()]*$", head):
                name = re.findall(r"([~\w:]+)\s*\(", head)
                kind = ("function", name[0] if name else "?", line_of(since + len(head) - len(head.lstrip())))
            else:
                kind = "block"
            stack.append(kind)
            since = pos + 1
        elif ch == "}":
            if stack:
                kind = stack.pop()
                if isinstance(kind, tuple):
                    found.append((kind[1], kind[2], line_of(pos) - kind[2] + 1))
            since = pos + 1
        else:
            since = pos + 1
    return found


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--top", type=int, default=0, help="also list the N longest functions")
    ap.add_argument("root", nargs="?", default=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    args = ap.parse_args()
    files = subprocess.run(["git", "-C", args.root, "ls-files", "*.c", "*.cpp", "*.h"], capture_output=True,
                           text=True, check=True).stdout.split()
    over, everything = [], []
    for rel in files:
        path = os.path.join(args.root, rel)
        with open(path, encoding="utf-8") as f:
            lines = f.read().count("\n")
        if lines > MAX_FILE_LINES:
            over.append(f"{rel}: {lines} lines (at most {MAX_FILE_LINES})")
        if rel.endswith((".c", ".cpp")):
            for name, first, length in functions(path):
                everything.append((length, f"{rel}:{first} {name}"))
                if length > MAX_FUNCTION_LINES:
                    over.append(f"{rel}:{first}: {name} is {length} lines (at most {MAX_FUNCTION_LINES})")
    for length, where in sorted(everything, reverse=True)[:args.top]:
        print(f"{length:5d}  {where}")
    for line in over:
        print(line)
    print(f"check_lengths: {len(files)} files, {len(everything)} functions; {len(over)} over the limits")
    return 1 if over else 0


if __name__ == "__main__":
    sys.exit(main())
