"""What the built libraries call of each other, and what they export."""

import os
import pathlib
import re
import subprocess
import unittest


def symbols(library, selection):
    """Demangled names, without the compiler's notes on the string type and
    without versions."""
    output = subprocess.run(
        ["nm", "--dynamic", "--demangle", selection, library],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    names = set()
    for line in output.splitlines():
        name = re.sub(r"^[0-9a-f]*\s+\w ", "", line)
        name = re.sub(r"@@?[A-Z_0-9.]+$", "", name).replace("[abi:cxx11]", "")
        names.add(shorten(name))
    return names


def shorten(name):
    string = r"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
    return re.sub(string, "std::string", name)


def calls():
    return symbols(os.environ["LIBZANCGI"], "--undefined-only")


class SeamTest(unittest.TestCase):
    maxDiff = None

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

    def test_no_checked_variant_stands_in_for_a_plain_call(self):
        plain = ("poll", "read", "statfs64", "chdir", "chroot", "setuid", "setgid")
        checked = {f"__{name}_chk" for name in plain}
        self.assertEqual(checked & {name.split("@")[0] for name in calls()}, set())

    def test_product_exports_its_facade_only(self):
        exported = symbols(os.environ["LIBZANCGI"], "--defined-only")
        foreign = {
            name
            for name in exported
            if not re.match(r"((vtable|typeinfo|typeinfo name) for )?zan_cgi::Cgi::", name)
        }
        conversation = "zan_cgi::myconv(int, pam_message const**, pam_response**, void*)"
        self.assertEqual(foreign, {"ZANCGI_1", conversation})

    def test_base_library_exports_its_namespaces_only(self):
        exported = symbols(os.environ["LIBTOV"], "--defined-only")
        names = r"(str|tov_(env|err|log|xml|file|proc|client))::"
        foreign = {
            name
            for name in exported
            if not re.match(rf"((vtable|typeinfo|typeinfo name) for )?{names}", name)
        }
        self.assertEqual(foreign, {"TOV_1"})

    def test_libraries_load_fast_and_leave_no_address_to_overwrite(self):
        for library in (os.environ["LIBZANCGI"], os.environ["LIBTOV"]):
            with self.subTest(library=library):
                told = read_elf(library, "--program-headers", "--dynamic")
                # Code with constants, and what is written at the start.
                self.assertEqual(len(re.findall(r"^ +LOAD ", told, re.MULTILINE)), 2)
                self.assertIn("GNU_RELRO", told)
                self.assertRegex(told, r"FLAGS\b.*\bBIND_NOW\b")
                self.assertNotIn("libpam", told)
                self.assertNotIn("libpugixml", told)

    def test_base_library_has_nothing_to_set_up_at_each_start(self):
        sections = read_elf(os.environ["LIBTOV"], "--section-headers")
        (size,) = re.findall(r"\.init_array +INIT_ARRAY +\w+ \w+ (\w+)", sections)
        # What the compiler puts into each shared library, and no more.
        self.assertEqual(int(size, 16), 8)


def read_elf(library, *selection):
    return subprocess.run(
        ["readelf", "--wide", *selection, library], capture_output=True, text=True, check=True
    ).stdout


if __name__ == "__main__":
    unittest.main()
