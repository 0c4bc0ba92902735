#!/usr/bin/env python3
"""Lists C++ function bodies longer than a limit.

    function_lengths.py [--max N] [--list] PATH...

PATHs are files or folders (searched for .cpp and .h). A function is counted
from the line of its opening brace's header to its closing brace, lambdas and
local classes included in the function that holds them. Exits 1 when any
function is longer than --max lines (default 80), listing each as
`file:line: name: N lines`; --list prints every function with its length.
"""
import argparse
import os
import re
import sys

CONTROL = {"if", "for", "while", "switch", "catch", "do", "else", "return", "sizeof",
           "decltype", "alignof", "static_assert"}


def strip_code(text):
    """Blanks out comments, string and character literals, keeping newlines."""
    out = []
    i, n = 0, len(text)
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
        elif c == "R" and text.startswith('R"', i):
            m = re.match(r'R"([^(\s]*)\(', text[i:])
            if not m:
                out.append(c)
                i += 1
                continue
            end = text.find(")" + m.group(1) + '"', i)
            j = n if end < 0 else end + len(m.group(1)) + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            out.append(c + " " * (j - i - 2) + c if j - i >= 2 else c)
            i = j
        else:
            out.append(c)
            i += 1
    return "".join(out)


def function_name(header):
    """The name before the parameter list of a function header, or None."""
    header = re.sub(r"\s+", " ", header).strip()
    # Drop a constructor's member initialiser list and trailing qualifiers.
    m = re.search(r"([~\w:<>]+)\s*\((.*)\)\s*(const|noexcept|override|final|->[^{]*|\s)*"
                  r"(:\s*[\w:]+\s*[({].*)?$", header)
    if not m:
        return None
    name = m.group(1).split("::")[-1] if m.group(1) else None
    if not name or name in CONTROL or name.isdigit():
        return None
    return m.group(1)


def functions(path):
    text = strip_code(open(path, encoding="utf-8", errors="replace").read())
    lines = text.split("\n")
    # Walk the braces; a brace opens a function when the code since the last
    # ';', '{' or '}' at the same level ends in a parameter list.
    stack = []  # (kind, start line, name)
    header_start = 0
    pos_line = 0
    header = []
    for lineno, line in enumerate(lines, 1):
        for ch in line:
            if ch == "{":
                text_before = "".join(header)
                in_function = any(kind == "function" for kind, _, _ in stack)
                name = None if in_function else function_name(text_before)
                if name and not re.search(r"\b(class|struct|enum|namespace|union)\b[^(]*$",
                                          text_before):
                    start = header_start or lineno
                    stack.append(("function", start, name))
                else:
                    stack.append(("block", lineno, None))
                header = []
                header_start = 0
            elif ch == "}":
                if stack:
                    kind, start, name = stack.pop()
                    if kind == "function":
                        yield name, start, lineno - start + 1
                header = []
                header_start = 0
            elif ch == ";":
                header = []
                header_start = 0
            else:
                if not ch.isspace() and not header_start:
                    header_start = lineno
                header.append(ch)
        header.append("\n")


def sources(paths):
    for p in paths:
        if os.path.isdir(p):
            for root, _, names in os.walk(p):
                for n in sorted(names):
                    if n.endswith((".cpp", ".h")):
                        yield os.path.join(root, n)
        else:
            yield p


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--max", type=int, default=80)
    ap.add_argument("--list", action="store_true")
    ap.add_argument("paths", nargs="+")
    args = ap.parse_args()
    too_long = 0
    count = 0
    longest = (0, "")
    for path in sources(args.paths):
        for name, start, length in functions(path):
            count += 1
            where = f"{path}:{start}: {name}: {length} lines"
            if length > longest[0]:
                longest = (length, where)
            if args.list:
                print(where)
            if length > args.max:
                too_long += 1
                if not args.list:
                    print(where)
    print(f"{count} functions, {too_long} longer than {args.max} lines; longest: {longest[1]}")
    return 1 if too_long else 0


if __name__ == "__main__":
    sys.exit(main())
