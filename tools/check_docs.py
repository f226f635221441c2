#!/usr/bin/env python3
"""Checks the links of the documentation.

usage: check_docs.py [--markdown ROOT] [--html FOLDER]

In the Markdown files of the git tree at ROOT, each link to a file or folder leads to one of that
tree, ignored files excepted, and each link to a place in a page leads to a heading. Their links are
of the form [text](target); each other form, and a tag of HTML with an attribute, is a fault, since
it would not be checked.
In the pages of the reference in FOLDER, each link leads to a file of it and to an anchor.

Prints every fault, and exits with 1 if there is one. Links to the network are not followed; the
reference may have none but that to Doxygen itself."""

import argparse
import collections
import html.parser
import os
import pathlib
import posixpath
import re
import subprocess
import sys
import urllib.parse

# Doxygen's link at the head of a page to a list that is not there where all of it is hidden.
HIDDEN_LISTS = {"define-members", "nested-classes"}

# A code block, a comment, or code within a paragraph.
NO_PROSE = re.compile(
    r"^ *(?P<fence>`{3,}|~{3,})[^`\n]*\n.*?^ *(?P=fence)[`~]* *$"
    r"|<!--.*?-->"
    r"|(?<![`\\])(?P<ticks>`+)(?!`)(?:(?!\n\s*\n).)+?(?<!`)(?P=ticks)(?!`)", re.S | re.M)
# A link as its target, or the beginning of a link in another form.
LINK = re.compile(r"\]\(([^()<>\s]+)\)|\]\(|\]\[|\]:|<\w+[\s/]+\w[^<>]*=")


def text_of(path):
    try:
        return path.read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError) as error:
        sys.exit(f"{path}: {error}")


def files_of(root):
    """The names of the files that git knows or would add."""
    listed = subprocess.run(
        ["git", "-C", root, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        stdout=subprocess.PIPE)
    if listed.returncode != 0:
        sys.exit(f"{root}: the files of the git tree cannot be listed")
    names = {os.fsdecode(name) for name in listed.stdout.split(b"\0") if name}
    return {name for name in names if (root / name).exists()}


def anchors_of(text):
    """The names that hosts of Markdown give to headings: "a", then "a-1" for an equal one."""
    text = NO_PROSE.sub(lambda match: match[0] if match["ticks"] else "", text)
    seen, names = collections.Counter(), set()
    for heading in re.findall(r"^#{1,6} +(.*?)[ #]*$", re.sub(r"\]\(.*?\)", "", text), flags=re.M):
        name = re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
        names.add(f"{name}-{seen[name]}" if seen[name] else name)
        seen[name] += 1
    return names


def check_markdown(root, files):
    known = files | {str(folder) for name in files for folder in pathlib.PurePath(name).parents}
    texts = {name: text_of(root / name) for name in files if name.endswith(".md")}
    anchors = {name: anchors_of(text) for name, text in texts.items()}
    if not texts:
        yield f"{root}: no Markdown file"
    for name, text in texts.items():
        prose = NO_PROSE.sub("", text)
        for match in LINK.finditer(prose):
            link = match[1]
            if link is None:
                found = prose[match.start():match.start() + 60].partition("\n")[0]
                yield f"{name}: a link is written as [text](target), not with {found}"
            elif not link.startswith(("https://", "http://")):
                path, _, anchor = (urllib.parse.unquote(part) for part in link.partition("#"))
                target = posixpath.join(posixpath.dirname(name), path) if path else name
                target = posixpath.normpath(target)
                if target not in known:
                    yield f"{name}: no file for {link}"
                elif anchor and anchor not in anchors.get(target, ()):
                    yield f"{name}: no heading for {link}"


class Page(html.parser.HTMLParser):
    """The links and anchors of a page of the reference."""

    def __init__(self, text):
        super().__init__()
        self.links, self.anchors = set(), set()
        self.feed(text)
        self.close()

    def handle_starttag(self, tag, attrs):
        for name, value in attrs:
            if value and name in ("href", "src", "data"):
                self.links.add(value)
            elif name == "id" or (tag, name) == ("a", "name"):
                self.anchors.add(value)


def check_html(folder):
    pages = {path: Page(text_of(path)) for path in folder.rglob("*.html")}
    if not pages:
        yield f"{folder}: no page"
    for path, page in pages.items():
        for link in page.links:
            if re.match(r"[a-zA-Z]+:", link):
                if not link.startswith(("javascript:", "https://www.doxygen.org/")):
                    yield f"{path.name}: a link that needs the network: {link}"
                continue
            name, _, anchor = (urllib.parse.unquote(part) for part in link.partition("#"))
            target = (path.parent / name).resolve() if name else path
            if not target.is_file() or not target.is_relative_to(folder):
                yield f"{path.name}: no file for {link}"
            elif anchor and target not in pages:
                yield f"{path.name}: no page for {link}"
            elif anchor and anchor not in pages[target].anchors | HIDDEN_LISTS:
                yield f"{path.name}: no anchor for {link}"


def main():
    usage = argparse.ArgumentParser()
    usage.add_argument("--markdown", type=pathlib.Path)
    usage.add_argument("--html", type=pathlib.Path)
    wanted = usage.parse_args()
    if not wanted.markdown and not wanted.html:
        usage.error("nothing to check")
    sys.stdout.reconfigure(errors="backslashreplace")  # A name of a file need not be UTF-8.
    faults = []
    if wanted.markdown:
        faults += check_markdown(wanted.markdown, files_of(wanted.markdown))
    if wanted.html:
        faults += check_html(wanted.html.resolve())
    for fault in sorted(faults):
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
