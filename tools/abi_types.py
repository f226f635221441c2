#!/usr/bin/python3
"""Writes what compiled agents know of the types that public headers define, as text.

usage: abi_types.py HEADERS OUTPUT COMPILER-ARGUMENT...

HEADERS lists the paths of the headers, one a line. OUTPUT has a block for each type, by name:

    Pavo::Thing
        size 16, align 8, passed in registers, final
        base Mox::Entity
        virtual name: Mox::String () const = 0
        0 std::optional<unsigned int> index_
        8 unsigned char flags_ : 3

A member begins with its offset in bytes, and in bits after a dot inside of a byte. The members of a
template have no offsets; an instance has those of its arguments. Private and Detail types have
their blocks too, since public ones hold them; templates without bases, virtual functions and members
have none. Functions that return types of the C++ library, and variables of them, have a block
as well: abidiff leaves these types out, and a mangled name does not contain the type of the result.

Debian's Python runs this, since libclang's binding is a Debian package.
"""

import re
import sys

from clang.cindex import CursorKind, Diagnostic, Index, TranslationUnit, TypeKind, conf

OURS = {"Mox", "Keel", "Pavo"}
RECORDS = {CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL, CursorKind.UNION_DECL}
TEMPLATES = {CursorKind.CLASS_TEMPLATE, CursorKind.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION}
FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONVERSION_FUNCTION}
VIRTUALS = FUNCTIONS | {CursorKind.DESTRUCTOR}

# A template that yields 2 for a type that travels in registers as an argument or a result.
PROBE = """
template <class T>
constexpr int probe = 1 + (__has_trivial_destructor(T) && __is_trivially_constructible(T, T&&) &&
    (!__is_constructible(T, const T&) || __is_trivially_constructible(T, const T&)));
"""


def text_of(kind):
    """The spelling of a type without aliases, and without the place of what has no name."""
    spelling = kind.get_canonical().spelling
    return re.sub(r"\((?:anonymous|unnamed) (\w+) at [^)]*\)", r"(\1)", spelling)


def full_name(cursor):
    names = []
    while cursor is not None and cursor.kind != CursorKind.TRANSLATION_UNIT:
        if cursor.kind in RECORDS | {CursorKind.ENUM_DECL}:
            return "::".join([cursor.type.spelling, *reversed(names)])
        names.append(cursor.displayname if cursor.kind in TEMPLATES else cursor.spelling)
        cursor = cursor.semantic_parent
    return "::".join(name for name in reversed(names) if name)


def definitions(scope, in_template=False, outermost=True):
    """Yields (declaration, whether it depends on the arguments of a template) below `scope`."""
    for cursor in scope.get_children():
        if cursor.kind == CursorKind.NAMESPACE:
            if not outermost or cursor.spelling in OURS:
                yield from definitions(cursor, outermost=False)
        elif outermost:
            continue
        elif cursor.kind == CursorKind.FRIEND_DECL:
            yield from definitions(cursor, in_template, outermost=False)
        elif cursor.kind in RECORDS | TEMPLATES:
            dependent = in_template or cursor.kind in TEMPLATES
            if cursor.is_definition():
                if cursor.spelling and not cursor.is_anonymous():
                    yield cursor, dependent
                yield from definitions(cursor, dependent, outermost=False)
        else:
            yield cursor, in_template


def members_of(cursor, dependent):
    """Yields a line for each non-static data member, also of unnamed unions and structures."""
    for field in cursor.get_children():
        if field.kind in RECORDS and field.is_anonymous() and field.is_definition():
            yield f"{field.kind.name.split('_')[0].lower()} of"
            yield from ("  " + line for line in members_of(field, dependent))
        elif field.kind == CursorKind.FIELD_DECL:
            width = f" : {field.get_bitfield_width()}" if field.is_bitfield() else ""
            member = f"{text_of(field.type)} {field.spelling}{width}"
            whole, bits = divmod(field.get_field_offsetof(), 8)
            offset = f"{whole}.{bits} " if bits else f"{whole} "
            yield member if dependent else offset + member


def is_final(cursor):
    return any(child.kind == CursorKind.CXX_FINAL_ATTR for child in cursor.get_children())


def state_of(cursor, dependent):
    """Yields the lines on bases, virtual functions and members."""
    for child in cursor.get_children():
        if child.kind == CursorKind.CXX_BASE_SPECIFIER:
            virtual = "virtual " if conf.lib.clang_isVirtualBase(child) else ""
            yield f"{virtual}base {text_of(child.type)}"
        elif child.kind in VIRTUALS and child.is_virtual_method():
            marks = " final" * is_final(child) + " = 0" * child.is_pure_virtual_method()
            yield f"virtual {child.spelling}: {text_of(child.type)}{marks}"
    yield from members_of(cursor, dependent)


def block_of_type(cursor, dependent, in_registers):
    """Returns the lines of a class or a template; those of a template without state are none."""
    state = list(state_of(cursor, dependent))
    final = ["final"] * is_final(cursor)
    if dependent:
        return final + state
    kind = cursor.type
    traits = [f"size {kind.get_size()}", f"align {kind.get_align()}"]
    traits.append("passed in registers" if in_registers else "passed by address")
    return [", ".join(traits + final), *state]


def block_of_enum(cursor):
    lines = [f"of {text_of(cursor.enum_type)}"]
    for child in cursor.get_children():
        if child.kind == CursorKind.ENUM_CONSTANT_DECL:
            lines.append(f"{child.spelling} = {child.enum_value}")
    return lines


def result_of(cursor):
    """Returns (name, lines) for an exported function or variable of a type of the C++ library."""
    if cursor.kind in FUNCTIONS:
        kind = cursor.result_type
        types = ", ".join(text_of(given) for given in cursor.type.get_canonical().argument_types())
        name = f"{full_name(cursor)}({types})" + " const" * cursor.is_const_method()
    else:
        kind, name = cursor.type, full_name(cursor)
    return name, [text_of(kind)] if "std::" in text_of(kind) else []


def parse(text, arguments):
    unit = Index.create().parse(
        "headers.cpp",
        [*arguments, "-fno-access-control"],
        unsaved_files=[("headers.cpp", text)],
        options=TranslationUnit.PARSE_SKIP_FUNCTION_BODIES,
    )
    errors = [str(found) for found in unit.diagnostics if found.severity >= Diagnostic.Error]
    if errors:
        sys.exit("\n".join(errors))
    return unit.cursor


def registers_of(source, names, arguments):
    """Returns the names of those classes that travel in registers."""
    lines = [f"extern char in_registers_{i}[probe<{name}>];" for i, name in enumerate(names)]
    unit = parse(source + PROBE + "\n".join(lines), arguments)
    sizes = [
        cursor.type.element_count
        for cursor in unit.get_children()
        if cursor.kind == CursorKind.VAR_DECL and cursor.type.kind == TypeKind.CONSTANTARRAY
        and cursor.spelling.startswith("in_registers_")
    ]
    return {name for name, size in zip(names, sizes, strict=True) if size == 2}


def blocks_of(source, arguments):
    """Returns {name: lines}."""
    found = list(definitions(parse(source, arguments)))
    classes = {full_name(cursor) for cursor, dependent in found
               if cursor.kind in RECORDS and not dependent}
    registers = registers_of(source, sorted(classes), arguments)
    blocks = {}
    for cursor, dependent in found:
        if cursor.kind in RECORDS | TEMPLATES:
            name = full_name(cursor)
            blocks[name] = block_of_type(cursor, dependent, name in registers)
        elif cursor.kind == CursorKind.ENUM_DECL and cursor.is_definition():
            blocks[text_of(cursor.type)] = block_of_enum(cursor)
        elif cursor.kind in FUNCTIONS | {CursorKind.VAR_DECL}:
            if not dependent and not cursor.is_definition():
                name, lines = result_of(cursor)
                blocks[name] = lines
    return blocks


def main(headers, output, *arguments):
    with open(headers, encoding="utf-8") as file:
        source = "".join(f'#include "{line}"\n' for line in file.read().split())
    with open(output, "w", encoding="utf-8") as file:
        for name, lines in sorted(blocks_of(source, arguments).items()):
            if lines:
                file.write("".join([name, "\n", *(f"    {line}\n" for line in lines)]))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
