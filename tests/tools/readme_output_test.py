"""A program of a document prints what the document says.

usage: readme_output_test.py [--own-network] MARKDOWN NAME PROGRAM

What the document says is the first ```text block after the line "<!-- output: NAME -->". With
--own-network the program runs in a network namespace of its own that has only `lo`.
"""

import os
import pathlib
import subprocess
import sys
import unittest

markdown, name, program = sys.argv[-3:]
command = [program]
can_run = True
if "--own-network" in sys.argv:
    entry = ["unshare", "--net"] + (["--map-root-user"] if os.geteuid() != 0 else [])
    command = entry + ["sh", "-c", 'ip link set lo up && exec "$0"', program]
    can_run = ("PAVO_REQUIRE_SANDBOX" in os.environ
              or subprocess.run([*entry, "true"], check=False).returncode == 0)


@unittest.skipUnless(can_run, "this machine forbids network namespaces")
class ReadmeOutputTest(unittest.TestCase):
    def test_prints_what_the_document_says(self):
        lines = pathlib.Path(markdown).read_text(encoding="utf-8").splitlines()
        begin = lines.index("```text", lines.index(f"<!-- output: {name} -->")) + 1
        printed = subprocess.run(command, capture_output=True, text=True, check=True).stdout
        self.assertEqual(printed.splitlines(), lines[begin : lines.index("```", begin)])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
