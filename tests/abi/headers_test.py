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
#include <{header}>
#if {library}_VERSION != {number}
#error "another number"
#endif
static_assert({library}_VERSION_MAJOR == {major}, "");
static_assert({library}_VERSION_MINOR == {minor}, "");
static_assert({library}_VERSION_PATCH == {patch}, "");
int main() {{ std::puts({text}); }}
"""


class HeadersTest(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="abi-"))
        self.program = pathlib.Path(folder) / "program"
        self.unit = self.program.with_suffix(".cpp")

    def compile(self, compiler, text, *options):
        self.unit.write_text(text)
        return subprocess.run(
            [compiler, "-std=c++11", f"-I{SOURCE / 'src'}", *options, self.unit],
            capture_output=True,
            text=True,
        )

    def assert_compiles(self, *arguments):
        built = self.compile(*arguments)
        self.assertEqual((built.returncode, built.stderr), (0, ""))

    def test_there_is_a_compiler(self):
        self.assertIn("g++", COMPILERS)

    def test_old_strings_are_refused_with_what_to_do(self):
        for compiler in COMPILERS:
            new = "".join(f"#include <{header}>\n" for header in HEADERS)
            self.assert_compiles(compiler, new, "-fsyntax-only", "-D_GLIBCXX_USE_CXX11_ABI=1")
            for header in HEADERS:
                library = header.split("/")[0]
                advice = f"lib{library} needs C++11's std::string: use -D_GLIBCXX_USE_CXX11_ABI=1"
                with self.subTest(compiler=compiler, header=header):
                    old = self.compile(
                        compiler, f"#include <{header}>\n", "-fsyntax-only", "-Wfatal-errors",
                        "-D_GLIBCXX_USE_CXX11_ABI=0",
                    )  # fmt: skip
                    self.assertNotEqual(old.returncode, 0)
                    self.assertIn(advice, old.stderr)

    def test_version_is_given_in_numbers_and_as_a_text(self):
        major, minor, patch = map(int, VERSION.split("."))
        for compiler in COMPILERS:
            for library, header, text in (
                ("ZANCGI", "zancgi/zancgi.h", "ZANCGI_VERSION_STRING"),
                ("TOV", "tov/str.h", f'"{VERSION}"'),
            ):
                # Not of another base library's.
                if header not in HEADERS:
                    continue
                with self.subTest(compiler=compiler, header=header):
                    unit = VERSION_USER.format(
                        header=header, library=library, text=text, major=major, minor=minor,
                        patch=patch, number=(major * 1000 + minor) * 1000 + patch,
                    )
                    self.assert_compiles(compiler, unit, "-o", self.program)
                    output = subprocess.check_output([self.program], text=True)
                    self.assertEqual(output, VERSION + "\n")


if __name__ == "__main__":
    unittest.main()
