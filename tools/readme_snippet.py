#!/usr/bin/env python3
"""Writes C++ blocks of a Markdown file that follow markers, so that they can be compiled.

usage: readme_snippet.py MARKDOWN NAME OUTPUT

The blocks are each first ```cpp one after a line "<!-- snippet: NAME -->", in their order. Lines
keep their numbers of the Markdown file in the compiler's messages.
"""

import pathlib
import sys


def snippets(lines, name):
    """Yields (number of the block's first line, its lines)."""
    marker = f"<!-- snippet: {name} -->"
    for at, line in enumerate(lines):
        if line == marker:
            begin = lines.index("```cpp", at) + 1
            yield begin + 1, lines[begin : lines.index("```", begin)]


def main(arguments):
    if len(arguments) != 3:
        sys.exit(__doc__)
    markdown, name, output = arguments
    text = pathlib.Path(markdown).read_text(encoding="utf-8")
    source = "".join(
        f'#line {first} "{markdown}"\n' + "\n".join(lines) + "\n"
        for first, lines in snippets(text.splitlines(), name)
    )
    if not source:
        sys.exit(f"{markdown}: no snippet {name}")
    pathlib.Path(output).write_text(source, encoding="utf-8")


if __name__ == "__main__":
    main(sys.argv[1:])
