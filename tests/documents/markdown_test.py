"""No link of a document leads nowhere, and no program in one is left out."""

import os
import pathlib
import re
import sys
import unittest

from verdict import main

SOURCE = pathlib.Path(os.environ["SOURCE"])
PROGRAMS = pathlib.Path(os.environ["PROGRAMS"])

sys.path.insert(0, str(SOURCE / "docs"))
from markdown_for_doxygen import CODE, FENCED, HEADING, LINK, anchor  # noqa: E402


def documents():
    for folder, folders, files in os.walk(SOURCE):
        folders[:] = [
            name
            for name in folders
            # What is built is not written.
            if not name.startswith(".")
            and not pathlib.Path(folder, name, "CMakeCache.txt").exists()
        ]
        yield from (pathlib.Path(folder) / name for name in files if name.endswith(".md"))


def without_code(text):
    return FENCED.sub("", text)


def anchors(document):
    return {anchor(title) for _, title in HEADING.findall(without_code(document.read_text()))}


class MarkdownTest(unittest.TestCase):
    def test_links_lead_somewhere(self):
        count = 0
        for document in documents():
            for link in LINK.finditer(CODE.sub("", without_code(document.read_text()))):
                if re.match(r"[a-z]+:", link["target"]):
                    continue
                name, _, fragment = link["target"].partition("#")
                target = document.parent / name if name else document
                with self.subTest(document=document.relative_to(SOURCE), target=link["target"]):
                    self.assertTrue(target.exists())
                    if fragment:
                        self.assertIn(fragment, anchors(target))
                count += 1
        self.assertGreater(count, 30)

    def test_no_program_is_left_out(self):
        # However a block is marked as C++, and if it is not marked at all.
        marked = re.compile(r"^[ \t]*(?:```+|~~~+)[ \t]*\{?\.?(?:c\+\+|cpp|cc|cxx)\b", re.I | re.M)
        unmarked = re.compile(r"^[ \t]*(?:```|~~~)[ \t]*\n(?=[^`~]*^[ \t]*#include\b)", re.M)
        shown = 0
        for document in documents():
            with self.subTest(document=document.relative_to(SOURCE)):
                text = document.read_text()
                shown += len(marked.findall(text))
                self.assertIsNone(unmarked.search(text))
        self.assertEqual(len(list(PROGRAMS.iterdir())), shown)
        self.assertGreater(shown, 10)


if __name__ == "__main__":
    main()
