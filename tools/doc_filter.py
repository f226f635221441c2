#!/usr/bin/env python3
"""Doxygen's input filter: puts each name of a header into the group of its layer, and gives a text
to the names that mean the same in every class. No line is added or removed, so that warnings keep
their line numbers.

A member without a text of its own, or with commands such as @throws alone, has that of its getter
if it is a setter, that of the overload in the line before, or the paragraph of its class's text that
begins with "Members:". A member whose name ends in "_" is left out."""

import functools
import pathlib
import re
import sys

ERROR = "@throws Mox::RangeException the text of the error"
# The first pattern that the declaration matches; CLASS stands for the name of the class.
RULES = [
    (r"CLASS\(\) (noexcept )?= default;",
     "Each field has its initial value: zero or empty, where the class says nothing else."),
    (r"CLASS\((Mox::)?(String::)?TextIt& \w+, const TextIt& \w+\)",
     f"Reads the text at `it` and moves `it` past it. {ERROR}; `it` is then unchanged"),
    (r"explicit CLASS\(std::string_view text\)",
     f"Reads the whole of `text`. {ERROR}, which is `invalidText` for text after the value"),
    (r"CLASS\((Mox::)?NboAttrLog::In\* in, (Mox::)?StreamBogon\)",
     f"Reads the value from a log. {ERROR} for a value that the type does not have"),
    (r"(CLASS|CLASS& operator=)\((const CLASS&|CLASS&&)\)( noexcept)? = delete;",
     "Objects of this class are neither copied nor moved."),
    (r"(CLASS|CLASS& operator=)\((const CLASS&|CLASS&&)\)( noexcept)? = default;",
     "Member by member."),
    (r"(virtual )?~CLASS\(\)", "Gives up what the object holds."),
    (r"(explicit )?CLASS\([^)]*\)( noexcept)? : (\w+\((std::move\()?\w+\)?(, \w+)*\)(, )?)+ \{\}",
     "The fields are the arguments."),
    (r"static constexpr auto description\(\)",
     "The name of the type with its fields or attributes, from which the framework derives text, "
     "log and hash (Mox/ValueType.h, Mox/FwkType.h)."),
    (r"static constexpr const char\* invalidText\b",
     "The text of the error for bad text and for text after the value."),
    (r"const char\* parse(Text|Strep)?\(",
     "A hook of Mox::ValueType, which reads with it: null, or the text of the error."),
    (r"void print(Strep)?\((Mox::)?TextWriter& \w+\) const",
     "A hook of Mox::ValueType, which writes with it."),
    (r"const char\* check\(\) const",
     "The rule between the fields: null, or the text of the error."),
    (r"void (toLog|fromLog)\((Mox::)?NboAttrLog::(Out|In)& \w+\)",
     "A hook of Mox::ValueType: the form of the value in a log."),
    (r"const char\* leftoverText\(\) const", "The text of the error for text after the value."),
    (r"uint32_t hash\(", "The same in every process, on both word sizes."),
    (r"friend .*operator(==|<=>|<)\(",
     "Compares as the text of the class says, else member by member."),
    (r"(std::ostream& )operator<<\(", "Writes the canonical text."),
    (r"static constexpr (const char\*|std::string_view) (typeName|recordName)\b",
     "The name of the type in the text of its record."),
    (r"static constexpr (const char\*|std::string_view) \w+Name\b",
     "The name of the field in the text of the record."),
    (r"using (Error|Result|Self|Base|Address) = ", "A short name for use in the class."),
    (r"static constexpr const char\* rangeText\b",
     "The text of the error for a number that is out of range."),
    (r"static constexpr const char\* \w+Text\b", "The text of an error."),
    (r"static (constexpr )?(const char\*|void) (parse|print|toLog|fromLog|mix)\((Mox::)?"
     r"(TextCursor|TextWriter|NboAttrLog::Out|NboAttrLog::In|Hash)&",
     "A member of Mox::Codec: the form of the type as a field of a record."),
    (r"class (?:\w+_EXPORT )?(\w+)Wrapper : public",
     r"The record `\1` of a packet, which it holds."),
    (r"static constexpr bool (nextHas\w+|needsAddresses) = true;|void write\(const "
     r"LayerSite&|std::size_t hdrBytes\(\)|(uint16_t etherType|\w+ ipProtocol|uint32_t addressSum)"
     r"\(\) const", "What Pavo::PktLayer asks of a layer."),
    (r"struct std::hash<", "For unordered containers: the hash of the value."),
    (r"std::size_t operator\(\)\(const ", "The hash of the value."),
    (r"(Mox::)?String name\(\) const override \{",
     "The name with which the object was made."),
    (r"explicit CLASS\((Mox::)?String name\)", "With that name, which never changes."),
    (r"bool \w+\(const [\w:]+& \w+\) const \{ return \w+_\.contains", "Whether it is a member."),
    (r"const (Mox::)?(Set|Map|Directory)<.*>& \w+\(\) const", "All members, for reading."),
    (r"void \w+DelAll\(\) \{ memberDelAll", "Removes all members, and notifies of each."),
    (r"void \w+Del\(.*\{ (memberDel|\w+Is)\(",
     "Removes the member; nothing happens if there is none."),
    (r"Mox::Ptr<\w+> \w+Factory\($|Mox::Ptr<\w+> \w+Factory\(.*\)( \{|;)",
     "Makes the object; the arguments are those of its constructor."),
    (r"(const )?[\w:<>]+\*? (begin|end)\(\) const", "For range-based loops."),
    (r"static constexpr (Mox::)?Attribute<.*> (\w+)Attr\{",
     r"The token of the attribute `\2`, which notifications carry."),
    (r"(constexpr|inline) auto enumDescription\(",
     "The names of the enumerators, which are their text."),
    (r"(static )?(\w+) \2Instance\(uint32_t value\);", "The enumerator of that number."),
    (r"(static )?(\w+) \2Instance\(const Mox::String& name\);", "The enumerator of that name."),
    (r"using (CLASS|\w+)::\1;", "The constructors of the base."),
]
PREFIXES = re.compile(r"(?:\[\[\w+\]\] |\w+_EXPORT |constexpr (?!auto)|inline (?!auto))+")
NAME = re.compile(r"(operator[^\w\s]+|operator \w+|~?\w+)\s*(?:\(|\[|=|\{|;)")


def declaration(lines, at):
    """The declaration that begins in this line, without its body, in one line."""
    text = ""
    for line in lines[at:at + 12]:
        text += " " + line.strip()
        if re.search(r"[;{]$|[;{}]\s*(//.*)?$", line):
            break
    return text.strip()


def shared_form(decl):
    """The declaration without template parameters, attributes and the like before it."""
    if decl.startswith("template <"):
        depth, at = 1, len("template <")
        while depth and at < len(decl):
            depth += {"<": 1, ">": -1}.get(decl[at], 0)
            at += 1
        decl = decl[at:].strip()
    return PREFIXES.sub("", decl) if PREFIXES.match(decl) else decl


def layer(path):
    folder = pathlib.Path(path).parent.name
    return folder if folder[0].islower() else folder.lower()


def members_text(comment):
    """The paragraph for all members in the text of a class, or None."""
    for paragraph in " ".join(line or "\n" for line in comment).split("\n"):
        if paragraph.strip().startswith("Members:"):
            text = paragraph.strip().removeprefix("Members:").strip()
            return text[0].upper() + text[1:]
    return None


@functools.cache
def overridden():
    """What is said of each virtual function; Doxygen does not find it through template bases."""
    texts = {}
    for header in [*pathlib.Path("Pavo").rglob("*.h"), *pathlib.Path("platform").rglob("*.h")]:
        comment, group = [], ""
        for line in map(str.strip, header.read_text().splitlines()):
            found = re.match(r"virtual [^;(]*?(\w+)\(", line)
            if found and (comment or group):
                texts.setdefault(found.group(1), set()).add(" ".join(comment) or group)
            if line in ("/// @{", "/// @}"):
                group = " ".join(comment) if line == "/// @{" else ""
            else:
                comment = [*comment, line[3:].strip()] if line.startswith("///") else []
    return {name: "From the base: " + all_of.pop()
            for name, all_of in texts.items() if len(all_of) == 1}


class Filter:
    def __init__(self, text):
        self.lines = text.splitlines()
        # The classes around a line: the indentation inside, the name, the text for all members.
        self.scopes = [("", "", None)]
        self.texts = {}  # What is said about each name of the class.
        self.last = None  # The name before, if no blank line follows it.
        self.comment = []
        self.group = ""
        self.access = {}  # The last access label by the number of scopes.

    def text_for(self, decl, name):
        shared = shared_form(decl)
        for pattern, text in RULES:
            pattern = pattern.replace("CLASS", self.scopes[-1][1] or "NONE")
            found = re.match(pattern, shared) or re.match(pattern, decl)
            if found:
                return found.expand(text) if "\\" in text else text
        if re.search(r"\boverride\b( \{|;)", decl):
            return overridden().get(name) or "The text of the function of the base holds here."
        getter = re.sub(r"(Is|Inc|Del|DelAll|U16)$", "", name)
        if getter != name and getter in self.texts:
            what = {"U16": "As a number in host order", "Del": "Removes", "All": "Removes all",
                    "Inc": "Adds to"}
            return what.get(name[-3:], "Sets") + ": " + self.texts[getter]
        if name == self.last and name in self.texts and name != self.scopes[-1][1]:
            return self.texts[name]
        if shared.startswith("concept "):
            return "@noTextForConcept"  # An unknown command: Doxygen itself lets it pass.
        return self.scopes[-1][2]

    def begins(self, at):
        """Whether a declaration of the scope begins in this line."""
        indent = self.scopes[-1][0]
        line = self.lines[at]
        if not line.startswith(indent) or line[len(indent):len(indent) + 1] in (" ", "", "}", "#"):
            return False
        if re.match(r"\s*(//|public:|protected:|private:|namespace)", line):
            return False
        before = self.lines[at - 1].strip() if at else ""
        return before == "" or before.startswith("//") or before[-1] in ";{}:" or \
            before.startswith("#") or bool(re.search(r"[;{}]\s*//", before))

    def line(self, at):
        line = self.lines[at]
        stripped = line.strip()
        if stripped.startswith("///"):
            text = stripped[3:].strip()
            if text == "@{":  # Each member of the group has its text.
                self.group = " ".join(self.comment)
            if text in ("@{", "@}"):
                self.group = self.group if text == "@{" else ""
                return ""
            self.comment.append(text)
            return line
        if stripped in ("public:", "protected:", "private:"):
            self.access[len(self.scopes)] = stripped
        if re.match(self.scopes[-1][0][:-4] + r"\};?", line) and len(self.scopes) > 1:
            self.access.pop(len(self.scopes), None)
            self.scopes.pop()
            self.texts = {}
            return line + " /** @endcond */" * self.is_private()
        result = line
        if stripped == "":
            self.last = None
        elif self.begins(at):
            result = self.declared(at)
        comment = self.comment
        if not stripped.startswith("template <"):
            self.comment = []
        opened = re.match(
            r"\s*(?:class|struct|union) (?:\[\[\w+\]\] )?(?:\w+_EXPORT )?(\w+)\b", line)
        if opened and (line.endswith("{") or declaration(self.lines, at).endswith("{")):
            indent = re.match(r"\s*", line).group() + "    "
            hidden = "/** @cond */ " * self.is_private()
            self.texts = {}
            self.scopes.append((indent, opened.group(1), members_text(comment)))
            return hidden + result
        return result

    def is_private(self):
        """Private classes are hidden as a whole: Doxygen would leave their headings."""
        return self.access.get(len(self.scopes)) == "private:"

    def declared(self, at):
        line = self.lines[at]
        decl = declaration(self.lines, at)
        found = NAME.search(shared_form(decl))
        name = found.group(1) if found else ""
        own = " ".join(self.comment).split("  ")[0].strip() or self.group
        if not own and re.fullmatch(r".*\w_(\[\w*\])?( = .*|\{.*\})?;( *//.*)?", decl):
            return f"/** @cond */ {line} /** @endcond */"
        text = ""
        if not self.comment:
            text = own or self.text_for(decl, name)
        elif self.comment[0].startswith("@"):  # The sentence to which the commands belong.
            text = (self.text_for(decl, name) or "").split("@")[0].strip()
            own = f"{text} {own}".strip()
        if text:
            line = re.sub(r"^\s*", lambda m: m.group() + f"/** {text} */ ", line, count=1)
        if own and name:
            self.texts[name] = own
        self.last = name
        return line

    def run(self):
        return [self.line(at) for at in range(len(self.lines))]


def main():
    path = sys.argv[1]
    group = f"/** @addtogroup {layer(path)} */ /** @{{ */"
    lines = Filter(pathlib.Path(path).read_text()).run()
    is_c = not any(line.startswith("namespace ") for line in lines)
    for before, line in zip(["", *lines], lines):
        if "//" in line:
            line = line.replace("::ffff", "\\::ffff")  # An address, not a name.
        line = line.replace("struct fmt::formatter<", "struct formatter<")  # Not a known namespace.
        if re.match(r"namespace (Pavo|Mox|Keel) \{$", line):
            line += " " + group
        elif re.match(r"\}  // namespace (Pavo|Mox|Keel)$", line):
            line = "/** @} */ " + line
        elif is_c and before == "#pragma once":
            line += group
        print(line)
    if is_c:
        print("/** @} */")


if __name__ == "__main__":
    main()
