"""The layer check finds each fault that it is there for, and no other."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tools"))
import check_layers  # noqa: E402

SOUND = {
    "tools/layers": "# from the bottom up\nvalue\npacket\npam kernel  # siblings\n",
    "Pavo/value/CMakeLists.txt": "pavo_units(Pavo)",
    "Pavo/value/README.md": "| unit | purpose |\n| `Name` | a name |\n| `Addr` | an address |\n",
    "Pavo/value/Name.h": '#include "Mox/Ptr.h"\n',
    "Pavo/value/Addr.h": '#include "Pavo/value/Name.h"\n',
    "Pavo/value/Addr.cpp": '#include "Pavo/value/Addr.h"\n',
    "Pavo/packet/CMakeLists.txt": """
        pavo_units(
            Pavo PRIVATE  # Not commentedOut(
            List
        )
    """,
    "Pavo/packet/README.md": "| `Pkt` | a packet |\n| `List` | a list |\n",
    "Pavo/packet/Pkt.h": '#include "Pavo/value/Addr.h"\n',
    "Pavo/packet/Pkt.cpp": '#include "Pavo/packet/List.h"\n',
    "Pavo/packet/List.h": "",
    "Pavo/pam/CMakeLists.txt": "pavo_units(Pavo)",
    "Pavo/pam/README.md": "| `Pam` | an endpoint |\n",
    "Pavo/pam/Pam.h": '#include "Pavo/packet/Pkt.h"\n',
    "Pavo/kernel/CMakeLists.txt": "pavo_units(Pavo)",
    "Pavo/kernel/README.md": "| `Netlink` | messages |\n",
    "Pavo/kernel/Netlink.h": '#include "Pavo/value/Name.h"\n',
    "platform/Mox/CMakeLists.txt": "pavo_units(Mox)",
    "platform/Mox/Ptr.h": '#include "Mox/Text.h"\n',
    "platform/Mox/Text.h": "",
}


def faults_of(changes):
    """The faults of the sound tree after changes, with the path of the tree cut out."""
    with tempfile.TemporaryDirectory() as folder:
        for name, text in {**SOUND, **changes}.items():
            path = pathlib.Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        faults = check_layers.faults(pathlib.Path(folder))
        return [fault.replace(f"{folder}/", "") for fault in faults]


class CheckLayersTest(unittest.TestCase):
    def test_finds_each_fault(self):
        cases = [
            ({}, []),
            (
                {"Pavo/value/Addr.cpp": "  #  include <Pavo/pam/Pam.h>\n"},
                ["Pavo/value/Addr.cpp: layer value may not include Pavo/pam/Pam.h"],
            ),
            (
                {"Pavo/pam/Pam.h": '#include "Pavo/kernel/Netlink.h"\n'},
                ["Pavo/pam/Pam.h: layer pam may not include Pavo/kernel/Netlink.h"],
            ),
            (
                {"Pavo/value/Addr.h": '#include "Name.h"\n'},
                ['Pavo/value/Addr.h: "Name.h" is to be included as "Pavo/value/Name.h"'],
            ),
            (
                {"Pavo/packet/Pkt.h": '#include "Pavo/Addr.h"\n'},
                ['Pavo/packet/Pkt.h: "Pavo/Addr.h" is to be included as "Pavo/value/Addr.h"'],
            ),
            (
                {"Pavo/value/Addr.h": '#include "Pavo/value/Gone.h"\n'},
                ["Pavo/value/Addr.h: includes Pavo/value/Gone.h, which is no unit"],
            ),
            (
                {"Pavo/packet/Pkt.h": '#include "Pavo/packet/List.h"\n'},
                ["Pavo/packet/Pkt.h: public, and includes the private Pavo/packet/List.h"],
            ),
            (
                {"Pavo/value/Name.h": '#include "Pavo/value/Addr.h"\n'},
                [
                    "Pavo: include cycle: Pavo/value/Name.h -> Pavo/value/Addr.h -> "
                    "Pavo/value/Name.h"
                ],
            ),
            (
                {"platform/Mox/Text.h": '#include "Mox/Ptr.h"\n'},
                ["platform/Mox: include cycle: Mox/Ptr.h -> Mox/Text.h -> Mox/Ptr.h"],
            ),
            (
                {"platform/Mox/Text.h": '#include "Pavo/Name.h"\n'},
                ["platform/Mox/Text.h: platform may not include Pavo/Name.h"],
            ),
            (
                {"Pavo/value/New.cpp": ""},
                ["Pavo/value/README.md: no row for New"],
            ),
            (
                {"Pavo/value/New.cxx": ""},
                ["Pavo/value/New.cxx: no unit"],
            ),
            ({"Pavo/odd/Thing.h": ""}, ["Pavo/odd: no layer of tools/layers"]),
            (
                {"Pavo/packet/CMakeLists.txt": "pavo_units(Pavo PRIVATE List Free)"},
                ["Pavo/packet/CMakeLists.txt: Free is private and has no header"],
            ),
            (
                {"Pavo/packet/README.md": "| `Packet` | a packet |\n| `List` | a list |\n"},
                [
                    "Pavo/packet/README.md:1: Packet is no unit",
                    "Pavo/packet/README.md: no row for Pkt",
                ],
            ),
        ]
        for changes, expected in cases:
            with self.subTest(changes=changes):
                self.assertEqual(faults_of(changes), expected)


if __name__ == "__main__":
    unittest.main()
