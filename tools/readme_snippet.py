#!/usr/bin/env python3
"""Writes the C++ block of a Markdown file that follows a marker, so that it can be compiled.

usage: readme_snippet.py MARKDOWN NAME OUTPUT

The block is the first ```cpp one after the line "<!-- snippet: NAME -->". Lines keep their numbers
of the Markdown file in the compiler's messages.
"""

import pathlib
import sys


def snippet(lines, name):
    """Returns (number of the block's first line, its lines)."""
    marker = f"<!-- snippet: {name} -->"
    if marker not in lines:
        sys.exit(f"no line '{marker}'")
    begin = lines.index("```cpp", lines.index(marker)) + 1
    return begin + 1, lines[begin : lines.index("```", begin)]


def main(arguments):
    if len(arguments) != 3:
        sys.exit(__doc__)
    markdown, name, output = arguments
    text = pathlib.Path(markdown).read_text(encoding="utf-8")
    first, lines = snippet(text.splitlines(), name)
    pathlib.Path(output).write_text(
        f'#line {first} "{markdown}"\n' + "\n".join(lines) + "\n", encoding="utf-8"
    )


if __name__ == "__main__":
    main(sys.argv[1:])
