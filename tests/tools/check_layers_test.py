"""The layer check finds each fault that it is there for, and no other."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tools"))
import check_layers  # noqa: E402

SOUND = {
    "Pavo/CMakeLists.txt": """
        pavo_units(Pavo base Export)
        pavo_units(
            Pavo value
            Name  # Not commentedOut(
            Addr
        )
        pavo_units(Pavo packet Pkt)
        pavo_units(Pavo socket SockAt)
        pavo_units(Pavo pam Pam)
        pavo_units(Pavo kernel Netlink)
        pavo_units(Pavo tcp Client)
    """,
    "Pavo/README.md": """
## base
| `Export` | visibility |
## value
| unit | purpose |
| `Name` | a name |
| `Addr` | an address |
## packet
| `Pkt` | a packet |
## socket
| `SockAt` | sockets |
## pam
| `Pam` | an endpoint |
## kernel
| `Netlink` | messages |
## tcp
| `Client` | connects |
""",
    "Pavo/Export.h": "",
    "Pavo/Name.h": '#include "Pavo/Export.h"\n#include "Mox/Ptr.h"\n',
    "Pavo/Addr.h": '#include "Pavo/Name.h"\n',
    "Pavo/Addr.cpp": '#include "Pavo/Addr.h"\n',
    "Pavo/Pkt.h": '#include "Pavo/Addr.h"\n',
    "Pavo/SockAt.h": '#include "Pavo/Export.h"\n',
    "Pavo/Pam.h": '#include "Pavo/Pkt.h"\n#include "Pavo/SockAt.h"\n',
    "Pavo/Netlink.h": '#include "Pavo/SockAt.h"\n',
    "Pavo/Client.h": '#include "Pavo/Pam.h"\n#include "Pavo/Netlink.h"\n',
    "platform/Mox/CMakeLists.txt": "pavo_units(Mox platform Ptr Text)",
    "platform/Mox/Ptr.h": '#include "Mox/Text.h"\n',
    "platform/Mox/Text.h": "",
}


def faults_of(changes):
    """The faults of the sound tree after changes, with the path of the tree cut out."""
    with tempfile.TemporaryDirectory() as folder:
        for name, text in {**SOUND, **changes}.items():
            path = pathlib.Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            if text is not None:
                path.write_text(text, encoding="utf-8")
        faults = check_layers.faults(pathlib.Path(folder))
        return [fault.replace(f"{folder}/", "") for fault in faults]


class CheckLayersTest(unittest.TestCase):
    def test_finds_each_fault(self):
        cases = [
            ({}, []),
            (
                {"Pavo/Name.h": '#include "Pavo/Pkt.h"\n', "Pavo/Addr.h": ""},
                ["Pavo/Name.h: layer value may not include Pavo/Pkt.h of layer packet"],
            ),
            (
                {"Pavo/Addr.cpp": "  #  include <Pavo/Pam.h>\n"},
                ["Pavo/Addr.cpp: layer value may not include Pavo/Pam.h of layer pam"],
            ),
            (
                {"Pavo/SockAt.h": '#include "Pavo/Name.h"\n'},
                ["Pavo/SockAt.h: layer socket may not include Pavo/Name.h of layer value"],
            ),
            (
                {"Pavo/Netlink.h": '#include "Pavo/Pam.h"\n'},
                ["Pavo/Netlink.h: layer kernel may not include Pavo/Pam.h of layer pam"],
            ),
            (
                {"Pavo/Pam.h": '#include "Pavo/Netlink.h"\n'},
                ["Pavo/Pam.h: layer pam may not include Pavo/Netlink.h of layer kernel"],
            ),
            (
                {"Pavo/Addr.h": '#include "Name.h"\n'},
                ['Pavo/Addr.h: "Name.h" is to be included as "Pavo/Name.h"'],
            ),
            (
                {"Pavo/Addr.h": '#include "Pavo/Gone.h"\n'},
                ["Pavo/Addr.h: includes Pavo/Gone.h, which is no listed unit"],
            ),
            (
                {"Pavo/Name.h": '#include "Pavo/Addr.h"\n'},
                ["Pavo: include cycle: Pavo/Addr.h -> Pavo/Name.h -> Pavo/Addr.h"],
            ),
            (
                {"platform/Mox/Text.h": '#include "Mox/Ptr.h"\n'},
                ["platform/Mox: include cycle: Mox/Ptr.h -> Mox/Text.h -> Mox/Ptr.h"],
            ),
            (
                {"platform/Mox/Text.h": '#include "Pavo/Export.h"\n'},
                ["platform/Mox/Text.h: platform may not include Pavo/Export.h"],
            ),
            ({"Pavo/New.cpp": ""}, ["Pavo/New.cpp: in no list of Pavo/CMakeLists.txt"]),
            ({"Pavo/Addr.inc": ""}, ["Pavo/Addr.inc: in no list of Pavo/CMakeLists.txt"]),
            (
                {"platform/Mox/New.h": ""},
                ["platform/Mox/New.h: in no list of platform/Mox/CMakeLists.txt"],
            ),
            (
                {"Pavo/Client.h": None},
                ["Pavo/CMakeLists.txt: Client is listed and has no file"],
            ),
            (
                {"Pavo/README.md": SOUND["Pavo/README.md"].replace("`Pkt`", "`Packet`")},
                [
                    "Pavo/README.md:9: Packet is no listed unit",
                    "Pavo/README.md: no row for Pkt",
                ],
            ),
            (
                {"Pavo/README.md": SOUND["Pavo/README.md"] + "| `Addr` | twice |\n"},
                ["Pavo/README.md:18: Addr has a row already"],
            ),
            (
                {"Pavo/README.md": SOUND["Pavo/README.md"].replace("## kernel\n", "")},
                ["Pavo/README.md:14: Netlink is of layer kernel, not pam"],
            ),
            (
                {"Pavo/CMakeLists.txt": SOUND["Pavo/CMakeLists.txt"].replace("tcp", "top")},
                [
                    "Pavo/CMakeLists.txt: top is no layer",
                    "Pavo/README.md:17: Client is no listed unit",
                ],
            ),
        ]
        for changes, expected in cases:
            with self.subTest(changes=changes):
                self.assertEqual(faults_of(changes), expected)


if __name__ == "__main__":
    unittest.main()
