#!/usr/bin/env python3
"""Checks the links of the documentation: `check_docs.py ROOT [HTML-FOLDER]`.

In the Markdown files of the tree at ROOT that git knows, and in the pages of the reference, each
link to a file leads to one, and each link to a place in a page leads to a heading or an anchor.
Prints every link that does not, and fails if there is one. Links to the network are not followed,
and none is allowed in the reference but that to Doxygen itself."""

import pathlib
import re
import subprocess
import sys
import urllib.parse

# Doxygen's link at the head of a page to a list that is not there where all of it is hidden.
HIDDEN_LISTS = {"define-members", "nested-classes"}


def is_remote(link):
    return re.match(r"[a-z]+:", link) is not None


def markdown_text(path):
    """The file without its code."""
    return re.sub(r"^```.*?^```$|`[^`\n]*`", "", path.read_text(), flags=re.S | re.M)


def markdown_anchors(path):
    """The names that hosts of Markdown give to headings."""
    headings = re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```$", "", path.read_text(),
                                               flags=re.S | re.M), flags=re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def check_markdown(root):
    listed = subprocess.run(
        ["git", "ls-files", "--cached", "--others", "--exclude-standard", "*.md"],
        cwd=root, capture_output=True, text=True, check=True).stdout
    files = [root / name for name in listed.splitlines() if (root / name).exists()]
    if not files:
        yield f"{root}: no Markdown file"
    for path in files:
        for link in re.findall(r"\]\(([^)\s]+)\)", markdown_text(path)):
            name, _, anchor = link.partition("#")
            target = path.parent / name if name else path
            if is_remote(link):
                continue
            if not target.exists():
                yield f"{path.relative_to(root)}: no file for {link}"
            elif anchor and anchor not in markdown_anchors(target):
                yield f"{path.relative_to(root)}: no heading for {link}"


def check_html(folder):
    links, anchors = {}, {}
    for page in folder.rglob("*.html"):
        text = page.read_text(errors="replace")
        links[page] = set(re.findall(r'\b(?:href|src|data)="([^"]+)"', text))
        anchors[page] = set(re.findall(r'\b(?:id|name)="([^"]+)"', text))
    if not links:
        yield f"{folder}: no page"
    for page, wanted in links.items():
        for link in wanted:
            name, _, anchor = urllib.parse.unquote(link).partition("#")
            target = (page.parent / name).resolve() if name else page
            if is_remote(link):
                if not link.startswith(("javascript:", "https://www.doxygen.org/")):
                    yield f"{page.name}: a link that needs the network: {link}"
            elif not target.exists():
                yield f"{page.name}: no file for {link}"
            elif anchor and anchor not in anchors.get(target, ()) and anchor not in HIDDEN_LISTS:
                yield f"{page.name}: no anchor for {link}"


def main():
    faults = list(check_markdown(pathlib.Path(sys.argv[1]).resolve()))
    for folder in sys.argv[2:]:
        faults += check_html(pathlib.Path(folder).resolve())
    for fault in sorted(faults):
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
