#!/usr/bin/python3
"""Writes a source with one exported function for each type that public headers define.

usage: abi_types.py HEADERS OUTPUT COMPILER-ARGUMENT...

A library's debug information describes the types that its own functions take, which leaves out what
only headers define and only agents use: header views, most enumerations. A function that takes such
a type brings its members, slots and enumerators into the library that abidiff compares. HEADERS
lists the paths of the headers, one a line.

Types of Detail namespaces, private types and templates are left out: an instance of a template is
compiled into the agent as a whole, or is among the parameters of a function of the library.

Debian's Python runs this, since libclang's binding is a Debian package.
"""

import sys

from clang.cindex import AccessSpecifier, CursorKind, Diagnostic, Index, TranslationUnit

OURS = {"Mox", "Keel", "Pavo"}
TYPES = {
    CursorKind.CLASS_DECL,
    CursorKind.STRUCT_DECL,
    CursorKind.UNION_DECL,
    CursorKind.ENUM_DECL,
}


def types_of(scope, outermost=True):
    """Yields the qualified name of each type defined in `scope`."""
    for cursor in scope.get_children():
        if cursor.kind == CursorKind.NAMESPACE:
            if cursor.spelling in OURS or (not outermost and cursor.spelling != "Detail"):
                yield from types_of(cursor, outermost=False)
        elif cursor.kind in TYPES and not outermost and cursor.is_definition():
            named = cursor.spelling and not cursor.is_anonymous()
            if named and cursor.access_specifier != AccessSpecifier.PRIVATE:
                yield cursor.type.spelling
                yield from types_of(cursor, outermost=False)


def main(headers, output, *arguments):
    with open(headers, encoding="utf-8") as file:
        includes = "".join(f'#include "{line}"\n' for line in file.read().split())
    unit = Index.create().parse(
        "headers.cpp",
        list(arguments),
        unsaved_files=[("headers.cpp", includes)],
        options=TranslationUnit.PARSE_SKIP_FUNCTION_BODIES,
    )
    errors = [str(found) for found in unit.diagnostics if found.severity >= Diagnostic.Error]
    if errors:
        sys.exit("\n".join(errors))
    names = sorted(set(types_of(unit.cursor)))
    with open(output, "w", encoding="utf-8") as file:
        file.write(includes + "\nnamespace Pavo {\n")
        for name in names:
            file.write(f"PAVO_EXPORT void agentsUse(const {name}*) {{}}\n")
        file.write("}  // namespace Pavo\n")


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
