"""A program of a document prints what the document says.

usage: readme_output_test.py MARKDOWN NAME PROGRAM

What the document says is the first ```text block after the line "<!-- output: NAME -->".
"""

import pathlib
import subprocess
import sys
import unittest

markdown, name, program = sys.argv[1:]


class ReadmeOutputTest(unittest.TestCase):
    def test_prints_what_the_document_says(self):
        lines = pathlib.Path(markdown).read_text(encoding="utf-8").splitlines()
        begin = lines.index("```text", lines.index(f"<!-- output: {name} -->")) + 1
        printed = subprocess.run([program], capture_output=True, text=True, check=True).stdout
        self.assertEqual(printed.splitlines(), lines[begin : lines.index("```", begin)])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
