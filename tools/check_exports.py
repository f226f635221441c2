#!/usr/bin/env python3
"""Checks what shared libraries show to programs.

usage: check_exports.py VERSION HEADER-FOLDER... -- LIBRARY...

Every visible symbol has to be in one of our namespaces, or a C function or variable that a header
of HEADER-FOLDER marks for export, and has to carry VERSION (PAVO_0). Exits with 1 and the symbols
that differ.
"""

import pathlib
import re
import subprocess
import sys

# A name nested in a namespace, perhaps as the type information, virtual table, thunk, guard or
# local variable of it.
OURS = re.compile(r"_Z(?:T[A-Zhvc](?:[hvn0-9_]*_)?|GV|GR)?Z?N[KRO]*(?:3Mox|4Keel|4Pavo)")
C_DECLARATION = re.compile(r"_EXPORT\b[^;{}]*?\b(\w+)\s*(?:\(|\[|;)")
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.S)


def c_names(folders):
    """Returns the names that follow a mark for export, of C functions among others."""
    names = set()
    for folder in folders:
        for header in sorted(pathlib.Path(folder).rglob("*.h")):
            text = COMMENT.sub(" ", header.read_text(encoding="utf-8"))
            names.update(C_DECLARATION.findall(text))
    return names


def visible(library):
    """Yields (name, version) of each visible symbol."""
    try:
        listed = subprocess.run(
            ["nm", "-D", "--defined-only", library], text=True, stdout=subprocess.PIPE
        )
    except OSError as error:
        sys.exit(str(error))
    if listed.returncode != 0:
        sys.exit(f"{library}: its symbols cannot be listed")  # nm has said why.
    for line in listed.stdout.splitlines():
        name, _, version = line.rsplit(" ", 1)[1].partition("@@")
        yield name, version


def faults(library, version, c_declared):
    """Returns a line for each symbol that should not be visible as it is."""
    found, lines = 0, []
    for name, its_version in visible(library):
        if (name, its_version) == (version, ""):
            continue  # The version's own symbol.
        found += 1
        if its_version != version:
            lines.append(f"{library}: {name} has the version '{its_version}'")
        if not OURS.match(name) and name not in c_declared:
            lines.append(f"{library}: {name} is visible, but in none of our namespaces or headers")
    return lines if found else [f"{library}: no symbol is visible"]


def main(arguments):
    end = arguments.index("--") if "--" in arguments else 0
    folders, libraries = arguments[1:end], arguments[end + 1 :]
    if not folders or not libraries:
        sys.exit("usage: check_exports.py VERSION HEADER-FOLDER... -- LIBRARY...")
    version, declared = arguments[0], c_names(folders)
    lines = [line for library in libraries for line in faults(library, version, declared)]
    if lines:
        print("\n".join(lines))
        return 1
    print(f"{len(libraries)} libraries show only what they should")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
