#!/usr/bin/env python3
"""Runs the demonstration of an agent with a daemon, and lets tshark judge what the agent sent.

usage: agents_test.py bfd|lldp DEMO

The demonstration itself fails where one of the two does not see the other as it should. Beside it,
tshark must find no fault in a frame of the agent, and in its fields what is expected.
"""

import os
import subprocess
import sys
import tempfile

FAULTS = ["_ws.malformed", "_ws.expert"]
SYSTEM = ["pavo-lldp", "veth-left", "192.0.2.1", "2001:db8::1", "0x0090", "0x0080"]
# By agent: the demonstration's arguments, the agent's frames, their fields, and each row of values
# that has to occur. On a busy machine the end of the BFD session may be noticed three seconds late.
AGENTS = {
    "bfd": (["3000"], "bfd && !icmp && ip.src == 192.0.2.1",
            ["ip.ttl", "ip.dsfield", "udp.dstport", "bfd.version", "bfd.message_length"],
            [["255", "0xc0", "3784", "1", "24"]]),
    "lldp": ([], "lldp.port.id == veth-left && eth.dst == 01:80:c2:00:00:0e",
             ["lldp.tlv.type", "lldp.time_to_live", "lldp.tlv.system.name", "lldp.port.id",
              "lldp.mgn.addr.ip4", "lldp.mgn.addr.ip6", "lldp.tlv.system_cap",
              "lldp.tlv.enable_system_cap"],
             [["1,2,3,4,5,6,7,8,8,0", "121", *SYSTEM],
              ["1,2,3,0", "0", "", "veth-left", "", "", "", ""]]),
}


def main():
    arguments, frames, fields, expected = AGENTS[sys.argv[1]]
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "exchange.pcap")
        subprocess.run([sys.argv[2], *arguments, path], check=True)
        command = ["tshark", "-r", path, "-Y", frames, "-T", "fields"]
        for field in fields + FAULTS:
            command += ["-e", field]
        output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    found = set(output.splitlines())
    wanted = {"\t".join(row + [""] * len(FAULTS)) for row in expected}
    if found != wanted:
        raise AssertionError(f"tshark finds {found}, not {wanted}")


if __name__ == "__main__":
    main()
