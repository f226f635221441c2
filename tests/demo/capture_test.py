#!/usr/bin/env python3
"""Runs the demonstration, and lets tshark judge the capture that it writes.

usage: capture_test.py DEMO

tshark is nobody's code here: with its checksum checks switched on it must find every frame of the
capture good, and of one frame that is broken on purpose it must say so.
"""

import os
import subprocess
import sys
import tempfile

REQUESTS = 3
# A record of a pcap file has a header of 16 bytes; the file's own has 24.
FILE_HEADER, RECORD_HEADER = 24, 16
ETHERNET, IPV4, ICMP = 14, 20, 8


def statuses(path, field):
    """How often tshark finds which status ("1" is good, "0" is bad) in a field."""
    output = subprocess.run(
        ["tshark", "-r", path, "-o", "ip.check_checksum:TRUE", "-T", "fields", "-e", field,
         "-Y", "icmp.type == 8 || icmp.type == 0"],
        check=True, capture_output=True, text=True).stdout.split()
    return {status: output.count(status) for status in set(output)}


def first_icmp_record(image):
    """The offset of the first frame that carries ICMP."""
    at = FILE_HEADER
    while at < len(image):
        length = int.from_bytes(image[at + 8:at + 12], "little")
        frame = at + RECORD_HEADER
        is_ipv4 = image[frame + 12:frame + 14] == b"\x08\x00"
        if is_ipv4 and image[frame + ETHERNET + 9] == 1:
            return frame
        at = frame + length
    raise AssertionError("no ICMP in the capture")


def expect(found, wanted, what):
    if found != wanted:
        raise AssertionError(f"{what}: tshark says {found}, not {wanted}")


def main():
    demo = sys.argv[1]
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "exchange.pcap")
        subprocess.run([demo, "--count", str(REQUESTS), "--interval", "0", "--capture", path],
                       check=True)
        frames = 3 * REQUESTS  # A request, the kernel's answer and the agent's.
        for field in ("ip.checksum.status", "icmp.checksum.status"):
            expect(statuses(path, field), {"1": frames}, field)

        with open(path, "rb") as file:
            image = bytearray(file.read())
        frame = first_icmp_record(image)
        image[frame + ETHERNET + 8] ^= 0x40  # The TTL, and the first byte of the payload.
        image[frame + ETHERNET + IPV4 + ICMP] ^= 0x01
        with open(path, "wb") as file:
            file.write(image)
        for field in ("ip.checksum.status", "icmp.checksum.status"):
            expect(statuses(path, field), {"1": frames - 1, "0": 1}, f"broken {field}")
    print(f"{frames} frames good, and the broken one found")


if __name__ == "__main__":
    main()
