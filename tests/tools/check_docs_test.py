"""The check of the documentation finds links that lead nowhere, and no others."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tools"))
import check_docs  # noqa: E402

GOOD_TEXT = """# A
# A
~~~
[x](gone)
~~~
`[x](gone` [x](#a-1) ![`x`](sub/%C3%BC.png) [x](sub) <!-- [x](gone) --> 10<sup>2</sup>"""
BAD_LINKS = ['[x](gone "title")', "[x](<gone>)", "[x][gone]", "[x]: gone", "<a href=gone>",
             "[x](ignored)", "[x](/sub)", "[x](../a.md)", "[x](odd:gone)", "[x](#a-2)",
             "[x](sub#a)"]
GOOD_PAGE = '<p id=a><a href=a&amp;b.html#a><A HREF = "#a" title="href=gone">'
BAD_PAGE = "<p name=b><a href='gone'><a HREF=gone.html><img src = \"../o.html\"><a href='#b'>"


class CheckDocsTest(unittest.TestCase):
    def test_finds_links_that_lead_nowhere(self):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder).resolve()
            (root / "ignored").touch()
            for text, count in [(GOOD_TEXT, 0), *((link, 1) for link in BAD_LINKS)]:
                (root / "a.md").write_text(text)
                faults = list(check_docs.check_markdown(root, {"a.md", "sub/ü.png"}))
                self.assertEqual(len(faults), count, f"{text}: {faults}")
            (root / "o.html").touch()
            (root / "html").mkdir()
            for text, count in [(GOOD_PAGE, 0), (BAD_PAGE, 4)]:
                (root / "html" / "a&b.html").write_text(text)
                faults = list(check_docs.check_html(root / "html"))
                self.assertEqual(len(faults), count, f"{text}: {faults}")


if __name__ == "__main__":
    unittest.main()
