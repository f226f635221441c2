#!/usr/bin/env python3
"""Compares the ABI of the libraries with the kept baseline, and says in words what changed.

usage: check_abi.py [--update] BASELINE LIBRARY HEADERS TYPES

LIBRARY has all that programs can see, with its debug information; HEADERS lists the public headers,
and TYPES is what tools/abi_types.py wrote of them. BASELINE is what abidw wrote of an earlier
LIBRARY; the earlier TYPES are beside it, in a file of the same name that ends in ".txt". --update
writes both anew.

abidiff compares functions and variables. It does not compare types of the C++ library, nor what it
takes for harmless: a destructor that makes a type travel by address, a function that becomes pure.
So the members, bases and virtual functions of our own types are compared as text.

Exits with 1 for a change that a compiled agent may not survive: a removed function, variable or
type, and a changed type. What was only added passes and is listed. Each exported class with virtual
functions has to be in the baseline, so a new class of this kind needs an update.
"""

import difflib
import os
import pathlib
import re
import shutil
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
    r"^(?:Mox::Notifiee::Made<.*|Keel::TimerWheel::Wheel::WakeUp|Pavo::NetlinkPlayer::Port"
    r"|Pavo::TcpSmBase::\w+Reactor)$"
)

# Bits of abidiff's exit status.
FAILED, INCOMPATIBLE = 1 | 2, 8
BREAKS = re.compile(r"summary:.*?\b[1-9]\d* (?:Removed|Changed|leaf types? changed)")


# A member with its offset: what leads to its name, the name, the width of a bit field.
MEMBER = re.compile(r"^(\s*\d.*?)(\w+)( : \d+)?$")


class ToolError(Exception):
    """A tool failed."""


def run(*command):
    """Returns (exit status, standard output)."""
    done = subprocess.run(command, text=True, capture_output=True)
    if done.returncode < 0 or done.returncode & FAILED:
        raise ToolError(f"{command[0]} ended with {done.returncode}\n{done.stdout}{done.stderr}")
    return done.returncode, done.stdout


def kept_types_of(baseline):
    return pathlib.Path(baseline).with_suffix(".txt")


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
    shorten(output)


def shorten(abi):
    """Leaves of static members only their declarations in the class, and no visibility.

    abidw also writes the definitions of the members, without the class. Which of both names abidiff
    takes depends on the order of the objects. And all that is exported has one visibility.
    """
    document = ElementTree.parse(abi)
    members = {found.get("mangled-name") for found in document.iterfind(".//data-member/var-decl")}
    for unit in document.iter("abi-instr"):
        for found in unit.findall("var-decl"):
            if found.get("mangled-name") in members:
                unit.remove(found)
    for each in document.iter():
        each.attrib.pop("visibility", None)
    ElementTree.indent(document, space="")
    document.write(abi)


def blocks_of(types):
    """Returns {name: lines} of a file that tools/abi_types.py wrote."""
    blocks = {}
    for line in pathlib.Path(types).read_text(encoding="utf-8").splitlines():
        if line.startswith(" "):
            lines.append(line[4:])
        else:
            lines = blocks[line] = []
    return blocks


def only_renames(old, new):
    """Whether members of `new` have names that `old` has not, and all else is the same."""
    names = {found[2] for found in map(MEMBER.match, old) if found}
    if len(old) != len(new):
        return False
    for was, now in zip(old, new):
        was_member, now_member = MEMBER.match(was), MEMBER.match(now)
        if was == now:
            continue
        if not (was_member and now_member) or now_member[2] in names:
            return False
        if (was_member[1], was_member[3]) != (now_member[1], now_member[3]):
            return False
    return True


def compare_types(baseline, types):
    """Returns (whether a compiled agent may break, the lines of the report)."""
    old, new = blocks_of(baseline), blocks_of(types)
    breaks, report = False, []
    for name in sorted(old.keys() | new.keys()):
        if name not in old:
            report.append(f"{name} is new")
        elif name not in new:
            breaks = True
            report.append(f"{name} is gone")
        elif old[name] != new[name]:
            breaks = breaks or not only_renames(old[name], new[name])
            report.append(f"{name} changed:")
            lines = list(difflib.unified_diff(old[name], new[name], n=0, lineterm=""))[2:]
            report += [f"    {line[0]} {line[1:]}" for line in lines if not line.startswith("@@")]
    return breaks, report


def without_arguments(name):
    """Leaves the arguments of templates out: "A<B<C>>::D" gives "A::D"."""
    while (shorter := re.sub(r"<[^<>]*>", "", name)) != name:
        name = shorter
    return name


def exported_virtual_classes(library):
    _, symbols = run("nm", "-DC", "--defined-only", library)
    names = re.findall(r" vtable for (.+?)(?:@.*)?$", symbols, re.MULTILINE)
    return {name for name in names if not INTERNAL.match(name)}


# What most lines of a baseline have in common: as abidw writes it, and as it is kept.
COMMON = [
    (' version="PAVO_0" is-default-version="yes" type="func-type" binding="global-binding"', " ~f"),
    (' binding="global" size-in-bits="64" elf-symbol-id=', " ~s="),
    (' is-artificial="yes"', " ~a"),
    (' size-in-bits="', " ~b="),
    (' type-id="', " ~t="),
]
TWICE = re.compile(r'mangled-name="(\w+)" ~s="\1@@PAVO_0"')
ONCE = re.compile(r'~m="(\w+)"')


def packed(abi):
    """The same in half the bytes: a repository keeps each version of a baseline."""
    for whole, short in COMMON:
        abi = abi.replace(whole, short)
    return TWICE.sub(r'~m="\1"', abi)


def unpacked(abi):
    abi = ONCE.sub(r'mangled-name="\1" ~s="\1@@PAVO_0"', abi)
    for whole, short in reversed(COMMON):
        abi = abi.replace(short, whole)
    return abi


def compare(baseline, abi):
    """Returns (whether a compiled agent may break, the report)."""
    whole = abi + ".baseline"
    kept = pathlib.Path(baseline).read_text(encoding="utf-8")
    pathlib.Path(whole).write_text(unpacked(kept), encoding="utf-8")
    status, report = run(*COMPARE, whole, abi)
    return bool(status & INCOMPATIBLE or BREAKS.search(report)), report


def check(baseline, library, headers, types):
    kept_types = kept_types_of(baseline)
    with tempfile.TemporaryDirectory() as folder:
        abi = os.path.join(folder, "abi.xml")
        write_abi(library, headers, abi)
        breaks, report = compare(baseline, abi)
    types_break, types_report = compare_types(kept_types, types)
    report = "\n".join([*types_report, report.strip()]).strip()
    print(report or f"abi: as {baseline} and {kept_types} have it")
    kept = {without_arguments(name) for name in blocks_of(kept_types)}
    missing = {without_arguments(name) for name in exported_virtual_classes(library)} - kept
    for name in sorted(missing):
        print(f"{name} has virtual functions, and {kept_types} does not have it")
    if breaks or types_break:
        sys.exit("abi: agents that are compiled already would break; see docs/compatibility.md")
    if missing:
        sys.exit("abi: add what is new to the baseline by ./dev abi --update")
    if report:
        print("abi: compatible; ./dev abi --update adds it to the baseline")


def main(arguments):
    update = arguments[:1] == ["--update"]
    if len(arguments) != 4 + update:
        sys.exit(__doc__)
    baseline, library, headers, types = arguments[update:]
    try:
        if update:
            write_abi(library, headers, baseline)
            abi = pathlib.Path(baseline).read_text(encoding="utf-8")
            pathlib.Path(baseline).write_text(packed(abi), encoding="utf-8")
            shutil.copyfile(types, kept_types_of(baseline))
        else:
            check(baseline, library, headers, types)
    except ToolError as error:
        sys.exit(f"abi: {error}")


if __name__ == "__main__":
    main(sys.argv[1:])
