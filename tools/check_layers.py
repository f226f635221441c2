#!/usr/bin/env python3
"""Checks that the units of Pavo/ keep to their layers.

usage: check_layers.py [ROOT]

Reads the lists of Pavo/CMakeLists.txt (`pavo_units(Pavo <layer> <unit>...)`), those of the libraries
below platform/, and the tables of Pavo/README.md (a heading for each layer, a row for each unit).
Exits with 1 and one line for each fault: an include that points up or sideways, an include cycle, a
file in no list, a listed unit without file, a unit without row, a row without unit, an include that
the check could not follow, and an include of Pavo/ from platform/.
"""

import pathlib
import re
import sys

# The layers that a unit of each layer may include, beside platform/. `base` holds what every unit
# needs and what needs none of them.
MAY_INCLUDE = {
    "base": {"base"},
    "value": {"base", "value"},
    "packet": {"base", "value", "packet"},
    "socket": {"base", "socket"},
    "pam": {"base", "value", "packet", "socket", "pam"},
    "kernel": {"base", "value", "packet", "socket", "kernel"},
    "tcp": {"base", "value", "packet", "socket", "pam", "kernel", "tcp"},
}

NOT_UNITS = {"CMakeLists.txt", "README.md"}

INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)
UNIT_LIST = re.compile(r"\bpavo_units\s*\(\s*(\S+)\s+(\S+)([^)]*)\)")
HEADING = re.compile(r"^#+\s+(\S+)")
ROW = re.compile(r"^\|\s*`([^`]+)`\s*\|\s*\S")


def read_lists(folder):
    """Yields (layer, unit) in the order of the folder's CMakeLists.txt."""
    text = (folder / "CMakeLists.txt").read_text(encoding="utf-8")
    for _, layer, units in UNIT_LIST.findall(re.sub(r"#.*", "", text)):
        for unit in units.split():
            yield layer, unit


def read_rows(readme):
    """Yields (heading, unit, line number) of each table row that begins with a unit."""
    heading = ""
    for number, line in enumerate(readme.read_text(encoding="utf-8").splitlines(), start=1):
        if match := HEADING.match(line):
            heading = match[1]
        elif match := ROW.match(line):
            yield heading, match[1], number


def includes_of(path):
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def check_files(folder, units):
    """What is listed is there, and what is there is listed."""
    seen = set()
    for unit in units:
        if unit in seen:
            yield f"{folder}/CMakeLists.txt: {unit} is listed twice"
        seen.add(unit)
        if not any((folder / f"{unit}{suffix}").exists() for suffix in (".h", ".cpp")):
            yield f"{folder}/CMakeLists.txt: {unit} is listed and has no file"
    for path in sorted(folder.rglob("*")):
        if path.is_dir() or path.name in NOT_UNITS:
            continue
        unit = str(path.relative_to(folder).with_suffix(""))
        if path.suffix not in (".h", ".cpp") or unit not in seen:
            yield f"{path}: in no list of {folder}/CMakeLists.txt"


def find_cycle(graph):
    """The first include cycle as a list of names whose first is also its last, or None."""
    done = set()

    def visit(node, path):
        if node in path:
            return path[path.index(node):] + [node]
        if node in done:
            return None
        for successor in graph.get(node, ()):
            if cycle := visit(successor, path + [node]):
                return cycle
        done.add(node)
        return None

    for start in sorted(graph):
        if cycle := visit(start, []):
            return cycle
    return None


def check_cycles(folder, include_root):
    """No header includes itself, on whatever way."""
    names = {str(path.relative_to(include_root)): path for path in folder.rglob("*.h")}
    graph = {
        name: [included for included in includes_of(path) if included in names]
        for name, path in names.items()
    }
    if cycle := find_cycle(graph):
        yield f"{folder}: include cycle: {' -> '.join(cycle)}"


def check_layers(folder, layer_of):
    """No include of a unit points up or to a sibling layer."""
    siblings = {path.name for path in folder.glob("*.h")}
    for unit, layer in layer_of.items():
        for suffix in (".h", ".cpp"):
            path = folder / f"{unit}{suffix}"
            if not path.exists():
                continue
            for included in includes_of(path):
                if included in siblings:
                    yield f'{path}: "{included}" is to be included as "Pavo/{included}"'
                if not included.startswith("Pavo/"):
                    continue
                target = included[len("Pavo/"):].removesuffix(".h")
                if target not in layer_of:
                    yield f"{path}: includes {included}, which is no listed unit"
                elif layer_of[target] not in MAY_INCLUDE[layer]:
                    yield (
                        f"{path}: layer {layer} may not include {included} "
                        f"of layer {layer_of[target]}"
                    )


def check_readme(readme, layer_of):
    """Each unit has one row, under the heading of its layer."""
    rows = {}
    for heading, unit, number in read_rows(readme):
        if unit not in layer_of:
            yield f"{readme}:{number}: {unit} is no listed unit"
        elif unit in rows:
            yield f"{readme}:{number}: {unit} has a row already"
        elif heading != layer_of[unit]:
            yield f"{readme}:{number}: {unit} is of layer {layer_of[unit]}, not {heading}"
        rows[unit] = heading
    for unit in layer_of:
        if unit not in rows:
            yield f"{readme}: no row for {unit}"


def check_platform(platform):
    for path in sorted(platform.rglob("*")):
        if path.suffix in (".h", ".cpp"):
            for included in includes_of(path):
                if included.startswith("Pavo/"):
                    yield f"{path}: platform may not include {included}"


def faults(root):
    """All faults of the tree below root, as lines."""
    pavo = root / "Pavo"
    platform = root / "platform"
    layer_of = {}
    for layer, unit in read_lists(pavo):
        if layer not in MAY_INCLUDE:
            yield f"{pavo}/CMakeLists.txt: {layer} is no layer"
        else:
            layer_of[unit] = layer
    yield from check_layers(pavo, layer_of)
    yield from check_readme(pavo / "README.md", layer_of)
    yield from check_platform(platform)
    libraries = sorted(path.parent for path in platform.glob("*/CMakeLists.txt"))
    for folder, include_root in [(pavo, root)] + [(library, platform) for library in libraries]:
        yield from check_files(folder, [unit for _, unit in read_lists(folder)])
        yield from check_cycles(folder, include_root)


def main(arguments):
    root = pathlib.Path(arguments[0] if arguments else pathlib.Path(__file__).parent.parent)
    found = list(faults(root))
    for fault in found:
        print(fault)
    if found:
        sys.exit(f"layers: {len(found)} faults")
    units = sum(1 for _ in read_lists(root / "Pavo"))
    print(f"layers: {units} units keep to their layers")


if __name__ == "__main__":
    main(sys.argv[1:])
