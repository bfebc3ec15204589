"""What the public headers say of their version and of the standard library."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["SOURCE"])
VERSION = os.environ["VERSION"]
HEADERS = os.environ["HEADERS"].split()
COMPILERS = [name for name in ("g++", "clang++") if shutil.which(name)]

VERSION_USER = """\
#include <cstdio>
#include <zancgi/zancgi.h>

#if ZANCGI_VERSION != {number}
#error "another number"
#endif
static_assert(ZANCGI_VERSION_MAJOR == {major}, "");
static_assert(ZANCGI_VERSION_MINOR == {minor}, "");
static_assert(ZANCGI_VERSION_PATCH == {patch}, "");
int main() {{ std::puts(ZANCGI_VERSION_STRING); }}
"""

BASE_VERSION_USER = """\
#include <tov/str.h>
static_assert(TOV_VERSION == {number}, "");
static_assert(TOV_VERSION_MAJOR == {major}, "");
static_assert(TOV_VERSION_MINOR == {minor}, "");
static_assert(TOV_VERSION_PATCH == {patch}, "");
"""


class HeadersTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="abi-")
        self.addCleanup(folder.cleanup)
        self.program = pathlib.Path(folder.name) / "program"
        self.unit = self.program.with_suffix(".cpp")

    def compile(self, compiler, text, *options):
        self.unit.write_text(text)
        return subprocess.run(
            [compiler, "-std=c++11", f"-I{SOURCE / 'src'}", *options, self.unit],
            capture_output=True,
            text=True,
        )

    def test_there_is_a_compiler(self):
        self.assertIn("g++", COMPILERS)

    def test_old_strings_are_refused_with_what_to_do(self):
        for compiler in COMPILERS:
            for header in HEADERS:
                library = header.split("/")[0]
                advice = f"lib{library} needs C++11's std::string: use -D_GLIBCXX_USE_CXX11_ABI=1"
                with self.subTest(compiler=compiler, header=header):
                    unit = f"#include <{header}>\n"
                    old, new = (
                        self.compile(
                            compiler, unit, "-fsyntax-only", f"-D_GLIBCXX_USE_CXX11_ABI={chosen}"
                        )
                        for chosen in (0, 1)
                    )
                    self.assertNotEqual(old.returncode, 0)
                    self.assertIn(advice, old.stderr)
                    self.assertEqual((new.returncode, new.stderr), (0, ""))

    def with_version(self, text):
        major, minor, patch = map(int, VERSION.split("."))
        number = (major * 1000 + minor) * 1000 + patch
        return text.format(number=number, major=major, minor=minor, patch=patch)

    @unittest.skipUnless("tov/str.h" in HEADERS, "the base library is the system's")
    def test_base_library_has_the_same_version(self):
        for compiler in COMPILERS:
            built = self.compile(compiler, self.with_version(BASE_VERSION_USER), "-fsyntax-only")
            self.assertEqual((built.returncode, built.stderr), (0, ""))

    def test_version_is_told_in_numbers_and_in_words(self):
        unit = self.with_version(VERSION_USER)
        for compiler in COMPILERS:
            with self.subTest(compiler=compiler):
                built = self.compile(compiler, unit, "-o", self.program)
                self.assertEqual((built.returncode, built.stderr), (0, ""))
                told = subprocess.run(self.program, capture_output=True, text=True, check=True)
                self.assertEqual(told.stdout, VERSION + "\n")


if __name__ == "__main__":
    unittest.main()
