#!/usr/bin/env python3
"""Compares what the parity program printed on two word sizes, byte for byte.

usage: parity_check.py FILE FILE
Exits with 1 on the first differing lines, and when there is nothing to compare.
"""

import itertools
import sys

SHOWN_DIFFERENCES = 10


def differences(left, right):
    """Yields (line number, left line, right line) where the two lists differ."""
    for number, pair in enumerate(itertools.zip_longest(left, right), start=1):
        if pair[0] != pair[1]:
            yield number, *pair


def main(paths):
    if len(paths) != 2:
        sys.exit(__doc__)
    contents = []
    for path in paths:
        with open(path, "rb") as file:
            contents.append(file.read())
    lines = [content.splitlines(keepends=True) for content in contents]
    if not lines[0] and not lines[1]:
        sys.exit("parity: both programs printed nothing")
    found = list(differences(*lines))
    for number, *pair in found[:SHOWN_DIFFERENCES]:
        for path, line in zip(paths, pair):
            print(f"{path}:{number}: {'(no such line)' if line is None else line!r}")
    if found:
        sys.exit(f"parity: {len(found)} of {max(map(len, lines))} lines differ")
    print(f"parity: {len(lines[0])} lines compared, all equal")


if __name__ == "__main__":
    main(sys.argv[1:])
