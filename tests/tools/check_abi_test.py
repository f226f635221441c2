"""The check of the ABI fails for what compiled agents do not survive, and passes what they do."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

TOOLS = pathlib.Path(__file__).parents[2] / "tools"
HEADER = """
#pragma once
#include <optional>
#include <utility>
namespace Pavo {
enum class Mode { off = 0, on = 1 };
struct Value { int x; };
struct Hidden;
struct Base {
    virtual void first();
    virtual void last();
};
int take(Value value, Mode mode, const Hidden* hidden, const Base* base);
extern Value shared;
struct Std { std::pair<int, int> range; std::optional<int> number; };
struct Unit { virtual ~Unit() = default; virtual void turn(); };
template <class T> struct Pair { T* first; int second; };
std::optional<int> find(const Std* std, const Pair<int>* pair);
// More.
}
"""
SOURCE = """
#include "public.h"
namespace Pavo {
struct Hidden { int y; };
void Base::first() {}
void Base::last() {}
int take(Value value, Mode, const Hidden* hidden, const Base*) { return value.x + hidden->y; }
Value shared;
void Unit::turn() {}
std::optional<int> find(const Std*, const Pair<int>*) { return {}; }
// The end.
}
"""
FAILS, PASSES = True, False


class Abi:
    """A library of one header and one source, and its baseline."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.headers = self.folder / "headers.txt"
        self.types = self.folder / "types.txt"
        self.headers.write_text(str(self.folder / "public.h"), encoding="utf-8")

    def build(self, *edits):
        texts = {"public.h": HEADER, "source.cpp": SOURCE}
        for old, new in edits:
            assert any(old in text for text in texts.values()), old
            new = new.replace("&", old.strip())
            texts = {name: text.replace(old, new) for name, text in texts.items()}
        for name, text in texts.items():
            self.folder.joinpath(name).write_text(text, encoding="utf-8")
        source, library = self.folder / "source.cpp", self.folder / "library.so"
        command = ["g++", "-std=c++20", "-g", "-shared", "-fPIC", source, "-o", library]
        subprocess.run(command, check=True)
        # Debian's Python has libclang's binding.
        command = ["/usr/bin/python3", TOOLS / "abi_types.py", self.headers, self.types]
        subprocess.run([*command, "-std=c++20"], check=True)

    def check(self, *option):
        """Returns (whether the check failed, what it printed)."""
        done = subprocess.run(
            [sys.executable, TOOLS / "check_abi.py", *option, self.folder / "baseline.xml",
             self.folder / "library.so", self.headers, self.types],
            text=True,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        return done.returncode != 0, done.stdout


class CheckAbiTest(unittest.TestCase):
    def test_fails_for_what_compiled_agents_do_not_survive(self):
        cases = [
            (PASSES, "as ", []),
            (PASSES, "as ", [("value.x + hidden", "value.x * hidden")]),
            (PASSES, "as ", [("struct Hidden { int y;", "struct Hidden { int z, y;")]),
            (PASSES, "int Pavo::more()", [("// More.", "int more();"),
                                          ("// The end.", "int more() { return 1; }")]),
            (FAILS, "Pavo::Other has virtual functions", [
                ("// More.", "struct Other { virtual void f(); };"),
                ("// The end.", "void Other::f() {}"),
            ]),
            (FAILS, "Base::between()", [("virtual void last", "virtual void between() {}\n&")]),
            (FAILS, "const Pavo::Hidden*, Pavo::Base*)", [("const Base*", "Base*")]),
            (FAILS, "return type changed", [("int take", "long take")]),
            (FAILS, "size changed from 4 to 8 (in bytes)", [("int x;", "int x; int added;")]),
            (FAILS, "from value '1' to '2'", [("on = 1", "on = 2")]),
            (PASSES, "+ 0 int y", [("int x;", "int y;"), ("value.x", "value.y")]),
            (FAILS, "passed by address", [("int x;", "int x; ~Value() {}")]),
            (FAILS, "+ 0 std::optional<int>", [("std::pair<int, int> range; ", ""),
                                               ("number;", "number; std::pair<int, int> range;")]),
            (FAILS, "+ 8 std::optional<unsigned int>", [("<int> number", "<unsigned> number")]),
            (FAILS, "+ std::optional<unsigned int>", [("std::optional<int> find",
                                                       "std::optional<unsigned> find")]),
            (FAILS, "Pavo::Pair<T> changed", [("T* first; int second;", "int second; T* first;")]),
            (FAILS, "+ virtual last: void () = 0", [("void last();", "void last() = 0;")]),
            (FAILS, "+ virtual ~Base", [("void last();", "& virtual ~Base() = default;")]),
            (FAILS, "final", [("struct Unit", "& final")]),
            (FAILS, "Pavo::shared", [("extern Value shared;", ""), ("\nValue shared", "static &")]),
        ]
        with tempfile.TemporaryDirectory() as folder:
            abi = Abi(folder)
            abi.build()
            abi.check("--update")
            for expected, text, edits in cases:
                with self.subTest(text=text, edits=edits):
                    abi.build(*edits)
                    failed, report = abi.check()
                    self.assertIn(text, report)
                    self.assertEqual(failed, expected, report)


if __name__ == "__main__":
    unittest.main()
