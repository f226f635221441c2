#!/usr/bin/env python3
"""Checks that the links of web pages lead to files that are there.

usage: links.py FOLDER

Follows from FOLDER/index.html what pages name in href and src. Exits with 1 and the dead links.
"""

import pathlib
import re
import sys
import urllib.parse

LINK = re.compile(r'(?:href|src)="([^"#?]+)[^"]*"')


def main(folder):
    start = pathlib.Path(folder) / "index.html"
    pending, seen, dead = [start], {start}, []
    while pending:
        page = pending.pop()
        for link in LINK.findall(page.read_text(encoding="utf-8")):
            if urllib.parse.urlparse(link).scheme:
                continue
            target = (page.parent / urllib.parse.unquote(link)).resolve()
            if not target.is_file():
                dead.append(f"{page.name}: {link}")
            elif target.suffix == ".html" and target not in seen:
                seen.add(target)
                pending.append(target)
    print("\n".join(dead) if dead else f"{len(seen)} pages, no dead link")
    return 1 if dead or len(seen) < 2 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
