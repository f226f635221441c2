"""The check of virtual slots reads what the compiler lists and tells a table that disagrees."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tools"))
import check_vtables  # noqa: E402

CLASSES = """
namespace N {
template <class T> struct Of { virtual void t(T); virtual ~Of() = default; };
struct Base { virtual int f(int) const = 0; virtual void g(); protected: virtual ~Base() {} };
struct Both : Base, Of<Base*> {
    int f(int) const override;
    virtual int f(double);
    void t(Base*) override;
    virtual operator bool() const;
    virtual Of<Base*> result(int (*)(...));
};
struct Late : virtual Of<int> { virtual void late(); };
struct Covariant : Of<int> { virtual Of<int>* self(); };
struct Derived : Base, Covariant { int f(int) const override; Derived* self() override; };
struct Plain { int x; };
}
"""

SOUND = """
// As the compiler has them.
#include "classes.h"
N::Base:
    f = 0
    g
    ~Base
    ~Base
N::Both:
    f
    g
    ~Both
    ~Both
    f
    t
    operator bool
    result
N::Of<int>:
    t
    ~Of
    ~Of
N::Late:
    t
    ~Late
    ~Late
    late
N::Derived:
    f
    g
    ~Derived
    ~Derived
    self
"""


def faults_of(table):
    with tempfile.TemporaryDirectory() as folder:
        pathlib.Path(folder, "classes.h").write_text(CLASSES, encoding="utf-8")
        includes, kept = check_vtables.read_table(table)
        dump = check_vtables.dump_classes(includes, ["-I", folder])
        return list(check_vtables.differences(kept, check_vtables.read_dump(dump)))


class CheckVtablesTest(unittest.TestCase):
    def test_tells_each_difference(self):
        cases = [
            (("", ""), []),
            (
                ("    g\n    ~Base\n", "    ~Base\n    g\n"),
                [
                    "N::Base: slot 1 is to be '~Base' and is 'g'",
                    "N::Base: slot 2 is to be 'g' and is '~Base'",
                ],
            ),
            (("    late\n", ""), ["N::Late: slot 3 is to be 'no slot' and is 'late'"]),
            (
                ("    late\n", "    late\n    more\n"),
                ["N::Late: slot 4 is to be 'more' and is 'no slot'"],
            ),
            (("    f = 0\n", "    f\n"), ["N::Base: slot 0 is to be 'f' and is '= 0'"]),
            (("    late\n", "    late = 0\n"), ["N::Late: slot 3 is to be 'late = 0' and is 'late'"]),
            (
                ("N::Of<int>:", "N::Plain:"),
                ["N::Plain: has no table of virtual functions"],
            ),
        ]
        for (old, new), expected in cases:
            with self.subTest(old=old, new=new):
                self.assertEqual(faults_of(SOUND.replace(old, new)), expected)

    def test_refuses_a_table_that_it_cannot_read(self):
        for table in ("", "    f\n", "N::Base:\nf\n", "N::Base:\n    f\nN::Base:\n"):
            with self.subTest(table=table), self.assertRaises(check_vtables.TableError):
                check_vtables.read_table(table)


if __name__ == "__main__":
    unittest.main()
