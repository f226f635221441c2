#!/usr/bin/env python3
"""Compares the ABI of the libraries with the kept baseline, and says in words what changed.

usage: check_abi.py [--update] BASELINE LIBRARY HEADERS

LIBRARY has all that programs can see, with its debug information; HEADERS lists the public headers.
Types that no public header defines are opaque, and those of the C++ library are left out. BASELINE
is what abidw wrote of an earlier LIBRARY; --update writes it anew.

Exits with 1 for a change that a compiled agent may not survive: a removed function or variable, and
a changed type: its size, members, virtual functions or enumerators. What was only added passes and
is listed. Each exported class with virtual functions has to have its slots in the baseline, so a new
class of this kind needs an update.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

# The C++ library, and templates that only describe types to other templates.
LEFT_OUT = r"""
[suppress_type]
name_regexp = ^(std|__gnu_cxx)::
drop = yes

[suppress_type]
name_regexp = ^Mox::(RecordDescription|Field|EnumDescription|ClassDescription|AttributeDescription)<
drop = yes
"""
WRITE = [
    "abidw",
    "--exported-interfaces-only",
    "--drop-private-types",
    "--no-corpus-path",
    "--no-comp-dir-path",
    "--no-elf-needed",
    "--no-show-locs",
    "--no-parameter-names",
    "--type-id-style",
    "hash",
]
COMPARE = ["abidiff", "--leaf-changes-only", "--no-corpus-path", "--no-show-locs", "--show-bytes"]

# Classes that only sources define, and the observers that a template makes: no agent can name them.
INTERNAL = re.compile(
    r"^(?:Mox::Notifiee::Made<.*|Keel::TimerWheel::Wheel::WakeUp|Pavo::TcpSmBase::\w+Reactor)$"
)

# Bits of abidiff's exit status.
FAILED, INCOMPATIBLE = 1 | 2, 8
BREAKS = re.compile(r"summary:.*?\b[1-9]\d* (?:Removed|Changed|leaf types? changed)")


class ToolError(Exception):
    """A tool failed."""


def run(*command):
    """Returns (exit status, standard output)."""
    done = subprocess.run(command, text=True, capture_output=True)
    if done.returncode < 0 or done.returncode & FAILED:
        raise ToolError(f"{command[0]} ended with {done.returncode}\n{done.stdout}{done.stderr}")
    return done.returncode, done.stdout


def write_abi(library, headers, output):
    with tempfile.TemporaryDirectory() as folder:
        left_out = pathlib.Path(folder, "left-out.ini")
        left_out.write_text(LEFT_OUT, encoding="utf-8")
        # abidw knows a public header by its file name, and takes the names from a folder.
        public = pathlib.Path(folder, "public")
        public.mkdir()
        for header in pathlib.Path(headers).read_text(encoding="utf-8").split():
            public.joinpath(pathlib.Path(header).name).touch()
        run(*WRITE, "--headers-dir", public, "--suppr", left_out, "--out-file", output, library)
    drop_second_names(output)


def drop_second_names(abi):
    """Leaves of static members only their declarations in the class.

    abidw also writes their definitions, without the class. Which of both names abidiff takes depends
    on the order of the objects.
    """
    document = ElementTree.parse(abi)
    members = {found.get("mangled-name") for found in document.iterfind(".//data-member/var-decl")}
    for unit in document.iter("abi-instr"):
        for found in unit.findall("var-decl"):
            if found.get("mangled-name") in members:
                unit.remove(found)
    ElementTree.indent(document, space="")
    document.write(abi)


def classes_of(abi):
    """Returns the names of the classes that `abi` describes with their slots."""

    def walk(element, scope):
        for child in element:
            if child.tag in ("namespace-decl", "class-decl"):
                name = scope + [child.get("name")]
                if child.tag == "class-decl" and child.get("is-declaration-only") is None:
                    yield "::".join(name)
                yield from walk(child, name)
            elif child.tag in ("abi-instr", "member-type"):
                yield from walk(child, scope)

    return set(walk(ElementTree.parse(abi).getroot(), []))


def exported_virtual_classes(library):
    _, symbols = run("nm", "-DC", "--defined-only", library)
    names = re.findall(r" vtable for (.+?)(?:@.*)?$", symbols, re.MULTILINE)
    return {name for name in names if not INTERNAL.match(name)}


def compare(baseline, abi):
    """Returns (whether a compiled agent may break, the report)."""
    status, report = run(*COMPARE, baseline, abi)
    return bool(status & INCOMPATIBLE or BREAKS.search(report)), report


def check(baseline, library, headers):
    with tempfile.TemporaryDirectory() as folder:
        abi = os.path.join(folder, "abi.xml")
        write_abi(library, headers, abi)
        breaks, report = compare(baseline, abi)
    print(report.strip() or f"abi: as {baseline} has it")
    missing = exported_virtual_classes(library) - classes_of(baseline)
    for name in sorted(missing):
        print(f"{name} has virtual functions, and {baseline} does not have its slots")
    if breaks:
        sys.exit("abi: agents that are compiled already would break; see docs/compatibility.md")
    if missing:
        sys.exit("abi: add what is new to the baseline by ./dev abi --update")
    if report:
        print("abi: compatible; ./dev abi --update adds it to the baseline")


def main(arguments):
    update = arguments[:1] == ["--update"]
    if len(arguments) != 3 + update:
        sys.exit(__doc__)
    baseline, library, headers = arguments[update:]
    try:
        if update:
            write_abi(library, headers, baseline)
        else:
            check(baseline, library, headers)
    except ToolError as error:
        sys.exit(f"abi: {error}")


if __name__ == "__main__":
    main(sys.argv[1:])
