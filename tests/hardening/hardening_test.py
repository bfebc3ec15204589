"""That the libraries are hardened, read back from the built files; and where
their code does not show it, from how it was compiled."""

import json
import os
import pathlib
import re
import shlex
import unittest

import elf

BUILD = pathlib.Path(os.environ["BUILD"])
SOURCE = pathlib.Path(os.environ["SOURCE"])
SHARED = os.environ["SHARED"].split()
ARCHIVES = os.environ["ARCHIVES"].split()
IS_OPTIMISED = os.environ["BUILD_TYPE"] != "Debug"
HAS_BASE_LIBRARY = any("libtov" in library for library in SHARED)


def without_variant(name):
    """Of constructors and destructors there are several, mostly at one address,
    of which a disassembly names one."""
    return re.sub(r"([CD])[0-2]E", r"\1E", name)


def exported_functions(file):
    option = "--dynamic" if file in SHARED else "--extern-only"
    listed = elf.run("nm", "--defined-only", option, file)
    names = (name.split("@")[0] for name in re.findall(r"^[0-9a-f]+ T (\S+)$", listed, re.M))
    return {without_variant(name) for name in names}


def functions_by_mark(file):
    """Those where an indirect jump may land, and those where it may not."""
    code = elf.run("objdump", "--disassemble", "--no-show-raw-insn", file)
    marked, unmarked = set(), set()
    for name, word in re.findall(r"^[0-9a-f]+ <(\S+)>:\n +[0-9a-f]+:\t(\w+)", code, re.M):
        (marked if word == "endbr64" else unmarked).add(without_variant(name))
    return marked, unmarked


def compile_commands():
    """Those of the libraries' sources, but not of what tests make of them."""
    commands = json.loads((BUILD / "compile_commands.json").read_text())
    for command in commands:
        source = pathlib.Path(command["file"])
        for_library = "_objects.dir/" in command["command"]
        if for_library and source.is_relative_to(SOURCE / "src"):
            yield source, command


def macros(command):
    """What the compiler defines as it compiles a source."""
    words = shlex.split(command["command"])
    words = words[: words.index("-o")]
    output = elf.run(*words, "-dM", "-E", command["file"], cwd=command["directory"])
    return dict(re.findall(r"^#define (\w+) (.+)$", output, re.M))


class SharedLibraryTest(unittest.TestCase):
    def test_calls_cannot_be_redirected_and_no_segment_is_both_writable_and_executable(self):
        self.assertTrue(SHARED)
        self.assertEqual(len(SHARED), len(ARCHIVES))
        for library in SHARED:
            output = elf.read_elf(library, "--dynamic", "--program-headers", "--section-headers")
            self.assertRegex(output, r"\(FLAGS\).*\bBIND_NOW\b", library)
            self.assertRegex(output, r"\(FLAGS_1\).*\bNOW\b", library)
            self.assertIn("GNU_RELRO", output, library)
            # What is looked up later would lie after what is protected.
            self.assertNotIn(".got.plt", output, library)
            self.assertRegex(output, r"GNU_STACK .* RW +0x", library)
            segments = re.findall(r"^ +LOAD .*0x\w+ ([RWE ]{3}) 0x\w+$", output, re.M)
            self.assertTrue(segments, library)
            self.assertEqual([flags for flags in segments if "W" in flags and "E" in flags], [])
            self.assertNotIn("TEXTREL", output, library)
            calls = elf.run("nm", "--dynamic", "--undefined-only", library)
            self.assertIn("__stack_chk_fail", calls)

    @unittest.skipUnless(IS_OPTIMISED and HAS_BASE_LIBRARY, "nothing to be checked there")
    def test_buffers_are_checked_and_large_stack_frames_touched_page_by_page(self):
        (library,) = (name for name in SHARED if "libtov" in name)
        calls = elf.run("nm", "--dynamic", "--undefined-only", library)
        self.assertIn("__vsnprintf_chk", calls)
        code = elf.run("objdump", "--disassemble", "--no-show-raw-insn", library)
        touch = r"sub +\$0x1000,%rsp\n.*\t(orq|movq) +\$0x0,(0x0)?\(%rsp\)"
        self.assertRegex(code, touch)


class ArchiveTest(unittest.TestCase):
    def test_code_is_position_independent_and_the_stack_not_executable(self):
        for archive in ARCHIVES:
            sections = elf.read_elf(archive, "--relocs").split("Relocation section '.rela.")
            # What debuggers read is loaded nowhere.
            loaded = "".join(part for part in sections if not part.startswith("debug_"))
            self.assertIn("R_X86_64_PLT32", loaded)
            self.assertNotRegex(loaded, r"R_X86_64_(32S?|16|8)\b", archive)
            sections = elf.read_elf(archive, "--section-headers")
            files = len(elf.run("ar", "t", archive).split())
            marks = re.findall(r"\.note\.GNU-stack +PROGBITS +\w+ \w+ \w+ \w+ +([A-Z]*) ", sections)
            self.assertEqual(marks, [""] * files, archive)


class FunctionsTest(unittest.TestCase):
    def test_jumps_land_where_functions_begin(self):
        # The file's own mark is lost, since the start files and pugixml lack it.
        for file in SHARED + ARCHIVES:
            functions = exported_functions(file)
            self.assertTrue(functions, file)
            marked, unmarked = functions_by_mark(file)
            self.assertEqual((functions - marked, functions & unmarked), (set(), set()), file)


class CompilationTest(unittest.TestCase):
    def test_every_source_is_compiled_with_the_protections(self):
        commands = list(compile_commands())
        self.assertIn("zancgi_unix.cpp", {source.name for source, _ in commands})
        for source, command in commands:
            with self.subTest(source=source.name):
                defined = macros(command)
                self.assertEqual(defined.get("__CET__"), "3")
                self.assertIn("__SSP_STRONG__", defined)
                self.assertEqual(defined.get("__PIC__"), "2")
                self.assertIn(" -fstack-clash-protection ", command["command"])
                if "__clang__" not in defined:
                    self.assertIn(" -ftrivial-auto-var-init=zero ", command["command"])
                if IS_OPTIMISED:
                    self.assertIn(defined.get("_FORTIFY_SOURCE"), ("2", "3"))


if __name__ == "__main__":
    unittest.main()
