"""That the libraries are what was written down of them: front ends which were
compiled against an earlier release go on working."""

import os
import pathlib
import re
import shutil
import sys
import unittest

import elf
import record

# Functions, and what the compiler makes of a class beside them.
OF_A_CLASS = r"((vtable|typeinfo|typeinfo name) for )?"
OURS = {
    "zancgi": rf"ZANCGI_1(\.1)?$|{OF_A_CLASS}zan_cgi::"
    r"((Cgi|Form|Response)::|(Form|Account)Error\b|(myconv|BecomeAccount|Header|Html|IsHttps"
    r"|IsSameSite|Method|PathInfo|QueryFields|ReadBody|StatusOf)[[(])",
    "tov": rf"TOV_1$|{OF_A_CLASS}(str|tov_(client|env|err|file|log|proc|xml))::",
}


class ExportsTest(unittest.TestCase):
    maxDiff = None

    def test_exported_is_what_is_recorded(self):
        for name, library in record.libraries().items():
            with self.subTest(library=name):
                self.assertEqual(sorted(record.exported(library)), sorted(record.symbols(name)))

    def test_nothing_is_exported_that_is_not_ours(self):
        for name, library in record.libraries().items():
            exported = elf.symbols(library, "--defined-only")
            foreign = {symbol for symbol in exported if not re.match(OURS[name], symbol)}
            self.assertEqual(foreign, set(), name)

    def test_packages_promise_what_is_recorded(self):
        for name in OURS:
            of_debian = pathlib.Path(os.environ["SOURCE"]) / "debian" / f"lib{name}1.symbols"
            self.assertTrue(of_debian.samefile(record.path(name)))


class RecordTest(unittest.TestCase):
    maxDiff = None

    def test_nothing_has_changed_for_front_ends_that_are_compiled_already(self):
        for name in record.libraries():
            with self.subTest(library=name):
                recorded = record.path(name).read_text().splitlines()
                self.assertEqual(record.made(name).splitlines(), recorded)


if __name__ == "__main__":
    missing = [name for name in ("abidw", "ninja") if not shutil.which(name)]
    if missing and "RecordTest" in sys.argv:
        print("skipped: not installed:", *missing)
        sys.exit(77)
    unittest.main()
