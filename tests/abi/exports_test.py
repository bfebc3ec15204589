"""That the libraries export what is listed, and nothing that is not theirs."""

import os
import pathlib
import re
import unittest

import elf

ABI = pathlib.Path(os.environ["ABI"])
LIBRARIES = dict(pair.split("=", 1) for pair in os.environ["LIBRARIES"].split())

# Functions, and what the compiler makes of a class beside them.
OF_A_CLASS = r"((vtable|typeinfo|typeinfo name) for )?"
OURS = {
    "zancgi": rf"ZANCGI_1$|{OF_A_CLASS}zan_cgi::(Cgi::|myconv\()",
    "tov": rf"TOV_1$|{OF_A_CLASS}(str|tov_(client|env|err|file|log|proc|xml))::",
}


class ExportsTest(unittest.TestCase):
    maxDiff = None

    def test_exported_is_what_is_listed(self):
        for name, library in LIBRARIES.items():
            with self.subTest(library=name):
                listed = (ABI / f"{name}.symbols").read_text().splitlines()
                self.assertEqual(sorted(elf.symbols(library, "--defined-only")), listed)

    def test_nothing_is_exported_that_is_not_ours(self):
        for name, library in LIBRARIES.items():
            exported = elf.symbols(library, "--defined-only")
            foreign = {symbol for symbol in exported if not re.match(OURS[name], symbol)}
            self.assertEqual(foreign, set(), name)


if __name__ == "__main__":
    unittest.main()
