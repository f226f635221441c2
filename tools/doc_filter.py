#!/usr/bin/env python3
"""Doxygen's input filter: puts each name of a header into the group of its layer, and gives a text
to the names that mean the same in every class. No line is added or removed, so that warnings keep
their line numbers.

A setter has the text of its getter, and an overload that follows another without a blank line has
the text of that one, if they have none of their own."""

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
    (r"CLASS\((const CLASS&|CLASS&&)\)( noexcept)? = (default|delete);|"
     r"CLASS& operator=\((const CLASS&|CLASS&&)\)( noexcept)? = (default|delete);|"
     r"(virtual )?~CLASS\(\)", "Copying, moving and the end of life are those of the class."),
    (r"static constexpr auto description\(\)",
     "The name of the type with its fields or attributes, from which the framework derives text, "
     "log and hash (Mox/ValueType.h, Mox/FwkType.h)."),
    (r"static constexpr const char\* invalidText\b",
     "The text of the error for bad text and for text after the value."),
    (r"static constexpr std::string_view (typeName|recordName)\b",
     "The name of the type in the text of its record."),
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
    (r"friend .*operator(==|<=>|<)\(", "The order is the one that the class describes."),
    (r"(std::ostream& )operator<<\(", "Writes the canonical text."),
    (r"static constexpr (Mox::)?Attribute<.*> (\w+)Attr\{",
     r"The token of the attribute `\2`, which notifications carry."),
    (r"(constexpr|inline) auto enumDescription\(",
     "The names of the enumerators, which are their text."),
    (r"using (CLASS|\w+)::\1;", "The constructors of the base."),
]
PREFIXES = re.compile(r"^(?:template <.*?> (?=[a-z\[~A-Z])|\[\[nodiscard\]\] |(?:PAVO|MOX|KEEL)_EXPORT "
                      r"|constexpr (?!auto)|inline (?!auto))+")
NAME = re.compile(r"(operator[^\w\s]+|operator \w+|~?\w+)\s*(?:\(|\[|=|\{|;)")


def declaration(lines, at):
    """The declaration that begins in this line, without its body, in one line."""
    text = ""
    for line in lines[at:at + 12]:
        text += " " + line.strip()
        if re.search(r"[;{]$|[;{}]\s*(//.*)?$", line):
            break
    return text.strip()


def layer(path):
    folder = pathlib.Path(path).parent.name
    return folder if folder[0].islower() else folder.lower()


class Filter:
    def __init__(self, text):
        self.lines = text.splitlines()
        self.scopes = [("", "")]  # The classes around a line: the indentation and the name.
        self.texts = {}  # What is said about each name of the class.
        self.last = None  # The name before, if no blank line follows it.
        self.comment = []
        self.grouped = False

    def text_for(self, decl, name):
        shared = PREFIXES.sub("", decl)
        for pattern, text in RULES:
            pattern = pattern.replace("CLASS", self.scopes[-1][1] or "NONE")
            found = re.match(pattern, shared) or re.match(pattern, decl)
            if found:
                return found.expand(text) if "\\" in text else text
        getter = re.sub(r"(Is|Inc|Del|DelAll)$", "", name)
        if getter != name and getter in self.texts:
            return "Changes: " + self.texts[getter]
        if name == self.last and name in self.texts:
            return self.texts[name]
        return None

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
            self.comment.append(stripped[3:].strip())
            self.grouped = "@{" in stripped or (self.grouped and "@}" not in stripped)
            return line
        if re.match(self.scopes[-1][0][:-4] + r"\};?", line) and len(self.scopes) > 1:
            self.scopes.pop()
            self.texts = {}
            return line
        result = line
        if stripped == "":
            self.last = None
        elif self.begins(at):
            result = self.declared(at)
        self.comment = []
        opened = re.match(r"\s*(?:class|struct|union) (?:\w+_EXPORT )?(\w+)\b.*", line)
        if opened and (line.endswith("{") or declaration(self.lines, at).endswith("{")):
            self.scopes.append((re.match(r"\s*", line).group() + "    ", opened.group(1)))
            self.texts = {}
        return result

    def declared(self, at):
        line = self.lines[at]
        decl = declaration(self.lines, at)
        found = NAME.search(PREFIXES.sub("", decl))
        name = found.group(1) if found else ""
        text = " ".join(self.comment).split("  ")[0].strip()
        if not text and not self.grouped:
            text = self.text_for(decl, name)
            if text:
                line = re.sub(r"^\s*", lambda m: m.group() + f"/** {text} */ ", line, count=1)
        if text and name:
            self.texts[name] = text
        self.last = name
        return line

    def run(self):
        return [self.line(at) for at in range(len(self.lines))]


def main():
    path = sys.argv[1]
    group = layer(path)
    for line in Filter(pathlib.Path(path).read_text()).run():
        if re.match(r"namespace \w+ \{$", line):
            line += f" /** @addtogroup {group} */ /** @{{ */"
        elif re.match(r"\}  // namespace \w+$", line) and "Detail" not in line:
            line = "/** @} */ " + line
        print(line)


if __name__ == "__main__":
    if sys.argv[1].endswith(".h"):
        main()
    else:
        sys.stdout.write(pathlib.Path(sys.argv[1]).read_text())
