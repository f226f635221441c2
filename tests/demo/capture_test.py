#!/usr/bin/env python3
"""Runs the demonstration, and lets tshark judge the capture that it writes.

usage: capture_test.py DEMO

With its checksum checks switched on, tshark, an independent program, must find every frame of the
capture good, and of a frame that is broken on purpose it must say so.
"""

import os
import subprocess
import sys
import tempfile

REQUESTS = 3
# A record of a pcap file has a header of 16 bytes; the file's own has 24.
FILE_HEADER, RECORD_HEADER, ETHERNET = 24, 16, 14
# By field: how many rounds of the exchange show it; tshark's name of the message type, its values
# and its offset in the packet; the EtherType; and the offset of a byte that the sum covers.
FIELDS = {
    "ip.checksum.status": (1, "icmp.type", (8, 0), 20, b"\x08\x00", 8),
    "icmp.checksum.status": (1, "icmp.type", (8, 0), 20, b"\x08\x00", 28),
    "icmpv6.checksum.status": (2, "icmpv6.type", (128, 129), 40, b"\x86\xdd", 48),
}


def statuses(path, field):
    """How often tshark finds which status ("1" is good, "0" is bad) in a field."""
    output = subprocess.run(
        ["tshark", "-r", path, "-o", "ip.check_checksum:TRUE", "-T", "fields", "-e", field,
         "-Y", "{0} == {1} || {0} == {2}".format(FIELDS[field][1], *FIELDS[field][2])],
        check=True, capture_output=True, text=True).stdout.split()
    return {status: output.count(status) for status in set(output)}


def first_packet(image, types, type_at, ether_type):
    """The offset of the first packet with a message of one of the types, after the frame's header.
    """
    at = FILE_HEADER
    while at < len(image):
        packet = at + RECORD_HEADER + ETHERNET
        if image[packet - 2:packet] == ether_type and image[packet + type_at] in types:
            return packet
        at += RECORD_HEADER + int.from_bytes(image[at + 8:at + 12], "little")
    raise AssertionError("no such message in the capture")


def expect(found, wanted, what):
    if found != wanted:
        raise AssertionError(f"{what}: tshark says {found}, not {wanted}")


def main():
    demo = sys.argv[1]
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "exchange.pcap")
        subprocess.run([demo, "--count", str(REQUESTS), "--interval", "0", "--capture", path],
                       check=True)
        with open(path, "rb") as file:
            image = bytearray(file.read())
        for field, (rounds, _, *message, covered) in FIELDS.items():
            frames = rounds * 3 * REQUESTS  # A request, the kernel's answer and the agent's.
            expect(statuses(path, field), {"1": frames}, field)
            image[first_packet(image, *message) + covered] ^= 0x40
            with open(path, "wb") as file:
                file.write(image)
            expect(statuses(path, field), {"1": frames - 1, "0": 1}, f"broken {field}")
            print(f"{field}: {frames} frames good, and the broken one found")


if __name__ == "__main__":
    main()
