#!/usr/bin/env bash
# Lists the production functions longer than a limit (default 80 lines), the
# longest first: "lines path:line name". Tests, testing/, tools/, fuzz/ and
# bench/ are left out. Exit code 1 when there is one.
#   bash scripts/long-functions.sh [limit]
#
# A brace-matching scan, not a parser: comments, string and character
# literals are blanked out, and a '{' opens a function body when the text
# before it ends in a parameter list (with const, override, noexcept or a
# constructor's initializer list after it) and is no control statement or
# lambda. Lambdas and local classes count as part of their function. A
# function runs from the first line of its signature to its closing brace.
set -euo pipefail
cd "$(dirname "$0")/.."
limit=${1:-80}
git ls-files '*.cpp' '*.h' '*.c' |
  grep -vE '(_test\.cpp$|^(testing|tools|fuzz|bench)/)' |
  python3 -c '
import re, sys

limit = int(sys.argv[1])
CONTROL = {"if", "for", "while", "switch", "catch", "return", "sizeof", "decltype"}

def blank(text):
    """Comments and literals become blanks; newlines stay, so lines still count."""
    out, i, n = [], 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            out.append(" " * (j - i)); i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j])); i = j
        elif c == "R" and text.startswith("R\"", i):
            m = re.match(r"R\"([^(]*)\(", text[i:])
            end = text.find(")" + m.group(1) + "\"", i) if m else -1
            j = n if end < 0 else end + len(m.group(1)) + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j])); i = j
        elif c in "\"\x27":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            out.append(c + " " * (j - i - 1) + c); i = j + 1
        elif c == "#" and (i == 0 or text[i - 1] == "\n"):
            j = i
            while True:  # a directive, with its continuation lines
                k = text.find("\n", j)
                if k < 0: k = n; break
                if text[k - 1] != "\\": break
                j = k + 1
            out.append(re.sub(r"[^\n]", " ", text[i:k])); i = k
        else:
            out.append(c); i += 1
    return "".join(out)

def name_of(head):
    """The function name in a signature, or None when head is none."""
    head = " ".join(head.split())
    # A constructor initializer list follows the parameter list: cut it off.
    depth, cut = 0, len(head)
    for k, ch in enumerate(head):
        if ch in "([": depth += 1
        elif ch in ")]": depth -= 1
        elif ch == ":" and depth == 0 and head[k - 1:k + 1] != "::" and head[k:k + 2] != "::":
            cut = k; break
    head = head[:cut].strip()
    head = re.sub(r"\s*->\s*[\w:<>,\s\*&]+$", "", head)  # trailing return type
    head = re.sub(r"(\s+(const|override|final|noexcept|volatile|&|&&))+$", "", head)
    if not head.endswith(")"): return None
    depth = 0
    for k in range(len(head) - 1, -1, -1):
        if head[k] == ")": depth += 1
        elif head[k] == "(":
            depth -= 1
            if depth == 0: break
    before = head[:k].rstrip()
    if before.endswith("]"): return None  # a lambda
    m = re.search(r"([~\w:]+(?:operator\s*\S+)?)$", before)
    if not m: return None
    name = m.group(1)
    if name.split("::")[-1] in CONTROL or name in CONTROL: return None
    return name

found = []
for path in sys.stdin.read().split():
    text = blank(open(path, encoding="utf-8", errors="replace").read())
    stack = []  # per open brace: (kind, name, first line)
    last = 0    # where the text before the next brace starts
    for i, ch in enumerate(text):
        if ch in ";":
            last = i + 1
        elif ch == "{":
            head = text[last:i]
            inside = any(kind == "function" for kind, _, _ in stack)
            name = None if inside else name_of(head)
            if name:
                lead = len(head) - len(head.lstrip())
                start = text.count("\n", 0, last + lead) + 1
                stack.append(("function", name, start))
            else:
                stack.append(("block", None, 0))
            last = i + 1
        elif ch == "}":
            if stack:
                kind, name, start = stack.pop()
                if kind == "function":
                    lines = text.count("\n", 0, i) + 1 - start + 1
                    if lines > limit: found.append((lines, "%s:%d" % (path, start), name))
            last = i + 1
for lines, where, name in sorted(found, reverse=True):
    print(lines, where, name)
sys.exit(1 if found else 0)
' "$limit"
