#!/usr/bin/env python3
"""Compiles the C++ examples of the documentation.

Every block fenced by ```cpp in README.md, docs/*.md and the /// comments of the public headers is
taken out and checked by the compiler. A block with a main() is a program and has to name the headers
it needs. Any other block is put into a function of its own, or into a namespace of its own when it
defines functions, all of them into one file that includes every public header; its own #include lines
go to the top.
"""

import argparse
import pathlib
import re
import subprocess
import sys

FENCE = re.compile(r"^\s*(?:///\s?)?\s*```(.*)$")
FUNCTION = re.compile(r"^(?!(?:else|if|for|while|switch|try|do)\b)[\w:<>&*, ]+ \w+\([^;=[]*\)[ \w]*\{$",
                      re.MULTILINE)
FLAGS = ["-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-Wno-unused-variable",
         "-Wno-unused-but-set-variable", "-Wno-unused-function"]


def blocks(path):
    """Yields (line number of the first line, lines) for every cpp block of a file."""
    is_header = path.suffix == ".h"
    kind, start, lines = None, 0, []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if is_header and not line.lstrip().startswith("///"):
            if kind is not None:
                raise SystemExit(f"{path}:{start}: the block is not closed")
            continue
        fence = FENCE.match(line)
        if fence and kind is None:
            kind, start, lines = fence.group(1).strip(), number + 1, []
        elif fence:
            if kind == "cpp":
                yield start, lines
            kind = None
        elif kind is not None:
            lines.append(re.sub(r"^\s*///\s?", "", line) if is_header else line)
    if kind is not None:
        raise SystemExit(f"{path}:{start}: the block is not closed")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--root", type=pathlib.Path, required=True)
    parser.add_argument("--work", type=pathlib.Path, required=True)
    parser.add_argument("--compiler", default="c++")
    options = parser.parse_args()
    root = options.root

    headers = sorted((root / "include/corvane").glob("*.h"))
    documents = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
    includes, functions, programs = [], [], []
    for path in [*documents, *headers]:
        for start, lines in blocks(path):
            text = "\n".join(lines)
            if re.search(r"\bint main\(", text):
                programs.append((path, start, f'#line {start} "{path}"\n{text}\n'))
                continue
            body = []
            for line in lines:
                is_include = line.startswith("#include")
                if is_include:
                    includes.append(line)
                body.append("" if is_include else line)
            opening, closing = ("", "") if FUNCTION.search(text) else ("void run() {\n", "}\n")
            functions.append(f"namespace example_{len(functions)} {{\n{opening}"
                             f'#line {start} "{path}"\n' + "\n".join(body) + f"\n{closing}}}\n")

    options.work.mkdir(parents=True, exist_ok=True)
    sources = []
    collected = options.work / "examples.cpp"
    collected.write_text("".join(f'#include "corvane/{header.name}"\n' for header in headers) +
                         "".join(f"{line}\n" for line in dict.fromkeys(includes)) +
                         "".join(functions), encoding="utf-8")
    sources.append(collected)
    for number, (_, _, text) in enumerate(programs):
        program = options.work / f"program_{number}.cpp"
        program.write_text(text, encoding="utf-8")
        sources.append(program)

    failed = 0
    for source in sources:
        command = [options.compiler, *FLAGS, f"-I{root / 'include'}", str(source)]
        failed += subprocess.run(command, check=False).returncode != 0
    print(f"{len(functions)} pieces and {len(programs)} programs in the documentation, "
          f"{failed} of {len(sources)} files failed")
    if not programs:
        print("README.md shows no complete host any more")
    return 1 if failed or not programs else 0


if __name__ == "__main__":
    sys.exit(main())
