#!/usr/bin/env python3
"""Checks that the units of Pavo/ keep to their layers.

usage: check_layers.py [ROOT]

tools/layers says which layer may include which. The units of a layer are the headers and sources in
its folder; its CMakeLists.txt names the private ones (`pavo_units(<library> PRIVATE <unit>...)`),
and its README.md has a table with a row for each unit. Exits with 1 and one line for each fault: an
include that points up or sideways, an include of a private unit from a public header, an include by
another path than "Pavo/<layer>/<unit>.h", an include cycle, a private unit without header, a file
that is no unit, a unit without row, a row without unit, and an include of Pavo/ from platform/.
"""

import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)
PRIVATE = re.compile(r"\bpavo_units\s*\(\s*\S+\s+PRIVATE\s+([^)]*)\)")
ROW = re.compile(r"^\|\s*`([^`]+)`\s*\|\s*\S")


def read_layers(path):
    """{layer: the layers that it may include}, in the order of the table."""
    may_include, below = {}, set()
    for line in path.read_text(encoding="utf-8").splitlines():
        layers = line.split("#")[0].split()
        for layer in layers:
            may_include[layer] = below | {layer}
        below = below | set(layers)
    return may_include


def units_of(folder):
    """The names of the units in a folder, each once."""
    files = (path for path in folder.iterdir() if path.suffix in (".h", ".cpp"))
    return sorted({path.stem for path in files})


def private_units(folder):
    """The units that the folder's CMakeLists.txt keeps from agents."""
    text = (folder / "CMakeLists.txt").read_text(encoding="utf-8")
    listed = PRIVATE.search(re.sub(r"#.*", "", text))
    return listed[1].split() if listed else []


def includes_of(path):
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def check_files(folder):
    """All files are of units, and a private unit has a header to keep from agents."""
    for unit in private_units(folder):
        if not (folder / f"{unit}.h").exists():
            yield f"{folder}/CMakeLists.txt: {unit} is private and has no header"
    for path in sorted(folder.iterdir()):
        if path.suffix not in (".h", ".cpp") and path.name not in ("CMakeLists.txt", "README.md"):
            yield f"{path}: no unit"


def check_rows(folder, units):
    """Each unit has one row in the table of the folder."""
    readme = folder / "README.md"
    rows = set()
    for number, line in enumerate(readme.read_text(encoding="utf-8").splitlines(), start=1):
        if match := ROW.match(line):
            if match[1] not in units:
                yield f"{readme}:{number}: {match[1]} is no unit"
            elif match[1] in rows:
                yield f"{readme}:{number}: {match[1]} has a row already"
            rows.add(match[1])
    for unit in units:
        if unit not in rows:
            yield f"{readme}: no row for {unit}"


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
    """No header includes itself, directly or through others."""
    names = {str(path.relative_to(include_root)): path for path in folder.rglob("*.h")}
    graph = {
        name: [included for included in includes_of(path) if included in names]
        for name, path in names.items()
    }
    if cycle := find_cycle(graph):
        yield f"{folder}: include cycle: {' -> '.join(cycle)}"


def check_includes(path, layer, may_include, layer_of, private):
    """The includes of one file of a layer."""
    for included in includes_of(path):
        unit = pathlib.PurePath(included).stem
        if (path.parent / included).exists() and "/" not in included:
            yield f'{path}: "{included}" is to be included as "Pavo/{layer}/{included}"'
        if not included.startswith("Pavo/"):
            continue
        if unit not in layer_of:
            yield f"{path}: includes {included}, which is no unit"
        elif included != f"Pavo/{layer_of[unit]}/{unit}.h":
            yield f'{path}: "{included}" is to be included as "Pavo/{layer_of[unit]}/{unit}.h"'
        elif layer_of[unit] not in may_include:
            yield f"{path}: layer {layer} may not include {included}"
        elif unit in private and path.suffix == ".h" and path.stem not in private:
            yield f"{path}: public, and includes the private {included}"


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
    may_include = read_layers(root / "tools" / "layers")
    layer_of, private = {}, set()
    for folder in sorted(path for path in pavo.iterdir() if path.is_dir()):
        if folder.name not in may_include:
            yield f"{folder}: no layer of tools/layers"
    for layer in may_include:
        for unit in units_of(pavo / layer):
            if unit in layer_of:
                yield f"{pavo / layer}: {unit} is a unit of {layer_of[unit]} too"
            layer_of[unit] = layer
        private |= set(private_units(pavo / layer))
    for layer in may_include:
        for path in sorted((pavo / layer).glob("*.*")):
            if path.suffix in (".h", ".cpp"):
                yield from check_includes(path, layer, may_include[layer], layer_of, private)
    yield from check_cycles(pavo, root)
    yield from check_platform(platform)
    libraries = sorted(path.parent for path in platform.glob("*/CMakeLists.txt"))
    for library in libraries:
        yield from check_cycles(library, platform)
    for folder in [pavo / layer for layer in may_include] + libraries:
        yield from check_files(folder)
        if folder not in libraries:
            yield from check_rows(folder, units_of(folder))


def main(arguments):
    root = pathlib.Path(arguments[0] if arguments else pathlib.Path(__file__).parent.parent)
    found = list(faults(root))
    for fault in found:
        print(fault)
    if found:
        sys.exit(f"layers: {len(found)} faults")
    layers = read_layers(root / "tools" / "layers")
    units = sum(len(units_of(root / "Pavo" / layer)) for layer in layers)
    print(f"layers: {units} units keep to their {len(layers)} layers")


if __name__ == "__main__":
    main(sys.argv[1:])
