#!/usr/bin/env python3
"""Doxygen's input filter for Markdown files: makes a page of each, with links that lead to pages,
files and layers of the reference. No line is added or removed.

A link whose text is its target, as in a table of contents, also puts the page below this one. What
has no page, such as a folder of tests, is given by its path."""

import os
import pathlib
import re
import sys

PAGES = {
    "README.md": "mainpage",
    "Pavo/README.md": "layers",
    "platform/Mox/README.md": "mox-guide",
}
LINK = re.compile(r"\[([^\]]+)\]\(([^)\s]+)\)")


def label(path):
    if path in PAGES:
        return PAGES[path]
    return "guide-" + path[5:-3] if path.startswith("docs/") and path.endswith(".md") else None


def reference(text, target, folder):
    """What stands in the page for a link in a file of `folder`. Doxygen finds headers by name, and
    each library has an Export.h."""
    if re.match(r"https?:|#", target):
        return f"[{text}]({target})"
    name = text.strip("`")  # Code in the text of a reference is not seen as such.
    path = os.path.normpath(os.path.join(folder, target.partition("#")[0]))
    if target.endswith(".svg"):
        return f"[{text}]({os.path.basename(path)})"
    if label(path):
        return f"@subpage {label(path)}" if text == path else f"[{name}](@ref {label(path)})"
    if re.match(r"(Pavo|platform)/.*\.h$", path) and not path.endswith("/Export.h"):
        return f"[{name}](@ref {path})"
    if re.fullmatch(r"(Pavo|platform)/\w+", path):
        return f"[{name}](@ref {os.path.basename(path).lower()})"
    return text if name == path else f"{text} (`{path}`)"


def main():
    path = os.path.relpath(sys.argv[1])
    folder = os.path.dirname(path)
    pieces = re.split(r"(^```.*?^```$)", pathlib.Path(path).read_text(), flags=re.S | re.M)
    for at in range(0, len(pieces), 2):  # What is not code.
        pieces[at] = LINK.sub(lambda m: reference(m[1], m[2], folder), pieces[at])
    text = "".join(pieces)
    if label(path):
        text = text.replace("\n", f" {{#{label(path)}}}\n", 1)
    sys.stdout.write(text)


if __name__ == "__main__":
    main()
