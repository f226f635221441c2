"""The text of IPv6 values means to Python's ipaddress what their bytes say.

usage: ipaddress_test.py PARITY_PROGRAM

The parity program prints a thousand values of every type, each with its text and its log bytes.
Where Python prints an address in another form, the rule is named here:
- a v4-mapped address ends in a dotted quad; Python before 3.13 prints two groups;
- a prefix is an address "/" length, and so is an address under a contiguous mask without its host
  bits; any other mask is written as an address, which Python has no form for.
"""

import ipaddress
import re
import subprocess
import sys
import unittest

LINE = re.compile(r"^Pavo::(\w+) text=(\S+) .*? log=([0-9a-f]+) ")
ALL_ONES = 2**128 - 1


def canonical(address):
    mapped = address.ipv4_mapped
    return str(address) if mapped is None else f"::ffff:{mapped}"


def expected_text(kind, log):
    """The text that a value with these log bytes has."""
    address = ipaddress.IPv6Address(log[:16])
    if kind == "Ip6Addr":
        return canonical(address)
    if kind in ("Ip6AddrWithMask", "Ip6Prefix"):
        return f"{canonical(address)}/{int.from_bytes(log[16:], 'big')}"
    mask = ipaddress.IPv6Address(log[16:])
    zeros = ALL_ONES ^ int(mask)
    if zeros & (zeros + 1):
        return f"{canonical(address)}/{canonical(mask)}"
    network = ipaddress.IPv6Address(int(address) & int(mask))
    return f"{canonical(network)}/{128 - zeros.bit_length()}"


class IpaddressTest(unittest.TestCase):
    parity_program = None

    @classmethod
    def setUpClass(cls):
        output = subprocess.run([cls.parity_program], check=True, capture_output=True, text=True)
        cls.values = {}
        for match in filter(None, map(LINE.match, output.stdout.splitlines())):
            cls.values.setdefault(match[1], []).append((match[2], bytes.fromhex(match[3])))

    def of(self, kind, least):
        """(text, log bytes) of each value of a type, of which there are `least` at least."""
        values = self.values.get(kind, [])
        self.assertGreaterEqual(len(values), least, kind)
        return values

    def test_text_is_the_text_of_the_bytes(self):
        for kind in ("Ip6Addr", "Ip6AddrWithMask", "Ip6Prefix", "Ip6AddrWithFullMask"):
            for text, log in self.of(kind, least=1000):
                self.assertEqual(text, expected_text(kind, log), kind)

    def test_python_reads_the_text_as_the_same_value(self):
        for text, log in self.of("Ip6Addr", least=1000):
            self.assertEqual(ipaddress.IPv6Address(text).packed, log)
        for text, log in self.of("Ip6AddrWithMask", least=1000):
            if int.from_bytes(log[16:], "big") <= 128:
                self.assertEqual(ipaddress.IPv6Interface(text).packed, log[:16])
        for text, log in self.of("Ip6Prefix", least=1000):  # Strict: host bits are an error.
            network = ipaddress.IPv6Network(text)
            self.assertEqual(network.network_address.packed, log[:16])
            self.assertEqual(network.prefixlen, int.from_bytes(log[16:], "big"))


if __name__ == "__main__":
    IpaddressTest.parity_program = sys.argv.pop()
    unittest.main()
