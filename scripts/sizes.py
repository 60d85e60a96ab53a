#!/usr/bin/env python3
"""The house's sizes, as the engineering standards count them: the largest files, the longest
functions (a body of braces at namespace level, by line count), the share of test lines.
Usage: scripts/sizes.py [--limit-file N] [--limit-function N]   (exit 1 when a limit is passed)"""
import re
import subprocess
import sys

args = sys.argv[1:]
limit_file = int(args[args.index("--limit-file") + 1]) if "--limit-file" in args else None
limit_function = int(args[args.index("--limit-function") + 1]) if "--limit-function" in args else None

files = subprocess.run(["git", "ls-files", "src", "tests", "bench", "tools"], capture_output=True, text=True,
                       check=True).stdout.split()
files = [f for f in files if f.endswith((".cpp", ".h", ".c"))]


def lines_of(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        return f.read().split("\n")


def functions(path):
    """(name, first line, length) of each function body opened at brace depth 0 or inside a namespace."""
    text = lines_of(path)
    out = []
    depth = 0
    namespace_depths = []
    start = None
    name = ""
    for number, line in enumerate(text, 1):
        code = re.sub(r'"(?:[^"\\]|\\.)*"|//.*', "", line)
        for ch in code:
            if ch == "{":
                opens_namespace = re.search(r"\bnamespace\b[^{;]*$", code.split("{")[0]) is not None
                if opens_namespace:
                    namespace_depths.append(depth)
                elif start is None and depth == (len(namespace_depths)) and not re.search(
                        r"\b(class|struct|enum|union)\b", code):
                    start = number
                    match = re.search(r"([\w:~<>]+)\s*\([^()]*", code) or re.search(r"([\w:~<>]+)\s*\(", text[number - 2])
                    name = match.group(1) if match else "?"
                depth += 1
            elif ch == "}":
                depth -= 1
                if namespace_depths and depth == namespace_depths[-1]:
                    namespace_depths.pop()
                elif start is not None and depth == len(namespace_depths):
                    out.append((name, start, number - start + 1))
                    start = None
    return out


sizes = sorted(((len(lines_of(f)), f) for f in files), reverse=True)
funcs = sorted(((n, f, name, first) for f in files if f.startswith("src/") for name, first, n in functions(f)),
               reverse=True)
src = sum(n for n, f in sizes if f.startswith("src/"))
tests = sum(n for n, f in sizes if f.startswith("tests/"))
print("largest files:")
for n, f in sizes[:5]:
    print(f"  {n:5d}  {f}")
print("longest functions in src/:")
for n, f, name, first in funcs[:5]:
    print(f"  {n:5d}  {f}:{first}  {name}")
print(f"lines: src {src}, tests {tests}; tests are {100 * tests / (src + tests):.0f} % of the two")
failed = False
if limit_file and any(n > limit_file for n, f in sizes if f.startswith("src/")):
    print(f"a file in src/ is over {limit_file} lines", file=sys.stderr)
    failed = True
if limit_function and funcs and funcs[0][0] > limit_function:
    print(f"a function in src/ is over {limit_function} lines", file=sys.stderr)
    failed = True
sys.exit(1 if failed else 0)
