"""What the built libraries call, of each other and of the system."""

import os
import pathlib
import re
import unittest

import elf

BUNDLED = "LIBTOV" in os.environ
LIBRARIES = [os.environ[name] for name in ("LIBZANCGI", "LIBTOV") if name in os.environ]


def calls(library=os.environ["LIBZANCGI"]):
    return elf.symbols(library, "--undefined-only")


class SeamTest(unittest.TestCase):
    maxDiff = None

    @unittest.skipUnless(BUNDLED, "what another base library has inline is its own affair")
    def test_calls_of_the_base_library_are_the_listed_ones(self):
        ours = {name for name in calls() if re.search(r"\b(str::|tov_\w+::)", name)}
        listed = pathlib.Path(os.environ["SEAM"]).read_text().splitlines()
        self.assertEqual(sorted(ours), listed)

    def test_system_calls_can_be_interposed(self):
        names = {name.split("@")[0] for name in calls()}
        self.assertLessEqual({
                "chdir",
                "chroot",
                "initgroups",
                "poll",
                "read",
                "setgid",
                "setuid",
                "stat",
                "statfs64",
            }, names)

    def test_pam_is_asked_for_nothing_but_sessions(self):
        of_pam = {name for name in calls() if name.startswith("pam_")}
        self.assertEqual(of_pam, {
                "pam_close_session",
                "pam_end",
                "pam_open_session",
                "pam_start",
                "pam_strerror",
            })

    def test_no_checked_variant_stands_in_for_a_plain_call(self):
        of_memory = re.compile(r"__(mem\w+|str\w+|v?snprintf)_chk$")
        for library in LIBRARIES:
            names = {name.split("@")[0] for name in calls(library)}
            checked = {name for name in names if re.match(r"__\w+_(chk|2)\b", name)}
            self.assertEqual({name for name in checked if not of_memory.match(name)}, set())

    def test_libraries_load_fast(self):
        for library in LIBRARIES:
            with self.subTest(library=library):
                output = elf.read_elf(library, "--program-headers", "--dynamic")
                # Code with constants, and what is written at the start.
                self.assertEqual(len(re.findall(r"^ +LOAD ", output, re.MULTILINE)), 2)
                self.assertNotIn("libpam", output)
                self.assertNotIn("libpugixml", output)

    @unittest.skipUnless(BUNDLED, "the base library is the system's")
    def test_base_library_has_nothing_to_set_up_at_each_start(self):
        sections = elf.read_elf(os.environ["LIBTOV"], "--section-headers")
        (size,) = re.findall(r"\.init_array +INIT_ARRAY +\w+ \w+ (\w+)", sections)
        # What the compiler puts into each shared library, and no more.
        self.assertEqual(int(size, 16), 8)


if __name__ == "__main__":
    unittest.main()
