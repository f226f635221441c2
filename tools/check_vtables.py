#!/usr/bin/env python3
"""Compares the virtual slots of classes with a kept table.

usage: check_vtables.py TABLE [COMPILER-ARGUMENT...]

Agents are compiled against the order of virtual functions, so it may not change. The table is
written by hand and has three kinds of lines, beside blank ones and comments after "//":

    #include "Mox/Ptr.h"        given to the compiler as it stands
    Mox::PtrInterface:          a class, followed by its slots
        notifieeList            a slot by the name of its function, without class and parameters
        zeroReferencesIs = 0    a pure virtual one, of which the compiler keeps no name: only its
                                being pure is compared, so list a class that implements it too
        ~PtrInterface           a destructor has two slots

Slots are those of the primary table, after the type information. g++ (or what CXX names) lists them
with -fdump-lang-class. Exits with 1 and the differing slots of each class that differs.
"""

import os
import re
import shlex
import subprocess
import sys
import tempfile

PURE = "= 0"
TABLE_START = re.compile(r"^Vtable for (.+)$")
ENTRY = re.compile(r"^\d+ +(?:\(int \(\*\)\(\.\.\.\)\))?(.+)$")
TYPE_INFO = re.compile(r"^\(& (_ZTI|typeinfo for )")
NUMBER = re.compile(r"^-?\d+$")


class TableError(Exception):
    """The kept table cannot be read."""


def read_table(text):
    """Returns (include lines, {class: slots in order})."""
    includes, classes, slots = [], {}, None
    for number, raw in enumerate(text.splitlines(), start=1):
        line = raw.split("//")[0].strip()
        if not line:
            continue
        if line.startswith("#include"):
            includes.append(line)
        elif line.endswith(":") and not raw[0].isspace():
            name = line.removesuffix(":")
            if name in classes:
                raise TableError(f"line {number}: {name} is there already")
            slots = classes[name] = []
        elif slots is None or not raw[0].isspace():
            raise TableError(f"line {number}: '{line}' is no slot of a class")
        else:
            slots.append(line)
    if not classes:
        raise TableError("it names no class")
    return includes, classes


def function_name(entry):
    """The last part of a function's qualified name: "N::T<A::B>::~T" gives "~T"."""
    if " thunk to " in entry:
        entry = entry.split(" thunk to ", 1)[1].split("(")[0]
    if match := re.search(r"(?:^|::)(operator\b.*)$", entry):
        return match[1]
    depth = 0
    for at in range(len(entry) - 1, -1, -1):
        depth += (entry[at] == ">") - (entry[at] == "<")
        if depth == 0 and entry[at] == ":":
            return entry[at + 1:]
    return entry


def read_dump(dump):
    """Returns {class: slots of its primary table} from a class dump with demangled names."""
    classes, name, slots = {}, None, None
    for line in dump.splitlines():
        if match := TABLE_START.match(line):
            name, slots = match[1], None
        elif name is not None and not line:
            name = None
        elif name is not None and (match := ENTRY.match(line)):
            target, plain = match[1], "(int (*)(...))" not in line
            if slots is None:
                if TYPE_INFO.match(target):
                    slots = classes[name] = []
            elif plain and target == "0":
                # No code exists for it: the destructor of an abstract class.
                slots.append("~" + re.sub(r"<.*>$", "", function_name(name)))
            elif NUMBER.match(target):
                name = None  # The offset to the top that begins a secondary table.
            else:
                slots.append(PURE if target == "__cxa_pure_virtual" else function_name(target))
    return classes


def dump_classes(includes, arguments):
    """Compiles a source of these includes and returns its class dump."""
    compiler = shlex.split(os.environ.get("CXX", "g++"))
    with tempfile.TemporaryDirectory() as folder:
        source = os.path.join(folder, "classes.cpp")
        with open(source, "w", encoding="utf-8") as file:
            file.write("\n".join(includes) + "\n")
        dump = subprocess.run(
            [*compiler, "-std=c++20", "-fsyntax-only", "-fdump-lang-class=-", *arguments, source],
            check=True,
            stdout=subprocess.PIPE,
        ).stdout
    return subprocess.run(["c++filt"], check=True, input=dump, stdout=subprocess.PIPE).stdout.decode()


def slot_agrees(kept, found):
    return found == PURE if kept.endswith(PURE) else kept == found


def differences(kept, found):
    """Yields a line for each slot that differs between the kept and the compiler's classes."""
    for name, slots in kept.items():
        if name not in found:
            yield f"{name}: has no table of virtual functions"
            continue
        have = found[name]
        for index in range(max(len(slots), len(have))):
            want_slot = slots[index] if index < len(slots) else "no slot"
            have_slot = have[index] if index < len(have) else "no slot"
            if not slot_agrees(want_slot, have_slot):
                yield f"{name}: slot {index} is to be '{want_slot}' and is '{have_slot}'"


def main(arguments):
    if not arguments:
        sys.exit(__doc__)
    with open(arguments[0], encoding="utf-8") as file:
        try:
            includes, kept = read_table(file.read())
        except TableError as error:
            sys.exit(f"{arguments[0]}: {error}")
    found = list(differences(kept, read_dump(dump_classes(includes, arguments[1:]))))
    for line in found:
        print(line)
    if found:
        sys.exit(f"vtables: {len(found)} slots differ from {arguments[0]}")
    print(f"vtables: {len(kept)} classes as {arguments[0]} has them")


if __name__ == "__main__":
    main(sys.argv[1:])
